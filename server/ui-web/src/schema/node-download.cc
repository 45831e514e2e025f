// KSTX.Tidepool.Node.Download: start and finish have parameters.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

bool CheckNodeDownloadStart(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("target");
  const auto nodes = in.Required<Array>("nodes");
  in.Optional<unsigned long long>("ver_ctime_upper_bound", 0);
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "nodes", nodes, IsNodeElement);
}

bool CheckNodeDownloadFinish(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Optional<bool>("with_file_name");
  in.Optional<std::string>("outname");
  in.Required<int>("task_id");
  const auto nodes = in.Required<Array>("nodes");
  if (in.RejectInvalid(response)) return false;
  return CheckElements(response, "nodes", nodes, IsNodeElement);
}

}  // namespace tidepool::schema
