#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.DBUsage status: whether the run has ended, and then its
// figure or its failure, after which the record goes.
class DBUsageStatusHandler : public RequestHandler {
 public:
  DBUsageStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
