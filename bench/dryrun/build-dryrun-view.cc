// Builds, in the home view of USER, one folder "/big" holding 100,000 nodes
// (1,000 folders of 99 files each), every 50th file a password-protected
// office document, then prints what the dry-run benchmark needs:
//
//   big_node_id=ID
//   big_permanent_id=ID
//   protected=N             protected documents below /big
//   view_file=PATH          the view's database
//   db_search_ms=T          the view library's search for them, in process
//
// usage: bench_dryrun_view USER
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "db/manager.h"
#include "user-manager.h"

namespace {

constexpr const char* kConnect = "/volume1/@tidepool";
constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 99;
constexpr int kProtectedEvery = 50;

using Clock = std::chrono::steady_clock;

double Millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

int Build(uint64_t view_id, db::Node& big, int& protected_count) {
  if (db::Manager::CreateView(view_id) < 0) return -1;
  std::unique_ptr<db::ViewWriter> writer;
  if (db::Manager::GetViewWriter(view_id, writer) < 0) return -1;
  db::NewVersion top;
  top.path = "/big";
  top.file_type = db::kFileTypeDir;
  top.ctime = top.mtime = 1000;
  if (writer->AddVersion(top, big) < 0) return -1;
  if (writer->Begin() < 0) return -1;
  db::Node node;
  int n = 0;
  for (int f = 0; f < kFolders; ++f) {
    db::NewVersion folder;
    folder.path = "/big/folder-" + std::to_string(f);
    folder.file_type = db::kFileTypeDir;
    folder.ctime = folder.mtime = 2000;
    if (writer->AddVersion(folder, node) < 0) return -1;
    for (int i = 0; i < kFilesPerFolder; ++i, ++n) {
      db::NewVersion file;
      const bool is_protected = n % kProtectedEvery == 0;
      file.path = folder.path + "/file-" + std::to_string(i) + (is_protected ? ".tdoc" : ".txt");
      file.size = 1000 + n;
      file.ctime = 3000;
      file.mtime = 1000000 + n;
      file.encrypted = is_protected;
      protected_count += is_protected ? 1 : 0;
      if (writer->AddVersion(file, node) < 0) return -1;
    }
  }
  return writer->Commit();
}

// The service's steady state is a checkpointed write-ahead log.
int Checkpoint(uint64_t view_id) {
  const std::string file = std::string(kConnect) + "/views/" + std::to_string(view_id) + ".sqlite";
  sqlite3* handle = nullptr;
  int rc = sqlite3_open(file.c_str(), &handle);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(handle, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
  sqlite3_close(handle);
  return rc == SQLITE_OK ? 0 : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s USER\n", argv[0]);
    return 2;
  }
  UserInfo info;
  if (UserManager::Initialize(kConnect, "sqlite") < 0 ||
      UserManager::GetUser(argv[1], info, UserManager::kQueryStored) <= 0 || info.view_id == 0) {
    std::fprintf(stderr, "no home view for %s\n", argv[1]);
    return 1;
  }
  if (db::Manager::Initialize(kConnect, kConnect, "sqlite") < 0) return 1;
  db::Node big;
  int protected_count = 0;
  if (Build(info.view_id, big, protected_count) < 0 || Checkpoint(info.view_id) < 0) {
    std::fprintf(stderr, "cannot build the view\n");
    return 1;
  }
  std::printf(
      "big_node_id=%llu\nbig_permanent_id=%llu\nprotected=%d\nview_file=%s/views/%llu.sqlite\n",
      static_cast<unsigned long long>(big.getNodeId()),
      static_cast<unsigned long long>(big.getPermanentId()), protected_count, kConnect,
      static_cast<unsigned long long>(info.view_id));
  db::ViewDBInterface view;
  if (db::Manager::GetViewDB(info.view_id, view) < 0) return 1;
  db::SearchNodeFilter filter;
  filter.node_id = big.getNodeId();
  filter.recursive = true;
  filter.encrypted_only = true;
  double best = 1e30;
  std::vector<db::Node> found;
  for (int run = 0; run < 5; ++run) {
    const auto start = Clock::now();
    view->SearchNode(filter, found);
    best = std::min(best, Millis(Clock::now() - start));
  }
  std::printf("db_search_ms=%.2f\n", best);
  return static_cast<int>(found.size()) == protected_count ? 0 : 1;
}
