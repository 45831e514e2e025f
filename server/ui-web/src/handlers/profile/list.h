#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Profile list: every profile but the hidden default one, with
// its rules and the login names of its users.
class ProfileListHandler : public RequestHandler {
 public:
  ProfileListHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
