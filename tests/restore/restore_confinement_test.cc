// What an ordinary user must not get out of a restore: files written through
// links they planted, nodes of others reached by naming one node and
// restoring another, closed folders copied along with an open parent, a
// share written in place with read-only permission, a share root given a
// version's owner and mode, someone else's task record.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "content.h"
#include "db/manager.h"
#include "db/view-manager.h"
#include "host-accounts.h"
#include "hvos-task.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

// A folder no user may touch: whatever a restore leaves in it came through
// a hole.
const std::string kVictim = "/volume2/victim";

class RestoreConfinementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(
        kAliceHome,
        {{kT0, {Entry("projects/", "", 0750), Entry("projects/plan.txt", "v1\n", 0640)}, {}},
         {kT1, {Entry("projects/plan.txt", "v2\n", 0640)}, {}}});
    BuildHistory(
        kTeam,
        {{kT0,
          {Entry("docs/", "", 0775), Entry("docs/a.txt", "team a\n", 0644).Acl("u:bob:rw-"),
           Entry("private/", "", 0700), Entry("private/salary.txt", "for alice only\n", 0600),
           Entry("private/deep/", "", 0755),
           Entry("private/deep/plans.txt", "alice's plans\n", 0644),
           Entry("later-open.txt", "once closed\n", 0600), Entry("shut/", "", 0755),
           Entry("shut/memo.txt", "memo v1\n", 0644)},
          {}},
         {kT1,
          {Entry("later-open.txt", "now open\n", 0644), Entry("shut/", "", 0700),
           Entry("shut/memo.txt", "memo v2\n", 0644)},
          {}}});
    fs::create_directories(kVictim);
    ASSERT_EQ(chmod(kVictim.c_str(), 0700), 0);
    alice_ = LoginAs("alice");
    bob_ = LoginAs("bob");
    admin_ = LoginAs("admin");
  }

  // A link made by `user` (as they could make it in their own folder).
  static void PlantLink(const std::string& target, const std::string& path,
                        const std::string& user) {
    fs::remove_all(path);
    fs::create_symlink(target, path);
    ASSERT_EQ(lchown(path.c_str(), Uid(user), kUsersGid), 0);
  }

  // The view's root node as a restore names it; no listing shows the root.
  static Json::Value RootNode(uint64_t view_id) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    db::Node root;
    EXPECT_EQ(view->QueryNode(view->getRootNodeId(), root, db::ViewManager::kQueryExisting), 0);
    Json::Value node(Json::objectValue);
    node["node_id"] = std::to_string(root.getNodeId());
    node["permanent_id"] = std::to_string(root.getPermanentId());
    node["sync_id"] = std::to_string(root.getSyncId());
    node["file_type"] = 1;
    node["path"] = "/";
    node["name"] = "";
    return node;
  }

  std::string alice_, bob_, admin_;
};

