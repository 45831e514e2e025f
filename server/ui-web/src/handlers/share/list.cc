// Share list: the names from the cache, kept when their upper-case form
// contains the upper-case query; a share enters the table when it can be
// opened and looked up in the service; then sort, page, and the row of all
// homes in front of the first page when there is no search.
#include "list.h"

#include <list>
#include <map>
#include <string>
#include <vector>

#include "cache-ipc.h"
#include "handlers/share/share-rows.h"
#include "hlibc.h"
#include "logger.h"
#include "platform-services.h"
#include "sdk-path.h"
#include "sync-service.h"
#include "user-manager.h"

namespace {

constexpr size_t kUpperBufferSize = 492;
constexpr const char* kHomes = "homes";

std::string StatusOf(const Platform::Share& share) {
  if (share.IsEncryption()) return share.IsMounted() ? "decrypt" : "encrypt";
  return share.IsSyncable() ? "normal" : "not_available";
}

bool Upper(const std::string& text, std::string& out) {
  char buffer[kUpperBufferSize];
  if (HLIBCUnicodeUTF8StrUpper(text.c_str(), buffer, sizeof buffer) < 0) {
    LOG_ERROR("HLIBCUnicodeUTF8StrUpper failed, str=%s.\n", text.c_str());
    return false;
  }
  out = buffer;
  return true;
}

// Owners' names compare as the user database compares them.
std::string AsciiLower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

ShareInfo HomesRow() {
  ShareInfo homes;
  homes.share_name = kHomes;
  if (!SDK::IsLocalHomeServiceEnabled()) {
    homes.share_status = "home_disabled";
    return homes;
  }
  UserManager::QueryRotateSettingTable(0, homes.rotate_cnt, homes.rotate_policy, homes.rotate_days);
  homes.share_status = "normal";
  homes.share_enable = true;
  return homes;
}

}  // namespace

ShareListHandler::ShareListHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Share", "list", 0, 0);
}

int ShareListHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& request,
                             BridgeResponse& response) {
  // The schema tests `prefix`, not `query`: any kind of value may come.
  const Json::Value& query_param = request.GetParamRef("query", Json::Value(""));
  const std::string query = query_param.isString() ? query_param.asString() : "";
  const int offset = request.GetParamRef("offset", Json::Value(0)).asInt();
  const int limit = request.GetParamRef("limit", Json::Value(0)).asInt();
  const std::string direction =
      request.GetParamRef("sort_direction", Json::Value("ASC")).asString();
  const std::string sort_by = request.GetParamRef("sort_by", Json::Value("share_name")).asString();

  std::list<std::string> names;
  if (CacheIPC::GetInstance()->ListShareName(names) < 0) {
    LOG_ERROR("Fail to enumerate local shares\n");
    LOG_ERROR("Fail to enumerate shares\n");
    return RESPONSE_FAIL(response, 401, "failed to enumerate shares");
  }
  std::string upper_query;
  if (!Upper(query, upper_query)) {
    LOG_ERROR("Fail to enumerate shares\n");
    return RESPONSE_FAIL(response, 401, "failed to enumerate shares");
  }

  // The share users in one reading rather than a look-up per share: what
  // GetShareUser would find for a name, an enabled owner of that name.
  std::list<UserInfo> share_users;
  if (UserManager::EnumShareUser(share_users, "") < 0) {
    LOG_ERROR("Fail to enumerate shares\n");
    return RESPONSE_FAIL(response, 401, "failed to enumerate shares");
  }
  std::map<std::string, const UserInfo*> user_of;
  for (const UserInfo& user : share_users)
    if (user.isEnabled()) user_of[AsciiLower(user.name)] = &user;

  const Platform::ShareService shares(true);
  const bool sharing = ServiceSupportSharing();
  std::vector<ShareInfo> rows;
  for (const std::string& name : names) {
    if (name == kHomes) continue;
    std::string upper_name;
    if (!upper_query.empty() &&
        (!Upper(name, upper_name) || upper_name.find(upper_query) == std::string::npos))
      continue;
    Platform::Share share;
    if (shares.GetShare(name, share) < 0 || !sharing) continue;
    const auto user = user_of.find(AsciiLower(name));
    ShareInfo row;
    row.share_name = name;
    row.share_status = StatusOf(share);
    row.share_enable = user != user_of.end();
    if (row.share_enable)
      UserManager::QueryRotateSettingTable(user->second->view_id, row.rotate_cnt, row.rotate_policy,
                                           row.rotate_days);
    rows.push_back(std::move(row));
  }
  SortShares(rows, sort_by, direction);

  const bool with_homes = query.empty();
  const SharePage page = PlanSharePage(with_homes, offset, limit, rows.size());
  Json::Value items(Json::arrayValue);
  if (page.homes_first) items.append(ShareRow(HomesRow()));
  for (size_t i = page.begin; i < page.end; ++i) items.append(ShareRow(rows[i]));
  Json::Value data(Json::objectValue);
  data["items"] = std::move(items);
  data["total"] = static_cast<Json::UInt64>(rows.size() + (with_homes ? 1 : 0));
  response.SetJsonResponse(data);
  return 0;
}
