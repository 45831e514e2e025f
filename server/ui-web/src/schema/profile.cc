// KSTX.Tidepool.Profile: set and delete have parameters. A profile's
// description is a nested object whose faults refuse the whole list.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

namespace {

// 10000 GiB, the largest upload limit a profile can hold.
constexpr unsigned long long kMaxUploadSizeLimit = 10737418240000ULL;

bool IsAppliedUser(const Json::Value& element) {
  return element.isObject() && HasValid<std::string>(element, "name");
}

bool IsProfileDesc(const Json::Value& desc) {
  const auto max_upload = KSTX::APIParameterFactoryBasicImpl<unsigned long long>::FromJson(
      desc, "filtered_max_upload_size", KSTX::PARAM_OPTIONAL);
  if (max_upload.IsInvalid()) return false;
  if (max_upload.IsSet() && !KSTX::APIValidator::IsBetween(max_upload, 0, kMaxUploadSizeLimit)) {
    return false;
  }
  return HasValidArray(desc, "filtered_extensions", IsText) &&
         HasValidArray(desc, "filtered_names", IsText) &&
         HasValidArray(desc, "user_defined_extensions", IsText) &&
         HasValidArray(desc, "user_defined_names", IsText);
}

bool IsProfile(const Json::Value& element) {
  if (!element.isObject() || !HasValid<int>(element, "profile_id") ||
      !HasValid<std::string>(element, "profile_name")) {
    return false;
  }
  const auto desc =
      KSTX::APIParameterFactory::ObjectFromJson(element, "profile_desc", KSTX::PARAM_OPTIONAL);
  if (desc.IsInvalid() || (desc.IsSet() && !IsProfileDesc(desc.Get()))) return false;
  return HasValidArray(element, "profile_applied", IsAppliedUser);
}

}  // namespace

bool CheckProfileSet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  const auto profiles = in.Required<Array>("profiles");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "profiles", profiles, IsProfile);
}

bool CheckProfileDelete(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  const auto ids = in.Required<Array>("id");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "id", ids, IsInteger);
}

}  // namespace tidepool::schema
