// KSTX.Tidepool.Log: list and export have parameters.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

// The only method with both an element test and a condition: the elements of
// log_type are tested first.
bool CheckLogList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit", 1000);
  in.Required<std::string>("target");
  const auto share_type = in.Required<std::string>("share_type");
  const auto log_type = in.Optional<Array>("log_type");
  in.Optional<bool>("get_all", false);
  in.Optional<std::string>("keyword");
  in.Optional<int>("datefrom");
  in.Optional<int>("dateto");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "log_type", log_type, IsInteger) &&
         CheckCondition(response, "share_type", share_type, kLogShareTypes);
}

bool CheckLogExport(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<std::string>("target");
  in.Required<std::string>("type");
  return !in.RejectInvalid(response);
}

}  // namespace tidepool::schema
