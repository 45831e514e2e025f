// KSTX.Tidepool: the service-level methods; only get_client_link has
// parameters.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

bool CheckGetClientLink(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("app");
  in.Required<std::string>("os_type");
  in.Required<std::string>("platform");
  return !in.RejectInvalid(response);
}

}  // namespace tidepool::schema
