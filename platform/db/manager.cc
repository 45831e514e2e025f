#include "db/manager.h"

#include <SQLiteCpp/Statement.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "db/errors.h"
#include "sqlite-handle.h"
#include "view-db.h"

namespace db {

namespace {

constexpr const char* kFileName = "sync-db.sqlite";

constexpr const char* kSchema1 = R"sql(
CREATE TABLE volumes(
  volume TEXT PRIMARY KEY,
  uuid TEXT NOT NULL UNIQUE,
  folder TEXT NOT NULL);
CREATE TABLE usage(
  id INTEGER PRIMARY KEY CHECK(id = 1),
  size INTEGER NOT NULL,
  detail TEXT NOT NULL,
  time INTEGER NOT NULL);
)sql";

struct State {
  std::unique_ptr<SQLite::Database> handle;
  std::string connect;
  bool read_only = false;
};

State& Current() {
  static State state;
  return state;
}

std::string ViewPath(uint64_t view_id) {
  return Current().connect + "/views/" + std::to_string(view_id) + ".sqlite";
}

int FileSize(const std::string& path, unsigned long long& size) {
  size = 0;
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return kErrCannotOpen;
  size = static_cast<unsigned long long>(st.st_size);
  // The write-ahead log is part of the database's footprint.
  if (stat((path + "-wal").c_str(), &st) == 0) size += static_cast<unsigned long long>(st.st_size);
  return kOk;
}

int FolderOf(const std::string& uuid, std::string& folder) {
  if (!Current().handle) return kErrInvalid;
  return internal::Guard("volume table", [&]() -> int {
    SQLite::Statement q(*Current().handle, "SELECT folder FROM volumes WHERE uuid = ?");
    q.bind(1, uuid);
    if (!q.executeStep()) return static_cast<int>(kErrCannotOpen);
    folder = q.getColumn(0).getString();
    return static_cast<int>(folder.empty() || folder[0] != '/' ? kErrCorrupt : kOk);
  });
}

}  // namespace

bool Manager::InitTempFolder(const std::string& working_dir) {
  std::error_code ec;
  std::filesystem::create_directories(working_dir, ec);
  return !ec && std::filesystem::is_directory(working_dir, ec);
}

int Manager::Initialize(const std::string& /*repo_location*/, const std::string& connect_param,
                        const std::string& backend) {
  static const std::vector<const char*> migrations = {kSchema1};
  int rc =
      internal::OpenProcessWide(Current().handle, connect_param, backend, kFileName, migrations);
  if (rc == kOk) Current().connect = connect_param;
  return rc;
}

void Manager::Destroy() {
  Current().handle.reset();
  Current().connect.clear();
  Current().read_only = false;
}

bool Manager::IsInitialized() { return Current().handle != nullptr; }

int Manager::GetViewDB(uint64_t view_id, ViewDBInterface& out) {
  out.reset();
  if (!IsInitialized()) return kErrInvalid;
  if (view_id == 0) return kErrCannotOpen;
  std::unique_ptr<internal::ViewDB> view;
  int rc = Current().read_only ? internal::ViewDB::OpenReadOnly(ViewPath(view_id), view_id, view)
                               : internal::ViewDB::Open(ViewPath(view_id), view_id, false, view);
  if (rc < 0) return rc;
  out.reset(view.release());
  return kOk;
}

int Manager::CreateView(uint64_t view_id) {
  if (!IsInitialized() || Current().read_only) return kErrInvalid;
  if (view_id == 0) return kErrInvalid;
  return internal::ViewDB::Create(ViewPath(view_id), view_id);
}

int Manager::GetViewWriter(uint64_t view_id, std::unique_ptr<ViewWriter>& out) {
  out.reset();
  if (!IsInitialized() || Current().read_only) return kErrInvalid;
  if (view_id == 0) return kErrCannotOpen;
  std::unique_ptr<internal::ViewDB> view;
  int rc = internal::ViewDB::Open(ViewPath(view_id), view_id, true, view);
  if (rc < 0) return rc;
  out = std::move(view);
  return kOk;
}

int Manager::GetFileDB(const std::string& uuid, FileDBInterface& out, bool create,
                       const std::string& volume) {
  out.reset();
  if (create && Current().read_only) return kErrInvalid;
  std::string folder;
  int rc = FolderOf(uuid, folder);
  if (rc == kErrCannotOpen && create && !volume.empty()) {
    folder = volume + "/@tidepool/@sync";
    rc = RegisterVolume(volume, uuid, folder);
  }
  if (rc < 0) return rc;
  std::unique_ptr<FileManager> files;
  rc = OpenFileManager(folder, create, files);
  if (rc < 0) return rc;
  if (!files) return kErrCannotOpen;
  out.reset(files.release());
  return kOk;
}

