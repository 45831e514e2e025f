#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool resume_freeze: leaves freeze mode by restarting the sync
// service, which judges the volumes' free space again as it starts.
// Administrators only; it runs whatever the state of the service, except
// while the repository moves.
class ResumeFreezeHandler : public RequestHandler {
 public:
  ResumeFreezeHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
