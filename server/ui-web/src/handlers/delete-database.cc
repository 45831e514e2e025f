#include "delete-database.h"

#include "fs.h"
#include "logger.h"
#include "sync-package.h"
#include "sync-service.h"

namespace {

constexpr const char* kStatusPath = "/var/packages/Tidepool/etc/enable_status";

}  // namespace

DeleteDatabaseHandler::DeleteDatabaseHandler() {
  SetRequiredDatabase(0);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(2);
  SetStatusOption(0);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool", "delete_database", 0, 0);
}

int DeleteDatabaseHandler::Handle(const RequestAuthentication&, BridgeRequest&,
                                  BridgeResponse& response) {
  std::string status;
  if (ServiceStatusGet(status, true) < 0) {
    LOG_ERROR("failed to get service status\n");
    return RESPONSE_FAIL(response, 401, "failed to get service status");
  }
  if (status == "moving_db") {
    LOG_ERROR("database is moving\n");
    return RESPONSE_FAIL(response, 503, "database is moving");
  }
  // What could not be removed is logged there; the caller only learns of a
  // status failure.
  (void)RemoveDftwRepoInAllVolume();
  // Without its status file the service reads as disabled.
  (void)FSRemove(kStatusPath, false);
  return 0;
}
