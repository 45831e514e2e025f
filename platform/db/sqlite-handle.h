// A process-wide SQLite connection held between Initialize and Destroy.
#pragma once

#include <SQLiteCpp/Database.h>

#include <memory>
#include <string>

namespace db::internal {

// Opens (creating when missing) `path` in WAL mode with a busy timeout, since
// the daemon, tools and requests use the same files at once. Null on failure.
std::unique_ptr<SQLite::Database> OpenDatabase(const std::string& path);

}  // namespace db::internal
