#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Share list: every local share with its state and rotation,
// searched, sorted and paged, with the row of all homes in first place.
// Administrators only.
class ShareListHandler : public RequestHandler {
 public:
  ShareListHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
