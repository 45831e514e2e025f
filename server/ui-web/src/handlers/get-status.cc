#include "get-status.h"

#include <list>

#include "bridge/run-as.h"
#include "logger.h"
#include "relay.h"
#include "string-bundle.h"
#include "sync-service.h"

namespace {

constexpr const char* kRelayConfPath = "/usr/kstx/etc/kstxrelayd/kstxrelayd.conf";
constexpr const char* kRelayService = "driftway";
// A fixed placeholder: the module does not report a DDNS name.
constexpr const char* kDdnsPlaceholder = "tidepool.example(dummy)";

}  // namespace

GetStatusHandler::GetStatusHandler() {
  SetRequiredDatabase(0);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(0);
  SetStatusOption(0);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool", "get_status", 0, 0);
}

int GetStatusHandler::Handle(const RequestAuthentication& auth, BridgeRequest&,
                             BridgeResponse& response) {
  std::string status;
  if (ServiceStatusGet(status, true) < 0) {
    return RESPONSE_FAIL(response, 401, "failed to get status");
  }
  if (status == "moving_db") {
    LOG_ERROR("Repo of Driftway is moving and you shall not do any action!\n");
    return RESPONSE_FAIL(response, 503, "repository is moving");
  }
  Json::Value data(Json::objectValue);
  data["enable_status"] = status;
  IF_RUN_AS(0, 0) { LoadRelayInfo(data); }
  else {
    LOG_ERROR("Fail to run as root\n");
    return RESPONSE_FAIL(response, 401, "failed to run as root");
  }
  if (status == "enabled") {
    if (!VerifyUser(auth, response)) return -1;
    const bool freeze = IsFreeze();
    data["dftw_freeze"] = freeze;
    if (freeze) {
      IF_RUN_AS(0, 0) {
        std::list<int> volumes;
        SyncDBInit();
        SyncFullVolGet(volumes);
        Json::Value ids(Json::arrayValue);
        for (int id : volumes) ids.append(id);
        data["freeze_volume_id"] = ids;
        SyncDBDestroy();
      }
      else {
        LOG_ERROR("Fail to run as root\n");
        return RESPONSE_FAIL(response, 401, "failed to run as root");
      }
    }
  }
  response.SetJsonResponse(data);
  return 0;
}

bool GetStatusHandler::VerifyUser(const RequestAuthentication& auth, BridgeResponse& response) {
  SetRequiredDatabase(kUserDatabase);
  if (InitializeDatabase() < 0) {
    response.SetError(401, "failed to init user db", __LINE__);
    return false;
  }
  if (auth.is_admin || IsUserEnabled(auth)) return true;
  // 403 rather than the pipeline's 105: this method reports the refusal as
  // a missing privilege.
  response.SetError(403, "permission denied (disabled)", __LINE__);
  LOG_ERROR("User is not enabled\n");
  return false;
}

void GetStatusHandler::LoadRelayInfo(Json::Value& data) {
  std::string id, status, detail, alias, alias_status, alias_detail, alias_err;
  const KSTX::Relay::RelaydConf conf(kRelayConfPath);
  if (conf.GetEnableConf()) {
    if (!KSTX::Relay::Daemon::GetStatus(id, status, detail, kRelayService)) {
      LOG_ERROR("load relayinfo failed\n");
    } else if (status == "connected") {
      if (conf.IsAliasEnabled()) alias = conf.GetAliasName();
      if (KSTX::Relay::AliasStatus::GetStatus(alias, alias_status, alias_detail)) {
        alias_err = TranslateAliasError(alias_status, alias_detail);
      }
    }
  }
  data["dfrv_enable"] = true;
  data["dfrv_id"] = id;
  data["dfrv_ddns"] = kDdnsPlaceholder;
  data["dfrv_status"] = status.empty() ? std::string("--") : status + " " + detail;
  data["dfrv_alias_name"] = alias;
  data["dfrv_alias_err"] = alias_err;
}

std::string GetStatusHandler::TranslateAliasError(const std::string& status,
                                                  const std::string& /*detail*/) {
  if (status != "error_not_found" && status != "error_inused") return "";
  const StringBundle bundle("relayservice", 0, 0, 0, 0, 0);
  const char* text = bundle.Text("relayservice_err_alias_not_found", 0);
  return text ? text : "";
}
