#include "resume-freeze.h"

#include "hlibc.h"
#include "logger.h"
#include "sync-service.h"

namespace {

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

}  // namespace

ResumeFreezeHandler::ResumeFreezeHandler() {
  SetRequiredDatabase(0);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(2);
  SetStatusOption(0);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool", "resume_freeze", 0, 0);
}

int ResumeFreezeHandler::Handle(const RequestAuthentication&, BridgeRequest&,
                                BridgeResponse& response) {
  std::string status;
  if (ServiceStatusGet(status, true) < 0) {
    return RESPONSE_FAIL(response, 401, "failed to get status");
  }
  if (status == "moving_db") {
    LOG_ERROR("Repo of Driftway is moving and you shall not do any action!\n");
    return RESPONSE_FAIL(response, 503, "repository is moving");
  }
  // The tool's output goes to /dev/null, never into the answer. A restart
  // that exits with a failure did not restart the service either.
  if (HLIBCExec(kControl, "service", "--restart", nullptr) != 0) {
    LOG_CRIT("Failed to restart service\n");
    return RESPONSE_FAIL(response, 401, "restart service failed");
  }
  return 0;
}
