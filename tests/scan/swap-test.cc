// A user swaps an entry of their home for something else between the
// moment the scan lists it and the moment it opens it. The scan runs in
// this process so that the swap happens at exactly that moment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>

#include "appliance.h"
#include "content.h"
#include "control.h"
#include "db/manager.h"
#include "file-store.h"
#include "scan.h"
#include "sync-service.h"
#include "tree-walk.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

const std::string kHomeDir = "/volume1/homes/alice";
const std::string kHome = kHomeDir + "/Tidepool";
const std::string kSecret = "root's eyes only\n";

struct Seen {
  bool live = false;
  std::vector<std::string> contents;  // every version, oldest first
};

class SwapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    ASSERT_EQ(scantest::Control({"user", "--enable", "alice"}).exit_status, 0);
    fs::create_directories(kHome);
    // Files only root may read, outside every view.
    tptest::WriteFile("/volume1/secret", kSecret);
    tptest::WriteFile("/volume1/secret-dir/key", kSecret);
    ASSERT_EQ(chmod("/volume1/secret", 0600), 0);
    ASSERT_EQ(chmod("/volume1/secret-dir", 0700), 0);
  }
  void TearDown() override { scan::TEST_SetBeforeOpen({}); }

  // One scan at `at`; `swap` runs once, when the scan reaches `path`.
  scan::ScanSummary ScanSwapping(uint32_t at, const std::string& path = "",
                                 std::function<void()> swap = {}) {
    scan::TEST_SetBeforeOpen([path, swap](const std::string& reached) mutable {
      if (reached != path || !swap) return;
      swap();
      swap = {};
    });
    SyncConfigMgr config;
    EXPECT_GE(SyncGetConf(config), 0);
    scan::ScanSummary summary;
    scan::ScanOptions options;
    options.at = at;
    EXPECT_GE(scan::ScanAll(config, options, summary), 0);
    scan::TEST_SetBeforeOpen({});
    EXPECT_EQ(summary.failed, 0u);
    return summary;
  }

  // One scan at `at` while `folder` is still being written to: of what lies
  // in it, only what changed more than `settle_ms` ago (or a new file no
  // one writes any more) is versioned.
  scan::ScanSummary ScanBusy(uint32_t at, const std::string& folder, int64_t settle_ms) {
    SyncConfigMgr config;
    EXPECT_GE(SyncGetConf(config), 0);
    EXPECT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    UserInfo alice;
    EXPECT_GT(UserManager::GetUser("alice", alice, 0), 0);
    UserManager::Destroy();
    scan::ScanSummary summary;
    scan::ScanOptions options;
    options.at = at;
    options.busy[alice.view_id] = {folder};
    options.settle_ms = settle_ms;
    EXPECT_GE(scan::ScanAll(config, options, summary), 0);
    EXPECT_EQ(summary.failed, 0u);
    return summary;
  }

  // Every node of alice's view by path, removed ones too, with the content
  // of each of its versions.
  std::map<std::string, Seen> History() {
    std::map<std::string, Seen> out;
    EXPECT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    EXPECT_GE(db::Manager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite"), 0);
    UserInfo alice;
    EXPECT_GT(UserManager::GetUser("alice", alice, 0), 0);
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(alice.view_id, view), 0);
    std::unique_ptr<filestore::FileStore> store;
    EXPECT_EQ(filestore::FileStore::Open("/volume1/@tidepool/@sync", false, {}, store), 0);
    db::SearchNodeFilter filter;
    filter.node_id = view->getRootNodeId();
    filter.recursive = true;
    filter.removed_mode = 1;
    filter.file_type = -1;
    std::vector<db::Node> nodes;
    EXPECT_GE(view->SearchNode(filter, nodes), 0);
    for (const db::Node& n : nodes) {
      Seen& seen = out[n.getPath()];
      seen.live = !n.isRemoved();
      std::vector<db::Version> versions;
      EXPECT_GE(view->ListVersion(n.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
      for (const db::Version& v : versions) {
        if (v.getFileId() == 0) continue;
        EXPECT_EQ(store->Rebuild(v.getFileId(), "/volume1/rebuilt"), 0);
        seen.contents.push_back(tptest::ReadFile("/volume1/rebuilt"));
      }
    }
    view.reset();
    db::Manager::Destroy();
    UserManager::Destroy();
    return out;
  }

  static void ExpectNoSecret(const std::map<std::string, Seen>& history) {
    for (const auto& [path, seen] : history)
      for (const std::string& content : seen.contents)
        EXPECT_NE(content, kSecret) << path << " holds the root-only file";
  }
};

TEST_F(SwapTest, AFileSwappedForALinkToARootFileIsNotFollowedNorTakenAsRemoved) {
  tptest::WriteFile(kHome + "/doc.txt", "first\n");
  ScanSwapping(1700000000);
  tptest::WriteFile(kHome + "/doc.txt", "second, longer\n");

  const auto swapped = ScanSwapping(1700000100, "/doc.txt", [] {
    ASSERT_EQ(rename((kHome + "/doc.txt").c_str(), (kHomeDir + "/aside").c_str()), 0);
    ASSERT_EQ(symlink("/volume1/secret", (kHome + "/doc.txt").c_str()), 0);
  });
  EXPECT_EQ(swapped.deferred, 1u);
  EXPECT_EQ(swapped.removed, 0u);
  auto history = History();
  ExpectNoSecret(history);
  EXPECT_TRUE(history["/doc.txt"].live);
  EXPECT_EQ(history["/doc.txt"].contents, std::vector<std::string>{"first\n"});

  // Back in place, the next pass versions what is there.
  ASSERT_EQ(unlink((kHome + "/doc.txt").c_str()), 0);
  ASSERT_EQ(rename((kHomeDir + "/aside").c_str(), (kHome + "/doc.txt").c_str()), 0);
  EXPECT_EQ(ScanSwapping(1700000200).deferred, 0u);
  history = History();
  ExpectNoSecret(history);
  EXPECT_EQ(history["/doc.txt"].contents,
            (std::vector<std::string>{"first\n", "second, longer\n"}));
}

TEST_F(SwapTest, PipesAndFoldersTurnedLinksWaitForTheNextPass) {
  tptest::WriteFile(kHome + "/notes.txt", "one\n");
  tptest::WriteFile(kHome + "/sub/inner.txt", "inside\n");
  ScanSwapping(1700000000);
  tptest::WriteFile(kHome + "/notes.txt", "one and two\n");

  // A pipe in a file's place would hang a reader that opened it blocking.
  const auto piped = ScanSwapping(1700000100, "/notes.txt", [] {
    ASSERT_EQ(rename((kHome + "/notes.txt").c_str(), (kHomeDir + "/notes").c_str()), 0);
    ASSERT_EQ(mkfifo((kHome + "/notes.txt").c_str(), 0644), 0);
  });
  EXPECT_EQ(piped.deferred, 1u);
  EXPECT_EQ(piped.removed, 0u);
  auto history = History();
  EXPECT_TRUE(history["/notes.txt"].live);
  EXPECT_EQ(history["/notes.txt"].contents, std::vector<std::string>{"one\n"});
  ASSERT_EQ(unlink((kHome + "/notes.txt").c_str()), 0);
  ASSERT_EQ(rename((kHomeDir + "/notes").c_str(), (kHome + "/notes.txt").c_str()), 0);

  // A folder swapped for a link to a root-only folder is not entered.
  const auto linked = ScanSwapping(1700000200, "/sub", [] {
    ASSERT_EQ(rename((kHome + "/sub").c_str(), (kHomeDir + "/sub").c_str()), 0);
    ASSERT_EQ(symlink("/volume1/secret-dir", (kHome + "/sub").c_str()), 0);
  });
  EXPECT_EQ(linked.deferred, 1u);
  EXPECT_EQ(linked.removed, 0u);
  history = History();
  ExpectNoSecret(history);
  EXPECT_EQ(history.count("/sub/key"), 0u);
  EXPECT_TRUE(history["/sub"].live);
  EXPECT_TRUE(history["/sub/inner.txt"].live);
  EXPECT_EQ(history["/notes.txt"].contents, (std::vector<std::string>{"one\n", "one and two\n"}));

  ASSERT_EQ(unlink((kHome + "/sub").c_str()), 0);
  ASSERT_EQ(rename((kHomeDir + "/sub").c_str(), (kHome + "/sub").c_str()), 0);
  EXPECT_EQ(ScanSwapping(1700000300).deferred, 0u);
  history = History();
  EXPECT_TRUE(history["/sub/inner.txt"].live);
  EXPECT_EQ(history["/sub/inner.txt"].contents, std::vector<std::string>{"inside\n"});
}

// A copy still going on: what it finished is versioned, a file it still
// writes and a file rewritten in place wait, and a file moved into the
// folder keeps its node until the pass that sees it settled.
TEST_F(SwapTest, AFolderStillBeingWrittenVersionsOnlyWhatSettled) {
  tptest::WriteFile(kHome + "/busy/old.txt", "old\n");
  tptest::WriteFile(kHome + "/elsewhere/moved.txt", "moved\n");
  ScanSwapping(1700000000);
  tptest::WriteFile(kHome + "/busy/done.txt", "done\n");
  FILE* held = fopen((kHome + "/busy/held.txt").c_str(), "w");
  ASSERT_NE(held, nullptr);
  fputs("part\n", held);
  fflush(held);
  usleep(400000);
  tptest::WriteFile(kHome + "/busy/old.txt", "old, rewritten\n");
  ASSERT_EQ(rename((kHome + "/elsewhere/moved.txt").c_str(), (kHome + "/busy/moved.txt").c_str()),
            0);

  const auto busy = ScanBusy(1700000100, "/busy", 60000);
  EXPECT_EQ(busy.removed, 0u);
  EXPECT_EQ(busy.moved, 0u);
  auto history = History();
  EXPECT_EQ(history["/busy/done.txt"].contents, std::vector<std::string>{"done\n"});
  EXPECT_EQ(history.count("/busy/held.txt"), 0u);
  EXPECT_EQ(history["/busy/old.txt"].contents, std::vector<std::string>{"old\n"});
  EXPECT_TRUE(history["/elsewhere/moved.txt"].live);
  EXPECT_EQ(history.count("/busy/moved.txt"), 0u);

  // The copy is over: the next pass takes the rest, the move as a move.
  fputs("rest\n", held);
  fclose(held);
  const auto after = ScanSwapping(1700000200);
  EXPECT_EQ(after.removed, 0u);
  EXPECT_EQ(after.moved, 1u);
  history = History();
  EXPECT_EQ(history["/busy/held.txt"].contents, std::vector<std::string>{"part\nrest\n"});
  EXPECT_EQ(history["/busy/old.txt"].contents,
            (std::vector<std::string>{"old\n", "old, rewritten\n"}));
  EXPECT_TRUE(history["/busy/moved.txt"].live);
  // A move is a version of its own, of the same content.
  EXPECT_EQ(history["/busy/moved.txt"].contents, (std::vector<std::string>{"moved\n", "moved\n"}));
  EXPECT_EQ(history.count("/elsewhere/moved.txt"), 0u);
  EXPECT_EQ(history["/busy/done.txt"].contents, std::vector<std::string>{"done\n"});
}

}  // namespace
