#include "requests.h"

#include <json/value.h>
#include <strings.h>
#include <unistd.h>

#include <list>
#include <map>
#include <set>
#include <string_view>
#include <vector>

#include "driftway-protocol.h"
#include "host-accounts.h"
#include "logger.h"
#include "service-ops.h"
#include "sync-service.h"
#include "user-manager.h"

namespace driftway {
namespace {

using RequestHandler = Json::Value (*)(const Json::Value& request);

std::function<void()>& ViewsChangedHook() {
  static std::function<void()> hook;
  return hook;
}

std::function<void(uint64_t, const std::string&, bool)>& UserChangedHook() {
  static std::function<void(uint64_t, const std::string&, bool)> hook;
  return hook;
}

std::function<void()>& ProfilesChangedHook() {
  static std::function<void()> hook;
  return hook;
}

std::function<Json::Value()>& StatusHook() {
  static std::function<Json::Value()> hook;
  return hook;
}

// After an operation that may change which views are enabled.
void NotifyViewChange(const OpResult& result) {
  if (result.ok() && ViewsChangedHook()) ViewsChangedHook()();
}

// After a user was enabled or disabled: only that user's view changes, which
// a batch of thousands of users must not turn into thousands of full reloads.
void NotifyUserChange(const OpResult& result, const UserInfo& user, bool enabled) {
  if (!result.ok()) return;
  if (!UserChangedHook() || user.view_id == 0) return NotifyViewChange(result);
  UserChangedHook()(user.view_id, user.root_path, enabled);
}

Json::Value Success() {
  Json::Value answer(Json::objectValue);
  answer["success"] = true;
  return answer;
}

Json::Value FromResult(const OpResult& result) {
  return result.ok() ? Success() : ErrorAnswer(result.code, result.message);
}

// Reads an optional field of the expected type; false when it has another.
bool ReadText(const Json::Value& request, const char* key, std::string& out) {
  const Json::Value& value = request[key];
  if (value.isNull()) return true;
  if (!value.isString()) return false;
  out = value.asString();
  return true;
}

bool ReadInt(const Json::Value& request, const char* key, int& out) {
  const Json::Value& value = request[key];
  if (value.isNull()) return true;
  if (!value.isInt()) return false;
  out = value.asInt();
  return true;
}

bool ReadUInt(const Json::Value& request, const char* key, uint32_t& out) {
  const Json::Value& value = request[key];
  if (value.isNull()) return true;
  if (!value.isUInt()) return false;
  out = value.asUInt();
  return true;
}

Json::Value BadField(const char* key) {
  return ErrorAnswer(kErrBadRequest, std::string("missing or invalid \"") + key + "\"");
}

Json::Value HandleStatus(const Json::Value&) {
  std::string status;
  if (ServiceStatusGet(status, false) < 0)
    return ErrorAnswer(kErrFailed, "cannot read the service status");
  Json::Value answer = Success();
  answer["status"] = status;
  answer["pid"] = static_cast<Json::Int>(getpid());
  if (StatusHook()) answer["watch"] = StatusHook()();
  return answer;
}

// Who `user` is, or with a different `sudo_user`, who that user is: only an
// administrator may ask as someone else.
Json::Value HandleQueryUser(const Json::Value& request) {
  std::string user, sudo_user;
  if (!ReadText(request, "user", user) || user.empty()) return BadField("user");
  if (!ReadText(request, "sudo_user", sudo_user)) return BadField("sudo_user");
  auto host = hostaccounts::HostAccounts::Open();
  if (!host) return ErrorAnswer(kErrFailed, "cannot open the account directory");
  hostaccounts::User acting;
  if (host->GetUser(user, acting) < 0) return ErrorAnswer(kErrNotFound, "no such user: " + user);
  hostaccounts::User target = acting;
  if (!sudo_user.empty() && strcasecmp(sudo_user.c_str(), acting.name.c_str()) != 0) {
    if (!host->IsAdmin(acting.name)) {
      LOG_WARNING("'%s' may not act as '%s'\n", acting.name.c_str(), sudo_user.c_str());
      return ErrorAnswer(kErrPermission, "permission denied");
    }
    if (host->GetUser(sudo_user, target) < 0)
      return ErrorAnswer(kErrNotFound, "no such user: " + sudo_user);
  }
  Json::Value answer = Success();
  answer["name"] = target.name;
  answer["uid"] = target.uid;
  answer["is_admin"] = host->IsAdmin(target.name);
  return answer;
}

Json::Value HandleEnableUser(const Json::Value& request) {
  std::string name;
  uint32_t uid = 0;
  if (!ReadText(request, "name", name) || name.empty()) return BadField("name");
  if (!ReadUInt(request, "uid", uid)) return BadField("uid");
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0)
    return ErrorAnswer(kErrFailed, "cannot read the service configuration");
  const OpResult result = EnableUser(config, name, uid);
  UserInfo user;
  if (result.ok()) (void)UserManager::GetUser(name, user, UserManager::kQueryStored);
  NotifyUserChange(result, user, true);
  return FromResult(result);
}

Json::Value HandleDisableUser(const Json::Value& request) {
  std::string name;
  if (!ReadText(request, "name", name) || name.empty()) return BadField("name");
  // The view is looked up first: a disabled user is no longer found by name.
  UserInfo user;
  (void)UserManager::GetUser(name, user, UserManager::kQueryStored);
  const OpResult result = DisableUser(name);
  NotifyUserChange(result, user, false);
  return FromResult(result);
}

Json::Value HandleEnableShare(const Json::Value& request) {
  std::string name;
  Rotation rotation;
  if (!ReadText(request, "name", name) || name.empty()) return BadField("name");
  if (!ReadInt(request, "rotate_cnt", rotation.count)) return BadField("rotate_cnt");
  if (!ReadText(request, "rotate_policy", rotation.policy)) return BadField("rotate_policy");
  if (!ReadInt(request, "rotate_days", rotation.days)) return BadField("rotate_days");
  const OpResult result = EnableShare(name, rotation);
  NotifyViewChange(result);
  return FromResult(result);
}

Json::Value HandleDisableShare(const Json::Value& request) {
  std::string name;
  if (!ReadText(request, "name", name) || name.empty()) return BadField("name");
  const OpResult result = DisableShare(name);
  NotifyViewChange(result);
  return FromResult(result);
}

// Profiles are read by every pass from the user database; the daemon only
// checks that they can be read and has every home versioned again.
Json::Value HandleReloadProfile(const Json::Value&) {
  std::vector<ProfileInfo> profiles;
  if (UserManager::GetAllProfiles(profiles) < 0)
    return ErrorAnswer(kErrFailed, "cannot read the profiles");
  // An encrypted share's profile (its key) is read by every pass too: the
  // daemon looks at its views again.
  NotifyViewChange(OpResult{});
  if (ProfilesChangedHook()) ProfilesChangedHook()();
  Json::Value answer = Success();
  answer["profiles"] = static_cast<Json::UInt64>(profiles.size());
  return answer;
}

// Folders made through the web API inside synced folders, marked for the
// daemon's next pass over their owners' trees.
std::set<std::string>& PendingFolders() {
  static std::set<std::string> pending;
  return pending;
}

bool IsUnder(const std::string& path, const std::string& root) {
  return !root.empty() && path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
         path[root.size()] == '/';
}

// "A folder was created at `path`": accepted when the path lies in an
// enabled home or share, so that nothing else can grow the pending set.
Json::Value HandleFolderCreated(const Json::Value& request) {
  std::string path;
  if (!ReadText(request, "path", path) || path.empty() || path[0] != '/' ||
      path.find("/..") != std::string::npos) {
    return BadField("path");
  }
  std::list<UserInfo> owners;
  if (UserManager::EnumAllUser(owners) < 0)
    return ErrorAnswer(kErrFailed, "cannot read the user database");
  for (const UserInfo& owner : owners) {
    if (!owner.isEnabled() || !IsUnder(path, owner.root_path)) continue;
    PendingFolders().insert(path);
    LOG_INFO("folder created in %s: %s\n", owner.name.c_str(), path.c_str());
    Json::Value answer = Success();
    answer["pending"] = static_cast<Json::UInt64>(PendingFolders().size());
    return answer;
  }
  return ErrorAnswer(kErrNotFound, "not in a synced folder: " + path);
}

const std::map<std::string_view, RequestHandler>& Handlers() {
  static const std::map<std::string_view, RequestHandler> table = {
      {"status", HandleStatus},
      {"query_user", HandleQueryUser},
      {"enable_user", HandleEnableUser},
      {"disable_user", HandleDisableUser},
      {"enable_share", HandleEnableShare},
      {"disable_share", HandleDisableShare},
      {"folder_created", HandleFolderCreated},
      {"reload_profile", HandleReloadProfile},
  };
  return table;
}

}  // namespace

void SetViewsChangedHook(std::function<void()> hook) { ViewsChangedHook() = std::move(hook); }
void SetStatusHook(std::function<Json::Value()> hook) { StatusHook() = std::move(hook); }
void SetUserChangedHook(
    std::function<void(uint64_t view_id, const std::string& root, bool enabled)> hook) {
  UserChangedHook() = std::move(hook);
}
void SetProfilesChangedHook(std::function<void()> hook) { ProfilesChangedHook() = std::move(hook); }

std::string DispatchLine(const std::string& line, bool& close_after) {
  Json::Value request;
  if (!DecodeLine(line, request) || !request["op"].isString()) {
    close_after = true;
    return EncodeLine(ErrorAnswer(kErrBadRequest, "bad request"));
  }
  const std::string op = request["op"].asString();
  const auto it = Handlers().find(op);
  if (it == Handlers().end()) return EncodeLine(ErrorAnswer(kErrUnknownOp, "unknown op: " + op));
  LOG_DEBUG("request %s\n", op.c_str());
  return EncodeLine(it->second(request));
}

}  // namespace driftway
