// Node.Delete start, in order: take root; without a target only an
// administrator may clean up everything; a target must be a home or a
// mounted share; switch to the view's user when `view_role` names one;
// resolve the view (a share's for administrators only); read every node
// id before queueing any; queue one job per node, or one for the view, or
// one for everything. Each job is a purge of its own: those queued before a
// refusal stay queued.
#include "start.h"

#include <ctime>
#include <memory>
#include <vector>

#include "bridge/run-as.h"
#include "handlers/node/node-params.h"
#include "job-queue.h"
#include "logger.h"
#include "sdk-path.h"
#include "sync-target.h"
#include "util/librestore/utils.h"
#include "util/webapi-util.h"

using tidepool::core::job_queue::Job;
using tidepool::core::job_queue::JobQueueClient;
using tidepool::core::job_queue::kPushAlreadyWaiting;
using tidepool::core::job_queue::kPushDone;
using tidepool::core::job_queue::jobs::DeleteNodeJob;

namespace {

// Node ids come from the client: only plain decimal texts within 64 bits
// count, so that nothing but the number written reaches the worker. False
// at the first entry that is not such an object.
bool ReadNodeIds(const Json::Value& fileinfo, std::vector<uint64_t>& out) {
  if (!fileinfo.isArray()) return false;
  out.reserve(fileinfo.size());
  for (const Json::Value& entry : fileinfo) {
    uint64_t id = 0;
    if (!entry.isObject() || !entry["node_id"].isString() ||
        !tidepool::restore::ParseNodeId(entry["node_id"], id)) {
      return false;
    }
    out.push_back(id);
  }
  return true;
}

int Answer(BridgeResponse& response, int result) {
  if (result == kPushDone) return 0;
  if (result == kPushAlreadyWaiting) {
    return RESPONSE_FAIL(response, 407, "another delete task is running");
  }
  LOG_ERROR("Job Enqueue failed.\n");
  return RESPONSE_FAIL(response, 401, "job enqueue failed");
}

// The job runs in the name of `auth`, the caller, whichever view it purges.
int Push(const RequestAuthentication& auth, BridgeResponse& response, std::shared_ptr<Job> job,
         const JobQueueClient::PushOption& option) {
  job->SetUserInfo(auth.user, auth.uid);
  return Answer(response, JobQueueClient::Instance().PushJob(std::move(job), option));
}

}  // namespace

NodeDeleteStartHandler::NodeDeleteStartHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Delete", "start", 0, 0);
}

int NodeDeleteStartHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                   BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  IF_RUN_AS(0, 0) {
    if (!request.HasParam("target")) {
      if (!auth.is_admin) {
        LOG_ERROR("non-admin wannt cleanup\n");
        return RESPONSE_FAIL(response, 105, "no permission");
      }
    } else if (!IsValidTarget(target)) {
      // An empty target is a target too: it is not a clean-up of everything.
      LOG_ERROR("Share is not mounted\n");
      return RESPONSE_FAIL(response, 603, "share is not mounted");
    }
    return DoDelete(auth, request, response);
  }
  LOG_ERROR("Fail to run as root\n");
  return RESPONSE_FAIL(response, 401, "failed to switch to root");
}

int NodeDeleteStartHandler::DoDelete(const RequestAuthentication& auth, BridgeRequest& request,
                                     BridgeResponse& response) {
  JobQueueClient::PushOption option;
  option.start_at = time(nullptr);
  if (!request.HasParam("target")) {
    return Push(auth, response, std::make_shared<DeleteNodeJob>(), option);
  }
  const std::string target = node_params::String(request, "target");
  const std::string view_role = node_params::String(request, "view_role");
  RequestAuthentication local_auth = auth;
  if (!view_role.empty() && SwitchAuth(auth, view_role, local_auth) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 105, "Failed to switch auth for user");
  }
  // Purging destroys history: a share's is the administrators' to purge,
  // a home's its owner's (only an administrator acts for another user).
  uint64_t view_id = 0;
  if (GetDatabaseViewId(local_auth, response, target, view_id, false) < 0) {
    LOG_ERROR("Failed to get view_id\n");
    return -1;
  }
  if (!request.HasParam("fileinfo")) {
    return Push(auth, response, std::make_shared<DeleteNodeJob>(view_id), option);
  }
  std::vector<uint64_t> node_ids;
  if (!ReadNodeIds(request.GetParamRef("fileinfo", Json::Value()), node_ids)) {
    LOG_ERROR("Malformed fileinfo\n");
    return RESPONSE_FAIL(response, 401, "invalid node_id");
  }
  // One push for the whole list: the queue stops at a job that already
  // waits, and the jobs before it stay queued.
  std::vector<std::shared_ptr<Job>> jobs;
  jobs.reserve(node_ids.size());
  for (const uint64_t node_id : node_ids) {
    jobs.push_back(std::make_shared<DeleteNodeJob>(view_id, node_id));
    jobs.back()->SetUserInfo(auth.user, auth.uid);
  }
  size_t pushed = 0;
  return Answer(response, JobQueueClient::Instance().PushJobs(jobs, option, pushed));
}
