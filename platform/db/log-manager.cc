#include "db/log-manager.h"

#include "sqlite-handle.h"

namespace db {
namespace {

constexpr const char* kFileName = "log-db.sqlite";

std::unique_ptr<SQLite::Database>& Handle() {
  static std::unique_ptr<SQLite::Database> handle;
  return handle;
}

}  // namespace

int LogManager::Initialize(const std::string& /*repo_location*/, const std::string& connect_param,
                           const std::string& backend, bool /*read_only*/) {
  return internal::OpenProcessWide(Handle(), connect_param, backend, kFileName);
}

void LogManager::Destroy() { Handle().reset(); }

bool LogManager::IsInitialized() { return Handle() != nullptr; }

}  // namespace db
