#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node list: the children of a folder, a subtree or a search in
// one view (a home or a share), or, with no target, the top of the tree: the
// caller's home and, for an administrator, every enabled share.
class NodeListHandler : public RequestHandler {
 public:
  NodeListHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  int ListUnderShare(const RequestAuthentication& auth, BridgeRequest& request,
                     BridgeResponse& response);
  int ListUnderRoot(const RequestAuthentication& auth, BridgeRequest& request,
                    BridgeResponse& response);
};
