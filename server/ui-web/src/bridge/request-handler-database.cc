// The databases of a handler and the services of RequestHandler that need the
// service configuration: opening and closing, the fork around them, the
// system volume's temporary folder, and task error data.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "db/log-manager.h"
#include "db/manager.h"
#include "hlibc.h"
#include "job-queue.h"
#include "logger.h"
#include "request-handler.h"
#include "run-as.h"
#include "sync-service.h"
#include "user-manager.h"

namespace {

// Detaches the child from the request's input and output, so that the
// parent's answer is not disturbed.
constexpr int kForkDetachFlags = 0x60;
constexpr useconds_t kForkParentDelayUs = 250000;

}  // namespace

int RequestHandler::InitializeDatabase() {
  if (required_access_privilege & kAccessEnabledUser) {
    required_database |= kUserDatabase;
  } else if (required_database == 0) {
    LOG_DEBUG("no database is required\n");
    return 0;
  }
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) {
    LOG_ERROR("cannot get conf mgr\n");
    return -1;
  }
  IF_RUN_AS(0, 0) {
    if (!db::Manager::InitTempFolder(config.GetWorkingDirPath())) {
      LOG_ERROR("failed to InitTempFolder\n");
      return -1;
    }
    const std::string connect = config.GetDbConnectParam();
    const std::string backend = config.GetDBBackendString();
    const std::string repo = config.GetSystemRepoLocation();
    // In this order: the access test needs the user database first.
    const struct {
      uint32_t bit;
      const char* name;
      int (*open)(const std::string& repo, const std::string& connect, const std::string& backend);
    } kDatabases[] = {
        {kUserDatabase, "user db",
         [](const std::string&, const std::string& c, const std::string& b) {
           return UserManager::Initialize(c, b);
         }},
        {kLogDatabase, "log db",
         [](const std::string& r, const std::string& c, const std::string& b) {
           return db::LogManager::Initialize(r, c, b, false);
         }},
        {kDataDatabase, "sync db", db::Manager::Initialize},
    };
    for (const auto& database : kDatabases) {
      if (!(required_database & database.bit)) continue;
      LOG_DEBUG("Try to initialize %s with '%s', backend = '%s'...", database.name, connect.c_str(),
                backend.c_str());
      if (database.open(repo, connect, backend) < 0) {
        LOG_ERROR("Fail to initialize %s with '%s', backend = '%s'\n", database.name,
                  connect.c_str(), backend.c_str());
        return -1;
      }
      opened_databases |= database.bit;
    }
    return 0;
  }
  else {
    LOG_ERROR("Failed to switch to root\n");
    return -1;
  }
}

void RequestHandler::DestroyDatabase() {
  if (opened_databases & kUserDatabase) {
    LOG_DEBUG("user database is destroyed\n");
    UserManager::Destroy();
  }
  if (opened_databases & kLogDatabase) {
    LOG_DEBUG("log database is destroyed\n");
    db::LogManager::Destroy();
  }
  if (opened_databases & kDataDatabase) {
    LOG_DEBUG("data database is destroyed\n");
    db::Manager::Destroy();
  }
  opened_databases = 0;
}

int RequestHandler::Fork(int flags) {
  DestroyDatabase();
  auto& jobs = tidepool::db::job::JobManagerHolder::Instance();
  const bool had_jobs = jobs.IsInitialized();
  if (had_jobs) jobs.Destroy();
  // The bits of this handler stay valid across the fork: both processes open
  // the same databases again.
  const uint32_t wanted = required_database;
  const int pid = HLIBCProcForkEx(flags | kForkDetachFlags);
  if (pid > 0) usleep(kForkParentDelayUs);
  required_database = wanted;
  (void)InitializeDatabase();
  if (had_jobs) (void)jobs.Initialize();
  return pid;
}

std::string RequestHandler::CreateAndGetSysVolumeTempDirectory() {
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) {
    syslog(LOG_ERR, "%s:%d cannot get conf mgr\n", __FILE__, __LINE__);
    return "";
  }
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", config.GetSysShareBin().c_str(), "@tmp");
  if (mkdir(path, 0777) < 0 && errno != EEXIST) {
    syslog(LOG_ERR, "%s:%d mkdir(%s): %s (%d)\n", __FILE__, __LINE__, path, strerror(errno), errno);
    return "";
  }
  return path;
}

void RequestHandler::SetTaskErrDataByItemRc(int item_result, Json::Value& data) {
  switch (item_result) {
    case kItemBadPassword:
      LOG_ERROR("Password is wrong");
      data["code"] = 800;
      break;
    case kItemNoSpace:
      LOG_ERROR("Disk is full");
      data["code"] = 600;
      break;
    default:
      LOG_ERROR("General error");
      data["code"] = 401;
      break;
  }
}
