#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node activity: how many changes under a node fell into each
// time bucket between two dates, for the front-end's activity chart. The
// view database does the bucketing.
class NodeActivityHandler : public RequestHandler {
 public:
  NodeActivityHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  int ListUnderShare(const RequestAuthentication& auth, BridgeRequest& request,
                     BridgeResponse& response);
};
