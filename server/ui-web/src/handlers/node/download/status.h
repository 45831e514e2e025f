#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Download status: the caller's download's progress, or
// the error its child left.
class NodeDownloadStatusHandler : public RequestHandler {
 public:
  NodeDownloadStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
