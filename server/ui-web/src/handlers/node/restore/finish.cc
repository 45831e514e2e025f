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

int NodeRestoreFinishHandler::Handle(const RequestAuthentication& auth, BridgeRequest& /*request*/,
                                     BridgeResponse& /*response*/) {
  if (!HVOS::TaskUtil::checkTaskExists(kRestoreTaskOwner, kRestoreTaskName)) return 0;
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  // Someone else's record stays; the answer is the same as for none.
  if (!MayUseRestoreRecord(auth, task)) return 0;
  task.remove();
  return 0;
}
