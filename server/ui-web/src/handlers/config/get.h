#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Config get: the log rotation settings, the memory residency
// of the databases and the volumes that can hold the repository.
// Administrators only.
class ConfigGetHandler : public RequestHandler {
 public:
  ConfigGetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
