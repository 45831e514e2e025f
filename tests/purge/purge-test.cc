#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "appliance.h"
#include "content.h"
#include "control.h"
#include "db/errors.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "file-store.h"
#include "process.h"
#include "purge.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

const std::string kRepo = "/volume1/@tidepool";
const std::string kStore = "/volume1/@tidepool/@sync";
const std::string kHome = "/volume1/homes/alice/Tidepool";
const std::string kShare = "/volume1/Docs";

using scantest::Control;
using scantest::Scan;

// Content large enough to be stored as deltas, and its edited forms.
std::string Big(uint32_t seed) { return tptest::RandomBytes(64 << 10, seed); }
std::string Edit(std::string s, uint32_t seed) {
  const std::string patch = tptest::RandomBytes(512, seed);
  s.replace((seed * 7919u) % (s.size() - patch.size()), patch.size(), patch);
  return s;
}

// One scan of a tree after some files changed: a path with content is
// written, a path without is removed (with what lies below it).
struct Step {
  std::map<std::string, std::optional<std::string>> files;
};

enum class What { kNode, kTrash, kAll };

struct Scenario {
  const char* name;
  std::vector<Step> home;
  std::vector<Step> share;
  What what;
  const char* node = "";          // the home's node to purge
  std::vector<std::string> gone;  // home paths whose nodes leave, live or removed
  int rotate = 0;
};

class PurgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    ASSERT_EQ(Control({"user", "--enable", "alice"}).exit_status, 0);
    ASSERT_EQ(Control({"share", "--enable", "Docs"}).exit_status, 0);
    fs::create_directories(kHome);
    fs::create_directories(kShare);
    OpenDatabases();
    UserInfo alice, docs;
    ASSERT_GT(UserManager::GetUser("alice", alice, 0), 0);
    ASSERT_GE(UserManager::GetShareUser("Docs", docs), 0);
    home_ = alice.view_id;
    share_ = docs.view_id;
  }
  void TearDown() override {
    purge::TEST_SetHooks(nullptr, nullptr);
    CloseDatabases();
  }
  static void OpenDatabases() {
    ASSERT_GE(UserManager::Initialize(kRepo, "sqlite"), 0);
    ASSERT_GE(db::Manager::Initialize(kRepo, kRepo, "sqlite"), 0);
    ASSERT_GE(db::LogManager::Initialize(kRepo, kRepo, "sqlite", false), 0);
  }
  static void CloseDatabases() {
    db::LogManager::Destroy();
    db::Manager::Destroy();
    UserManager::Destroy();
  }

  void Play(const std::vector<Step>& steps, const std::string& root) {
    for (const Step& step : steps) {
      for (const auto& [path, content] : step.files) {
        if (content) {
          tptest::WriteFile(root + path, *content);
        } else {
          fs::remove_all(root + path);
        }
      }
      Scan(clock_ += 100);
    }
  }

  // Every node of a view but its root, removed ones included, each with
  // its versions oldest first.
  std::vector<std::pair<db::Node, std::vector<db::Version>>> Nodes(uint64_t view_id) {
    std::vector<std::pair<db::Node, std::vector<db::Version>>> out;
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    if (!view) return out;
    db::SearchNodeFilter filter;
    filter.node_id = view->getRootNodeId();
    filter.recursive = true;
    filter.removed_mode = 3;
    filter.file_type = -1;
    std::vector<db::Node> nodes;
    EXPECT_GE(view->SearchNode(filter, nodes), 0);
    for (const db::Node& node : nodes) {
      if (node.getNodeId() == view->getRootNodeId()) continue;
      std::vector<db::Version> versions;
      EXPECT_GE(view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
      out.emplace_back(node, std::move(versions));
    }
    return out;
  }

  // Every version of every node of a view: path -> contents, oldest first.
  std::map<std::string, std::vector<std::string>> History(uint64_t view_id) {
    std::map<std::string, std::vector<std::string>> out;
    std::unique_ptr<filestore::FileStore> store;
    EXPECT_EQ(filestore::FileStore::Open(kStore, false, {}, store), 0);
    for (const auto& [node, versions] : Nodes(view_id)) {
      auto& contents = out[node.getPath()];
      for (const db::Version& v : versions) {
        if (v.getFileId() == 0) {
          contents.push_back(v.isDir() ? "<dir>" : "<removed>");
          continue;
        }
        const std::string rebuilt = "/volume1/rebuilt";
        const int rc = store->Rebuild(v.getFileId(), rebuilt);
        contents.push_back(rc == 0 ? tptest::ReadFile(rebuilt)
                                   : "<lost " + std::to_string(rc) + ">");
      }
    }
    return out;
  }

  bool Known(uint64_t view_id, const std::string& path) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    db::Node node;
    return view->QueryNode(path, node, db::ViewManager::kQueryAny) >= 0;
  }

  // The pieces on disk (origins and deltas, signatures) must be exactly
  // those that the versions left in the views need.
  void ExpectOnlyNeededPieces() {
    std::set<std::string> needed;
    std::set<uint64_t> ids;
    db::FileDBInterface files;
    ASSERT_GE(db::Manager::GetFileDB(StoreUuid(), files, false, ""), 0);
    for (const uint64_t view_id : {home_, share_}) {
      for (const auto& [node, versions] : Nodes(view_id)) {
        for (const db::Version& v : versions) {
          if (v.getFileId() == 0) continue;
          ids.insert(v.getFileId());
          std::string origin;
          std::vector<std::string> patches;
          ASSERT_GE(files->GetPatchFiles(v.getFileId(), origin, patches), 0);
          needed.insert(origin);
          needed.insert(patches.begin(), patches.end());
        }
      }
    }
    std::set<std::string> pieces;
    for (const char* sub : {"/repo", "/delta"})
      for (const auto& e : fs::recursive_directory_iterator(kStore + sub))
        if (e.is_regular_file()) pieces.insert(e.path().string());
    EXPECT_EQ(pieces, needed);
    for (const auto& e : fs::recursive_directory_iterator(kStore + "/node_delta")) {
      if (!e.is_regular_file()) continue;
      const uint64_t id = std::stoull(e.path().stem().string());
      EXPECT_TRUE(ids.count(id)) << "signature of a purged file id: " << e.path();
    }
  }

  // The repository as a user checks it after a crash.
  static void ExpectCheckPasses() {
    const auto r = Control({"check"});
    EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
  }

  std::string StoreUuid() {
    std::unique_ptr<filestore::FileStore> store;
    EXPECT_EQ(filestore::FileStore::Open(kStore, false, {}, store), 0);
    return store ? store->uuid() : "";
  }

  static uint64_t DiskUsage() {
    const auto r = tptest::RunProcess({"/usr/bin/du", "-sb", kStore});
    return std::stoull(r.out);
  }

  int Purge(What what, const std::string& node_path = "") {
    purge::Request request;
    request.user = "admin";
    request.uid = 1024;
    if (what != What::kAll) request.view_id = home_;
    if (what == What::kNode) {
      db::ViewDBInterface view;
      EXPECT_GE(db::Manager::GetViewDB(home_, view), 0);
      db::Node node;
      EXPECT_GE(view->QueryNode(node_path, node, db::ViewManager::kQueryAny), 0) << node_path;
      request.node_id = node.getNodeId();
    }
    purge::Summary summary;
    return purge::Run(kRepo, request, summary);
  }

  // The records of purges, oldest first: type, user, share, S arguments.
  std::vector<std::string> PurgeRecords() {
    db::LogFilter filter;
    filter.types = {5, 6};
    filter.oldest_first = true;
    std::vector<db::Log> logs;
    EXPECT_GE(db::LogManager::SearchLog(filter, logs), 0);
    std::vector<std::string> out;
    for (const db::Log& l : logs) {
      std::string text =
          std::to_string(l.getType()) + " " + l.getUserName() + " " + l.getShareName();
      for (const std::string& s : l.getSArg()) text += " " + s;
      out.push_back(text);
    }
    return out;
  }

  uint64_t home_ = 0;
  uint64_t share_ = 0;
  uint32_t clock_ = 3000000;
};

const std::string a = Big(1), b = Big(2), c = Big(3), d = Big(4);

