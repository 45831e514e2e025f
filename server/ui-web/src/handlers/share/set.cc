// Share set: every element is checked before anything is applied; then the
// enables and disables go to the sync service, and the rotations are written
// to the rotation table and into each view concerned. A failed rotation
// element does not stop the others, and nothing is rolled back.
#include "set.h"

#include <list>

#include "db/log-types.h"
#include "driftway-client.h"
#include "logger.h"
#include "platform-services.h"
#include "sync-service.h"
#include "user-manager.h"
#include "util/webapi-util.h"

namespace {

constexpr const char* kHomes = "homes";
constexpr const char* kSurveillance = "surveillance";
constexpr unsigned kMaxRotateCount = 32;
constexpr unsigned kMaxRotateDays = 120;
constexpr int kOpEnableShare = 1;
constexpr int kOpDisableShare = 4;

struct Rotation {
  std::string name;
  std::string policy;
  int count = 0;
  int days = 0;
};

// A number of the element; anything else reads as `fallback`.
long long NumberOf(const Json::Value& element, const char* key, long long fallback = 0) {
  const Json::Value& value = element[key];
  if (value.isInt64()) return value.asInt64();
  if (value.isUInt64()) return static_cast<long long>(value.asUInt64() & 0x7fffffffffffffffULL);
  return fallback;
}

int IntOf(const Json::Value& element, const char* key) {
  return static_cast<int>(NumberOf(element, key));
}

std::string TextOf(const Json::Value& element, const char* key) {
  const Json::Value& value = element[key];
  return value.isString() ? value.asString() : std::string();
}

bool BoolOf(const Json::Value& element, const char* key) {
  const Json::Value& value = element[key];
  return value.isBool() ? value.asBool() : (value.isNumeric() && value.asDouble() != 0);
}

Rotation RotationOf(const Json::Value& element) {
  return Rotation{TextOf(element, "share_name"), TextOf(element, "rotate_policy"),
                  IntOf(element, "rotate_cnt"), IntOf(element, "rotate_days")};
}

db::Log ShareEnableLog(bool enabled, const std::string& name) {
  db::Log log;
  log.setType(db::kLogShareEnable);
  log.pushArg(enabled ? "1" : "0", false);
  log.pushArg(name, true);
  return log;
}

db::Log RotateLog(int count, const std::string& name) {
  db::Log log;
  log.setType(db::kLogRotateCountSet);
  log.pushArg(static_cast<unsigned long long>(count < 0 ? 0 : count), false);
  log.pushArg(name, true);
  return log;
}

// The view's three settings, in one commit; false after logging.
bool WriteViewRotation(uint64_t view_id, const Rotation& r) {
  const unsigned long long id = view_id;
  db::ViewDBInterface view;
  if (GetViewDB(view_id, view) < 0) {
    LOG_ERROR("Failed to open view db with view_id %llu\n", id);
    return false;
  }
  if (view->SetRotation(r.count, r.days, r.policy) < 0) {
    LOG_ERROR("Failed to set rotate_cnt for view %llu\n", id);
    return false;
  }
  return true;
}

}  // namespace

ShareSetHandler::ShareSetHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Share", "set", 0, 0);
}

bool ShareSetHandler::CheckConfigValid(const Json::Value& element, BridgeResponse& response) {
  if (TextOf(element, "share_name").empty()) {
    response.SetError(114, "share name empty", __LINE__);
    return false;
  }
  if (!BoolOf(element, "share_enable")) return true;
  const std::string policy = TextOf(element, "rotate_policy");
  if (policy != "fifo" && policy != "smart") {
    response.SetError(114, "rotate policy error", __LINE__);
    return false;
  }
  // Taken as unsigned, a negative number is out of range too.
  if (static_cast<unsigned>(IntOf(element, "rotate_cnt")) > kMaxRotateCount) {
    response.SetError(114, "rotate count error", __LINE__);
    return false;
  }
  if (static_cast<unsigned>(NumberOf(element, "rotate_days")) > kMaxRotateDays) {
    response.SetError(114, "rotate days error", __LINE__);
    return false;
  }
  return true;
}

int ShareSetHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                            BridgeResponse& response) {
  const Json::Value& shares = request.GetParamRef("share", Json::Value(Json::arrayValue));
  std::vector<Json::Value> enables, rotations;
  if (shares.isArray()) {
    for (const Json::Value& element : shares) {
      if (!CheckConfigValid(element, response)) return -1;
      (element.isMember("share_enable") ? enables : rotations).push_back(element);
    }
  }
  if (!enables.empty() && ApplyShareEnable(enables, auth.user, auth.uid) < 0)
    return RESPONSE_FAIL(response, 401, "failed to enable / disable share");

  std::vector<db::Log> logs;
  bool failed = false;
  for (const Json::Value& element : rotations) {
    const std::string name = TextOf(element, "share_name");
    if (name == kSurveillance) continue;  // never takes rotation settings
    const bool ok =
        name == kHomes ? SetHomesRotation(element, logs) : SetShareRotation(element, logs);
    failed = failed || !ok;
  }
  InsertLogs(auth.user, auth.uid, std::move(logs));
  if (failed) return RESPONSE_FAIL(response, 401, "failed to update share setting");
  return 0;
}

int ShareSetHandler::ApplyShareEnable(const std::vector<Json::Value>& elements,
                                      const std::string& user, unsigned int uid) {
  const Platform::ShareService shares(true);
  const bool sharing = ServiceSupportSharing();
  std::vector<db::Log> logs;
  bool reload = false;
  for (const Json::Value& element : elements) {
    const bool enable = BoolOf(element, "share_enable");
    const Rotation r = RotationOf(element);
    if (r.name == kHomes) continue;
    Platform::Share share;
    if (shares.GetShare(r.name, share) < 0) {
      LOG_ERROR("Fail to open share '%s\"'\n", r.name.c_str());
      continue;
    }
    UserInfo info;
    if (!sharing || !share.IsSyncable() || UserManager::GetShareUser(r.name, info) < 0) continue;
    if (enable && info.name.empty()) {
      const std::string display = share.GetDisplayName();
      if (SendUserControl(kOpEnableShare, display, 0, r.count, r.policy, r.days) < 0) {
        LOG_ERROR("Failed to add shared folder '%s'\n", display.c_str());
        continue;
      }
      logs.push_back(ShareEnableLog(true, display));
      reload = reload || share.IsEncryption();
    } else if (!enable && !info.name.empty()) {
      if (SendUserControl(kOpDisableShare, info.name, 0, 32, "fifo", 0) < 0) {
        LOG_ERROR("Failed to disable shared folder '%s'\n", info.name.c_str());
        continue;
      }
      logs.push_back(ShareEnableLog(false, info.name));
      reload = reload || info.isEncryptionShare();
    }
    // Enabling an enabled share leaves its rotation as it is.
  }
  if (reload && ServiceReloadProfile() < 0) {
    LOG_ERROR("Fail to send reload_profile request\n");
    return -1;
  }
  InsertLogs(user, uid, std::move(logs));
  return 0;
}

bool ShareSetHandler::SetHomesRotation(const Json::Value& element, std::vector<db::Log>& logs) {
  const Rotation r = RotationOf(element);
  if (UserManager::InsertRotateSettingTable(0, r.count, r.policy, r.days) < 0) {
    LOG_ERROR("InsertRotateSettingTable for homes failed\n");
    LOG_ERROR("Failed to set rotate policy for home\n");
    return false;
  }
  std::list<UserInfo> owners;
  if (UserManager::EnumAllUser(owners) < 0) {
    LOG_ERROR("Cannot get enabled view\n");
    LOG_ERROR("Failed to set rotate policy for home\n");
    return false;
  }
  for (const UserInfo& owner : owners) {
    if (owner.isShareUser()) continue;
    if (!WriteViewRotation(owner.view_id, r)) {
      LOG_ERROR("Failed to set rotate policy for home\n");
      return false;
    }
  }
  logs.push_back(RotateLog(r.count, kHomes));
  return true;
}

bool ShareSetHandler::SetShareRotation(const Json::Value& element, std::vector<db::Log>& logs) {
  const Rotation r = RotationOf(element);
  UserInfo info;
  // A share never enabled has no share user, and its view id 0 would name
  // the row of all homes.
  if (UserManager::GetShareUser(r.name, info) < 0 || info.name.empty() || info.view_id == 0) {
    LOG_ERROR("Failed to get share user info (%s)\n", r.name.c_str());
    LOG_ERROR("Failed to set rotate policy for share %s\n", r.name.c_str());
    return false;
  }
  if (UserManager::InsertRotateSettingTable(info.view_id, r.count, r.policy, r.days) < 0) {
    LOG_ERROR("InsertRotateSettingTable failed for share %s\n", r.name.c_str());
    LOG_ERROR("Failed to set rotate policy for share %s\n", r.name.c_str());
    return false;
  }
  if (!WriteViewRotation(info.view_id, r)) {
    LOG_ERROR("Failed to set rotate policy for share %s\n", r.name.c_str());
    return false;
  }
  logs.push_back(RotateLog(r.count, info.name));
  return true;
}
