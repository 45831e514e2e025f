#include "status.h"

#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"

NodeDownloadStatusHandler::NodeDownloadStatusHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Download", "status", 0, 0);
}

int NodeDownloadStatusHandler::Handle(const RequestAuthentication& auth, BridgeRequest& /*request*/,
                                      BridgeResponse& response) {
  // Asking must not make a record: with none there is nothing to tell.
  Json::Value properties;
  if (!HVOS::TaskUtil::peekTask(auth.user, kDownloadTaskName, properties)) {
    LOG_ERROR("Wait for correct file format timeout\n");
    return RESPONSE_FAIL(response, 401, "malformed task information");
  }
  if (properties.isMember("error")) {
    const Json::Value& error = properties["error"];
    const Json::Value code = error.isObject() ? error["code"] : Json::Value();
    // A child that failed with no code leaves nothing to report: 0 is no
    // error, and the caller gets an empty answer.
    response.SetError(code.isInt() ? code.asInt() : 0, "download task failed", __LINE__);
    return -1;
  }
  const Json::Value& data = properties["data"];
  if (!data.isObject()) {
    LOG_ERROR("Wait for correct file format timeout\n");
    return RESPONSE_FAIL(response, 401, "malformed task information");
  }
  Json::Value answer(Json::objectValue);
  answer["current"] = data["current"];
  answer["total"] = data["total"];
  // Nodes the caller may not have were left out; say how many.
  if (data["skipped"].isUInt64()) answer["skipped"] = data["skipped"];
  response.SetJsonResponse(answer);
  return 0;
}
