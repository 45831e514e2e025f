#include "db/manager.h"

#include <sys/stat.h>

#include <filesystem>

#include "sqlite-handle.h"

namespace db {
namespace {

constexpr const char* kFileName = "sync-db.sqlite";

std::unique_ptr<SQLite::Database>& Handle() {
  static std::unique_ptr<SQLite::Database> handle;
  return handle;
}

}  // namespace

bool Manager::InitTempFolder(const std::string& working_dir) {
  std::error_code ec;
  std::filesystem::create_directories(working_dir, ec);
  return !ec && std::filesystem::is_directory(working_dir, ec);
}

int Manager::Initialize(const std::string& /*repo_location*/, const std::string& connect_param,
                        const std::string& backend) {
  return internal::OpenProcessWide(Handle(), connect_param, backend, kFileName);
}

void Manager::Destroy() { Handle().reset(); }

bool Manager::IsInitialized() { return Handle() != nullptr; }

}  // namespace db
