#include "delete.h"

#include <vector>

#include "db/log-manager.h"
#include "db/log-types.h"
#include "logger.h"
#include "util/webapi-util.h"

LogDeleteHandler::LogDeleteHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Log", "delete", 0, 0);
}

int LogDeleteHandler::Handle(const RequestAuthentication& auth, BridgeRequest& /*request*/,
                             BridgeResponse& response) {
  if (db::LogManager::DeleteLog() < 0) {
    LOG_ERROR("Failed to delete log\n");
    return RESPONSE_FAIL(response, 401, "failed to delete log");
  }
  std::vector<db::Log> logs(1);
  logs.back().setType(db::kLogDeleteAll);
  InsertLogs(auth.user, auth.uid, std::move(logs));
  return 0;
}
