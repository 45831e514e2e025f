// What a restore, a download or a dry run reads first from its request: the
// view `target` names, opened, and the `nodes` it asks for.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bridge/request-handler.h"
#include "user-manager.h"
#include "util/librestore/utils.h"
#include "util/librestore/view.h"

struct NodeRequest {
  UserInfo user_info;
  std::unique_ptr<tidepool::restore::View> view;
  std::vector<tidepool::restore::TaskDesc>
      descs;  // as the client sent them, not yet tied to the view's nodes
};

// Fills `out`, or answers the refusal (the target's own error, 401 for a view
// that does not open or a malformed node) and returns -1.
int OpenNodeRequest(const RequestAuthentication& local_auth, BridgeResponse& response,
                    const std::string& target, const Json::Value& nodes, uint64_t ctime_ub_default,
                    NodeRequest& out);
