#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Privilege status: how far the running batch has come, or
// "none" when no batch runs.
class PrivilegeStatusHandler : public RequestHandler {
 public:
  PrivilegeStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
