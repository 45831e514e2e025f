// Log list: read one page (and up to five pages more, so the front-end can
// tell that more follow) through the log database, then shape each record
// for the caller.
#include "list.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "db/log-manager.h"
#include "db/log-types.h"
#include "handlers/node/node-params.h"
#include "logger.h"
#include "platform-services.h"
#include "sdk-path.h"
#include "user-manager.h"
#include "util/webapi-util.h"

namespace log_list {
namespace {

// How the caller stands to a record's view.
enum Access { kOwnHome = 0, kOtherHome = 1, kShare = 2 };

Access AccessOf(uint32_t share_type, uint64_t view_id, uint64_t own_view) {
  if (share_type == db::kShareTypeShare) return kShare;
  return view_id == own_view ? kOwnHome : kOtherHome;
}

// Another user's home is never shown; a share only to administrators,
// whose rights there the log cannot judge for others.
bool Hidden(Access access, bool is_admin) {
  return access == kOtherHome || (access == kShare && !is_admin);
}

bool IsFile(const std::vector<std::string>& p) {
  return p.size() >= 2 && p[1] == db::kLogFileTypeFile;
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
  return parent.empty() ? "/" : parent;
}

std::string Arg(const std::vector<std::string>& args, size_t i) {
  return i < args.size() ? args[i] : std::string();
}

// Records whose arguments point at nodes and so carry links.
bool HasLinks(uint32_t type) {
  return type == db::kLogRestore || type == db::kLogPathPurge ||
         (type >= db::kLogNodeAdd && type <= db::kLogRecycleRestore);
}

bool HomeServiceOff(uint32_t share_type, const Viewer& viewer) {
  return (share_type == db::kShareTypeLdapHome && !viewer.ldap_homes) ||
         (share_type == db::kShareTypeDomainHome && !viewer.domain_homes);
}

// The first volume folder ("/volume1") of a resolved path inside a share.
std::string ShareBin(const std::string& resolved) {
  if (SDK::PathGetShareName(resolved).empty()) return "";
  const size_t slash = resolved.find('/', 1);
  return slash == std::string::npos ? "" : resolved.substr(0, slash);
}

// Folders of a move or copy, and the node ids that may become links.
void ShapeMoveOrCopy(const db::Log& log, const std::vector<std::string>& s, Access access,
                     Access target_access, const Viewer& viewer, Json::Value& item) {
  const uint32_t type = log.getType();
  const bool accessable = access != kOtherHome;
  const bool target_accessable = target_access != kOtherHome;
  const std::string from = ParentOf(Arg(s, 0)), to = ParentOf(Arg(s, 1));
  const bool crosses =
      (log.getTargetViewId() != 0 && log.getTargetViewId() != log.getViewId()) || from != to;
  if (type != db::kLogNodeMove || crosses) {
    item["s4"] = from;
    item["s5"] = to;
    item["p4"] = type == db::kLogNodeMove ? accessable : target_accessable;
    item["p5"] = accessable;
  }
  const bool hidden = Hidden(access, viewer.is_admin);
  const bool target_hidden = Hidden(target_access, viewer.is_admin);
  if (!IsFile(log.getPArg())) {
    // A folder's node ids are never passed on.
    item["p3"] = "";
    item["p1"] = "";
  } else if (type == db::kLogNodeMove && log.getTargetViewId() == 0) {
    if (hidden) {
      item["p3"] = "";
      item["p1"] = "";
    }
  } else {
    if (hidden) item["p3"] = "";
    if (target_hidden) item["p1"] = "";
  }
}

}  // namespace

std::string LinkPrefix(bool is_admin, uint32_t share_type, const std::string& name) {
  if (share_type == db::kShareTypeShare) return "/" + name;
  if (!is_admin) return "/home/Tidepool";
  if (share_type == db::kShareTypeLocalHome) return "/homes/" + name + "/Tidepool";
  Platform::User user;
  if (Platform::UserService(true).GetUser(name, user) < 0) {
    LOG_ERROR("Failed to get user: %s\n", name.c_str());
    return "";
  }
  char* resolved = realpath(user.GetHomePath().c_str(), nullptr);
  if (resolved == nullptr) {
    LOG_ERROR("KSTXPathResolve: failed\n");
    return "";
  }
  const std::string path = resolved;
  free(resolved);
  const std::string bin = ShareBin(path);
  if (bin.empty()) {
    LOG_ERROR("Cannot get share bin of %s\n", path.c_str());
    return "";
  }
  return path.substr(bin.size()) + "/Tidepool";
}

Json::Value BuildRecord(const db::Log& log, const Viewer& viewer) {
  Json::Value item(Json::objectValue);
  const uint32_t type = log.getType();
  item["type"] = type;
  item["username"] = log.getUserName();
  item["target"] =
      log.getShareType() == db::kShareTypeShare ? "@" + log.getShareName() : std::string("user");
  item["share_name"] = log.getShareName();
  item["target_share_name"] = log.getTargetShareName();
  item["share_type"] = log.getShareType();
  item["target_share_type"] = log.getTargetShareType();
  item["time"] = log.getTime();
  const std::vector<std::string>& p = log.getPArg();
  const std::vector<std::string>& s = log.getSArg();
  for (size_t i = 0; i < p.size(); ++i) item["p" + std::to_string(i + 1)] = p[i];
  for (size_t i = 0; i < s.size(); ++i) item["s" + std::to_string(i + 1)] = s[i];
  if (!HasLinks(type)) return item;

  const Access access = AccessOf(log.getShareType(), log.getViewId(), viewer.own_view);
  const Access target_access =
      AccessOf(log.getTargetShareType(), log.getTargetViewId(), viewer.own_view);
  item["shelfview_link_prefix"] =
      HomeServiceOff(log.getShareType(), viewer)
          ? std::string()
          : LinkPrefix(viewer.is_admin, log.getShareType(), log.getShareName());
  item["target_link_prefix"] =
      HomeServiceOff(log.getTargetShareType(), viewer)
          ? std::string()
          : LinkPrefix(viewer.is_admin, log.getTargetShareType(), log.getTargetShareName());
  item["accessable"] = access != kOtherHome;
  item["target_accessable"] = target_access != kOtherHome;

  switch (type) {
    case db::kLogPathPurge:
      item["p1"] = "";
      break;
    case db::kLogNodeMove:
    case db::kLogNodeCopy:
    case db::kLogRestoreCopy:
      ShapeMoveOrCopy(log, s, access, target_access, viewer, item);
      break;
    default:
      // A folder's node id, or any id in a view the caller may not open.
      if ((p.size() == 2 && p[1] != db::kLogFileTypeFile) || Hidden(access, viewer.is_admin))
        item["p1"] = "";
      break;
  }
  return item;
}

}  // namespace log_list

