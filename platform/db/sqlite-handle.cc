#include "sqlite-handle.h"

#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>

#include "db/errors.h"
#include "logger.h"
#include "private-files.h"

namespace db {

const char* GetErrMsg(int result) {
  switch (result) {
    case kOk:
      return "success";
    case kErrBusy:
      return "database is busy";
    case kErrNotFound:
      return "no such node";
    case kErrCorrupt:
      return "database is damaged";
    case kErrCannotOpen:
      return "cannot open database";
    case kErrInvalid:
      return "invalid argument";
    case kErrNewerSchema:
      return "database was written by a newer version";
    default:
      return result >= 0 ? "success" : "database failure";
  }
}

namespace internal {
namespace {

int FromSqliteCode(int code) {
  switch (code & 0xff) {
    case SQLITE_OK:
      return kOk;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return kErrBusy;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
      return kErrCorrupt;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_AUTH:
    case SQLITE_READONLY:
      return kErrCannotOpen;
    case SQLITE_MISMATCH:
    case SQLITE_RANGE:
    case SQLITE_TOOBIG:
    case SQLITE_CONSTRAINT:
      return kErrInvalid;
    default:
      return kErrGeneral;
  }
}

// The schema version recorded in `meta`; 0 for an empty file, -1 for a
// file that is not ours.
long long SchemaVersionOf(SQLite::Database& db) {
  if (!db.tableExists("meta")) {
    // Any other table means a file that is not ours.
    SQLite::Statement q(db, "SELECT count(*) FROM sqlite_master");
    q.executeStep();
    return q.getColumn(0).getInt() == 0 ? 0 : -1;
  }
  std::string text = GetMeta(db, "schema_version", "");
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  return (text.empty() || *end != '\0' || v < 0) ? -1 : v;
}

// No pragma that writes and no file made or narrowed: a checker must leave
// the repository exactly as it found it.
std::unique_ptr<SQLite::Database> OpenReadOnly(const std::string& path, int* result) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    if (result) *result = kErrCannotOpen;
    return nullptr;
  }
  try {
    auto database =
        std::make_unique<SQLite::Database>(path, SQLite::OPEN_READONLY | SQLite::OPEN_FULLMUTEX);
    database->setBusyTimeout(5000);
    return database;
  } catch (const std::exception& e) {
    LOG_ERROR("cannot open database '%s': %s\n", path.c_str(), e.what());
    if (result) *result = kErrCannotOpen;
    return nullptr;
  }
}

}  // namespace

int ErrorOf(const std::exception& e) {
  if (const auto* sql = dynamic_cast<const SQLite::Exception*>(&e)) {
    return FromSqliteCode(sql->getErrorCode());
  }
  return kErrGeneral;
}

void LogFailure(const char* what, const std::exception& e) {
  LOG_ERROR("%s: %s\n", what, e.what());
}

std::unique_ptr<SQLite::Database> OpenDatabase(const std::string& path, bool create, int* result,
                                               bool read_only) {
  if (result) *result = kOk;
  if (read_only) return OpenReadOnly(path, result);
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  if (tpsys::PreparePrivateDatabase(path, create) < 0 && !create) {
    if (result) *result = kErrCannotOpen;
    return nullptr;
  }
  try {
    int flags = SQLite::OPEN_READWRITE | SQLite::OPEN_FULLMUTEX;
    if (create) flags |= SQLite::OPEN_CREATE;
    auto database = std::make_unique<SQLite::Database>(path, flags);
    database->setBusyTimeout(5000);
    database->exec("PRAGMA journal_mode=WAL");
    // In WAL mode NORMAL never corrupts the file; it only lets a power loss
    // take the last commits with it, and it spares one sync per commit (the
    // scanner writes a log record per change).
    database->exec("PRAGMA synchronous=NORMAL");
    database->exec("PRAGMA foreign_keys=OFF");
    // Requests open these files each time: keeping the -wal and -shm files
    // spares creating and removing them on every request.
    int persist = 1;
    sqlite3_file_control(database->getHandle(), "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    return database;
  } catch (const std::exception& e) {
    LOG_ERROR("cannot open database '%s': %s\n", path.c_str(), e.what());
    if (result) *result = ErrorOf(e) == kErrGeneral ? kErrCannotOpen : ErrorOf(e);
    return nullptr;
  }
}

int OpenProcessWide(std::unique_ptr<SQLite::Database>& handle, const std::string& connect_param,
                    const std::string& backend, const char* file_name,
                    const std::vector<const char*>& migrations) {
  if (backend != "sqlite") return kErrInvalid;
  if (handle) return kOk;
  tpsys::MakePrivateDir(connect_param);
  int rc = kOk;
  auto database = OpenDatabase(connect_param + "/" + file_name, true, &rc);
  if (!database) return rc;
  rc = Migrate(*database, migrations);
  if (rc < 0) return rc;
  handle = std::move(database);
  return kOk;
}

std::string GetMeta(SQLite::Database& db, const char* key, const std::string& fallback) {
  SQLite::Statement q(db, "SELECT value FROM meta WHERE key = ?");
  q.bind(1, key);
  if (!q.executeStep()) return fallback;
  return q.getColumn(0).getString();
}

void SetMeta(SQLite::Database& db, const char* key, const std::string& value) {
  SQLite::Statement q(db, "INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
  q.bind(1, key);
  q.bind(2, value);
  q.exec();
}

int CheckSchema(SQLite::Database& db, const std::vector<const char*>& migrations) {
  return Guard("schema", [&]() -> int {
    const long long current = SchemaVersionOf(db);
    const auto newest = static_cast<long long>(migrations.size());
    if (current < 0) return static_cast<int>(kErrCorrupt);
    if (current > newest) return static_cast<int>(kErrNewerSchema);
    if (current < newest) {
      LOG_ERROR("database schema %lld is older than %lld; the service brings it up to date\n",
                current, newest);
      return static_cast<int>(kErrCannotOpen);
    }
    return static_cast<int>(kOk);
  });
}

int Migrate(SQLite::Database& db, const std::vector<const char*>& migrations) {
  return Guard("schema", [&]() -> int {
    auto version_of = [&] { return SchemaVersionOf(db); };
    long long current = version_of();
    if (current < 0) return static_cast<int>(kErrCorrupt);
    const auto newest = static_cast<long long>(migrations.size());
    if (current > newest) return static_cast<int>(kErrNewerSchema);
    if (current == newest) return static_cast<int>(kOk);
    // Another process may be migrating the same file: take the write lock
    // first, then look again.
    db.exec("BEGIN IMMEDIATE");
    try {
      current = version_of();
      if (current < 0 || current > newest) {
        db.exec("ROLLBACK");
        return static_cast<int>(current < 0 ? kErrCorrupt : kErrNewerSchema);
      }
      if (current == 0)
        db.exec("CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT)");
      for (long long v = current; v < newest; ++v) db.exec(migrations[v]);
      SetMeta(db, "schema_version", std::to_string(newest));
      db.exec("COMMIT");
    } catch (...) {
      db.exec("ROLLBACK");
      throw;
    }
    return static_cast<int>(kOk);
  });
}

}  // namespace internal
}  // namespace db
