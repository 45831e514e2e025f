#include "status.h"

#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"

NodeRestoreStatusHandler::NodeRestoreStatusHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Restore", "status", 0, 0);
}

int NodeRestoreStatusHandler::Handle(const RequestAuthentication& auth, BridgeRequest& /*request*/,
                                     BridgeResponse& response) {
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  if (!MayUseRestoreRecord(auth, task)) {
    LOG_ERROR("Wait for correct file format timeout\n");
    return RESPONSE_FAIL(response, 401, "malformed task information");
  }
  (void)task.waitForDataReady("data", 1000);
  if (task.hasProperty("error")) {
    const Json::Value error = task.getProperty("error");
    const Json::Value code = error.isObject() ? error["code"] : Json::Value();
    // A child that failed with no code leaves nothing to report: 0 is no
    // error, and the caller gets an empty answer.
    response.SetError(code.isInt() ? code.asInt() : 0, "restore task failed", __LINE__);
    return -1;
  }
  if (!task.hasProperty("data")) {
    LOG_ERROR("Wait for correct file format timeout\n");
    return RESPONSE_FAIL(response, 401, "malformed task information");
  }
  const Json::Value data = task.getProperty("data");
  Json::Value answer(Json::objectValue);
  answer["current"] = data.isObject() ? data["current"] : Json::Value();
  answer["total"] = data.isObject() ? data["total"] : Json::Value();
  // Nodes the caller may not have were left out; say how many.
  if (data.isObject() && data["skipped"].isUInt64()) answer["skipped"] = data["skipped"];
  response.SetJsonResponse(answer);
  return 0;
}
