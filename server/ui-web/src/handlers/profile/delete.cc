#include "delete.h"

#include <vector>

#include "commit.h"

ProfileDeleteHandler::ProfileDeleteHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Profile", "delete", 0, 0);
}

int ProfileDeleteHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& request,
                                 BridgeResponse& response) {
  const Json::Value& given = request.GetParamRef("id", Json::Value(Json::arrayValue));
  std::vector<unsigned long long> ids;
  for (const Json::Value& id : given) ids.push_back(static_cast<unsigned long long>(id.asInt64()));
  if (CommitProfiles({}, ids) < 0) {
    return RESPONSE_FAIL(response, 401, "failed to update profiles");
  }
  return 0;
}
