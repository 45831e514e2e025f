#pragma once

#include "bridge/request-handler.h"

// KSTX.Tidepool.DBUsage start: measures in the background what the
// service's databases and store take on disk, and caches the figure for
// get. One run at a time; its task id is the number of the process that
// answers for it.
class DBUsageStartHandler : public RequestHandler {
 public:
  DBUsageStartHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // Runs in the worker after each measured part, once the running sum is
  // in the record.
  static void TEST_SetAfterEachSumHook(void (*hook)(unsigned long long usage));

 private:
  // The forked child: supervises the worker that sums, and closes the run.
  void RunTask();
};
