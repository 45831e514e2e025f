// KSTX.Tidepool.Node: listings, parent chain, versions, activity, dry run.
#include "check-functions.h"
#include "param-reader.h"
#include "vocabulary.h"

namespace tidepool::schema {

bool CheckNodeList(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  using ull = unsigned long long;
  ParamReader in(*request);
  in.Optional<int>("offset", 0);
  in.Optional<int>("limit", 0);
  const auto sort_by = in.Optional<std::string>("sort_by", "mtime");
  const auto sort_direction = in.Optional<std::string>("sort_direction", "DESC");
  in.Optional<std::string>("target");
  in.Optional<ull>("node_id");
  in.Optional<std::string>("path");
  in.Optional<std::string>("pattern");
  in.Optional<std::string>("list_file_type", "any");
  in.Optional<bool>("recursive", false);
  in.Optional<bool>("list_dir_only", false);
  in.Optional<bool>("list_remove", true);
  in.Optional<ull>("ver_ctime_upper_bound", 0);
  in.Optional<ull>("ver_ctime_lower_bound", 0);
  in.Optional<ull>("ver_mtime_upper_bound", 0);
  in.Optional<ull>("ver_mtime_lower_bound", 0);
  in.Optional<ull>("ver_file_size_upper_bound", 0);
  in.Optional<ull>("ver_file_size_lower_bound", 0);
  if (in.RejectInvalid(response)) return false;
  return CheckCondition(response, "sort_by", sort_by, kNodeSortKeys) &&
         CheckCondition(response, "sort_direction", sort_direction, kSortDirections);
}

bool CheckNodeListParent(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  in.Required<unsigned long long>("node_id");
  return !in.RejectInvalid(response);
}

// The node is named by a text here, unlike in list_parent.
bool CheckNodeListVersion(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  in.Optional<std::string>("node_id");
  in.Optional<std::string>("path");
  return !in.RejectInvalid(response);
}

bool CheckNodeActivity(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  in.Optional<std::string>("node_id");
  in.Optional<std::string>("path");
  in.Required<unsigned long long>("start_date");
  in.Required<unsigned long long>("end_date");
  in.Required<unsigned long long>("interval");
  in.Required<int>("tz_offset");
  return !in.RejectInvalid(response);
}

bool CheckNodeDryRun(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  const auto nodes = in.Required<Array>("nodes");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "nodes", nodes, IsNodeElement);
}

}  // namespace tidepool::schema
