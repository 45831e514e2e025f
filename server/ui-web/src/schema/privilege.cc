// KSTX.Tidepool.Privilege: list and set have parameters.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

namespace {

bool IsUserSwitch(const Json::Value& element) {
  return element.isObject() && HasValid<std::string>(element, "name") &&
         HasValid<bool>(element, "enable");
}

}  // namespace

// Only the presence of `additional` counts, so its elements are not tested.
bool CheckPrivilegeList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit", -1);
  const auto auth_type = in.Optional<std::string>("auth_type", "local");
  in.Optional<std::string>("domain_name", "");
  in.Optional<Array>("additional");
  if (in.RejectInvalid(response)) return false;
  return CheckCondition(response, "auth_type", auth_type, kAuthTypes);
}

bool CheckPrivilegeSet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("auth_type");
  in.Optional<std::string>("domain_name", "");
  in.Required<std::string>("batch_mode");
  const auto user_list = in.Optional<Array>("user_list");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "user_list", user_list, IsUserSwitch);
}

}  // namespace tidepool::schema