TEST_F(RestoreConfinementTest, LinksAUserPlantsNeverSteerTheRestore) {
  const Json::Value plan_v1 = BrowseVersion(alice_, "mine", "/projects/plan.txt", 1);
  const Json::Value projects = Browse(alice_, "mine", "/projects", kT0);
  const std::string drop = "/volume1/drop/confined";
  struct Case {
    const char* label;
    std::function<void()> plant;
    Json::Value node;
    std::string copy_to;  // empty: in place
    int start_code;       // 0: the task starts
    int task_code;        // 0: the task ends well
  } cases[] = {
      {"the node's folder swapped for a link",
       [] { PlantLink(kVictim, kAliceHome + "/projects", "alice"); }, plan_v1, "", 0, 401},
      {"a path naming a link in the home", [] { PlantLink(kVictim, kAliceHome + "/lnk", "alice"); },
       [&] {
         Json::Value node = plan_v1;
         node["path"] = "/lnk/plan.txt";
         return node;
       }(),
       "", 0, 0},
      {"the working folder pre-made as a link",
       [] { PlantLink(kVictim, kAliceHome + "/@eaDir", "alice"); }, plan_v1, "", 0, 401},
      {"the working folder pre-made by the user",
       [] { MakeDir(kAliceHome + "/@eaDir/@tmp", "alice", 0777); }, plan_v1, "", 0, 401},
      {"copy_to through a link", [&] { PlantLink(kVictim, drop, "alice"); }, plan_v1, drop, 403, 0},
      {"a link where the copied folder goes",
       [&] {
         MakeDir(drop, "alice", 0777);
         PlantLink(kVictim, drop + "/projects", "alice");
       },
       projects, drop, 0, 401},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    fs::remove_all(kAliceHome + "/@eaDir");
    fs::remove_all(kAliceHome + "/lnk");
    fs::remove_all(drop);
    fs::remove_all(kAliceHome + "/projects");
    MakeDir(kAliceHome + "/projects", "alice", 0750);
    tptest::WriteFile(kAliceHome + "/projects/plan.txt", "v2\n");
    c.plant();
    Params params;
    if (!c.copy_to.empty()) params.push_back({"copy_to", c.copy_to});
    const RestoreRun run = RestoreAndFinish(alice_, "mine", {c.node}, params);
    if (c.start_code != 0) {
      EXPECT_FALSE(run.started) << run.start.body;
      EXPECT_EQ(run.start.code(), c.start_code) << run.start.body;
    } else if (c.task_code != 0) {
      ASSERT_TRUE(run.started) << run.start.body;
      EXPECT_EQ(run.error, c.task_code) << run.last_status;
    } else {
      ASSERT_TRUE(run.started) << run.start.body;
      EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
      // The node went to its own place, whatever the request said.
      EXPECT_EQ(Look(kAliceHome + "/projects/plan.txt").sha, tptest::Sha256Hex("v1\n"));
    }
    EXPECT_TRUE(fs::is_empty(kVictim)) << "written through a link";
    struct stat st {};
    ASSERT_EQ(lstat(kVictim.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
  }
}

TEST_F(RestoreConfinementTest, RightsAreJudgedOnWhatIsRestoredAndOnEveryNodeBelowIt) {
  const std::string bob_home = "/volume1/homes/bob/Tidepool";
  const Json::Value docs_a = Browse(admin_, "@team", "/docs/a.txt");
  const Json::Value salary = Browse(admin_, "@team", "/private/salary.txt");

  // Naming a node bob may read while restoring one he may not.
  Json::Value swapped = salary;
  swapped["node_id"] = docs_a["node_id"];
  RestoreRun run = RestoreAndFinish(bob_, "@team", {swapped}, {{"copy_to", bob_home}});
  EXPECT_FALSE(run.started) << run.start.body;
  EXPECT_EQ(run.start.code(), 403) << run.start.body;
  EXPECT_FALSE(fs::exists(bob_home + "/salary.txt"));

  // The share's whole tree: the open part comes, the closed folder does not
  // even appear, and progress still reaches its total.
  run = Restore(bob_, "@team", {RootNode(ShareViewOf("team"))}, {{"copy_to", bob_home}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(run.current, run.total);
  // private/, salary.txt, deep/, plans.txt, shut/ and memo.txt.
  EXPECT_EQ(Status(bob_).json["data"]["skipped"].asUInt64(), 6u) << run.last_status;
  EXPECT_TRUE(Finish(bob_).success());
  const Tree copied = TreeOf(bob_home + "/team");
  EXPECT_EQ(copied.count("docs/a.txt"), 1u) << ::testing::PrintToString(copied);
  EXPECT_EQ(copied.count("later-open.txt"), 1u);
  EXPECT_EQ(copied.count("shut/memo.txt"), 0u);
  for (const auto& [path, state] : copied) {
    EXPECT_EQ(path.find("private"), std::string::npos) << path << " was disclosed";
  }

  // Judged on the version restored: what was closed then stays closed, even
  // though everyone may read the file now.
  const Json::Value closed_then = BrowseVersion(admin_, "@team", "/later-open.txt", 1);
  run = RestoreAndFinish(bob_, "@team", {closed_then}, {{"copy_to", bob_home}});
  EXPECT_EQ(run.start.code(), 403) << run.start.body;
  const Json::Value open_now = BrowseVersion(admin_, "@team", "/later-open.txt", 0);
  run = RestoreAndFinish(bob_, "@team", {open_now}, {{"copy_to", bob_home}});
  EXPECT_TRUE(run.done) << run.start.body << run.last_status;
  EXPECT_EQ(Look(bob_home + "/later-open.txt").sha, tptest::Sha256Hex("now open\n"));

  // The folder was open when the first memo was made and closed when the
  // second was: an earlier time bound does not reopen it for the second.
  Json::Value memo_v2 = BrowseVersion(admin_, "@team", "/shut/memo.txt", 0);
  memo_v2["ver_ctime_upper_bound"] = Json::UInt64(kT0);
  run = RestoreAndFinish(bob_, "@team", {memo_v2}, {{"copy_to", bob_home}});
  EXPECT_EQ(run.start.code(), 403) << run.start.body;
  const Json::Value memo_v1 = BrowseVersion(admin_, "@team", "/shut/memo.txt", 1);
  run = RestoreAndFinish(bob_, "@team", {memo_v1}, {{"copy_to", bob_home}});
  EXPECT_TRUE(run.done) << run.start.body << run.last_status;
  EXPECT_EQ(Look(bob_home + "/memo.txt").sha, tptest::Sha256Hex("memo v1\n"));
}

TEST_F(RestoreConfinementTest, SharePermissionsBoundWhatUsersMayDo) {
  const std::string bob_home = "/volume1/homes/bob/Tidepool";
  // Bob may read the share; its stored modes even let him write docs/.
  const Json::Value docs_a = Browse(admin_, "@team", "/docs/a.txt");
  tptest::WriteFile(kTeam + "/docs/a.txt", "changed\n");
  RestoreRun run = RestoreAndFinish(bob_, "@team", {docs_a});
  EXPECT_FALSE(run.started) << run.start.body;
  EXPECT_EQ(run.start.code(), 403);
  EXPECT_EQ(run.start.message(), "no privilege");
  EXPECT_EQ(tptest::ReadFile(kTeam + "/docs/a.txt"), "changed\n");
  // Reading is what read-only permission allows.
  run = RestoreAndFinish(bob_, "@team", {docs_a}, {{"copy_to", bob_home}});
  EXPECT_TRUE(run.done) << run.start.body << run.last_status;

  // Without any permission the share's history is closed altogether.
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  ASSERT_GE(accounts->SetSharePermission("team", "bob", hostaccounts::SharePermission::kNone), 0);
  const auto versions = Call("KSTX.Tidepool.Node", "list_version",
                             {{"target", "@team"}, {"path", "/docs/a.txt"}}, bob_);
  EXPECT_EQ(versions.code(), 403) << versions.body;
  run = RestoreAndFinish(bob_, "@team", {docs_a}, {{"copy_to", bob_home}});
  EXPECT_EQ(run.start.code(), 403) << run.start.body;
}

TEST_F(RestoreConfinementTest, TheShareRootKeepsItsOwnerAndModeWhenRestoredInPlace) {
  struct stat before {};
  ASSERT_EQ(lstat(kTeam.c_str(), &before), 0);
  fs::remove(kTeam + "/docs/a.txt");
  Json::Value root = RootNode(ShareViewOf("team"));
  const RestoreRun run = RestoreAndFinish(admin_, "@team", {root});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  struct stat after {};
  ASSERT_EQ(lstat(kTeam.c_str(), &after), 0);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(tptest::ReadFile(kTeam + "/docs/a.txt"), "team a\n");
}

TEST_F(RestoreConfinementTest, OnlyTheStarterOrAnAdministratorSeesTheTaskRecord) {
  const Json::Value plan_v1 = BrowseVersion(alice_, "mine", "/projects/plan.txt", 1);
  const RestoreRun run = Restore(alice_, "mine", {plan_v1});
  ASSERT_TRUE(run.done) << run.start.body << run.last_status;

  const auto seen_by_bob = Status(bob_);
  EXPECT_EQ(seen_by_bob.code(), 401) << seen_by_bob.body;
  EXPECT_EQ(seen_by_bob.message(), "malformed task information");
  EXPECT_TRUE(Finish(bob_).success());
  EXPECT_TRUE(RecordExists()) << "bob removed alice's record";

  EXPECT_TRUE(Status(admin_).success());
  const auto own = Status(alice_);
  ASSERT_TRUE(own.success()) << own.body;
  EXPECT_EQ(own.json["data"]["current"].asUInt64(), 1u);
  EXPECT_TRUE(Finish(alice_).success());
  EXPECT_FALSE(RecordExists());
}

}  // namespace
