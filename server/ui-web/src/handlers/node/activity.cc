#include "activity.h"

#include <vector>

#include "bridge/run-as.h"
#include "db/view-manager.h"
#include "logger.h"
#include "node-params.h"
#include "util/webapi-util.h"

NodeActivityHandler::NodeActivityHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Node", "activity", 0, 0);
}

int NodeActivityHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                BridgeResponse& response) {
  // Tested before the root scope, unlike the other node methods.
  if (node_params::String(request, "target").empty()) {
    return RESPONSE_FAIL(response, 401, "no target specified");
  }
  IF_RUN_AS(0, 0) { return ListUnderShare(auth, request, response); }
  else {
    LOG_ERROR("Fail to run as root\n");
    return RESPONSE_FAIL(response, 401, "failed to switch to root");
  }
}

int NodeActivityHandler::ListUnderShare(const RequestAuthentication& auth, BridgeRequest& request,
                                        BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  const std::string view_role = node_params::String(request, "view_role");
  uint64_t node_id = 0;
  if (!node_params::Id(request, "node_id", node_id)) {
    LOG_ERROR("Malformed node_id\n");
    return RESPONSE_FAIL(response, 401, "invalid node_id");
  }
  const uint32_t start = static_cast<uint32_t>(node_params::Int64(request, "start_date", 0));
  const uint32_t end = static_cast<uint32_t>(node_params::Int64(request, "end_date", 0));
  const uint32_t interval = static_cast<uint32_t>(node_params::Int64(request, "interval", 3600));
  const int32_t tz_offset = node_params::Int32(request, "tz_offset", 0);
  RequestAuthentication caller = auth;

  if (!IsValidTarget(target)) {
    LOG_ERROR("Share is not mounted\n");
    return RESPONSE_FAIL(response, 603, "share is not mounted");
  }
  if (!view_role.empty() && SwitchAuth(auth, view_role, caller) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  uint64_t view_id = 0;
  if (GetDatabaseViewId(caller, response, target, view_id, false) < 0) {
    LOG_ERROR("Failed to get view_id\n");
    return -1;
  }
  db::ViewDBInterface view;
  if (GetViewDB(view_id, view) < 0) {
    LOG_ERROR("Failed to open view db with view_id %llu\n",
              static_cast<unsigned long long>(view_id));
    return RESPONSE_FAIL(response, 401, "failed to open view db");
  }
  if (node_id == 0) {
    // An empty path stands for the root. A path that is not in the view is
    // no error: the database is asked about node 0 then.
    const std::string given = node_params::String(request, "path");
    db::Node node;
    if (view->QueryNode(given.empty() ? std::string("/") : given, node,
                        db::ViewManager::kQueryAny) == 0)
      node_id = node.getNodeId();
  }
  std::vector<db::NodeActivity> buckets;
  if (view->ListNodeActivity(node_id, start, end, interval, tz_offset, buckets) != 0) {
    LOG_ERROR("Fail to list nodes (%s)\n", caller.user.c_str());
    return RESPONSE_FAIL(response, 401, "failed to list node");
  }
  Json::Value items(Json::arrayValue);
  for (const db::NodeActivity& bucket : buckets) {
    Json::Value item(Json::objectValue);
    item["timestamp"] = bucket.timestamp;
    item["activity_count"] = bucket.activity_count;
    items.append(std::move(item));
  }
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  data["total"] = Json::UInt64(buckets.size());
  response.SetJsonResponse(data);
  return 0;
}
