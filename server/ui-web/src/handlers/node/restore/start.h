#pragma once

#include <vector>

#include "bridge/request-handler.h"
#include "util/librestore/rights.h"
#include "util/librestore/utils.h"

// KSTX.Tidepool.Node.Restore start: checks the caller's rights on the
// destination and the nodes, records the task and forks a child that
// brings the nodes back, in place or under `copy_to`. One restore runs at a
// time on the whole system.
class NodeRestoreStartHandler : public RequestHandler {
 public:
  NodeRestoreStartHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

 private:
  int Start(const RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);
  // True when the caller may write under `copy_to`.
  bool MayWriteTo(const RequestAuthentication& auth, BridgeResponse& response,
                  const std::string& copy_to);
  // The child: restores every descriptor and leaves the outcome in the
  // task record.
  void RunRestore(const RequestAuthentication& auth,
                  const std::vector<tidepool::restore::TaskDesc>& descs,
                  const tidepool::restore::DecryptMap& decrypt_map, const std::string& copy_to,
                  int copy_fd, const tidepool::restore::Rights& rights, bool override_existing,
                  bool include_removed);
};
