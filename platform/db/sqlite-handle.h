// A process-wide SQLite connection held between Initialize and Destroy.
#pragma once

#include <SQLiteCpp/Database.h>

#include <memory>
#include <string>

namespace db::internal {

// Opens (creating when missing) `path` in WAL mode with a busy timeout, since
// the daemon, tools and requests use the same files at once. Null on failure.
std::unique_ptr<SQLite::Database> OpenDatabase(const std::string& path);

// Opens `handle` on "<connect_param>/<file_name>" for the "sqlite" backend,
// unless it is open already. 0, or -1 for another backend or a failure.
int OpenProcessWide(std::unique_ptr<SQLite::Database>& handle, const std::string& connect_param,
                    const std::string& backend, const char* file_name);

}  // namespace db::internal
