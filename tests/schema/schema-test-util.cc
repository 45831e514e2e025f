#include "schema-test-util.h"

#include <json/reader.h>
#include <kstx/webapi-module.h>
#include <kstx/webapi.h>

#include <memory>
#include <stdexcept>

namespace schematest {

Outcome RunCheck(const std::string& api, const std::string& method, const std::string& params) {
  Outcome outcome;
  KSTX::RequestContext context;
  context.api = api;
  context.method = method;
  context.version = 1;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string problem;
  if (!reader->parse(params.data(), params.data() + params.size(), &context.params, &problem)) {
    throw std::invalid_argument("bad test parameters: " + params);
  }
  for (const KSTXAPICheckTableRow* row = GetAPICheckTable(); row->api != nullptr; ++row) {
    if (api != row->api || method != row->method) continue;
    KSTX::APIRequest request(context);
    KSTX::APIResponse response;
    outcome.found = true;
    outcome.passed = row->check(&request, &response);
    outcome.error_set = response.IsError();
    outcome.code = response.GetErrorCode();
    outcome.errors = response.GetErrors();
    break;
  }
  return outcome;
}

}  // namespace schematest
