#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool check_user: the answer comes from the pipeline alone. It tells
// whether the caller is a valid, enabled user of a running service.
class CheckUserHandler : public RequestHandler {
 public:
  CheckUserHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
