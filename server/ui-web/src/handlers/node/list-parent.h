#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node list_parent: the chain of a node's parents, the view's
// root first, which the front-end shows as a breadcrumb path.
class NodeListParentHandler : public RequestHandler {
 public:
  NodeListParentHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
