// Node.dry_run, in order: switch to the view's user, take root, resolve the
// target and open its view, read the nodes strictly, check that each
// node_id names the node of its permanent_id and (not an administrator)
// that the caller may read each node as it stood, then let an item of each
// node's class collect what needs a password: nothing for a file, the
// document itself for a protected office document, every protected node
// below a folder. Of a folder's finds, those the caller may not read are
// left out, as a download would leave them out.
#include "dryrun.h"

#include <memory>
#include <vector>

#include "bridge/run-as.h"
#include "handlers/node/node-request.h"
#include "logger.h"
#include "node-params.h"
#include "user-manager.h"
#include "util/librestore/restore-item.h"
#include "util/librestore/rights.h"
#include "util/librestore/task-nodes.h"
#include "util/librestore/view.h"
#include "util/webapi-util.h"

using tidepool::restore::Item;
using tidepool::restore::Rights;
using tidepool::restore::TaskDesc;
using tidepool::restore::View;

namespace {

Json::Value Entry(const db::Node& node, const View& view) {
  Json::Value entry(Json::objectValue);
  entry["node_id"] = std::to_string(node.getNodeId());
  entry["permanent_id"] = std::to_string(node.getPermanentId());
  entry["sync_id"] = std::to_string(node.getSyncId());
  entry["name"] = node.getName();
  entry["path"] = node.getPath();
  entry["user_name"] = view.GetName();
  entry["is_share"] = view.GetUserInfo().isShareUser();
  entry["extension"] = node.getExtension();
  return entry;
}

}  // namespace

NodeDryrunHandler::NodeDryrunHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Node", "dry_run", 0, 0);
}

int NodeDryrunHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                              BridgeResponse& response) {
  const std::string view_role = node_params::String(request, "view_role");
  RequestAuthentication local_auth = auth;
  if (!view_role.empty() && SwitchAuth(auth, view_role, local_auth) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  IF_RUN_AS(0, 0) { return DryRun(auth, local_auth, request, response); }
  LOG_ERROR("Fail to run as root\n");
  return RESPONSE_FAIL(response, 401, "failed to switch to root");
}

int NodeDryrunHandler::DryRun(const RequestAuthentication& auth,
                              const RequestAuthentication& local_auth, BridgeRequest& request,
                              BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  const bool include_removed = node_params::Bool(request, "include_removed", false);
  const Json::Value nodes = request.GetParamRef("nodes", Json::Value(Json::arrayValue));
  if (!IsValidTarget(target)) {
    LOG_ERROR("Share [%s] is not mounted\n", target.c_str());
    return RESPONSE_FAIL(response, 603, "share is not mounted");
  }
  NodeRequest opened;
  if (OpenNodeRequest(local_auth, response, target, nodes, 0, opened) < 0) return -1;
  const UserInfo& user_info = opened.user_info;
  View& view = *opened.view;
  const std::vector<TaskDesc>& descs = opened.descs;
  std::vector<db::Node> claimed;
  if (tidepool::restore::ResolveClaimedNodes(view, descs, claimed) < 0) {
    return RESPONSE_FAIL(response, 403, "no privilege");
  }
  // Rights are the caller's own, whoever's view is shown.
  if (!auth.is_admin) {
    UserInfo login;
    Rights rights;
    if (GetUserInfoByTarget(auth, response, "", login, true) < 0 ||
        Rights::ForCaller(auth.user, login.view_id == user_info.view_id, false, rights) < 0) {
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
    view.SetRights(rights);
    if (!tidepool::restore::MayHaveAll(view, descs)) {
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
  }
  const tidepool::restore::DecryptMap no_passwords;
  Json::Value answer(Json::arrayValue);
  for (const TaskDesc& desc : descs) {
    const std::unique_ptr<Item> item =
        Item::ItemFactory(desc.file_type == 1, view, desc.permanent_id, desc.sync_id,
                          desc.ver_ctime_upper_bound, desc.name, desc.path, no_passwords, nullptr);
    std::vector<db::Node> found;
    if (item->ListEncrypted(found, include_removed) < 0) {
      LOG_ERROR("Failed to ListEncrypted() for view %d permanent_id %llu\n",
                static_cast<int>(user_info.view_id),
                static_cast<unsigned long long>(desc.permanent_id));
      return RESPONSE_FAIL(response, 401, "failed to list encrypted nodes");
    }
    for (const db::Node& node : found) {
      bool allowed = true;
      if (!view.GetRights().RefusesNothing() &&
          (tidepool::restore::JudgeNode(view, node.getPermanentId(),
                                        node.isRemoved() ? 0 : node.getSyncId(),
                                        desc.ver_ctime_upper_bound, allowed) < 0 ||
           !allowed)) {
        continue;
      }
      answer.append(Entry(node, view));
    }
  }
  response.SetJsonResponse(answer);
  return 0;
}
