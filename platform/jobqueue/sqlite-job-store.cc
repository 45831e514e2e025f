// The job queue as one SQLite table beside the repository's databases.
//
// Table `jobs`: id, name, payload, user, uid, state (0 waiting, 1 running,
// 2 failed), due, created, tries, max_tries, last_error. For a failed job
// `due` is when it gave up. Rules kept by the database itself:
//   - a partial UNIQUE index on (name, payload) WHERE state = 0 is what makes
//     a second push of a waiting job answer "already waiting", atomically
//     across processes;
//   - Count reads the (name, state) index;
//   - Claim is one UPDATE ... RETURNING, so two workers never take one job.
// Every write that must move several rows runs in BEGIN IMMEDIATE.
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include <ctime>
#include <filesystem>

#include "doorbell.h"
#include "logger.h"
#include "private-files.h"
#include "stores.h"

namespace tidepool::core::job_queue {

namespace {

constexpr int kSchemaVersion = 1;
constexpr const char* kColumns =
    "id, name, payload, user, uid, state, due, created, tries, max_tries, last_error";

// The one place where SQLite's failures become results.
int Failed(const char* what, const std::exception& e) {
  LOG_ERROR("job queue: %s: %s\n", what, e.what());
  return -1;
}

void ReadRecord(SQLite::Statement& row, JobRecord& out) {
  out.id = row.getColumn(0).getInt64();
  out.name = row.getColumn(1).getString();
  out.payload = row.getColumn(2).getString();
  out.user = row.getColumn(3).getString();
  out.uid = static_cast<uint32_t>(row.getColumn(4).getInt64());
  const int state = row.getColumn(5).getInt();
  // A state this code never writes reads as failed: shown, never run.
  out.state =
      state == 0 ? JobState::kWaiting : (state == 1 ? JobState::kRunning : JobState::kFailed);
  out.due = row.getColumn(6).getInt64();
  out.created = row.getColumn(7).getInt64();
  out.tries = row.getColumn(8).getInt();
  out.max_tries = row.getColumn(9).getInt();
  out.last_error = row.getColumn(10).getString();
}

class SQLiteJobStore final : public JobStore {
 public:
  SQLiteJobStore(std::unique_ptr<SQLite::Database> db, const std::string& bell)
      : db_(std::move(db)), bell_(bell) {}

  int Push(const NewJob& job) override {
    try {
      SQLite::Statement insert(*db_,
                               "INSERT INTO jobs (name, payload, user, uid, state, due, created, "
                               "max_tries) VALUES (?, ?, ?, ?, 0, ?, ?, ?) ON CONFLICT DO NOTHING");
      insert.bind(1, job.name);
      insert.bind(2, job.payload);
      insert.bind(3, job.user);
      insert.bind(4, static_cast<int64_t>(job.uid));
      insert.bind(5, static_cast<int64_t>(job.due));
      insert.bind(6, static_cast<int64_t>(time(nullptr)));
      insert.bind(7, job.max_tries);
      if (insert.exec() == 0) return 4;
    } catch (const std::exception& e) {
      return Failed("push", e);
    }
    // The job is queued whether or not the bell rings: a worker that sleeps
    // through it still finds the job on its next round.
    (void)bell_.Ring();
    return 0;
  }

  int PushMany(const std::vector<NewJob>& jobs, size_t& pushed) override {
    pushed = 0;
    int rc = 0;
    try {
      // One transaction, so one sync of the log for the whole list; what
      // was queued before a stop is committed all the same.
      SQLite::Transaction tx(*db_, SQLite::TransactionBehavior::IMMEDIATE);
      SQLite::Statement insert(*db_,
                               "INSERT INTO jobs (name, payload, user, uid, state, due, created, "
                               "max_tries) VALUES (?, ?, ?, ?, 0, ?, ?, ?) ON CONFLICT DO NOTHING");
      const int64_t now = time(nullptr);
      for (const NewJob& job : jobs) {
        insert.reset();
        insert.bind(1, job.name);
        insert.bind(2, job.payload);
        insert.bind(3, job.user);
        insert.bind(4, static_cast<int64_t>(job.uid));
        insert.bind(5, static_cast<int64_t>(job.due));
        insert.bind(6, now);
        insert.bind(7, job.max_tries);
        if (insert.exec() == 0) {
          rc = 4;
          break;
        }
        ++pushed;
      }
      tx.commit();
    } catch (const std::exception& e) {
      pushed = 0;
      return Failed("push", e);
    }
    if (pushed > 0) (void)bell_.Ring();
    return rc;
  }