const Scenario kScenarios[] = {
    {"a live folder whose files are delta chains",
     {{{{"/proj/a.bin", a}, {"/proj/sub/b.bin", b}, {"/keep/c.bin", c}}},
      {{{"/proj/a.bin", Edit(a, 1)}, {"/proj/sub/b.bin", Edit(b, 1)}, {"/keep/c.bin", Edit(c, 1)}}},
      {{{"/proj/a.bin", Edit(Edit(a, 1), 2)}, {"/keep/c.bin", Edit(Edit(c, 1), 2)}}}},
     {{{{"/s.bin", d}}}},
     What::kNode,
     "/proj",
     {"/proj", "/proj/a.bin", "/proj/sub", "/proj/sub/b.bin"}},
    {"one file whose rotated versions are kept as bases of its deltas",
     {{{{"/r.bin", a}, {"/other.bin", b}}},
      {{{"/r.bin", Edit(a, 1)}}},
      {{{"/r.bin", Edit(Edit(a, 1), 2)}}},
      {{{"/r.bin", Edit(Edit(Edit(a, 1), 2), 3)}, {"/other.bin", Edit(b, 4)}}}},
     {},
     What::kNode,
     "/r.bin",
     {"/r.bin"},
     2},
    {"the trash: a removed folder and a removed file, small and large",
     {{{{"/t/x.bin", a}, {"/t/y.txt", "small words"}, {"/z.bin", b}, {"/live.bin", c}}},
      {{{"/z.bin", Edit(b, 1)}, {"/t/y.txt", "other small words"}, {"/live.bin", Edit(c, 2)}}},
      {{{"/t", std::nullopt}, {"/z.bin", std::nullopt}}}},
     {{{{"/gone.txt", "share file"}}}, {{{"/gone.txt", std::nullopt}}}},
     What::kTrash,
     "",
     {"/t", "/t/x.bin", "/t/y.txt", "/z.bin"}},
    {"every view's trash at once",
     {{{{"/old.bin", a}, {"/stay.txt", "stays"}}}, {{{"/old.bin", std::nullopt}}}},
     {{{{"/gone.bin", b}, {"/kept.bin", c}}}, {{{"/gone.bin", std::nullopt}}}},
     What::kAll,
     "",
     {"/old.bin"}},
};

TEST_F(PurgeTest, PurgesRemoveExactlyTheirNodesAndReleaseWhatNothingNeeds) {
  for (const Scenario& s : kScenarios) {
    SCOPED_TRACE(s.name);
    TearDown();
    SetUp();
    if (s.rotate) {
      db::ViewDBInterface view;
      ASSERT_GE(db::Manager::GetViewDB(home_, view), 0);
      ASSERT_GE(view->SetRotateCount(s.rotate), 0);
    }
    for (size_t i = 0; i < std::max(s.home.size(), s.share.size()); ++i) {
      if (i < s.home.size()) Play({s.home[i]}, kHome);
      if (i < s.share.size()) Play({s.share[i]}, kShare);
    }
    auto home_before = History(home_);
    auto share_before = History(share_);
    const uint64_t du_before = DiskUsage();

    ASSERT_EQ(Purge(s.what, s.node), 0);

    for (const std::string& path : s.gone) {
      EXPECT_FALSE(Known(home_, path)) << path;
      home_before.erase(path);
    }
    if (s.what == What::kAll)
      for (auto it = share_before.begin(); it != share_before.end();)
        it = it->second.back() == "<removed>" ? share_before.erase(it) : std::next(it);
    // Everything else keeps every version, and each still rebuilds.
    EXPECT_EQ(History(home_), home_before);
    EXPECT_EQ(History(share_), share_before);
    ExpectOnlyNeededPieces();
    ExpectCheckPasses();
    EXPECT_LT(DiskUsage(), du_before);
    const auto records = PurgeRecords();
    ASSERT_FALSE(records.empty());
    if (s.what == What::kNode) {
      EXPECT_EQ(records.back(), "5 admin alice " + std::string(s.node));
    } else {
      EXPECT_EQ(records.back().substr(0, 8), "6 admin ");
    }
    // Running the same purge again finds nothing more to do.
    const int again = Purge(s.what == What::kNode ? What::kTrash : s.what);
    EXPECT_EQ(again, 0);
  }
}

// Node ids are numbered per view: an id that names no node of the view
// (another view's, a made-up one) purges nothing.
TEST_F(PurgeTest, TheRootAndNodesTheViewDoesNotHaveAreNotPurged) {
  Play({{{{"/a.txt", "home words"}}}}, kHome);
  Play({{{{"/b.txt", "share words"}, {"/c/d/e.txt", "deep"}}}}, kShare);
  const auto home = History(home_);
  db::ViewDBInterface share_view, home_view;
  ASSERT_GE(db::Manager::GetViewDB(share_, share_view), 0);
  ASSERT_GE(db::Manager::GetViewDB(home_, home_view), 0);
  db::Node foreign;
  ASSERT_GE(share_view->QueryNode("/c/d/e.txt", foreign, db::ViewManager::kQueryAny), 0);
  db::Node same_number;
  ASSERT_LT(home_view->QueryNode(foreign.getNodeId(), same_number, db::ViewManager::kQueryAny), 0);
  purge::Summary summary;
  for (const uint64_t node : {home_view->getRootNodeId(), uint64_t{987654}, foreign.getNodeId()}) {
    purge::Request request;
    request.view_id = home_;
    request.node_id = node;
    EXPECT_EQ(purge::Run(kRepo, request, summary), db::kErrNotFound) << node;
  }
  purge::Request missing_view;
  missing_view.view_id = 424242;
  EXPECT_EQ(purge::Run(kRepo, missing_view, summary), db::kErrNotFound);
  EXPECT_EQ(History(home_), home);
  EXPECT_TRUE(Known(share_, "/c/d/e.txt"));
}

