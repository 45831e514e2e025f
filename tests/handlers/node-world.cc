#include "node-world.h"

#include <gtest/gtest.h>

#include <json/writer.h>
#include <sqlite3.h>

#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

#include "db/manager.h"
#include "db/view-writer.h"
#include "host-accounts.h"
#include "sandbox.h"
#include "seed.h"
#include "user-manager.h"

namespace tptest {

namespace {

constexpr const char* kConnect = "/volume1/@tidepool";

std::map<uint64_t, std::unique_ptr<db::ViewWriter>>& Writers() {
  static std::map<uint64_t, std::unique_ptr<db::ViewWriter>> writers;
  return writers;
}

db::ViewWriter& Writer(uint64_t view) {
  auto& writer = Writers()[view];
  if (!writer) {
    EXPECT_GE(db::Manager::GetViewWriter(view, writer), 0) << "view " << view;
  }
  return *writer;
}

std::string Trimmed(const std::string& path) {
  if (path.size() > 1 && path.back() == '/') return path.substr(0, path.size() - 1);
  return path;
}

void RunSqlOn(const std::string& file, const std::string& sql) {
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK) << file;
  sqlite3_busy_timeout(handle, 5000);
  EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << file << ": " << sql << ": " << sqlite3_errmsg(handle);
  sqlite3_close(handle);
}

}  // namespace

void RunSql(uint64_t view, const std::string& sql) { RunSqlOn(ViewFile(view), sql); }

WebAnswer CallNode(const std::string& method, const Params& params, const std::string& sid) {
  return CallApi("KSTX.Tidepool.Node", method, params, sid);
}

void SeedWorld() {
  Writers().clear();
  db::Manager::Destroy();
  UserManager::Destroy();
  SeedDemoSystem();
  ASSERT_GE(UserManager::Initialize(kConnect, "sqlite"), 0);
  ASSERT_GE(db::Manager::Initialize("/volume1/@tidepool", kConnect, "sqlite"), 0);
}

uint64_t HomeView(const std::string& user) {
  UserInfo info;
  EXPECT_GT(UserManager::GetUser(user, info, UserManager::kQueryStored), 0) << user;
  EXPECT_NE(info.view_id, 0u) << user;
  EXPECT_GE(db::Manager::CreateView(info.view_id), 0);
  return info.view_id;
}

void AddHostShare(const std::string& name, bool active) {
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  hostaccounts::Share share;
  share.name = name;
  share.volume = "/volume1";
  share.path = "/volume1/" + name;
  share.active = active;
  ASSERT_GE(accounts->AddShare(share), 0);
}

uint64_t AddEnabledShare(const std::string& name, bool encrypted, bool mounted) {
  auto accounts = hostaccounts::HostAccounts::Open();
  EXPECT_TRUE(accounts);
  hostaccounts::Share share;
  share.name = name;
  share.volume = "/volume1";
  share.path = "/volume1/" + name;
  share.encrypted = encrypted;
  share.mounted = mounted;
  EXPECT_GE(accounts->AddShare(share), 0);
  EXPECT_GE(UserManager::EnableShare(name, share.path, encrypted), 0);
  UserInfo info;
  EXPECT_GE(UserManager::GetShareUser(name, info), 0);
  EXPECT_EQ(info.name, name);
  EXPECT_GE(db::Manager::CreateView(info.view_id), 0);
  // A share's rights come from its stored modes alone: give its root the
  // usual open mode. No writer operation records a version of the root, so
  // the mode is set in the file.
  RunSql(info.view_id, "UPDATE versions SET mode = 493 WHERE node_id = " +
                           std::to_string(NodeAt(info.view_id, "/").getNodeId()));
  return info.view_id;
}

void Apply(uint64_t view, const std::vector<Step>& steps) {
  db::ViewWriter& writer = Writer(view);
  for (const Step& step : steps) {
    const bool folder = step.path.back() == '/';
    const std::string path = Trimmed(step.path);
    db::Node node;
    switch (step.op) {
      case kAdd:
      case kModify: {
        db::NewVersion version;
        version.path = path;
        version.file_type = folder ? db::kFileTypeDir : db::kFileTypeFile;
        version.size = step.size;
        version.hash = folder ? ""
                              : std::to_string(std::hash<std::string>()(path)) + "-" +
                                    std::to_string(step.time);
        version.ctime = step.time;
        version.mtime = step.time;
        version.mode = step.mode;
        version.client_id = "client-" + std::to_string(step.time);
        ASSERT_GE(writer.AddVersion(version, node), 0) << path;
        break;
      }
      case kRemove:
        node = NodeAt(view, path);
        ASSERT_GE(writer.RemoveNode(node.getNodeId(), step.time, "remover"), 0) << path;
        break;
      case kMove:
        node = NodeAt(view, path);
        ASSERT_GE(writer.MoveNode(node.getNodeId(), Trimmed(step.to), step.time, "mover"), 0)
            << path;
        break;
    }
  }
}

db::Node NodeAt(uint64_t view, const std::string& path) {
  db::Node node;
  EXPECT_EQ(Writer(view).Reader().QueryNode(Trimmed(path), node, db::ViewManager::kQueryAny), 0)
      << path;
  return node;
}

std::string ViewFile(uint64_t view) {
  return std::string(kConnect) + "/views/" + std::to_string(view) + ".sqlite";
}

void SetRotateCount(uint64_t view, int count) {
  ASSERT_GE(Writer(view).Reader().SetRotateCount(count), 0);
}

void MarkPermanentlyRemoved(uint64_t view, const std::string& path) {
  RunSql(view, "UPDATE nodes SET permanent_removed = 1 WHERE node_id = " +
                   std::to_string(NodeAt(view, path).getNodeId()));
}

std::string DatabaseChecksums() {
  // Pages still in a write-ahead log may be copied into the database file
  // by whichever connection closes last, a reader too; move them first, so
  // that only a real change alters a file.
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/volume1/@tidepool")) {
    if (entry.path().extension() == ".sqlite") {
      RunSqlOn(entry.path().string(), "PRAGMA wal_checkpoint(TRUNCATE)");
    }
  }
  std::string lines;
  std::map<std::string, size_t> sums;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/volume1/@tidepool")) {
    const std::string path = entry.path().string();
    // The shared-memory index of a WAL database changes with every reader.
    if (!entry.is_regular_file() || path.ends_with("-shm")) continue;
    sums[path] = std::hash<std::string>()(ReadFile(path));
  }
  for (const auto& [path, sum] : sums) lines += std::to_string(sum) + " " + path + "\n";
  return lines;
}

}  // namespace tptest
