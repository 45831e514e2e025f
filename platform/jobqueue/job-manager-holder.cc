#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

#include <memory>

#include "job-queue.h"
#include "logger.h"
#include "private-files.h"
#include "sync-service.h"

namespace tidepool::db::job {

namespace {
std::unique_ptr<SQLite::Database> queue_database;
}

JobManagerHolder& JobManagerHolder::Instance() {
  static JobManagerHolder holder;
  return holder;
}

int JobManagerHolder::Initialize() {
  if (queue_database) return 0;
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) return -1;
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  tpsys::PreparePrivateDatabase(config.GetSystemRepoLocation() + "/job-queue.sqlite", true);
  try {
    auto database =
        std::make_unique<SQLite::Database>(config.GetSystemRepoLocation() + "/job-queue.sqlite",
                                           SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database->setBusyTimeout(5000);
    database->exec("PRAGMA journal_mode=WAL");
    database->exec(
        "CREATE TABLE IF NOT EXISTS jobs (id INTEGER PRIMARY KEY, name TEXT NOT NULL, "
        "payload TEXT NOT NULL, not_before INTEGER NOT NULL DEFAULT 0, "
        "state INTEGER NOT NULL DEFAULT 0)");
    queue_database = std::move(database);
    return 0;
  } catch (const SQLite::Exception& e) {
    LOG_ERROR("cannot open the job queue: %s\n", e.what());
    return -1;
  }
}

void JobManagerHolder::Destroy() {
  queue_database.reset();
}

bool JobManagerHolder::IsInitialized() const { return queue_database != nullptr; }

}  // namespace tidepool::db::job
