// KSTX.Tidepool.Node.Restore: only start has parameters.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

namespace {

// A restored node may also be named by its sync id, which the other node
// lists do not carry.
bool IsRestoreNode(const Json::Value& element) {
  return element.isObject() && HasValid<std::string>(element, "node_id") &&
         HasValid<std::string>(element, "sync_id") && HasValid<std::string>(element, "name") &&
         HasValid<std::string>(element, "path") && HasValid<int>(element, "file_type") &&
         HasValid<bool>(element, "is_removed");
}

}  // namespace

bool CheckNodeRestoreStart(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  const auto nodes = in.Required<Array>("nodes");
  in.Optional<unsigned long long>("ver_ctime_upper_bound", 0);
  in.Optional<std::string>("copy_to");
  in.Optional<bool>("override", true);
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "nodes", nodes, IsRestoreNode);
}

}  // namespace tidepool::schema
