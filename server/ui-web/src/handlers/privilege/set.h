#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Privilege set: enables or disables a list of users, or every
// user of a directory, in the sync service. It answers at once; a detached
// child does the work and reports its progress for `status`.
class PrivilegeSetHandler : public RequestHandler {
 public:
  PrivilegeSetHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
