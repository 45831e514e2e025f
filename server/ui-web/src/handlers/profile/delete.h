#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Profile delete: removes profiles by id; their users fall
// back to the default rules.
class ProfileDeleteHandler : public RequestHandler {
 public:
  ProfileDeleteHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
