// Creating a folder for a user: the checks in their order.
//
//  1. parameters (CheckCreate): a path under "/volumes/" without "." or ".."
//     parts, and type "folder";
//  2. a caller: a timed-out session, no user, an unknown or a disabled
//     account are refused;
//  3. the path lies in a share; the caller may write in that share (homes:
//     every user, each home's own rights decide) and may search and add
//     folders in the parent, by its mode and ACL;
//  4. the parent is opened beneath the share's folder with openat2, no link
//     allowed anywhere: the checks above went by name, and a part of the
//     path may have been swapped for a link since;
//  5. mkdirat in that parent with the caller's effective ids; an existing
//     folder is success, anything else there (a link too) an error;
//  6. the sync service hears of the new folder. When it is not running the
//     call still succeeds: its next scan versions the folder anyway.
#include "create-folder.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
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

std::function<void()>& BeforeCreateHook() {
  static std::function<void()> hook;
  return hook;
}

// The share's folder ("/volume1/team", "/volume1/homes") and the parts of
// the parent beneath it ("a/b", or "." for the share's folder itself).
struct Where {
  std::string root;
  std::string parent;
  std::string name;
};

Where Split(const std::string& target) {
  std::vector<std::string> parts;
  for (size_t pos = 1; pos <= target.size();) {
    size_t next = target.find('/', pos);
    if (next == std::string::npos) next = target.size();
    parts.push_back(target.substr(pos, next - pos));
    pos = next + 1;
  }
  Where where;
  if (parts.size() < 3) return where;
  where.root = "/" + parts[0] + "/" + parts[1];
  std::string parent(".");
  for (size_t i = 2; i + 1 < parts.size(); ++i) parent.append("/").append(parts[i]);
  where.parent = std::move(parent);
  where.name = parts.back();
  return where;
}

// openat2 beneath `dir` without following any link; glibc has no wrapper.
int OpenBeneath(int dir, const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how));
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// The caller's effective ids and groups for one scope, taken from root's:
// what is made then is the caller's, and the kernel checks the caller's
// rights on the parent once more. The process's own ids come back at the
// end; a process that could not get them back must not go on.
class CallerIds {
 public:
  CallerIds(uid_t uid, gid_t gid, const std::vector<gid_t>& groups)
      : euid_(geteuid()), egid_(getegid()) {
    const int count = getgroups(0, nullptr);
    if (count < 0) return;
    groups_.resize(static_cast<size_t>(count));
    if (getgroups(count, groups_.data()) != count) return;
    if (setresuid(-1, 0, -1) != 0) return;
    raised_ = true;
    ok_ = setgroups(groups.size(), groups.data()) == 0 && setresgid(-1, gid, -1) == 0 &&
          setresuid(-1, uid, -1) == 0;
  }
  ~CallerIds() {
    if (!raised_) return;
    if (setresuid(-1, 0, -1) != 0 || setgroups(groups_.size(), groups_.data()) != 0 ||
        setresgid(-1, egid_, -1) != 0 || setresuid(-1, euid_, -1) != 0) {
      abort();
    }
  }
  CallerIds(const CallerIds&) = delete;
  CallerIds& operator=(const CallerIds&) = delete;
  bool ok() const { return ok_; }

 private:
  uid_t euid_;
  gid_t egid_;
  std::vector<gid_t> groups_;
  bool raised_ = false;
  bool ok_ = false;
};

std::vector<gid_t> GroupsOf(const hostaccounts::User& account) {
  std::vector<gid_t> gids{account.gid};
  hostaccounts::RootScope root;
  auto accounts = hostaccounts::HostAccounts::Open();
  std::vector<hostaccounts::Group> groups;
  if (accounts != nullptr && accounts->ListGroupsOfUser(account.name, groups) >= 0) {
    for (const auto& group : groups) gids.push_back(group.gid);
  }
  return gids;
}

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

// 0 made, 1 there already, -1 failed (errno set; ELOOP for a link in the
// way, EEXIST for something that is not a folder).
int MakeFolder(const std::string& target, const hostaccounts::User& account) {
  const Where where = Split(target);
  if (where.name.empty()) {
    errno = EINVAL;
    return -1;
  }
  const std::vector<gid_t> groups = GroupsOf(account);
  hostaccounts::RootScope root;
  Fd top(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.get() < 0) return -1;
  // The share's folder is an administrator's; still, no link is taken on
  // the way to it either.
  Fd share(OpenBeneath(top.get(), where.root.substr(1)));
  if (share.get() < 0) return -1;
  Fd parent(OpenBeneath(share.get(), where.parent));
  if (parent.get() < 0) return -1;
  int made;
  {
    CallerIds caller(account.uid, account.gid, groups);
    if (!caller.ok()) {
      errno = EPERM;
      return -1;
    }
    made = mkdirat(parent.get(), where.name.c_str(), 0777);
  }
  if (made == 0) return 0;
  if (errno != EEXIST) return -1;
  // Another caller may have made it since we looked; a link there is not a
  // folder of the caller's.
  struct stat st {};
  if (fstatat(parent.get(), where.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISDIR(st.st_mode)) return 1;
  errno = S_ISLNK(st.st_mode) ? ELOOP : EEXIST;
  return -1;
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
  if (request->IsTimeout()) return Fail(response, kErrTimeout, "session timeout");
  hostaccounts::User account;
  if (user.empty() || hostaccounts::LookUpUser(user, account) < 0) {
    LOG_ERROR("no account '%s' to create '%s' for\n", user.c_str(), target.c_str());
    return Fail(response, kErrPermission, "permission denied");
  }
  if (account.disabled) {
    LOG_ERROR("account '%s' is disabled\n", user.c_str());
    return Fail(response, kErrPermission, "permission denied (disabled)");
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
  if (BeforeCreateHook()) BeforeCreateHook()();
  const int made = MakeFolder(target, account);
  if (made < 0) {
    const int err = errno;
    LOG_ERROR("mkdir(%s): %s (%d)\n", target.c_str(), strerror(err), err);
    const char* message = "failed to create folder";
    if (err == EEXIST) message = "something other than a folder is at the path";
    if (err == ELOOP || err == EXDEV) message = "a link in the path";
    if (err == EACCES) return Fail(response, kErrNoPrivilege, "no privilege");
    return Fail(response, kErrFailed, message);
  }
  if (made == 0) NotifySyncService(target);
  Json::Value data(Json::objectValue);
  data["path"] = param;
  response->SetSuccess(data);
}

void TEST_SetBeforeCreateHook(std::function<void()> hook) { BeforeCreateHook() = std::move(hook); }

}  // namespace filesapi