  int Count(const std::optional<std::string>& name, const std::optional<std::string>& payload,
            long long& count) override {
    try {
      std::string sql = "SELECT count(*) FROM jobs WHERE state IN (0, 1)";
      if (name) sql += " AND name = ?";
      if (payload) sql += " AND payload = ?";
      SQLite::Statement query(*db_, sql);
      int index = 1;
      if (name) query.bind(index++, *name);
      if (payload) query.bind(index++, *payload);
      if (!query.executeStep()) return -1;
      count = query.getColumn(0).getInt64();
      return 0;
    } catch (const std::exception& e) {
      return Failed("count", e);
    }
  }

  int Claim(int64_t now, JobRecord& out) override {
    try {
      SQLite::Statement claim(*db_,
                              std::string("UPDATE jobs SET state = 1, tries = tries + 1 WHERE id = "
                                          "(SELECT id FROM jobs WHERE state = 0 AND due <= ? "
                                          "ORDER BY due, id LIMIT 1) RETURNING ") +
                                  kColumns);
      claim.bind(1, static_cast<int64_t>(now));
      if (!claim.executeStep()) return 0;
      ReadRecord(claim, out);
      return 1;
    } catch (const std::exception& e) {
      return Failed("claim", e);
    }
  }

  int Finish(int64_t id) override { return Remove(id, "finish"); }
  int Drop(int64_t id) override { return Remove(id, "drop"); }

  int Fail(int64_t id, const std::string& error, int64_t retry_at) override {
    try {
      SQLite::Transaction transaction(*db_, SQLite::TransactionBehavior::IMMEDIATE);
      SQLite::Statement job(*db_,
                            "SELECT tries < max_tries, EXISTS (SELECT 1 FROM jobs AS w WHERE "
                            "w.state = 0 AND w.name = j.name AND w.payload = j.payload AND "
                            "w.id != j.id) FROM jobs AS j WHERE j.id = ?");
      job.bind(1, static_cast<int64_t>(id));
      if (!job.executeStep()) return 0;  // gone already: nothing will run again
      const bool tries_left = job.getColumn(0).getInt() != 0;
      const bool waits_again = job.getColumn(1).getInt() != 0;
      job.reset();
      int result = 1;
      if (tries_left && waits_again) {
        // The waiting twin does the same work; one waiting copy is the rule.
        Exec("DELETE FROM jobs WHERE id = ?", id);
      } else if (tries_left) {
        SQLite::Statement retry(*db_,
                                "UPDATE jobs SET state = 0, due = ?, last_error = ? WHERE id = ?");
        retry.bind(1, static_cast<int64_t>(retry_at));
        retry.bind(2, error);
        retry.bind(3, static_cast<int64_t>(id));
        retry.exec();
      } else {
        SQLite::Statement give_up(
            *db_, "UPDATE jobs SET state = 2, due = ?, last_error = ? WHERE id = ?");
        give_up.bind(1, static_cast<int64_t>(time(nullptr)));
        give_up.bind(2, error);
        give_up.bind(3, static_cast<int64_t>(id));
        give_up.exec();
        result = 0;
      }
      transaction.commit();
      return result;
    } catch (const std::exception& e) {
      return Failed("fail", e);
    }
  }

  int ResetRunning() override {
    int count = 0;
    try {
      SQLite::Transaction transaction(*db_, SQLite::TransactionBehavior::IMMEDIATE);
      SQLite::Statement prune(*db_, "DELETE FROM jobs WHERE state = 2 AND due < ?");
      prune.bind(1, static_cast<int64_t>(time(nullptr)) - kFailedJobLifetime);
      prune.exec();
      // A job whose tries are spent fails rather than run again: it may be
      // what stopped the worker.
      SQLite::Statement spent(*db_,
                              "UPDATE jobs SET state = 2, due = ?, last_error = 'the worker "
                              "stopped while it ran' WHERE state = 1 AND tries >= max_tries");
      spent.bind(1, static_cast<int64_t>(time(nullptr)));
      spent.exec();
      // A running job whose twin waits already would break the unique
      // index: OR IGNORE leaves it running, and the DELETE below removes it.
      count += db_->exec("UPDATE OR IGNORE jobs SET state = 0 WHERE state = 1");
      count += db_->exec("DELETE FROM jobs WHERE state = 1");
      transaction.commit();
    } catch (const std::exception& e) {
      return Failed("reset", e);
    }
    if (count > 0) (void)bell_.Ring();
    return count;
  }

