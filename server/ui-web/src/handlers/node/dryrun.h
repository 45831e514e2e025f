#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node dry_run: before a restore or a download, the selected
// nodes (and everything below selected folders) that are office documents
// protected by a password, so that the client can ask for their passwords.
// Changes nothing; answers an array, empty when there are none.
class NodeDryrunHandler : public RequestHandler {
 public:
  NodeDryrunHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

 private:
  int DryRun(const RequestAuthentication& auth, const RequestAuthentication& local_auth,
             BridgeRequest& request, BridgeResponse& response);
};
