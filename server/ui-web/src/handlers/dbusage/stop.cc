#include "stop.h"

#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"

DBUsageStopHandler::DBUsageStopHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.DBUsage", "stop", 0, 0);
}

int DBUsageStopHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                               BridgeResponse& response) {
  // Without a run there is nothing to stop, and no record is made.
  Json::Value properties;
  if (!HVOS::TaskUtil::peekTask(kDBUsageTaskOwner, kDBUsageTaskName, properties) ||
      !properties.isMember("data")) {
    return 0;
  }
  HVOS::Task task(kDBUsageTaskOwner, kDBUsageTaskName);
  task.beginUpdate();
  task.setProperty("cancel", Json::Value());
  if (task.endUpdate() == 0) {
    LOG_ERROR("Failed to update property for task id %s\n", kDBUsageTaskName);
    return RESPONSE_FAIL(response, 401, "failed to update property");
  }
  return 0;
}
