// KSTX.Tidepool.Share: list and set have parameters.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

namespace {

constexpr int kMaxRotateCount = 32;

// The rotation count's range belongs to the element: a count out of range
// refuses the whole `share` list as a type fault.
bool IsShareSetting(const Json::Value& element) {
  if (!element.isObject() || !HasValid<bool>(element, "share_enable") ||
      !HasValid<std::string>(element, "share_name")) {
    return false;
  }
  const auto rotate_cnt = KSTX::APIParameterFactoryBasicImpl<int>::FromJson(element, "rotate_cnt",
                                                                            KSTX::PARAM_OPTIONAL);
  if (rotate_cnt.IsInvalid()) return false;
  if (rotate_cnt.IsSet() && !KSTX::APIValidator::IsBetween(rotate_cnt, 0, kMaxRotateCount)) {
    return false;
  }
  return HasValid<std::string>(element, "rotate_policy");
}

}  // namespace

// The default direction "asc" is not one of the accepted words; defaults are
// not tested, and the handler takes "asc" as ascending.
bool CheckShareList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit");
  const auto sort_by = in.Optional<std::string>("sort_by", "share_name");
  const auto sort_direction = in.Optional<std::string>("sort_direction", "asc");
  in.Optional<std::string>("prefix");
  if (in.RejectInvalid(response)) return false;
  return CheckCondition(response, "sort_by", sort_by, kShareSortKeys) &&
         CheckCondition(response, "sort_direction", sort_direction, kSortDirections);
}

bool CheckShareSet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  const auto shares = in.Required<Array>("share");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "share", shares, IsShareSetting);
}

}  // namespace tidepool::schema
