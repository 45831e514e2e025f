#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool get_directory_service_status: the directory services users
// can come from (the domains of a joined domain, the LDAP server's domain),
// for the front-end's choice of where to look a user up.
class GetDirectoryServiceStatusHandler : public RequestHandler {
 public:
  GetDirectoryServiceStatusHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
