#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Share list_active: what a user may version into: the home,
// when the user has one, and the enabled shares the user may read.
class ShareListActiveHandler : public RequestHandler {
 public:
  ShareListActiveHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
