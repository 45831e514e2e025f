#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Restore status: the progress of the one restore task,
// or the code it failed with.
class NodeRestoreStatusHandler : public RequestHandler {
 public:
  NodeRestoreStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
