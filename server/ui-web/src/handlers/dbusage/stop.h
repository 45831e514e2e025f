#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.DBUsage stop: asks the running measurement to end. The
// answer does not wait for it; status then reports the run as failed, and
// the cached figure of the last complete run stays.
class DBUsageStopHandler : public RequestHandler {
 public:
  DBUsageStopHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
