#include "list-parent.h"

#include <vector>

#include "db/view-manager.h"
#include "logger.h"
#include "node-params.h"
#include "util/webapi-util.h"

NodeListParentHandler::NodeListParentHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Node", "list_parent", 0, 0);
}

int NodeListParentHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                  BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  if (!IsValidTarget(target)) {
    LOG_ERROR("Share is not mounted\n");
    return RESPONSE_FAIL(response, 603, "share is not mounted");
  }
  uint64_t view_id = 0;
  if (GetDatabaseViewId(auth, response, target, view_id, false) < 0) {
    LOG_ERROR("Failed to get view_id\n");
    return -1;
  }
  db::ViewDBInterface view;
  if (GetViewDB(view_id, view) < 0) {
    LOG_ERROR("Failed to open view db with view_id %llu\n",
              static_cast<unsigned long long>(view_id));
    return RESPONSE_FAIL(response, 401, "failed to open view db");
  }
  uint64_t node_id = 0;
  if (!node_params::Id(request, "node_id", node_id)) {
    LOG_ERROR("Malformed node_id\n");
    return RESPONSE_FAIL(response, 401, "invalid node_id");
  }
  // The root shows the view's own name, whatever the database calls it.
  const std::string view_name = SyncIsShareReq(target) ? SyncTargetNameGet(target) : "Tidepool";

  db::Node node;
  if (view->QueryNode(node_id, node, db::ViewManager::kQueryExisting) != 0) {
    LOG_ERROR("Fail to query node for node_id %llu\n", static_cast<unsigned long long>(node_id));
    return RESPONSE_FAIL(response, 402, "failed to query node");
  }
  std::vector<db::Node> chain;
  if (view->QueryParentNodes(node_id, chain) != 0) {
    LOG_ERROR("Fail to list deleted nodes (%s)\n", auth.user.c_str());
    return RESPONSE_FAIL(response, 401, "failed to list deleted nodes");
  }
  Json::Value items(Json::arrayValue);
  for (const db::Node& parent : chain) {
    Json::Value item(Json::objectValue);
    item["node_id"] = std::to_string(parent.getNodeId());
    item["name"] = parent.getPath() == "/" ? view_name : parent.getName();
    item["path"] = parent.getPath();
    item["mtime"] = Json::UInt(parent.getVersionModifiedTime());
    item["file_type"] = parent.getFileType();
    item["is_removed"] = parent.isRemoved();
    item["ver_cnt"] = Json::UInt(parent.getVersionCount());
    items.append(std::move(item));
  }
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  response.SetJsonResponse(data);
  return 0;
}
