#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node list_version: the versions of one node that a user can
// still see and restore, newest first. It checks the privilege on the node
// itself, so a non-administrator may reach a share through it.
class NodeListVersionHandler : public RequestHandler {
 public:
  NodeListVersionHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

 private:
  int ListVersions(const RequestAuthentication& auth, BridgeRequest& request,
                   BridgeResponse& response);
};
