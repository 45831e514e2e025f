#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Log delete: empties the log, which then starts with one
// record saying who emptied it. Administrators only.
class LogDeleteHandler : public RequestHandler {
 public:
  LogDeleteHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
