// Opening the SQLite files of the sync databases, their schema versions and
// the one place where storage errors become db::Result values.
#pragma once

#include <SQLiteCpp/Database.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace db::internal {

// Opens `path` in WAL mode with a busy timeout, since the daemon, tools and
// requests use the same files at once. With `create` false a missing file
// is an error. Null on failure, with the reason in `result` when given.
// `read_only` opens an existing file without changing it or its mode
// (`create` is then ignored).
std::unique_ptr<SQLite::Database> OpenDatabase(const std::string& path, bool create = true,
                                               int* result = nullptr, bool read_only = false);

// Opens `handle` on "<connect_param>/<file_name>" for the "sqlite" backend,
// unless it is open already, and brings its schema up to date. 0 or negative.
int OpenProcessWide(std::unique_ptr<SQLite::Database>& handle, const std::string& connect_param,
                    const std::string& backend, const char* file_name,
                    const std::vector<const char*>& migrations);

// The storage error of an exception as a db::Result.
int ErrorOf(const std::exception& e);

void LogFailure(const char* what, const std::exception& e);

// Runs `f` (returning an int), turning any exception into a db::Result.
template <typename F>
int Guard(const char* what, F&& f) noexcept {
  try {
    return f();
  } catch (const std::exception& e) {
    LogFailure(what, e);
    return ErrorOf(e);
  }
}

// Brings the schema to the newest version: migrations[i] takes version i to
// i + 1, recorded in the table `meta` under "schema_version". A file written
// by a newer service gives kErrNewerSchema; one that is not ours, kErrCorrupt.
int Migrate(SQLite::Database& db, const std::vector<const char*>& migrations);
// For a file opened read-only: 0 when its schema is the newest, else as
// Migrate would fail (an older schema is kErrCannotOpen, as it cannot be
// brought up to date without writing).
int CheckSchema(SQLite::Database& db, const std::vector<const char*>& migrations);

// Text values of the table `meta`.
std::string GetMeta(SQLite::Database& db, const char* key, const std::string& fallback = "");
void SetMeta(SQLite::Database& db, const char* key, const std::string& value);

}  // namespace db::internal
