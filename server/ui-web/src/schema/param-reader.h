// The pieces every check function is made of: a reader that fetches the
// parameters in the order they are listed, the condition and array tests that
// follow it, and the element tests shared by several methods.
#pragma once

#include <kstx/webapi.h>

#include <string>
#include <type_traits>

namespace tidepool::schema {

// A parameter read as a JSON array.
using Array = Json::Value;

// Fetches a method's parameters through the runtime's typed getters. Reading
// every parameter before testing any, and testing them in reading order, comes
// down to remembering the first invalid one while reading: that one is what
// the caller is told about.
class ParamReader {
 public:
  explicit ParamReader(const KSTX::APIRequest& request) : request_(request) {}

  template <typename T>
  KSTX::APIParameter<T> Required(const char* name) {
    return Read<T>(name, KSTX::PARAM_REQUIRED);
  }
  template <typename T>
  KSTX::APIParameter<T> Optional(const char* name) {
    return Read<T>(name, KSTX::PARAM_OPTIONAL);
  }
  template <typename T>
  KSTX::APIParameter<T> Optional(const char* name, const T& fallback) {
    KSTX::APIParameter<T> parameter = Read<T>(name, KSTX::PARAM_OPTIONAL);
    parameter.SetDefault(fallback);
    return parameter;
  }

  // Refuses the first invalid parameter read ("required" when it is missing,
  // "type" when it has the wrong kind); false when all were valid.
  bool RejectInvalid(KSTX::APIResponse* response) const;

 private:
  template <typename T>
  KSTX::APIParameter<T> Fetch(const char* name, KSTX::PARAM_NECESSITY necessity) const {
    if constexpr (std::is_same_v<T, std::string>) {
      return request_.GetAndCheckString(name, necessity);
    } else if constexpr (std::is_same_v<T, int>) {
      return request_.GetAndCheckInt(name, necessity);
    } else if constexpr (std::is_same_v<T, bool>) {
      return request_.GetAndCheckBool(name, necessity);
    } else if constexpr (std::is_same_v<T, Array>) {
      return request_.GetAndCheckUnitArray(name, necessity);
    } else {
      static_assert(std::is_same_v<T, unsigned int> || std::is_same_v<T, unsigned long long>);
      return request_.GetAndCheckIntegral<T>(name, necessity);
    }
  }

  template <typename T>
  KSTX::APIParameter<T> Read(const char* name, KSTX::PARAM_NECESSITY necessity) {
    KSTX::APIParameter<T> parameter = Fetch<T>(name, necessity);
    if (parameter.IsInvalid() && first_invalid_ == nullptr) {
      first_invalid_ = name;
      first_invalid_is_set_ = parameter.IsSet();
    }
    return parameter;
  }

  const KSTX::APIRequest& request_;
  const char* first_invalid_ = nullptr;
  bool first_invalid_is_set_ = false;
};

// Sets error 120 naming the parameter and the reason; returns false so that a
// check can end with it.
bool Reject(KSTX::APIResponse* response, const char* name, const char* reason);

// A text parameter that was given must be one of the words of `allowed`, a
// JSON array text; otherwise it is refused with "condition". Defaults are not
// tested. True when the parameter passes.
bool CheckCondition(KSTX::APIResponse* response, const char* name,
                    const KSTX::APIParameter<std::string>& parameter, const char* allowed);

using ElementTest = bool (*)(const Json::Value& element);

// Every element of an array that was given must pass `test`; a fault refuses
// the whole array with "type". True when the array passes.
bool CheckElements(KSTX::APIResponse* response, const char* name,
                   const KSTX::APIParameter<Array>& parameter, ElementTest test);

// True when `object` has no `key`, or has it with the kind T asks for.
template <typename T>
bool HasValid(const Json::Value& object, const char* key) {
  return !KSTX::APIParameterFactoryBasicImpl<T>::FromJson(object, key, KSTX::PARAM_OPTIONAL)
              .IsInvalid();
}

// True when the optional array `key` of `object` is absent, or an array whose
// elements all pass `test`.
bool HasValidArray(const Json::Value& object, const char* key, ElementTest test);

// Element tests.
bool IsText(const Json::Value& element);
bool IsInteger(const Json::Value& element);
// An element of `nodes` in Node.dry_run, Node.Download.start and
// Node.Download.finish.
bool IsNodeElement(const Json::Value& element);

}  // namespace tidepool::schema
