#include "list.h"

#include <list>
#include <string>
#include <unordered_set>
#include <vector>

#include "logger.h"
#include "user-manager.h"
#include "util/webapi-util.h"

namespace {

// The owners' names compare as the user database compares them.
std::string FoldCase(std::string name) {
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return name;
}

// The kind of owner the users of a directory are: 0 local, 2 LDAP, 3 domain.
uint32_t UserTypeOf(const std::string& directory) {
  if (directory == "ldap") return 2;
  if (directory == "domain") return 3;
  return 0;
}

}  // namespace

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

  // A page may hold thousands of users: the sync service's owners and the
  // accounts' expiry are read once for all of them, not once a user.
  std::unordered_set<std::string> enabled_names;
  std::vector<bool> expired;
  if (additional) {
    std::list<UserInfo> owners;
    if (UserManager::EnumUserByType(UserTypeOf(type), owners) >= 0) {
      for (const UserInfo& owner : owners)
        if (owner.isEnabled()) enabled_names.insert(FoldCase(owner.name));
    }
    if (home_enabled) expired = AreUsersExpired(names);
  }
  Json::Value users(Json::arrayValue);
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string& name = names[i];
    Json::Value user(Json::objectValue);
    user["name"] = name;
    if (additional) {
      const bool enabled = enabled_names.count(FoldCase(name)) > 0;
      if (!enabled) LOG_ERROR("Failed to get user '%s' from UserManager\n", name.c_str());
      user["enabled"] = enabled;
      user["status"] = !home_enabled ? "home_disabled" : expired[i] ? "disabled" : "normal";
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