  int List(std::vector<JobRecord>& out) override {
    try {
      SQLite::Statement query(
          *db_, std::string("SELECT ") + kColumns + " FROM jobs ORDER BY created, id");
      std::vector<JobRecord> jobs;
      while (query.executeStep()) {
        ReadRecord(query, jobs.emplace_back());
      }
      out.swap(jobs);
      return 0;
    } catch (const std::exception& e) {
      return Failed("list", e);
    }
  }

  int NextDue(int64_t& due) override {
    try {
      SQLite::Statement query(*db_, "SELECT min(due) FROM jobs WHERE state = 0");
      if (!query.executeStep() || query.getColumn(0).isNull()) return 0;
      due = query.getColumn(0).getInt64();
      return 1;
    } catch (const std::exception& e) {
      return Failed("next due", e);
    }
  }

  int WakeFd() override { return bell_.Fd(); }
  void AckWake() override { bell_.Drain(); }

 private:
  int Remove(int64_t id, const char* what) {
    try {
      Exec("DELETE FROM jobs WHERE id = ?", id);
      return 0;
    } catch (const std::exception& e) {
      return Failed(what, e);
    }
  }

  void Exec(const char* sql, int64_t id) {
    SQLite::Statement statement(*db_, sql);
    statement.bind(1, static_cast<int64_t>(id));
    statement.exec();
  }

  std::unique_ptr<SQLite::Database> db_;
  Doorbell bell_;
};

int SchemaVersion(SQLite::Database& db) { return db.execAndGet("PRAGMA user_version").getInt(); }

void CreateSchema(SQLite::Database& db) {
  // Read first without the write lock: requests open the queue all the time.
  if (SchemaVersion(db) >= kSchemaVersion) return;
  SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
  if (SchemaVersion(db) >= kSchemaVersion) return;
  // An older install kept a placeholder table of another shape that never
  // held a job.
  db.exec("DROP TABLE IF EXISTS jobs");
  db.exec(
      "CREATE TABLE jobs (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL, "
      "payload TEXT NOT NULL, user TEXT NOT NULL DEFAULT '', uid INTEGER NOT NULL DEFAULT 0, "
      "state INTEGER NOT NULL DEFAULT 0, due INTEGER NOT NULL, created INTEGER NOT NULL, "
      "tries INTEGER NOT NULL DEFAULT 0, max_tries INTEGER NOT NULL, "
      "last_error TEXT NOT NULL DEFAULT '')");
  db.exec("CREATE UNIQUE INDEX jobs_waiting_once ON jobs (name, payload) WHERE state = 0");
  db.exec("CREATE INDEX jobs_by_name ON jobs (name, state)");
  db.exec("CREATE INDEX jobs_by_due ON jobs (due) WHERE state = 0");
  db.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
  transaction.commit();
}

}  // namespace

int OpenSQLiteJobStore(const std::string& path, std::unique_ptr<JobStore>& out) {
  if (path.empty() || path[0] != '/') return -1;
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  if (tpsys::PreparePrivateDatabase(path, true) < 0) {
    LOG_ERROR("cannot prepare the job queue %s: %m\n", path.c_str());
    return -1;
  }
  try {
    auto db = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE);
    db->setBusyTimeout(5000);
    db->exec("PRAGMA journal_mode = WAL");
    CreateSchema(*db);
    const auto bell = std::filesystem::path(path).parent_path() / "job-queue.bell";
    out = std::make_unique<SQLiteJobStore>(std::move(db), bell.string());
    return 0;
  } catch (const std::exception& e) {
    return Failed("open", e);
  }
}

}  // namespace tidepool::core::job_queue
