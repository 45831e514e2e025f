#include "list-active.h"

#include <list>
#include <string>

#include "logger.h"
#include "platform-services.h"
#include "run-as.h"
#include "user-manager.h"

ShareListActiveHandler::ShareListActiveHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Share", "list_active", 0, 0);
}

int ShareListActiveHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                   BridgeResponse& response) {
  // No schema tests this method's parameter.
  const Json::Value& exclude = request.GetParamRef("exclude_home", Json::Value(false));
  const bool exclude_home = exclude.isBool() && exclude.asBool();
  const Platform::ShareService shares(true);
  const Platform::UserService users(true);
  Json::Value items(Json::arrayValue);
  if (!exclude_home && IsUserHomeEnabled(auth.user)) {
    Json::Value home(Json::objectValue);
    home["name"] = "MyTidepool";
    home["type"] = "home";
    items.append(home);
  }
  std::list<UserInfo> share_users;
  if (UserManager::EnumShareUser(share_users, "") < 0) {
    LOG_ERROR("Fail to enum share user!\n");
    return RESPONSE_FAIL(response, 401, "failed to enum share");
  }
  Platform::User user;
  if (users.GetUser(auth.user, user) < 0) {
    LOG_ERROR("Fail to get login user!\n");
    return RESPONSE_FAIL(response, 401, "failed to get login user");
  }
  unsigned total = 0;
  for (const UserInfo& share_user : share_users) {
    if (!share_user.isHVOSEnabled() || !share_user.isEnabled()) continue;
    Platform::Share share;
    if (shares.GetShare(share_user.name, share) < 0) {
      LOG_ERROR("failed to open share '%s'\n", share_user.name.c_str());
      continue;
    }
    Platform::SharePrivilege privilege;
    IF_RUN_AS(0, 0) { privilege = share.GetPrivilege(user); }
    else {
      LOG_ERROR("Fail to run as root\n");
    }
    if (!privilege.IsReadOnly() && !privilege.IsReadWrite()) continue;
    Json::Value item(Json::objectValue);
    item["name"] = share_user.name;
    item["type"] = "share";
    items.append(item);
    ++total;
  }
  Json::Value data(Json::objectValue);
  // `total` counts the shares; the home item is extra.
  data["items"] = std::move(items);
  data["total"] = total;
  response.SetJsonResponse(data);
  return 0;
}
