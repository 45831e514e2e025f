#include "sqlite-handle.h"

#include <SQLiteCpp/Exception.h>
#include <sqlite3.h>

#include <filesystem>

#include "logger.h"

namespace db::internal {

std::unique_ptr<SQLite::Database> OpenDatabase(const std::string& path) {
  try {
    auto database = std::make_unique<SQLite::Database>(
        path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_FULLMUTEX);
    database->setBusyTimeout(5000);
    database->exec("PRAGMA journal_mode=WAL");
    // Requests open these files each time: keeping the -wal and -shm files
    // spares creating and removing them on every request.
    int persist = 1;
    sqlite3_file_control(database->getHandle(), "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    return database;
  } catch (const SQLite::Exception& e) {
    LOG_ERROR("cannot open database '%s': %s\n", path.c_str(), e.what());
    return nullptr;
  }
}

int OpenProcessWide(std::unique_ptr<SQLite::Database>& handle, const std::string& connect_param,
                    const std::string& backend, const char* file_name) {
  if (backend != "sqlite") return -1;
  if (handle) return 0;
  std::error_code ec;
  std::filesystem::create_directories(connect_param, ec);
  handle = OpenDatabase(connect_param + "/" + file_name);
  return handle ? 0 : -1;
}

}  // namespace db::internal
