// Runs a method's parameter check the way the runtime does: find the method in
// the module's check table and call its function with a request that carries
// the given parameters.
#pragma once

#include <json/value.h>

#include <string>

namespace schematest {

struct Outcome {
  bool found = false;   // the method has a row in the check table
  bool passed = false;  // the check function's answer
  bool error_set = false;
  int code = 0;
  Json::Value errors;
};

// `params` is a JSON object text.
Outcome RunCheck(const std::string& api, const std::string& method, const std::string& params);

}  // namespace schematest
