#include "status.h"

#include "batch-state.h"

PrivilegeStatusHandler::PrivilegeStatusHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Privilege", "status", 0, 0);
}

int PrivilegeStatusHandler::Handle(const RequestAuthentication& /*auth*/,
                                   BridgeRequest& /*request*/, BridgeResponse& response) {
  privilege::BatchState state;
  if (privilege::ReadBatchState(state) <= 0) state = {"none", 0, 0};
  Json::Value data(Json::objectValue);
  data["batch_mode"] = state.mode;
  data["progress"] = state.done;
  data["total"] = state.total;
  response.SetJsonResponse(data);
  return 0;
}
