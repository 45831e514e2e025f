#include "status.h"

#include "bridge/run-as.h"
#include "job-queue.h"
#include "logger.h"

using tidepool::core::job_queue::JobQueueClient;
using tidepool::core::job_queue::jobs::DeleteNodeJob;

NodeDeleteStatusHandler::NodeDeleteStatusHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Delete", "status", 0, 0);
}

int NodeDeleteStatusHandler::Handle(const RequestAuthentication& /*auth*/,
                                    BridgeRequest& /*request*/, BridgeResponse& response) {
  JobQueueClient::QueryOperation operation;
  operation.name = DeleteNodeJob::kName;
  // Done only when the queue says so: a queue that cannot be asked keeps
  // the bar where it is rather than report purges finished that may wait.
  bool counted = false;
  long long count = 0;
  IF_RUN_AS(0, 0) { counted = JobQueueClient::Instance().CountJob(count, operation) >= 0; }
  else {
    LOG_ERROR("Fail to run as root\n");
  }
  if (!counted) LOG_ERROR("Failed to count the delete jobs\n");
  Json::Value answer(Json::objectValue);
  answer["total"] = 1;
  answer["current"] = counted && count < 1 ? 1 : 0;
  response.SetJsonResponse(answer);
  return 0;
}
