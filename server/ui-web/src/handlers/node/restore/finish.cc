#include "finish.h"

#include "hvos-task.h"
#include "task-record.h"

NodeRestoreFinishHandler::NodeRestoreFinishHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Restore", "finish", 0, 0);
}

int NodeRestoreFinishHandler::Handle(const RequestAuthentication& /*auth*/,
                                     BridgeRequest& /*request*/, BridgeResponse& /*response*/) {
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  task.remove();
  return 0;
}
