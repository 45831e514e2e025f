#include "check-user.h"

CheckUserHandler::CheckUserHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool", "check_user", 0, 0);
}

int CheckUserHandler::Handle(const RequestAuthentication&, BridgeRequest&, BridgeResponse&) {
  return 0;
}
