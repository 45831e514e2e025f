// The top of the tree: the caller's home as "My Tidepool" and, for an
// administrator, every enabled share. Each entry names a view and its root
// node, so that the next call can list inside it.
#include <algorithm>
#include <list>
#include <vector>

#include "db/view-manager.h"
#include "list.h"
#include "logger.h"
#include "node-params.h"
#include "user-manager.h"
#include "util/webapi-util.h"

namespace {

constexpr const char* kHomeName = "My Tidepool";

Json::Value RootEntry(db::ViewManager& view, const std::string& name,
                      const std::string& absolute_path, bool is_share) {
  Json::Value entry(Json::objectValue);
  entry["view_id"] = std::to_string(view.getViewId());
  entry["node_id"] = std::to_string(view.getRootNodeId());
  entry["name"] = name;
  entry["path"] = "/";
  entry["absolute_path"] = absolute_path;
  entry["mtime"] = "-";
  entry["file_type"] = 1;
  entry["is_removed"] = false;
  entry["ver_cnt"] = "-";
  entry["is_share"] = is_share;
  return entry;
}

// An encrypted share is listed only while it is mounted (unlocked).
bool IsEncryptedShareMounted(const std::string& name) {
  Platform::ShareService service(true);
  Platform::Share share;
  if (service.GetShare(name, share) != 0) {
    LOG_ERROR("Cannot open share(%s)\n", name.c_str());
    return false;
  }
  return share.IsMounted();
}

}  // namespace

int NodeListHandler::ListUnderRoot(const RequestAuthentication& auth, BridgeRequest& request,
                                   BridgeResponse& response) {
  const int64_t offset = node_params::Int32(request, "offset", 0);
  const int64_t limit = node_params::Int32(request, "limit", 4096);
  const std::string sort_by = node_params::String(request, "sort_by", "name");
  const std::string sort_direction = node_params::String(request, "sort_direction", "ASC");
  const bool exclude_home = node_params::Bool(request, "exclude_home", false);
  const std::string view_role = node_params::String(request, "view_role");

  RequestAuthentication caller = auth;
  if (!view_role.empty() && SwitchAuth(auth, view_role, caller) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  UserInfo info;
  if (UserManager::GetUser(caller.user, caller.uid, info, UserManager::kQueryWithAccountState) <=
      0) {
    LOG_ERROR("Failed to open user %s(%u)\n", caller.user.c_str(), caller.uid);
    return RESPONSE_FAIL(response, 401, "failed to open user");
  }

  std::vector<Json::Value> page;
  int64_t count = 0;
  if (!exclude_home && info.view_id != 0 && IsUserHomeEnabled(caller.user)) {
    // Later pages count the home without opening its view.
    if (offset == 0) {
      db::ViewDBInterface view;
      if (GetViewDB(info.view_id, view) < 0) {
        LOG_ERROR("Failed to open view db with view_id %llu\n",
                  static_cast<unsigned long long>(info.view_id));
        return RESPONSE_FAIL(response, 401, "failed to open view db");
      }
      page.push_back(RootEntry(*view.get(), kHomeName, "/Tidepool", false));
    }
    count = 1;
  }

  // The caller's own record decides, whatever view_role says.
  if (auth.is_admin) {
    std::list<UserInfo> shares;
    if (UserManager::EnumShareUser(shares, sort_by == "name" ? sort_direction : "") < 0) {
      LOG_ERROR("Fail to enum share user!\n");
      return RESPONSE_FAIL(response, 401, "failed to enum share user");
    }
    for (const UserInfo& share : shares) {
      if (!share.isHVOSEnabled() || !share.isEnabled()) continue;
      if (share.isEncryptionShare() && !IsEncryptedShareMounted(share.name)) continue;
      // Every share's view is opened, also for later pages: the total counts
      // only the shares that open.
      db::ViewDBInterface view;
      if (GetViewDB(share.view_id, view) < 0) {
        LOG_ERROR("Failed to open view db with view_id %llu\n",
                  static_cast<unsigned long long>(share.view_id));
        continue;
      }
      if (offset <= count && count < offset + limit) {
        page.push_back(RootEntry(*view.get(), share.name, "/@" + share.name, true));
      }
      ++count;
    }
  }

  // Only the page is ordered, and always ascending: the page was cut in the
  // order the share enumeration gave.
  std::stable_sort(page.begin(), page.end(), [](const Json::Value& a, const Json::Value& b) {
    return NaturalSortComparator(a["name"].asString(), b["name"].asString());
  });
  Json::Value items(Json::arrayValue);
  for (Json::Value& entry : page) items.append(std::move(entry));
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  data["total"] = Json::Int64(count);
  response.SetJsonResponse(data);
  return 0;
}
