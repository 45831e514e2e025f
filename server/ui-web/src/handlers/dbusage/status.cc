#include "status.h"

#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"

namespace {

Json::Value Running() {
  Json::Value answer(Json::objectValue);
  answer["usage"] = Json::UInt64(0);
  answer["finish"] = false;
  return answer;
}

void RemoveRecord() { HVOS::Task(kDBUsageTaskOwner, kDBUsageTaskName).remove(); }

}  // namespace

DBUsageStatusHandler::DBUsageStatusHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.DBUsage", "status", 0, 0);
}

int DBUsageStatusHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                                 BridgeResponse& response) {
  // Asking must not make a record: with none, nothing runs.
  Json::Value properties;
  bool finished = false;
  if (!HVOS::TaskUtil::peekTask(kDBUsageTaskOwner, kDBUsageTaskName, properties, &finished)) {
    response.SetJsonResponse(Running());
    return 0;
  }
  if (properties.isMember("error")) {
    const Json::Value& error = properties["error"];
    const Json::Value& code = error.isObject() ? error["code"] : Json::Value::nullSingleton();
    RemoveRecord();
    response.SetError(code.isInt() ? code.asInt() : 401, "db usage caculation failed", __LINE__);
    return -1;
  }
  // The running sum is not shown: a figure is only ever a whole one.
  if (!finished) {
    response.SetJsonResponse(Running());
    return 0;
  }
  response.SetJsonResponse(properties["data"]);
  RemoveRecord();
  return 0;
}
