#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.DBUsage get: the figure cached by the last complete run and
// the local time it was taken; 0 and an empty time when there is none.
class DBUsageGetHandler : public RequestHandler {
 public:
  DBUsageGetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