std::string Manager::GetFilePath(const std::string& uuid, uint64_t file_id) {
  FileDBInterface files;
  if (GetFileDB(uuid, files, false, "") < 0) return "";
  std::string origin;
  std::vector<std::string> patches;
  if (files->GetPatchFiles(file_id, origin, patches) < 0) return "";
  return origin;
}

int Manager::RegisterVolume(const std::string& volume, const std::string& uuid,
                            const std::string& folder) {
  if (!IsInitialized() || Current().read_only) return kErrInvalid;
  if (volume.empty() || uuid.empty() || folder.empty() || folder[0] != '/') return kErrInvalid;
  return internal::Guard("register volume", [&]() -> int {
    SQLite::Statement q(*Current().handle,
                        "INSERT OR REPLACE INTO volumes(volume, uuid, folder) VALUES(?, ?, ?)");
    q.bind(1, volume);
    q.bind(2, uuid);
    q.bind(3, folder);
    q.exec();
    return static_cast<int>(kOk);
  });
}

int Manager::EnumVolumeTable(std::map<std::string, std::string>& out) {
  out.clear();
  if (!IsInitialized()) return kErrInvalid;
  return internal::Guard("volume table", [&]() -> int {
    SQLite::Statement q(*Current().handle, "SELECT volume, folder FROM volumes ORDER BY volume");
    while (q.executeStep()) out[q.getColumn(0).getString()] = q.getColumn(1).getString();
    return static_cast<int>(out.size());
  });
}

int Manager::EnumFileDBTable(std::map<std::string, std::string>& out) {
  out.clear();
  if (!IsInitialized()) return kErrInvalid;
  return internal::Guard("volume table", [&]() -> int {
    SQLite::Statement q(*Current().handle, "SELECT uuid, volume FROM volumes ORDER BY volume");
    while (q.executeStep()) out[q.getColumn(0).getString()] = q.getColumn(1).getString();
    return static_cast<int>(out.size());
  });
}

int Manager::GetDBUsage(unsigned long long& size, std::string& detail) {
  size = 0;
  detail.clear();
  if (!IsInitialized()) return kErrInvalid;
  return internal::Guard("usage", [&]() -> int {
    SQLite::Statement q(*Current().handle, "SELECT size, detail FROM usage WHERE id = 1");
    if (!q.executeStep()) return static_cast<int>(kOk);
    long long n = q.getColumn(0).getInt64();
    if (n < 0) return static_cast<int>(kErrCorrupt);
    size = static_cast<unsigned long long>(n);
    detail = q.getColumn(1).getString();
    return static_cast<int>(kOk);
  });
}

int Manager::SetDBUsage(unsigned long long size, const std::string& detail) {
  if (!IsInitialized()) return kErrInvalid;
  if (size > static_cast<unsigned long long>(INT64_MAX)) return kErrInvalid;
  return internal::Guard("usage", [&]() -> int {
    SQLite::Statement q(*Current().handle,
                        "INSERT OR REPLACE INTO usage(id, size, detail, time) VALUES(1, ?, ?, ?)");
    q.bind(1, static_cast<int64_t>(size));
    q.bind(2, detail);
    q.bind(3, static_cast<int64_t>(time(nullptr)));
    q.exec();
    return static_cast<int>(kOk);
  });
}

int Manager::GetViewDBFileSize(uint64_t view_id, unsigned long long& size) {
  size = 0;
  if (!IsInitialized()) return kErrInvalid;
  return FileSize(ViewPath(view_id), size);
}

int Manager::GetFileDBFileSize(const std::string& uuid, unsigned long long& size) {
  size = 0;
  std::string folder;
  int rc = FolderOf(uuid, folder);
  if (rc < 0) return rc;
  return FileSize(folder + "/file-db.sqlite", size);
}

int Manager::GetLogDBFileSize(unsigned long long& size) {
  size = 0;
  if (!IsInitialized()) return kErrInvalid;
  return FileSize(Current().connect + "/log-db.sqlite", size);
}

int Manager::InitializeReadOnly(const std::string& connect_param, const std::string& backend) {
  static const std::vector<const char*> migrations = {kSchema1};
  if (backend != "sqlite") return kErrInvalid;
  if (IsInitialized()) return Current().read_only ? kOk : kErrInvalid;
  int rc = kOk;
  auto database = internal::OpenDatabase(connect_param + "/" + kFileName, false, &rc, true);
  if (!database) return rc;
  if ((rc = internal::CheckSchema(*database, migrations)) < 0) return rc;
  Current().handle = std::move(database);
  Current().connect = connect_param;
  Current().read_only = true;
  return kOk;
}

}  // namespace db
