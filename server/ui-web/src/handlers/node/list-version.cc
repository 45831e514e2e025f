#include "list-version.h"

#include <algorithm>
#include <vector>

#include "bridge/run-as.h"
#include "db/view-manager.h"
#include "logger.h"
#include "node-params.h"
#include "user-manager.h"
#include "util/webapi-util.h"

NodeListVersionHandler::NodeListVersionHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Node", "list_version", 0, 0);
}

int NodeListVersionHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                   BridgeResponse& response) {
  IF_RUN_AS(0, 0) { return ListVersions(auth, request, response); }
  else {
    LOG_ERROR("Fail to switch to root\n");
    return RESPONSE_FAIL(response, 401, "failed to switch to root");
  }
}

int NodeListVersionHandler::ListVersions(const RequestAuthentication& auth, BridgeRequest& request,
                                         BridgeResponse& response) {
  RequestAuthentication caller = auth;
  const std::string path = AppendLeadingSlashIfNeeded(node_params::String(request, "path"));
  uint64_t node_id = 0;
  if (!node_params::Id(request, "node_id", node_id)) {
    LOG_ERROR("Malformed node_id\n");
    return RESPONSE_FAIL(response, 401, "invalid node_id");
  }
  const std::string target = node_params::String(request, "target");
  const std::string view_role = node_params::String(request, "view_role");
  if (auth.user.empty() || path.empty() || target.empty()) {
    LOG_ERROR("Invalid user or path\n");
    return RESPONSE_FAIL(response, 114, "invalid parameter");
  }
  if (!view_role.empty() && SwitchAuth(auth, view_role, caller) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  if (!IsValidTarget(target)) {
    LOG_ERROR("Share is not mounted\n");
    return RESPONSE_FAIL(response, 603, "share is not mounted");
  }
  UserInfo owner;
  if (GetUserInfoByTarget(caller, response, target, owner, true) < 0) {
    LOG_ERROR("Fail to get Driftway info: Retreiving target '%s', login as '%s'\n", target.c_str(),
              caller.user.c_str());
    return -1;
  }
  db::ViewDBInterface view;
  if (GetViewDB(owner.view_id, view) < 0) {
    LOG_ERROR("Failed to open view db with view_id %llu\n",
              static_cast<unsigned long long>(owner.view_id));
    return RESPONSE_FAIL(response, 401, "failed to open view db");
  }
  std::string permanent_link;
  if (node_id == 0) {
    db::Node node;
    if (view->QueryNode(path, node, db::ViewManager::kQueryAny) != 0) {
      LOG_ERROR("VersionEnum: QueryNode(%s) failed\n", path.c_str());
      return RESPONSE_FAIL(response, 401, "failed to query node");
    }
    node_id = node.getNodeId();
    permanent_link = node.getPermanentLink();
  }
  // The caller's own record: acting as someone else grants no rights.
  if (!auth.is_admin &&
      !CheckPrivilegeByNodeId(auth, response, view, owner, std::vector<uint64_t>{node_id}, false)) {
    return RESPONSE_FAIL(response, 403, "no privilege");
  }
  int rotate_count = 0;
  if (view->GetRotateCount(rotate_count) < 0) LOG_WARNING("Failed to get rotate cnt\n");
  std::vector<db::Version> versions;
  if (view->ListVersion(node_id, versions, db::ViewManager::kListVersionForDisplay) < 0) {
    LOG_ERROR("Fail to get version list (%s) of user (%s)\n", path.c_str(), caller.user.c_str());
    return RESPONSE_FAIL(response, 401, "failed to list version");
  }
  view.reset();
  std::reverse(versions.begin(), versions.end());

  Json::Value data(Json::objectValue);
  data["items"] = Json::Value(Json::arrayValue);
  // A node that exists has at least one version; an empty list answers 0.
  data["permanent_id"] =
      versions.empty() ? std::string("0") : std::to_string(versions.front().getPermanentId());
  data["permanent_link"] = permanent_link;
  data["is_removed"] = false;
  Json::Value& items = data["items"];
  // A deletion marker takes one of the rotate count's places but is not shown.
  int64_t index = 0;
  for (const db::Version& version : versions) {
    ++index;
    if (version.isRemoved()) {
      data["is_removed"] = true;
      continue;
    }
    if (rotate_count > 0 && index > rotate_count) break;
    Json::Value item(Json::objectValue);
    item["path"] = path;
    item["hash"] = version.getHash();
    item["size"] = Json::UInt64(version.getSize());
    item["sync_id"] = Json::UInt64(version.getSyncId());
    item["node_id"] = Json::UInt64(version.getNodeId());
    item["version_updater"] = version.getClientId();
    item["create_time"] = Json::UInt(version.getVerCreatedTime());
    item["modify_time"] = Json::UInt(version.getVerModifiedTime());
    items.append(std::move(item));
  }
  response.SetJsonResponse(data);
  return 0;
}
