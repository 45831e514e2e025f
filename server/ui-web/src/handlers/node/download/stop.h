#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Download stop: drops the caller's download record. Its
// child sees the record go, stops and removes its folder.
class NodeDownloadStopHandler : public RequestHandler {
 public:
  NodeDownloadStopHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
