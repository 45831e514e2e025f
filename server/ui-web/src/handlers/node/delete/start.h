#pragma once

#include <string>

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Delete start: queues purges for the sync service's
// worker: every removed node of every view (administrators only, no
// `target`), every removed node of one view, or the nodes `fileinfo` names.
// Nothing is purged here; the answer only says the jobs are queued.
class NodeDeleteStartHandler : public RequestHandler {
 public:
  NodeDeleteStartHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

 private:
  int DoDelete(const RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);
};
