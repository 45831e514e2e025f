#include "list.h"

#include <strings.h>

#include <algorithm>
#include <vector>

#include "bridge/run-as.h"
#include "db/view-manager.h"
#include "logger.h"
#include "node-params.h"
#include "util/webapi-util.h"

namespace {

// The filter of one listing, from the request's parameters.
db::SearchNodeFilter BuildFilter(const BridgeRequest& request) {
  db::SearchNodeFilter filter;
  filter.pattern = node_params::String(request, "pattern");
  filter.sort_by = node_params::String(request, "sort_by", "mtime");
  filter.sort_direction =
      strcasecmp(node_params::String(request, "sort_direction", "DESC").c_str(), "desc") == 0 ? 2
                                                                                              : 1;
  const std::string file_type = node_params::String(request, "list_file_type", "any");
  filter.file_type = file_type == "file" ? 0 : file_type == "folder" ? 1 : -1;
  if (node_params::Bool(request, "list_dir_only", false)) filter.file_type = 1;
  filter.recursive = node_params::Bool(request, "recursive", false);
  // "list_removed", not the schema's "list_remove": the handler has always
  // read this key.
  filter.removed_mode = node_params::Bool(request, "list_removed", true) ? 3 : 1;
  filter.limit = node_params::Int32(request, "limit", 0);
  filter.offset = node_params::Int32(request, "offset", 0);
  filter.list_mode = 1;
  filter.list_submode = 0;
  filter.ver_ctime_upper_bound = node_params::UInt64(request, "ver_ctime_upper_bound", 0);
  filter.ver_ctime_lower_bound = node_params::UInt64(request, "ver_ctime_lower_bound", 0);
  filter.ver_mtime_upper_bound = node_params::UInt64(request, "ver_mtime_upper_bound", 0);
  filter.ver_mtime_lower_bound = node_params::UInt64(request, "ver_mtime_lower_bound", 0);
  filter.ver_file_size_upper_bound = node_params::UInt64(request, "ver_file_size_upper_bound", 0);
  filter.ver_file_size_lower_bound = node_params::UInt64(request, "ver_file_size_lower_bound", 0);
  (void)node_params::Id(request, "node_id", filter.node_id);  // checked by Handle
  if (request.HasParam("exclude_extensions")) {
    const Json::Value extensions = request.GetParamRef("exclude_extensions", Json::Value());
    if (extensions.isArray()) {
      for (const Json::Value& extension : extensions) {
        if (extension.isString()) filter.exclude_extensions.push_back(extension.asString());
      }
    }
  }
  filter.for_listing = true;
  return filter;
}

// Rows [begin, end) of the name order; `whole` keeps the single row of a
// one-row listing whatever the limit says.
struct NamePage {
  bool whole = false;
  uint64_t begin = 0;
  uint64_t end = 0;
};

// The paging rules of the name sort over `count` rows. Limit and offset are
// read as unsigned 32-bit numbers, so a negative one is a very large one.
NamePage PlanNamePage(const BridgeRequest& request, uint64_t count) {
  const uint64_t limit =
      request.HasParam("limit")
          ? static_cast<uint32_t>(node_params::Int64(request, "limit", static_cast<int64_t>(count)))
          : count;
  const uint64_t offset = static_cast<uint32_t>(node_params::Int64(request, "offset", 0));
  NamePage page;
  if (offset >= count) return page;
  if (count == 1) {
    page.whole = true;
    return page;
  }
  page.begin = offset;
  page.end = std::min(offset + limit, count);
  return page;
}

int64_t VersionCountShown(const db::Node& node, int rotate_count) {
  const int64_t count = static_cast<int64_t>(node.getVersionCount()) - (node.isRemoved() ? 1 : 0);
  // A plain minimum: a view without a positive rotate count shows 0.
  return std::min<int64_t>(count, rotate_count);
}

Json::Value NodeRecord(const db::Node& node, uint64_t view_id, const std::string& path,
                       const std::string& base, int rotate_count) {
  Json::Value item(Json::objectValue);
  item["view_id"] = std::to_string(view_id);
  item["node_id"] = std::to_string(node.getNodeId());
  item["sync_id"] = std::to_string(node.getSyncId());
  item["name"] = node.getName();
  std::string joined = path;
  if (joined.empty() || joined.back() != '/') joined += '/';
  joined += node.getName();
  item["path"] = joined;
  item["permanent_id"] = node.getPermanentStringId();
  item["permanent_link"] = node.getPermanentLink();
  item["absolute_path"] = "/" + base + joined;
  item["mtime"] = Json::UInt(node.getVersionModifiedTime());
  item["v_file_size"] = Json::UInt64(node.getSize());
  item["file_type"] = node.getFileType();
  item["is_removed"] = node.isRemoved();
  item["is_encrypted"] = node.isEncrypted();
  item["ver_cnt"] = Json::Int64(VersionCountShown(node, rotate_count));
  return item;
}

}  // namespace

