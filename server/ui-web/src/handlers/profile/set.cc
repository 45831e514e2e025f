#include "set.h"

#include <json/writer.h>

#include <vector>

#include "commit.h"
#include "platform-services.h"

ProfileSetHandler::ProfileSetHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Profile", "set", 0, 0);
}

int ProfileSetHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& request,
                              BridgeResponse& response) {
  const Platform::UserService users(true);
  const Json::Value& given = request.GetParamRef("profiles", Json::Value(Json::arrayValue));
  std::vector<ProfileInfoWithUserIds> profiles;
  Json::FastWriter writer;
  for (const Json::Value& entry : given) {
    ProfileInfoWithUserIds profile;
    profile.description = writer.write(entry["profile_desc"]);
    profile.id = entry["profile_id"].asInt64();
    profile.name = entry["profile_name"].asString();
    const Json::Value& applied = entry["profile_applied"];
    for (Json::ArrayIndex i = 0; i < applied.size(); ++i) {
      Platform::User user;
      // An unknown user is left out without a word.
      if (users.GetUser(applied[i]["user_name"].asString(), user) < 0) continue;
      profile.user_ids.push_back(static_cast<uint64_t>(user.GetID()));
    }
    profiles.push_back(std::move(profile));
  }
  if (CommitProfiles(profiles, {}) < 0) {
    return RESPONSE_FAIL(response, 401, "failed to update profiles");
  }
  return 0;
}
