#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Profile set: stores profiles (new ones with a profile_id of 0
// or less) with the users they apply to, given by name.
class ProfileSetHandler : public RequestHandler {
 public:
  ProfileSetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
