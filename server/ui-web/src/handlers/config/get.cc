#include "get.h"

#include <vector>

#include "db/log-manager.h"
#include "logger.h"
#include "sdk.h"
#include "sync-service.h"

ConfigGetHandler::ConfigGetHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Config", "get", 0, 0);
}

int ConfigGetHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                             BridgeResponse& response) {
  SyncConfigMgr config;
  Json::Value data(Json::objectValue);
  std::vector<SDK::Volume> volumes;
  // What a log manager leaves untouched reads as these defaults.
  bool use_del_by_cnt = false;
  int del_cnt = 1000000;
  bool use_del_by_span = false;
  int del_span = 2592000;

  if (db::LogManager::GetLogDelCount(use_del_by_cnt, del_cnt) < 0) {
    LOG_ERROR("Failed to get log delete count\n");
    return RESPONSE_FAIL(response, 401, "failed to get log delete count");
  }
  if (db::LogManager::GetLogDelSpan(use_del_by_span, del_span) < 0) {
    LOG_ERROR("Failed to get log delete span\n");
    return RESPONSE_FAIL(response, 401, "failed to get log delete span");
  }
  if (SDK::VolumeService().List(volumes) < 0) {
    LOG_ERROR("Fail to get volume info\n");
    return RESPONSE_FAIL(response, 401, "failed to get volume info");
  }

  Json::Value list(Json::arrayValue);
  for (const SDK::Volume& volume : volumes) {
    Json::Value item(Json::objectValue);
    item["display"] = volume.display;
    item["desc"] = volume.desc;
    item["mount_point"] = volume.mount_point;
    item["size_free"] = std::to_string(volume.size_free);
    item["size_total"] = std::to_string(volume.size_total);
    item["value"] = volume.mount_point;
    item["id"] = std::to_string(volume.id);
    list.append(std::move(item));
  }
  data["volume_list"] = std::move(list);

  if (SyncGetConf(config) < 0) {
    LOG_ERROR("Fail to get volume info\n");
    return RESPONSE_FAIL(response, 401, "failed to get volume info");
  }
  data["volume_select"] = config.GetSysShareBin();
  data["use_del_by_cnt"] = use_del_by_cnt;
  data["del_cnt"] = del_cnt;
  data["use_del_by_span"] = use_del_by_span;
  data["del_span"] = del_span;
  data["support_moving_repository"] = ServiceSupportMovingRepository();
  data["enable_vmtouch"] = config.enable_vmtouch;
  data["enable_mlock"] = config.enable_mlock;
  data["vmtouch_reserve_mem"] = config.vmtouch_reserve_mem;
  response.SetJsonResponse(data);
  return 0;
}
