#include "set.h"

#include <string>
#include <vector>

#include "db/log-manager.h"
#include "db/log-types.h"
#include "hlibc.h"
#include "logger.h"
#include "sdk.h"
#include "sync-service.h"
#include "traverse-dir.h"
#include "util/webapi-util.h"

namespace {

struct Settings {
  std::string db_volume;
  bool use_del_by_cnt = false;
  int del_cnt = 0;
  bool use_del_by_span = false;
  int del_span = 0;
  bool enable_vmtouch = false;
  bool enable_mlock = false;
  int vmtouch_reserve_mem = 30;
};

// An absent parameter reads as its default and is then stored like any
// other: every call carries all the settings.
Settings ReadSettings(const BridgeRequest& request) {
  Settings in;
  auto value = [&](const char* name, const Json::Value& fallback) -> const Json::Value& {
    return request.GetParamRef(name, fallback);
  };
  const Json::Value& volume = value("db_volume", Json::Value(""));
  in.db_volume = volume.isString() ? volume.asString() : "";
  in.use_del_by_cnt = value("use_del_by_cnt", Json::Value(false)).asBool();
  in.del_cnt = value("del_cnt", Json::Value(0)).asInt();
  in.use_del_by_span = value("use_del_by_span", Json::Value(false)).asBool();
  in.del_span = value("del_span", Json::Value(0)).asInt();
  in.enable_vmtouch = value("enable_vmtouch", Json::Value(false)).asBool();
  in.enable_mlock = value("enable_mlock", Json::Value(false)).asBool();
  const int reserve = value("vmtouch_reserve_mem", Json::Value(30)).asInt();
  in.vmtouch_reserve_mem = reserve < 11 ? 10 : reserve > 89 ? 90 : reserve;
  return in;
}

db::Log SettingLog(uint32_t type, bool enabled, unsigned long long amount) {
  db::Log log;
  log.setType(type);
  log.pushArg(enabled ? "1" : "0", false);
  log.pushArg(amount, false);
  return log;
}

// The bytes that move: the databases under @tidepool, without the version
// content, which stays on its volume, and the office documents beside them.
// False when a walk fails.
bool SizeOfRepository(const std::string& volume, unsigned long long& size) {
  FolderSizeCounter databases(volume + "/@tidepool");
  databases.AddException("/@sync/repo");
  databases.AddException("/@sync/delta");
  databases.AddException("/@sync/node_delta");
  if (TraverseDir(databases, 0) != 0) return false;
  size = databases.GetTotal();
  std::string office;
  if (KSTXTidepoolGetNSPath("office", office) != 0) {
    FolderSizeCounter documents(office);
    if (TraverseDir(documents, 0) != 0) return false;
    size += documents.GetTotal();
  }
  return true;
}

}  // namespace

std::string CanonicalVolumePath(const std::string& path) {
  std::string out;
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out += c;
  }
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

ConfigSetHandler::ConfigSetHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Config", "set", 0, 0);
}

int ConfigSetHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                             BridgeResponse& response) {
  const Settings in = ReadSettings(request);
  std::vector<db::Log> logs;

  SyncConfigMgr config;
  if (!config.IsLoaded()) {
    LOG_ERROR("Failed to get sync config\n");
    return RESPONSE_FAIL(response, 401, "failed to get conf volume");
  }

  bool stored_flag = false;
  int stored_amount = 0;
  if (db::LogManager::GetLogDelCount(stored_flag, stored_amount) < 0) {
    LOG_ERROR("Failed to get del log count\n");
    return RESPONSE_FAIL(response, 401, "failed to get delete log count");
  }
  if (stored_flag != in.use_del_by_cnt || stored_amount != in.del_cnt) {
    if (db::LogManager::SetLogDelCount(in.use_del_by_cnt, in.del_cnt) < 0) {
      LOG_ERROR("Failed to set del log count\n");
      return RESPONSE_FAIL(response, 401, "failed to set delete log count");
    }
    logs.push_back(SettingLog(db::kLogDelCountSet, in.use_del_by_cnt,
                              request.GetParamRef("del_cnt", Json::Value(0)).asUInt64()));
  }
  if (db::LogManager::GetLogDelSpan(stored_flag, stored_amount) < 0) {
    LOG_ERROR("Failed to get del log span\n");
    return RESPONSE_FAIL(response, 401, "failed to get delete log span");
  }
  if (stored_flag != in.use_del_by_span || stored_amount != in.del_span) {
    if (db::LogManager::SetLogDelSpan(in.use_del_by_span, in.del_span) < 0) {
      LOG_ERROR("Failed to set del log span\n");
      return RESPONSE_FAIL(response, 401, "failed to set delete log span");
    }
    logs.push_back(SettingLog(db::kLogDelSpanSet, in.use_del_by_span,
                              request.GetParamRef("del_span", Json::Value(0)).asUInt64()));
  }

  const std::string current = config.GetSysShareBin();
  // Another spelling of the current volume ("/volume1/") is no move: moving
  // the repository onto itself would only risk it.
  if (in.db_volume == current ||
      (!in.db_volume.empty() && CanonicalVolumePath(in.db_volume) == current)) {
    if (in.enable_vmtouch != config.enable_vmtouch || in.enable_mlock != config.enable_mlock ||
        in.vmtouch_reserve_mem != config.vmtouch_reserve_mem) {
      config.enable_vmtouch = in.enable_vmtouch;
      config.enable_mlock = in.enable_mlock;
      config.vmtouch_reserve_mem = in.vmtouch_reserve_mem;
      if (config.Save() < 0) {
        LOG_ERROR("Failed to set sync config\n");
        return RESPONSE_FAIL(response, 401, "");
      }
      if (!config.ReloadVMTouchDaemon()) LOG_ERROR("ReloadVMTouchDaemon failed\n");
    }
    InsertLogs(auth.user, auth.uid, logs);
    return 0;
  }

  const char* volume = in.db_volume.c_str();
  if (!ServiceSupportMovingRepository()) {
    LOG_ERROR("Changing db volume to '%s' is not allowed\n", volume);
    return RESPONSE_FAIL(response, 604, "change db volume is not allowed");
  }
  // An empty volume is no volume at all, not a path to look up.
  if (in.db_volume.empty()) {
    LOG_ERROR("Invalid volume type: %s\n", volume);
    return RESPONSE_FAIL(response, 604, "invalid volume type");
  }
  KSTXMountVolInfo info;
  if (KSTXMountVolInfoGet(in.db_volume, info) != 0 || info.volume_present == 0) {
    LOG_ERROR("Invalid volume path: %s\n", volume);
    return RESPONSE_FAIL(response, 601, "invalid volume path");
  }
  if (info.volume_type != 1) {
    LOG_ERROR("Invalid volume type: %s\n", volume);
    return RESPONSE_FAIL(response, 604, "invalid volume type");
  }
  if (info.volume_writable == 0) {
    LOG_ERROR("Volume is readonly: %s\n", volume);
    return RESPONSE_FAIL(response, 602, "volume is readonly");
  }
  unsigned long long size = 0;
  if (!SizeOfRepository(current, size)) {
    LOG_ERROR("traverse accumulate size fail\n");
    LOG_ERROR("%s has no enough space\n", volume);
    return RESPONSE_FAIL(response, 600, "space is not enough");
  }
  if (KSTXMountVolInfoGet(in.db_volume, info) != 0 || info.volume_present == 0) {
    LOG_ERROR("Cannot get vol info of %s\n", volume);
    LOG_ERROR("%s has no enough space\n", volume);
    return RESPONSE_FAIL(response, 600, "space is not enough");
  }
  if (info.volume_free_bytes <= size) {
    LOG_ERROR("%s has no enough space\n", volume);
    return RESPONSE_FAIL(response, 600, "space is not enough");
  }
  // The status changes before the mover runs, so that a second submit is
  // refused at once rather than racing the first mover to its lock.
  ServiceStatusSet("moving_db");
  if (HLIBCBackgroundExec(kMoverPath, current.c_str(), volume, nullptr) != 0) {
    ServiceStatusSet("enabled");
    LOG_ERROR("Failed to exec DFTWVolChange\n");
    return RESPONSE_FAIL(response, 401, "");
  }
  db::Log moved;
  moved.setType(db::kLogDbVolumeChange);
  moved.pushArg(current, false);
  moved.pushArg(in.db_volume, false);
  logs.push_back(std::move(moved));
  InsertLogs(auth.user, auth.uid, logs);
  return RESPONSE_FAIL(response, 503, "");
}
