#pragma once

#include <string>

#include "bridge/request-handler.h"

// KSTX.Tidepool.Node.Download finish: hands the finished download to the
// bridge, one file as itself and anything else as "<outname>.zip"; errors
// come back in the form a download expects.
class NodeDownloadFinishHandler : public RequestHandler {
 public:
  NodeDownloadFinishHandler();
  ~NodeDownloadFinishHandler() override;
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // The name the user receives for one file `name` and the name of the
  // file in the folder: office documents leave as their exported form.
  static std::string OutputFileName(const std::string& outname, const std::string& name);

 private:
  int Finish(const RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);

  // The task's folder while Handle runs: removed by the destructor if
  // Handle ends by an exception.
  std::string temp_folder;
};
