#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Privilege list: one page of the users of a directory, with
// `additional` also whether each is enabled in the sync service and the
// state of their account.
class PrivilegeListHandler : public RequestHandler {
 public:
  PrivilegeListHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