NodeListHandler::NodeListHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Node", "list", 0, 0);
}

int NodeListHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                            BridgeResponse& response) {
  uint64_t node_id = 0;
  if (!node_params::Id(request, "node_id", node_id)) {
    LOG_ERROR("Malformed node_id\n");
    return RESPONSE_FAIL(response, 401, "invalid node_id");
  }
  IF_RUN_AS(0, 0) {
    if (node_params::String(request, "target").empty()) {
      return ListUnderRoot(auth, request, response);
    }
    return ListUnderShare(auth, request, response);
  }
  else {
    LOG_ERROR("Fail to run as root\n");
    return RESPONSE_FAIL(response, 401, "failed to switch to root");
  }
}

int NodeListHandler::ListUnderShare(const RequestAuthentication& auth, BridgeRequest& request,
                                    BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  const std::string view_role = node_params::String(request, "view_role");
  const std::string path = node_params::String(request, "path");
  RequestAuthentication caller = auth;
  if (!view_role.empty() && SwitchAuth(auth, view_role, caller) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  if (!IsValidTarget(target)) {
    LOG_ERROR("Share is not mounted\n");
    return RESPONSE_FAIL(response, 603, "share is not mounted");
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
  int rotate_count = 0;
  if (view->GetRotateCount(rotate_count) < 0) LOG_WARNING("Failed to get rotate cnt\n");

  db::SearchNodeFilter filter = BuildFilter(request);
  db::SearchNodeFilter count_filter = filter;
  count_filter.limit = 0;
  count_filter.offset = 0;
  std::vector<db::Node> nodes;
  unsigned long long total = 0;
  if (filter.sort_by == "name") {
    // The view database keeps a natural sort key per name in an index and
    // orders "name" exactly as the folder-first comparators do (ties by node
    // id), so the page is asked for directly instead of reading every row and
    // partially sorting them here: the same page, served by the index. The
    // count comes first because the paging rules depend on it.
    if (view->CountNode(count_filter, total) < 0) {
      LOG_ERROR("Fail to get list node count (%s)\n", caller.user.c_str());
      return RESPONSE_FAIL(response, 401, "failed to get number of nodes");
    }
    const NamePage page = PlanNamePage(request, total);
    if (page.whole || page.end > page.begin) {
      filter.offset = page.whole ? 0 : static_cast<int32_t>(page.begin);
      filter.limit = page.whole ? 0 : static_cast<int32_t>(page.end - page.begin);
      if (view->SearchNode(filter, nodes) != 0) {
        LOG_ERROR("Fail to list nodes (%s)\n", caller.user.c_str());
        return RESPONSE_FAIL(response, 401, "failed to list node");
      }
    }
  } else {
    if (view->SearchNode(filter, nodes) != 0) {
      LOG_ERROR("Fail to list nodes (%s)\n", caller.user.c_str());
      return RESPONSE_FAIL(response, 401, "failed to list node");
    }
    if (view->CountNode(count_filter, total) < 0) {
      LOG_ERROR("Fail to get list node count (%s)\n", caller.user.c_str());
      return RESPONSE_FAIL(response, 401, "failed to get number of nodes");
    }
  }

  const std::string base = SyncIsShareReq(target) ? target : "Tidepool";
  Json::Value items(Json::arrayValue);
  for (const db::Node& node : nodes) {
    // Such rows still count in the total.
    if ((node.isFile() && node.isPermanentRemoved()) || node.getParentId() == 0) continue;
    items.append(NodeRecord(node, view_id, path, base, rotate_count));
  }
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  data["total"] = Json::UInt64(total);
  response.SetJsonResponse(data);
  return 0;
}
