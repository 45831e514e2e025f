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
  Json::Value properties;
  bool finished = false;
  if (!HVOS::TaskUtil::peekTask(auth.user, kDownloadTaskName, properties, &finished)) return 0;
  HVOS::Task task(auth.user, kDownloadTaskName);
  task.remove();
  // A running child sees its record go and cleans up itself; a finished
  // one has left nobody to remove the folder.
  const Json::Value& folder = properties["data"]["temp_folder"];
  if (finished && folder.isString()) RemoveDownloadFolder(folder.asString());
  return 0;
}
