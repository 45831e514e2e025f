// Shared parts of the check functions, and the check of the methods that have
// no parameters to test.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

namespace {

constexpr int kParameterError = 120;

}  // namespace

bool Reject(KSTX::APIResponse* response, const char* name, const char* reason) {
  Json::Value error(Json::objectValue);
  error["name"] = name;
  error["reason"] = reason;
  response->SetError(kParameterError, error);
  return false;
}

bool ParamReader::RejectInvalid(KSTX::APIResponse* response) const {
  if (first_invalid_ == nullptr) return false;
  Reject(response, first_invalid_, first_invalid_is_set_ ? "type" : "required");
  return true;
}

bool CheckCondition(KSTX::APIResponse* response, const char* name,
                    const KSTX::APIParameter<std::string>& parameter, const char* allowed) {
  if (!parameter.IsSet()) return true;
  if (KSTX::APIValidator::IsBelong(parameter, KSTX::WebAPIUtil::ParseJson(allowed))) return true;
  return Reject(response, name, "condition");
}

bool CheckElements(KSTX::APIResponse* response, const char* name,
                   const KSTX::APIParameter<Array>& parameter, ElementTest test) {
  if (!parameter.IsSet()) return true;
  for (const Json::Value& element : parameter.Get()) {
    if (!test(element)) return Reject(response, name, "type");
  }
  return true;
}

bool HasValidArray(const Json::Value& object, const char* key, ElementTest test) {
  KSTX::APIParameter<Array> array =
      KSTX::APIParameterFactory::ArrayFromJson(object, key, KSTX::PARAM_OPTIONAL);
  if (array.IsInvalid()) return false;
  if (!array.IsSet()) return true;
  for (const Json::Value& element : array.Get()) {
    if (!test(element)) return false;
  }
  return true;
}

bool IsText(const Json::Value& element) { return element.isString(); }

// Only integer literals count: 2.0 is a number but not an id.
bool IsInteger(const Json::Value& element) {
  return element.type() == Json::intValue || element.type() == Json::uintValue;
}

bool IsNodeElement(const Json::Value& element) {
  return element.isObject() && HasValid<std::string>(element, "node_id") &&
         HasValid<std::string>(element, "name") && HasValid<std::string>(element, "path") &&
         HasValid<int>(element, "file_type") && HasValid<bool>(element, "is_removed");
}

bool CheckNothing(KSTX::APIRequest*, KSTX::APIResponse*) { return true; }

}  // namespace tidepool::schema
