#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Delete status: one bar for every purge of the system,
// whoever started it: `current` reaches `total` (1) once no purge waits or
// runs.
class NodeDeleteStatusHandler : public RequestHandler {
 public:
  NodeDeleteStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