namespace {

// Asking for deletions finds every kind of deletion, and for restores every
// kind of restore.
std::list<int32_t> WidenTypes(const Json::Value& codes) {
  std::list<int32_t> types;
  if (!codes.isArray()) return types;
  for (const Json::Value& code : codes) {
    if (!code.isInt()) continue;
    const int32_t t = code.asInt();
    types.push_back(t);
    if (t == static_cast<int32_t>(db::kLogPathPurge)) {
      types.push_back(db::kLogFilterPurge);
      types.push_back(db::kLogRecycleDelete);
    } else if (t == static_cast<int32_t>(db::kLogRestore)) {
      types.push_back(db::kLogRestoreCopy);
      types.push_back(db::kLogRecycleRestore);
    }
  }
  return types;
}

int32_t Clamp32(int64_t v) {
  return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
}

}  // namespace

LogListHandler::LogListHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Log", "list", 0, 0);
}

int LogListHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                           BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  const std::string share_type = node_params::String(request, "share_type");
  const std::string view_role = node_params::String(request, "view_role");
  const bool get_all = node_params::Bool(request, "get_all", false);
  const int32_t limit = node_params::Int32(request, "limit", 1000);
  const int32_t offset = node_params::Int32(request, "offset", 0);
  // An administrator who names a role, even an empty one, is limited to it.
  const bool sees_all = auth.is_admin && !request.HasParam("view_role");
  RequestAuthentication caller = auth;

  if (!view_role.empty() && SwitchAuth(auth, view_role, caller) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  uint64_t view_id = 0;
  if (GetDatabaseViewId(caller, response, target, view_id, true) < 0) {
    LOG_ERROR("Failed to get view_id\n");
    if (!auth.is_admin) return RESPONSE_FAIL(response, 401, "failed to get view id");
    view_id = 0;
  }
  log_list::Viewer viewer;
  viewer.is_admin = auth.is_admin;
  viewer.ldap_homes = SDK::IsLdapHomeServiceEnabled();
  viewer.domain_homes = SDK::IsDomainHomeServiceEnabled();
  UserInfo info;
  if (UserManager::GetUser(caller.user, caller.uid, info, UserManager::kQueryWithAccountState) <
      1) {
    LOG_ERROR("Failed to get user\n");
    return RESPONSE_FAIL(response, 401, "failed to get user");
  }
  viewer.own_view = info.view_id;

  db::LogFilter filter;
  filter.user_id = sees_all ? 0 : info.uid;
  filter.is_admin = caller.is_admin;
  filter.user_view_id = info.view_id;
  filter.keyword = node_params::String(request, "keyword");
  filter.offset = offset;
  filter.date_from = node_params::Int32(request, "datefrom", 0);
  filter.date_to = node_params::Int32(request, "dateto", 0);
  filter.view_id = share_type == "all" ? 0 : view_id;
  filter.limit = Clamp32(int64_t{limit} * 6 + 1);
  filter.types = WidenTypes(request.GetParamRef("log_type", Json::Value()));

  unsigned int count = 0;
  if (get_all) {
    filter.offset = 0;
    filter.limit = 0;
    filter.oldest_first = true;
    const int rc = db::LogManager::CountLog(filter, count);
    if (rc < 0) {
      LOG_ERROR("Failed to count logs (%d)\n", rc);
      return RESPONSE_FAIL(response, 401, "failed to count logs");
    }
    // The last page of the newest-first list, read from the oldest end.
    const int64_t rest = limit > 0 ? int64_t{count} % limit : 0;
    filter.limit = rest == 0 ? limit : Clamp32(rest);
  }
  std::vector<db::Log> rows;
  const int rc = db::LogManager::SearchLog(filter, rows);
  if (rc < 0) {
    LOG_ERROR("Failed to get logs (%d)\n", rc);
    return RESPONSE_FAIL(response, 401, "failed to get logs");
  }
  if (filter.oldest_first) std::reverse(rows.begin(), rows.end());

  Json::Value items(Json::arrayValue);
  const size_t shown = limit > 0 ? std::min(rows.size(), static_cast<size_t>(limit)) : 0;
  for (size_t i = 0; i < shown; ++i) items.append(log_list::BuildRecord(rows[i], viewer));
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  data["total"] = get_all ? Json::UInt64(count) : Json::UInt64(rows.size() + uint64_t(offset));
  response.SetJsonResponse(data);
  return 0;
}
