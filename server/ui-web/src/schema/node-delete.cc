// KSTX.Tidepool.Node.Delete: only start has parameters.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

namespace {

bool IsFileInfo(const Json::Value& element) {
  return element.isObject() && HasValid<std::string>(element, "node_id");
}

}  // namespace

bool CheckNodeDeleteStart(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<std::string>("target");
  const auto fileinfo = in.Optional<Array>("fileinfo");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "fileinfo", fileinfo, IsFileInfo);
}

}  // namespace tidepool::schema
