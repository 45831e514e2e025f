#include "list.h"

#include <string>
#include <vector>

#include "logger.h"
#include "user-manager.h"
#include "util/webapi-util.h"

PrivilegeListHandler::PrivilegeListHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool.Privilege", "list", 0, 0);
}

int PrivilegeListHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& request,
                                 BridgeResponse& response) {
  // The schema tests `auth_type`; the directory to list is `type`.
  const std::string type = request.GetParamRef("type", Json::Value("local")).asString();
  const std::string domain_name = request.GetParamRef("domain_name", Json::Value("")).asString();
  const std::string substr = request.GetParamRef("substr", Json::Value("")).asString();
  const int offset = request.GetParamRef("offset", Json::Value(0)).asInt();
  const int limit = request.GetParamRef("limit", Json::Value(-1)).asInt();
  const bool additional = request.HasParam("additional");

  uint32_t total = 0;
  std::vector<std::string> names;
  GetPrivilegedUsers(offset, limit, substr, type, domain_name, total, names);
  // Asked with the directory's name in place of a user's, which answers for
  // local users.
  const bool home_enabled = !additional || IsUserHomeEnabled(type);

  Json::Value users(Json::arrayValue);
  for (const std::string& name : names) {
    Json::Value user(Json::objectValue);
    user["name"] = name;
    if (additional) {
      UserInfo info;
      const bool enabled = UserManager::GetUser(name, info, UserManager::kQueryStored) > 0;
      if (!enabled) LOG_ERROR("Failed to get user '%s' from UserManager\n", name.c_str());
      user["enabled"] = enabled;
      user["status"] = !home_enabled         ? "home_disabled"
                       : IsUserExpired(name) ? "disabled"
                                             : "normal";
    }
    users.append(std::move(user));
  }
  Json::Value data(Json::objectValue);
  data["offset"] = offset;
  data["total"] = total;
  data["users"] = std::move(users);
  response.SetJsonResponse(data);
  return 0;
}
