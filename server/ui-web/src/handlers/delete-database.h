#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool delete_database: removes the sync service's repository from
// every volume and leaves the service disabled. Administrators only; it runs
// whatever the state of the service, except while the repository moves.
class DeleteDatabaseHandler : public RequestHandler {
 public:
  DeleteDatabaseHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};
