#pragma once

#include <string>
#include <vector>

#include "bridge/request-handler.h"
#include "util/librestore/utils.h"

namespace tidepool::restore {
class Rights;
}

// KSTX.Tidepool.Node.Download start: checks the caller's right to read the
// nodes, makes the task's private folder and record, and forks a child that
// rebuilds the nodes side by side in that folder. One download per user.
class NodeDownloadStartHandler : public RequestHandler {
 public:
  NodeDownloadStartHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

 private:
  // The child: watches the record while a worker rebuilds the nodes, and
  // stops the worker and removes the folder when the record goes away.
  void RunDownload(const RequestAuthentication& auth, int32_t task_id,
                   std::vector<tidepool::restore::TaskDesc> descs,
                   const tidepool::restore::DecryptMap& decrypt_map,
                   const tidepool::restore::Rights& rights, const std::string& temp_folder,
                   bool include_removed);
};
