#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "bridge/request-handler.h"
#include "db/log.h"

// KSTX.Tidepool.Share set: enables and disables shares in the sync service
// and sets the version rotation of shares and of all homes. Each element of
// `share` does one of the two, by whether it has `share_enable`.
// Administrators only.
class ShareSetHandler : public RequestHandler {
 public:
  ShareSetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // Refuses an element with 114; only an element that enables a share has
  // its rotation tested.
  static bool CheckConfigValid(const Json::Value& element, BridgeResponse& response);

 private:
  // Sends each enable or disable the state calls for to the service;
  // a refused element is dropped. 0, or negative when the service would not
  // reload its profiles.
  int ApplyShareEnable(const std::vector<Json::Value>& elements, const std::string& user,
                       unsigned int uid);
  // Rotation of one share or of all homes; false when any step failed.
  bool SetHomesRotation(const Json::Value& element, std::vector<db::Log>& logs);
  bool SetShareRotation(const Json::Value& element, std::vector<db::Log>& logs);
};
