#pragma once

#include <string>

#include "bridge/request-handler.h"

// KSTX.Tidepool get_status: the state of the service, of the relay through
// which clients reach it from outside, and of freeze mode. It must answer
// while the service is not ready, so it opens the user database itself and
// only when the service is enabled.
class GetStatusHandler : public RequestHandler {
 public:
  GetStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  bool VerifyUser(const RequestAuthentication& auth, BridgeResponse& response);
  void LoadRelayInfo(Json::Value& data);
  std::string TranslateAliasError(const std::string& status, const std::string& detail);
};
