#include "db/log-manager.h"

#include <filesystem>

#include "sqlite-handle.h"

namespace db {
namespace {

constexpr const char* kBackend = "sqlite";
constexpr const char* kFileName = "/log-db.sqlite";

std::unique_ptr<SQLite::Database>& Handle() {
  static std::unique_ptr<SQLite::Database> handle;
  return handle;
}

}  // namespace

int LogManager::Initialize(const std::string& /*repo_location*/, const std::string& connect_param,
                           const std::string& backend, bool /*read_only*/) {
  if (backend != kBackend) return -1;
  if (Handle()) return 0;
  std::error_code ec;
  std::filesystem::create_directories(connect_param, ec);
  Handle() = internal::OpenDatabase(connect_param + kFileName);
  return Handle() ? 0 : -1;
}

void LogManager::Destroy() { Handle().reset(); }

bool LogManager::IsInitialized() { return Handle() != nullptr; }

}  // namespace db
