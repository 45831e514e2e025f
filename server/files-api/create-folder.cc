// Creating a folder for a user: the checks in their order.
//
//  1. parameters (CheckCreate): a path under "/volumes/" without "." or ".."
//     parts, and type "folder";
//  2. a caller: a request without a user is refused;
//  3. the path lies in a share; the caller may write in that share (homes:
//     every user, each home's own rights decide) and may search and add
//     folders in the parent, by its mode and ACL;
//  4. an existing folder is success; anything else there is an error;
//  5. mkdir with root's rights, then owner and group become the caller's;
//  6. the sync service hears of the new folder. When it is not running the
//     call still succeeds: its next scan versions the folder anyway.
#include "create-folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "driftway-client.h"
#include "driftway-protocol.h"
#include "fs.h"
#include "host-accounts.h"
#include "kstx/webapi.h"
#include "logger.h"
#include "root-scope.h"
#include "sdk-path.h"

namespace filesapi {
namespace {

constexpr const char* kVolumesPrefix = "/volumes/";
constexpr const char* kDebugSettingsPath = "/var/packages/Tidepool/target/etc/syncfolder.debug";
// Adding an entry to a folder needs "add folder" and search on it.
constexpr int kAddFolderRights = 0x0004 | 0x0020;
constexpr int kNotifyTimeoutSeconds = 5;

void Fail(KSTX::APIResponse* response, int code, const char* message) {
  Json::Value errors(Json::objectValue);
  errors["message"] = message;
  response->SetError(code, errors);
}

void FailParameter(KSTX::APIResponse* response, const char* name, const char* reason,
                   const char* message) {
  Json::Value errors(Json::objectValue);
  errors["name"] = name;
  errors["reason"] = reason;
  errors["message"] = message;
  response->SetError(kErrParameter, errors);
}

// "/volumes/volume1//team/a/" -> "/volume1/team/a"; empty when the text is
// not such a path.
std::string TargetOf(const std::string& param) {
  const size_t prefix = std::strlen(kVolumesPrefix);
  if (param.compare(0, prefix, kVolumesPrefix) != 0) return "";
  if (param.find('\0') != std::string::npos) return "";
  std::string target;
  size_t pos = prefix - 1;
  while (pos < param.size()) {
    size_t next = param.find('/', pos + 1);
    if (next == std::string::npos) next = param.size();
    const std::string part = param.substr(pos + 1, next - pos - 1);
    pos = next;
    if (part.empty()) continue;
    if (part == "." || part == "..") return "";
    target += "/" + part;
  }
  return target;
}

std::string ParentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// 1 allowed, 0 refused, -1 the parent cannot be examined (missing, for one).
int MayCreateIn(const std::string& user, const std::string& share, const std::string& parent) {
  if (share != "homes") {
    const int level = SDK::GetSharePrivilege(share, user);
    if (level != SDK::kShareFull && level != SDK::kShareReadWrite) {
      LOG_ERROR("'%s' may not write in share '%s'\n", user.c_str(), share.c_str());
      return 0;
    }
  }
  SDK::GroupCache cache;
  // No search right on a folder above gives 0 here, not -1, so a refused
  // caller cannot learn whether the parent exists.
  const int rights = SDK::GetPathAclPrivilege(user, parent, cache);
  if (rights < 0) return -1;
  if ((rights & kAddFolderRights) != kAddFolderRights) {
    LOG_ERROR("'%s' may not create folders in '%s'\n", user.c_str(), parent.c_str());
    return 0;
  }
  return 1;
}

// 0 made, 1 there already, -1 failed (errno set).
int MakeFolder(const std::string& path, uint32_t uid, uint32_t gid) {
  hostaccounts::RootScope root;
  if (mkdir(path.c_str(), 0777) != 0) {
    FSInfo info;
    // Another caller may have made it since we looked.
    if (errno == EEXIST && FSStat(path, info, true) == 0 && info.type == kFSTypeDir) return 1;
    return -1;
  }
  if (FSChown(path, uid, gid) < 0) {
    const int saved = errno;
    rmdir(path.c_str());  // a root-owned folder in the user's tree helps nobody
    errno = saved;
    return -1;
  }
  return 0;
}

void NotifySyncService(const std::string& path) {
  Driftway client;
  client.SetTimeout(kNotifyTimeoutSeconds);
  Json::Value request(Json::objectValue), answer;
  request["op"] = "folder_created";
  request["path"] = path;
  if (client.Call(request, answer) == 0) return;
  if (client.GetLastError() == driftway::kErrTransport) {
    LOG_INFO("sync service not reachable (%s); its next scan finds '%s'\n",
             client.GetLastErrorMessage().c_str(), path.c_str());
  } else {
    LOG_WARNING("sync service refused the notice for '%s': %s\n", path.c_str(),
                client.GetLastErrorMessage().c_str());
  }
}

}  // namespace

bool CheckCreate(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  const auto path = request->GetAndCheckString("path", KSTX::PARAM_REQUIRED);
  if (path.IsInvalid()) {
    FailParameter(response, "path", path.IsSet() ? "type" : "required", "path must be a text");
    return false;
  }
  const std::string target = TargetOf(path.Get());
  if (target.empty()) {
    FailParameter(response, "path", "invalid",
                  "path must be \"/volumes\" followed by an absolute path without . or ..");
    return false;
  }
  const auto type = request->GetAndCheckString("type", KSTX::PARAM_REQUIRED);
  if (type.IsInvalid()) {
    FailParameter(response, "type", type.IsSet() ? "type" : "required", "type must be a text");
    return false;
  }
  if (type.Get() != "folder") {
    FailParameter(response, "type", "invalid", "only type \"folder\" can be created");
    return false;
  }
  return true;
}

void CreateFolder(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  Logger::Initialize(0, "", kDebugSettingsPath, 0, 0);
  const std::string user = request->GetLoginUserName();
  const std::string param = request->GetParamRef("path", Json::Value("")).asString();
  const std::string target = TargetOf(param);
  if (target.empty()) return Fail(response, kErrParameter, "invalid path");
  hostaccounts::User account;
  if (user.empty() || hostaccounts::LookUpUser(user, account) < 0) {
    return Fail(response, kErrNoPrivilege, "no privilege");
  }

  const std::string share = SDK::PathGetShareName(target);
  const std::string parent = ParentOf(target);
  if (share.empty() || SDK::PathGetShareName(parent).empty()) {
    LOG_ERROR("'%s' is not inside a shared folder\n", target.c_str());
    return Fail(response, kErrFailed, "path is not inside a shared folder");
  }
  const int allowed = MayCreateIn(account.name, share, parent);
  if (allowed == 0) return Fail(response, kErrNoPrivilege, "no privilege");
  FSInfo parent_info;
  {
    hostaccounts::RootScope root;
    if (allowed < 0 || FSStat(parent, parent_info, false) < 0 || !parent_info.exists ||
        parent_info.type != kFSTypeDir) {
      return Fail(response, kErrFailed, "parent folder does not exist");
    }
  }
  const int made = MakeFolder(target, account.uid, account.gid);
  if (made < 0) {
    const int err = errno;
    LOG_ERROR("mkdir(%s): %s (%d)\n", target.c_str(), strerror(err), err);
    return Fail(
        response, kErrFailed,
        err == EEXIST ? "something other than a folder is at the path" : "failed to create folder");
  }
  if (made == 0) NotifySyncService(target);
  Json::Value data(Json::objectValue);
  data["path"] = param;
  response->SetSuccess(data);
}

}  // namespace filesapi
