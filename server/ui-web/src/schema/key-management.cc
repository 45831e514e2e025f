// KSTX.Tidepool.KeyManagement: users' keys; export has no parameters.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

bool CheckKeyList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit", -1);
  const auto sort_by = in.Optional<std::string>("sort_by", "username");
  const auto sort_direction = in.Optional<std::string>("sort_direction", "ASC");
  if (in.RejectInvalid(response)) return false;
  return CheckCondition(response, "sort_by", sort_by, kKeySortKeys) &&
         CheckCondition(response, "sort_direction", sort_direction, kSortDirections);
}

bool CheckKeyGet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<unsigned int>("id");
  return !in.RejectInvalid(response);
}

bool CheckKeySet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<unsigned int>("id");
  in.Optional<std::string>("username");
  in.Required<std::string>("key");
  return !in.RejectInvalid(response);
}

bool CheckKeyDelete(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  const auto ids = in.Required<Array>("ids");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "ids", ids, IsInteger);
}

// `upload_key` is the file field of the multipart request that carries the
// key archive.
bool CheckKeyImport(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("upload_key");
  return !in.RejectInvalid(response);
}

}  // namespace tidepool::schema