TEST_F(PurgeTest, ContentAnotherViewStillNamesIsKept) {
  const std::string content = Big(9);
  Play({{{{"/shared.bin", content}}}}, kHome);
  db::ViewDBInterface home_view;
  ASSERT_GE(db::Manager::GetViewDB(home_, home_view), 0);
  db::Node node;
  ASSERT_GE(home_view->QueryNode("/shared.bin", node, db::ViewManager::kQueryAny), 0);
  std::vector<db::Version> versions;
  ASSERT_GE(home_view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll),
            0);
  // A version of the share names the same stored content.
  std::unique_ptr<db::ViewWriter> writer;
  ASSERT_GE(db::Manager::GetViewWriter(share_, writer), 0);
  db::NewVersion v;
  v.path = "/copy.bin";
  v.size = content.size();
  v.hash = tptest::Sha256Hex(content);
  v.ctime = clock_;
  v.file_id = versions[0].getFileId();
  v.file_uuid = versions[0].getFileUuid();
  db::Node added;
  ASSERT_GE(writer->AddVersion(v, added), 0);
  writer.reset();

  ASSERT_EQ(Purge(What::kNode, "/shared.bin"), 0);
  EXPECT_FALSE(Known(home_, "/shared.bin"));
  EXPECT_EQ(History(share_)["/copy.bin"], std::vector<std::string>{content});
}

// A crash is a child process that ends at the moment in question; the
// parent then finds the views and store consistent, and the next purge
// finishes what the crash left.
TEST_F(PurgeTest, APurgeCutShortIsFinishedByTheNext) {
  for (const bool after_unlink : {false, true}) {
    SCOPED_TRACE(after_unlink ? "after pieces were removed" : "after the view committed");
    TearDown();
    SetUp();
    Play({{{{"/doomed/a.bin", Big(5)}, {"/kept.bin", Big(6)}}},
          {{{"/doomed/a.bin", Edit(Big(5), 1)}}},
          {{{"/doomed", std::nullopt}}}},
         kHome);
    const auto kept = History(home_);
    CloseDatabases();
    const pid_t pid = fork();
    if (pid == 0) {
      OpenDatabases();
      auto crash = [] { _exit(9); };
      purge::TEST_SetHooks(after_unlink ? std::function<void()>() : crash,
                           after_unlink ? crash : std::function<void()>());
      purge::Request request;
      request.view_id = home_;
      purge::Summary summary;
      purge::Run(kRepo, request, summary);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 9);
    OpenDatabases();
    ExpectCheckPasses();
    EXPECT_FALSE(Known(home_, "/doomed/a.bin"));
    EXPECT_EQ(History(home_)["/kept.bin"], kept.at("/kept.bin"));

    ASSERT_EQ(Purge(What::kTrash), 0);
    EXPECT_EQ(History(home_)["/kept.bin"], kept.at("/kept.bin"));
    ExpectOnlyNeededPieces();
    ExpectCheckPasses();
  }
}

TEST(PurgePayload, OnlyWholeIdsInTheThreeFormsAreRead) {
  purge::Request r;
  EXPECT_TRUE(purge::ParsePayload("{}", r));
  EXPECT_FALSE(r.view_id || r.node_id);
  EXPECT_TRUE(purge::ParsePayload("{\"view_id\":7}", r));
  EXPECT_EQ(r.view_id.value_or(0), 7u);
  EXPECT_FALSE(r.node_id);
  EXPECT_TRUE(purge::ParsePayload("{\"node_id\":18446744073709551615,\"view_id\":7}", r));
  EXPECT_EQ(r.node_id.value_or(0), 18446744073709551615ull);
  for (const char* bad :
       {"", "[]", "7", "{\"view_id\":\"7\"}", "{\"view_id\":-7}", "{\"view_id\":7.5}",
        "{\"view_id\":0}", "{\"node_id\":3}", "{\"view_id\":7,\"path\":\"/\"}",
        "{\"view_id\":true}", "{\"view_id\":7,\"view_id\":8}", "{\"view_id\":1e3}"})
    EXPECT_FALSE(purge::ParsePayload(bad, r)) << bad;
}

}  // namespace
