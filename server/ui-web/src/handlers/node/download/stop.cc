#include "stop.h"

#include "hvos-task.h"
#include "task-record.h"

NodeDownloadStopHandler::NodeDownloadStopHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Download", "stop", 0, 0);
}

int NodeDownloadStopHandler::Handle(const RequestAuthentication& auth, BridgeRequest& /*request*/,
                                    BridgeResponse& /*response*/) {
  if (!HVOS::TaskUtil::checkTaskExists(auth.user, kDownloadTaskName)) return 0;
  HVOS::Task task(auth.user, kDownloadTaskName);
  task.remove();
  return 0;
}
