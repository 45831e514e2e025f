#include "list.h"

#include <json/reader.h>

#include <map>
#include <utility>
#include <vector>

#include "hvos-service.h"
#include "logger.h"
#include "user-manager.h"

ProfileListHandler::ProfileListHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Profile", "list", 0, 0);
}

int ProfileListHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                               BridgeResponse& response) {
  HVOSService::UserService users(false);
  std::vector<ProfileInfo> profiles;
  if (UserManager::GetAllProfiles(profiles) < 0) {
    LOG_ERROR("UserManager::GetAllProfiles(profile_list) Failed\n");
    return RESPONSE_FAIL(response, 401, "failed to list profile");
  }
  std::vector<std::pair<unsigned long long, unsigned long long>> pairs;
  if (UserManager::GetUserProfileMap(pairs) < 0) {
    LOG_ERROR("UserManager::GetUserProfileMap failed\n");
    return RESPONSE_FAIL(response, 401, "failed to get user map");
  }
  std::multimap<unsigned long long, unsigned long long> users_of;
  for (const auto& [user_id, profile_id] : pairs) users_of.emplace(profile_id, user_id);

  Json::Value list(Json::arrayValue);
  int total = 0;
  for (const ProfileInfo& profile : profiles) {
    if (profile.isHidden()) continue;
    Json::Value item(Json::objectValue);
    item["profile_id"] = static_cast<Json::UInt64>(profile.id);
    item["profile_name"] = profile.name;
    Json::Value desc(Json::objectValue);
    Json::Reader reader;
    if (!reader.parse(profile.description, desc, true) || !desc.isObject()) {
      LOG_ERROR("Failed to parse profile context. (%s)\n", profile.description.c_str());
      desc = Json::Value(Json::objectValue);
    }
    item["profile_desc"] = std::move(desc);
    Json::Value applied(Json::arrayValue);
    const auto [first, last] = users_of.equal_range(profile.id);
    for (auto it = first; it != last; ++it) {
      HVOSService::User user;
      // A user whose account is gone is left out; the profile stays.
      if (it->second > UINT32_MAX ||
          users.GetUserByUid(static_cast<uint32_t>(it->second), user) < 0)
        continue;
      std::string login;
      users.GetLoginName(user.getName(), login);
      Json::Value entry(Json::objectValue);
      entry["user_name"] = login;
      applied.append(std::move(entry));
    }
    item["profile_applied"] = std::move(applied);
    list.append(std::move(item));
    ++total;
  }
  Json::Value data(Json::objectValue);
  data["profile_list"] = std::move(list);
  data["total"] = total;
  response.SetJsonResponse(data);
  return 0;
}
