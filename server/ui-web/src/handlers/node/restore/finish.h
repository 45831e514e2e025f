#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Restore finish: drops the task record. A child still
// at work goes on.
class NodeRestoreFinishHandler : public RequestHandler {
 public:
  NodeRestoreFinishHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
