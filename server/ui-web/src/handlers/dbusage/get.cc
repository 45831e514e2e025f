#include "get.h"

#include "db/manager.h"
#include "logger.h"

DBUsageGetHandler::DBUsageGetHandler() {
  SetRequiredDatabase(kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.DBUsage", "get", 0, 0);
}

int DBUsageGetHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                              BridgeResponse& response) {
  unsigned long long usage = 0;
  std::string time;
  if (db::Manager::GetDBUsage(usage, time) < 0) {
    LOG_ERROR("Failed to get cached db usage\n");
    return RESPONSE_FAIL(response, 401, "failed to get cached db usage");
  }
  Json::Value answer(Json::objectValue);
  answer["usage"] = Json::UInt64(usage);
  answer["last_update_usage_time"] = time;
  response.SetJsonResponse(answer);
  return 0;
}
