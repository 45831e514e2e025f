#include "node-request.h"

#include "logger.h"
#include "util/librestore/task-nodes.h"
#include "util/webapi-util.h"

int OpenNodeRequest(const RequestAuthentication& local_auth, BridgeResponse& response,
                    const std::string& target, const Json::Value& nodes, uint64_t ctime_ub_default,
                    NodeRequest& out) {
  if (GetUserInfoByTarget(local_auth, response, target, out.user_info, true) < 0) {
    LOG_ERROR("Fail to get Tidepool info: Retreiving target '%s', login as '%s'\n", target.c_str(),
              local_auth.user.c_str());
    return -1;
  }
  out.view =
      std::make_unique<tidepool::restore::View>(static_cast<unsigned int>(out.user_info.view_id));
  if (!out.view->Init()) {
    LOG_ERROR("Failed to open view db with view_id %llu\n",
              static_cast<unsigned long long>(out.user_info.view_id));
    return RESPONSE_FAIL(response, 401, "failed to open view db");
  }
  std::string why;
  if (tidepool::restore::ParseTaskDescs(nodes, ctime_ub_default,
                                        static_cast<uint32_t>(out.user_info.view_id), out.descs,
                                        why) < 0) {
    return RESPONSE_FAIL(response, 401, "invalid node: " + why);
  }
  return 0;
}
