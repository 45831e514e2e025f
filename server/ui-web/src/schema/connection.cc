// KSTX.Tidepool.Connection: the connected clients.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

bool CheckConnectionList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit", 50);
  const auto sort_by = in.Optional<std::string>("sort_by");
  const auto sort_direction = in.Optional<std::string>("sort_direction", "ASC");
  if (in.RejectInvalid(response)) return false;
  return CheckCondition(response, "sort_by", sort_by, kConnectionSortKeys) &&
         CheckCondition(response, "sort_direction", sort_direction, kSortDirections);
}

bool CheckConnectionDelete(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  const auto sessions = in.Required<Array>("client_sess_id");
  in.Required<bool>("data_wipe");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "client_sess_id", sessions, IsText);
}

}  // namespace tidepool::schema
