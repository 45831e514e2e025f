#pragma once

#include <string>

#include "bridge/request-handler.h"

// KSTX.Tidepool.Config set: stores the log rotation and memory residency
// settings, or, when another volume is named, checks it and starts the move
// of the repository there (answered by 503: the service is now moving).
// Administrators only.
class ConfigSetHandler : public RequestHandler {
 public:
  ConfigSetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};

// "/volume1", "/volume1/" and "//volume1" name the same volume: the text with
// repeated and trailing slashes dropped. An empty text stays empty.
std::string CanonicalVolumePath(const std::string& path);
