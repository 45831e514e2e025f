// Builds the repository that the database usage benchmark measures: share
// views added beside the demo's until there are VIEWS views, holding
// VERSIONS versions in all (files of five versions each, an origin and four
// deltas, every one a row of the volume's store), and an office folder of
// OFFICE_FILES files of 0-8 KiB, 100 to a folder. The share users are left
// disabled, so the running service has nothing to watch for them.
//
// usage: bench_dbusage_repo VIEWS VERSIONS OFFICE_FILES
// prints: views=N versions=N office_files=N office_bytes=N built_ms=T
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "db/manager.h"
#include "file-store-db.h"
#include "user-manager.h"

namespace {

constexpr const char* kConnect = "/volume1/@tidepool";
constexpr const char* kOffice = "/volume1/@tidepool-office";
constexpr int kVersionsPerFile = 5;

std::string ViewFile(uint64_t view_id) {
  return std::string(kConnect) + "/views/" + std::to_string(view_id) + ".sqlite";
}

// A bulk load leaves a write-ahead log as big as itself; the service's
// steady state is a checkpointed one.
int Checkpoint(const std::string& file) {
  sqlite3* handle = nullptr;
  int rc = sqlite3_open(file.c_str(), &handle);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(handle, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
  sqlite3_close(handle);
  return rc == SQLITE_OK ? 0 : -1;
}

int ExistingViews() {
  std::list<UserInfo> users;
  if (UserManager::EnumAllUser(users) < 0) return -1;
  int views = 0;
  struct stat st {};
  for (const UserInfo& user : users) {
    if (user.view_id != 0 && stat(ViewFile(user.view_id).c_str(), &st) == 0) ++views;
  }
  return views;
}

// The store of /volume1, opened for writing; its folder in `folder`.
int OpenStore(filestore::FileTable& table, std::string& folder) {
  std::map<std::string, std::string> volumes;
  if (db::Manager::EnumVolumeTable(volumes) <= 0 || volumes.count("/volume1") == 0) return -1;
  folder = volumes["/volume1"];
  return table.Open(folder + "/" + filestore::kDatabaseName, false);
}

// One share view of `versions` versions whose contents are new rows of the
// store.
int BuildView(int index, int versions, filestore::FileTable& store) {
  char name[32];
  snprintf(name, sizeof name, "bench-%02d", index);
  if (UserManager::EnableShare(name, std::string("/volume1/") + name, false) < 0) return -1;
  UserInfo share;
  if (UserManager::GetShareUser(name, share) < 0 || share.view_id == 0) return -1;
  if (UserManager::DisableShare(name) < 0) return -1;
  if (db::Manager::CreateView(share.view_id) < 0) return -1;
  std::unique_ptr<db::ViewWriter> writer;
  if (db::Manager::GetViewWriter(share.view_id, writer) < 0) return -1;
  if (writer->Begin() < 0 || store.BeginBatch() < 0) return -1;
  db::Node node;
  uint64_t previous = 0;
  for (int v = 0; v < versions; ++v) {
    const int file = v / kVersionsPerFile;
    const int step = v % kVersionsPerFile;
    filestore::FileRow row;
    row.size = 4096 + static_cast<uint64_t>((file * 7919 + step * 104729) % 1000000);
    row.base_id = step == 0 ? 0 : previous;
    row.depth = static_cast<uint32_t>(step);
    row.stored_size = step == 0 ? row.size : row.size / 20 + 64;
    row.hash = std::to_string(index) + "-" + std::to_string(v);
    row.has_signature = true;
    if (store.Insert(row) < 0) return -1;
    previous = row.file_id;
    db::NewVersion version;
    version.path = "/file-" + std::to_string(file) + ".dat";
    version.size = row.size;
    version.hash = row.hash;
    version.ctime = version.mtime = 1700000000u + static_cast<uint32_t>(v);
    version.file_id = row.file_id;
    version.file_uuid = store.uuid();
    version.client_id = "bench";
    if (writer->AddVersion(version, node) < 0) return -1;
  }
  if (store.CommitBatch() < 0 || writer->Commit() < 0) return -1;
  writer.reset();
  return Checkpoint(ViewFile(share.view_id));
}

int BuildOffice(int files, unsigned long long& bytes) {
  bytes = 0;
  if (mkdir(kOffice, 0700) != 0) return -1;
  static const std::string kFill(8192, 'o');
  for (int i = 0; i < files; ++i) {
    const std::string folder = std::string(kOffice) + "/d" + std::to_string(i / 100);
    if (i % 100 == 0 && mkdir(folder.c_str(), 0700) != 0) return -1;
    const std::string path = folder + "/doc-" + std::to_string(i) + ".odoc";
    const size_t size = static_cast<size_t>((i * 7919) % 8193);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    const bool written = size == 0 || write(fd, kFill.data(), size) == static_cast<ssize_t>(size);
    if (close(fd) != 0 || !written) return -1;
    bytes += size;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s VIEWS VERSIONS OFFICE_FILES\n", argv[0]);
    return 2;
  }
  const int views = atoi(argv[1]);
  const int versions = atoi(argv[2]);
  const int office_files = atoi(argv[3]);
  const auto start = std::chrono::steady_clock::now();
  if (UserManager::Initialize(kConnect, "sqlite") < 0 ||
      db::Manager::Initialize(kConnect, kConnect, "sqlite") < 0) {
    std::fprintf(stderr, "cannot open the repository\n");
    return 1;
  }
  const int existing = ExistingViews();
  const int added = views - existing;
  if (existing < 0 || added < 1) {
    std::fprintf(stderr, "the repository has %d views already\n", existing);
    return 1;
  }
  filestore::FileTable store;
  std::string folder;
  if (OpenStore(store, folder) < 0) {
    std::fprintf(stderr, "no store on /volume1: version something first\n");
    return 1;
  }
  for (int i = 0; i < added; ++i) {
    const int share = versions / added + (i < versions % added ? 1 : 0);
    if (BuildView(i, share, store) < 0) {
      std::fprintf(stderr, "cannot build view %d\n", i);
      return 1;
    }
  }
  unsigned long long office_bytes = 0;
  if (Checkpoint(folder + "/" + filestore::kDatabaseName) < 0 ||
      BuildOffice(office_files, office_bytes) < 0) {
    std::fprintf(stderr, "cannot finish the store or the office folder\n");
    return 1;
  }
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("views=%d versions=%d office_files=%d office_bytes=%llu built_ms=%.0f\n",
              ExistingViews(), versions, office_files, office_bytes, ms);
  return 0;
}
