// Restoring old versions over HTTP, as a user of the web front-end does it:
// browse the history, pick nodes, start the restore, follow its status,
// finish it, and look at the files on disk.
#include <gtest/gtest.h>

#include <filesystem>

#include "content.h"
#include "host-accounts.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr uint32_t kOtherGid = 4242;

// alice's home over three moments: edits, a new folder, a case change and
// deletions.
const std::vector<Moment>& HomeHistory() {
  static const std::vector<Moment> kHistory = {
      {kT0,
       {Entry("projects/", "", 0750),
        Entry("projects/plan.txt", "Plan, first draft\n", 0640).Acl("u:bob:r--"),
        Entry("projects/tool.sh", "#!/bin/sh\necho tool\n", 0750),
        Entry("projects/drafts/", "", 0750), Entry("projects/drafts/idea.txt", "An idea\n", 0600),
        Entry("projects/old.txt", "old notes\n", 0644),
        Entry("notes.txt", "Shopping: milk\n", 0644).Owner("alice", kOtherGid),
        Entry("link", "projects/plan.txt").Link(), Entry("case/", "", 0750),
        Entry("case/a.txt", "lower\n", 0644)},
       {}},
      {kT1,
       {Entry("projects/plan.txt", "Plan, second draft\n", 0660).Acl("u:bob:rw-"),
        Entry("projects/later/", "", 0750), Entry("projects/later/added.txt", "added\n", 0644),
        Entry("case/A.txt", "upper\n", 0644)},
       {"case/a.txt"}},
      {kT2,
       {Entry("projects/plan.txt", "Plan, final\n", 0600)},
       {"notes.txt", "projects/old.txt", "link"}},
  };
  return kHistory;
}

class RestoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, HomeHistory());
    alice_ = LoginAs("alice");
  }

  // Where a copy goes: a fresh folder of the share "drop".
  static std::string DropFolder(const std::string& name) {
    const std::string path = "/volume1/drop/" + name;
    fs::create_directories(path);
    fs::permissions(path, fs::perms::all);
    return path;
  }

  std::string alice_;
};

// The version comes back where it lived: its bytes, its owner and group,
// its mode through the stored-to-disk mapping, its ACL and its time; the
// restore is logged, and finish drops the task record.
TEST_F(RestoreTest, InPlaceRestoreBringsBackTheVersionAsItWas) {
  const Json::Value plan_v1 = BrowseVersion(alice_, "mine", "/projects/plan.txt", 2);
  const Json::Value tool = BrowseVersion(alice_, "mine", "/projects/tool.sh", 0);
  const RestoreRun run = Restore(alice_, "mine", {plan_v1, tool});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.start.json["data"]["task_id"].isIntegral()) << run.start.body;
  ASSERT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(run.total, 2u);

  const Seen plan = Look(kAliceHome + "/projects/plan.txt");
  EXPECT_EQ(plan.sha, tptest::Sha256Hex("Plan, first draft\n"));
  EXPECT_EQ(plan.uid, Uid("alice"));
  EXPECT_EQ(plan.gid, kUsersGid);
  EXPECT_EQ(plan.mode, 0640u);
  EXPECT_NE(plan.acl.find("user:" + std::to_string(Uid("bob")) + ":r--"), std::string::npos)
      << plan.acl;
  EXPECT_EQ(plan.mtime, DefaultMtime(kT0));
  EXPECT_EQ(plan.atime, DefaultMtime(kT0));

  // Stored 0750: group execute stays group execute, and nobody else gets
  // write.
  const Seen sh = Look(kAliceHome + "/projects/tool.sh");
  EXPECT_EQ(sh.sha, tptest::Sha256Hex("#!/bin/sh\necho tool\n"));
  EXPECT_EQ(sh.mode, 0750u);
  EXPECT_EQ(sh.mtime, DefaultMtime(kT0));

  // One record of type 4 per node: node id, file type, path, and who.
  std::vector<LogSeen> logs;
  for (int i = 0; i < 50 && (logs = Logs(4)).size() < 2; ++i) usleep(100000);
  ASSERT_EQ(logs.size(), 2u);
  EXPECT_EQ(logs[0].p, (std::vector<std::string>{plan_v1["node_id"].asString(), "0"}));
  EXPECT_EQ(logs[0].s, (std::vector<std::string>{"/projects/plan.txt"}));
  EXPECT_EQ(logs[0].user, "alice");
  EXPECT_EQ(logs[0].uid, Uid("alice"));
  EXPECT_EQ(logs[0].view_id, HomeViewOf("alice"));
  EXPECT_EQ(logs[0].share, "alice");
  EXPECT_EQ(logs[1].s, (std::vector<std::string>{"/projects/tool.sh"}));

  // The last status stays readable until finish; then the record is gone.
  const auto again = Status(alice_);
  ASSERT_TRUE(again.success()) << again.body;
  EXPECT_EQ(again.json["data"]["current"].asUInt64(), 2u);
  ASSERT_TRUE(Finish(alice_).success());
  EXPECT_FALSE(RecordExists());
  const auto after = Status(alice_);
  EXPECT_FALSE(after.success()) << after.body;
  EXPECT_EQ(after.code(), 401);
  EXPECT_EQ(after.message(), "malformed task information");
}

// A folder restored as it stood at a moment holds exactly the children of
// that moment, each owned by whoever copies it.
TEST_F(RestoreTest, FolderCopiedAtAPastMomentHoldsExactlyThatMomentsChildren) {
  const std::string plan1 = "Plan, first draft\n", plan2 = "Plan, second draft\n",
                    plan3 = "Plan, final\n", tool = "#!/bin/sh\necho tool\n";
  struct Case {
    const char* label;
    uint32_t at;
    bool include_removed;
    Tree expected;
  } cases[] = {
      {"t0", kT0, false,
       Expect({{"projects/", ""},
               {"projects/plan.txt", plan1},
               {"projects/tool.sh", tool},
               {"projects/drafts/", ""},
               {"projects/drafts/idea.txt", "An idea\n"},
               {"projects/old.txt", "old notes\n"}})},
      {"t1", kT1, false,
       Expect({{"projects/", ""},
               {"projects/plan.txt", plan2},
               {"projects/tool.sh", tool},
               {"projects/drafts/", ""},
               {"projects/drafts/idea.txt", "An idea\n"},
               {"projects/old.txt", "old notes\n"},
               {"projects/later/", ""},
               {"projects/later/added.txt", "added\n"}})},
      {"now", 0, false,
       Expect({{"projects/", ""},
               {"projects/plan.txt", plan3},
               {"projects/tool.sh", tool},
               {"projects/drafts/", ""},
               {"projects/drafts/idea.txt", "An idea\n"},
               {"projects/later/", ""},
               {"projects/later/added.txt", "added\n"}})},
      {"now-with-removed", 0, true,
       Expect({{"projects/", ""},
               {"projects/plan.txt", plan3},
               {"projects/tool.sh", tool},
               {"projects/drafts/", ""},
               {"projects/drafts/idea.txt", "An idea\n"},
               {"projects/old.txt", "old notes\n"},
               {"projects/later/", ""},
               {"projects/later/added.txt", "added\n"}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string dest = DropFolder(c.label);
    const RestoreRun run =
        RestoreAndFinish(alice_, "mine", {Browse(alice_, "mine", "/projects", c.at)},
                         {{"copy_to", dest}, {"include_removed", c.include_removed}});
    ASSERT_TRUE(run.started) << run.start.body;
    EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
    EXPECT_EQ(TreeOf(dest), c.expected);
    EXPECT_EQ(run.total, c.expected.size());
    // A copy belongs to the one who made it, whoever owned the original.
    for (const auto& [path, state] : c.expected) {
      const Seen seen = Look(dest + "/" + path);
      EXPECT_EQ(seen.uid, Uid("alice")) << path;
      EXPECT_EQ(seen.gid, kUsersGid) << path;
    }
  }
  // The copy's folders keep their stored mode (0750) and the files their
  // times.
  EXPECT_EQ(Look("/volume1/drop/t0/projects/drafts").mode, 0750u);
  EXPECT_EQ(Look("/volume1/drop/t0/projects/drafts/idea.txt").mode, 0600u);
  EXPECT_EQ(Look("/volume1/drop/t0/projects/plan.txt").mtime, DefaultMtime(kT0));
  EXPECT_EQ(Look("/volume1/drop/t1/projects/plan.txt").mtime, DefaultMtime(kT1));
}

// Names that collide without regard to case get an index; an existing file
// stays untouched when overwriting is declined, and is replaced otherwise.
TEST_F(RestoreTest, CollidingNamesGetAnIndexAndOverrideDecidesAboutExistingFiles) {
  const std::string dest = DropFolder("case");
  RestoreRun run = RestoreAndFinish(alice_, "mine", {Browse(alice_, "mine", "/case")},
                                    {{"copy_to", dest}, {"include_removed", true}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  // The newest keeps its name.
  EXPECT_EQ(TreeOf(dest),
            Expect({{"case/", ""}, {"case/A.txt", "upper\n"}, {"case/a (2).txt", "lower\n"}}));

  const std::string keep = DropFolder("keep");
  tptest::WriteFile(keep + "/plan.txt", "mine, keep it\n");
  const Seen before = Look(keep + "/plan.txt");
  const Json::Value plan_v1 = BrowseVersion(alice_, "mine", "/projects/plan.txt", 2);
  run = RestoreAndFinish(alice_, "mine", {plan_v1}, {{"copy_to", keep}, {"override", false}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(run.total, 1u);
  const Seen kept = Look(keep + "/plan.txt");
  EXPECT_EQ(kept.sha, before.sha);
  EXPECT_EQ(kept.mtime, before.mtime);
  EXPECT_EQ(kept.uid, 0u);

  // Without the parameter a restore overwrites.
  run = RestoreAndFinish(alice_, "mine", {plan_v1}, {{"copy_to", keep}});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(Look(keep + "/plan.txt").sha, tptest::Sha256Hex("Plan, first draft\n"));
  EXPECT_EQ(Look(keep + "/plan.txt").uid, Uid("alice"));
}

// A deleted file or link comes back in place from its last version; asking
// for the deletion itself restores nothing.
TEST_F(RestoreTest, DeletedNodesComeBackInPlaceFromTheirLastVersion) {
  const Json::Value deletion = Browse(alice_, "mine", "/notes.txt");
  EXPECT_TRUE(deletion["is_removed"].asBool());
  RestoreRun run = RestoreAndFinish(alice_, "mine", {deletion});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(run.total, 0u);
  EXPECT_FALSE(Look(kAliceHome + "/notes.txt").exists);

  run = RestoreAndFinish(
      alice_, "mine",
      {BrowseVersion(alice_, "mine", "/notes.txt", 0), BrowseVersion(alice_, "mine", "/link", 0)});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  const Seen notes = Look(kAliceHome + "/notes.txt");
  EXPECT_EQ(notes.sha, tptest::Sha256Hex("Shopping: milk\n"));
  EXPECT_EQ(notes.uid, Uid("alice"));
  EXPECT_EQ(notes.gid, kOtherGid);
  EXPECT_EQ(notes.mode, 0644u);
  EXPECT_EQ(notes.mtime, DefaultMtime(kT0));
  const Seen link = Look(kAliceHome + "/link");
  EXPECT_EQ(link.link, "projects/plan.txt");
  EXPECT_EQ(link.uid, Uid("alice"));
  EXPECT_EQ(link.mtime, DefaultMtime(kT0));

  // A folder deleted with its content comes back whole.
  BuildHistory(kAliceHome, {{kT2 + 100, {}, {"projects/drafts"}}});
  run = RestoreAndFinish(alice_, "mine", {BrowseVersion(alice_, "mine", "/projects/drafts", 0)},
                         {{"include_removed", true}});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(TreeOf(kAliceHome + "/projects/drafts"), Expect({{"idea.txt", "An idea\n"}}));
  EXPECT_EQ(Look(kAliceHome + "/projects/drafts/idea.txt").uid, Uid("alice"));
}

class RestoreRightsTest : public RestoreTest {
 protected:
  void SetUp() override {
    RestoreTest::SetUp();
    BuildHistory(kTeam, {{kT0,
                          {Entry("docs/", "", 0775), Entry("docs/a.txt", "team a\n", 0644),
                           Entry("private/", "", 0700),
                           Entry("private/salary.txt", "for alice only\n", 0600)},
                          {}}});
  }
};

// Copying needs the right to write at the destination, restoring needs the
// right to write the nodes; refusals change nothing anywhere.
TEST_F(RestoreRightsTest, CopiesGoWhereTheCallerMayWriteAndNowhereElse) {
  const std::string admin = LoginAs("admin"), bob = LoginAs("bob");
  MakeDir("/volume1/drop/by-admin", "admin", 0755);
  MakeDir("/volume1/team/copies", "alice", 0775);
  MakeDir("/volume1/vault/x", "root", 0777);
  struct Case {
    const char* label;
    std::string sid;
    std::string node_path;
    std::string copy_to;  // empty: in place
    int code;             // 0: the copy is made
    std::string owner;
  } cases[] = {
      {"admin into another share", admin, "/docs/a.txt", "/volume1/drop/by-admin", 0, "admin"},
      {"alice into a share she may write", alice_, "/docs/a.txt", "/volume1/team/copies", 0,
       "alice"},
      {"alice into a read-only share", alice_, "/docs/a.txt", "/volume1/vault/x", 403, ""},
      {"alice into bob's home", alice_, "/docs/a.txt", "/volume1/homes/bob/Tidepool", 403, ""},
      {"alice outside any share", alice_, "/docs/a.txt", "/var/tmp", 403, ""},
      {"bob into alice's home", bob, "/docs/a.txt", kAliceHome, 403, ""},
      {"bob in place, no write on the node", bob, "/docs/a.txt", "", 403, ""},
      {"bob, a folder closed to him", bob, "/private", "/volume1/homes/bob/Tidepool", 403, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    // Only administrators browse shares; the others send what a crafted
    // request would, with the same ids.
    const Json::Value node = Browse(admin, "@team", c.node_path);
    const Tree before = EverythingBut(c.code == 0 ? c.copy_to : "");
    Params params;
    if (!c.copy_to.empty()) params.push_back({"copy_to", c.copy_to});
    const RestoreRun run = RestoreAndFinish(c.sid, "@team", {node}, params);
    if (c.code != 0) {
      EXPECT_FALSE(run.started) << run.start.body;
      EXPECT_EQ(run.start.code(), c.code) << run.start.body;
      EXPECT_EQ(EverythingBut(""), before);
      continue;
    }
    ASSERT_TRUE(run.started) << run.start.body;
    EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
    const Seen copy = Look(c.copy_to + "/a.txt");
    EXPECT_EQ(copy.sha, tptest::Sha256Hex("team a\n"));
    EXPECT_EQ(copy.uid, Uid(c.owner));
    EXPECT_EQ(EverythingBut(c.copy_to), before);
  }
}

TEST_F(RestoreTest, OneRestoreAtATimeUntilTheRunningOneFallsSilent) {
  const Json::Value plan_v1 = BrowseVersion(alice_, "mine", "/projects/plan.txt", 2);
  const std::string final_sha = tptest::Sha256Hex("Plan, final\n");
  for (int age : {0, 9}) {
    SCOPED_TRACE(age);
    WriteOrphanRecord(age);
    const auto start = Restore(alice_, "mine", {plan_v1}).start;
    EXPECT_FALSE(start.success()) << start.body;
    EXPECT_EQ(start.code(), 406);
    EXPECT_EQ(start.message(), "another restore task is processing");
    EXPECT_TRUE(RecordExists());
    EXPECT_EQ(Look(kAliceHome + "/projects/plan.txt").sha, final_sha);
  }
  // Eleven seconds without progress: the old record is dropped.
  WriteOrphanRecord(11);
  const RestoreRun run = RestoreAndFinish(alice_, "mine", {plan_v1});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(Look(kAliceHome + "/projects/plan.txt").sha, tptest::Sha256Hex("Plan, first draft\n"));
}

TEST_F(RestoreTest, TargetsThatCannotBeUsedAreRefused) {
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  hostaccounts::Share offline;
  offline.name = "offline";
  offline.volume = "/volume1";
  offline.path = "/volume1/offline";
  offline.active = false;
  ASSERT_GE(accounts->AddShare(offline), 0);
  const Json::Value plan = BrowseVersion(alice_, "mine", "/projects/plan.txt", 0);
  for (const char* target : {"@nosuch", "@offline"}) {
    SCOPED_TRACE(target);
    const auto start = Restore(alice_, target, {plan}).start;
    EXPECT_FALSE(start.success()) << start.body;
    EXPECT_EQ(start.code(), 603);
    EXPECT_EQ(start.message(), "share is not mounted");
    EXPECT_FALSE(RecordExists());
  }
}

// Requests no front-end makes: each fails with its code, keeps what an
// earlier node of the same request restored, and writes nothing anywhere
// but the destination. A `name` or `path` from the client is never used:
// the node goes where, and under the name, the database says.
TEST_F(RestoreTest, BadNodesFailAndWriteNothingOutsideTheDestination) {
  const Json::Value plan = BrowseVersion(alice_, "mine", "/projects/plan.txt", 2);
  const Json::Value projects = Browse(alice_, "mine", "/projects");
  auto with = [](Json::Value node, const char* key, const Json::Value& value) {
    if (value.isNull()) {
      node.removeMember(key);
    } else {
      node[key] = value;
    }
    return node;
  };
  const std::string first_draft = tptest::Sha256Hex("Plan, first draft\n");
  enum Expectation { kRefused, kTaskFails, kDone };
  struct Case {
    const char* label;
    std::vector<Json::Value> nodes;
    bool in_place;
    Expectation expect;
    int code;
  } cases[] = {
      {"missing permanent_id", {with(plan, "permanent_id", Json::Value())}, false, kRefused, 401},
      {"non-numeric permanent_id", {with(plan, "permanent_id", "abc")}, false, kRefused, 401},
      {"empty node_id", {with(plan, "node_id", "")}, false, kRefused, 401},
      {"negative node_id", {with(plan, "node_id", "-1")}, false, kRefused, 401},
      {"signed node_id", {with(plan, "node_id", "+5")}, false, kRefused, 401},
      {"non-numeric sync_id", {with(plan, "sync_id", "7x")}, false, kRefused, 401},
      {"unknown permanent_id", {with(plan, "permanent_id", "987654321")}, false, kRefused, 403},
      {"unknown node_id", {with(plan, "node_id", "987654321")}, false, kRefused, 403},
      {"node_id of another node",
       {with(plan, "node_id", projects["node_id"])},
       false,
       kRefused,
       403},
      {"a bare number", {Json::Value(7)}, false, kRefused, 120},
      {"a file said to be a folder", {with(plan, "file_type", 1)}, false, kTaskFails, 401},
      {"a folder said to be a file", {with(projects, "file_type", 0)}, false, kTaskFails, 401},
      {"name ..", {with(plan, "name", "..")}, false, kDone, 0},
      {"name with a slash", {with(plan, "name", "../../escaped")}, false, kDone, 0},
      {"path climbing out of the home",
       {with(with(plan, "path", "/../../../drop/escaped/plan.txt"), "name", "")},
       true,
       kDone,
       0},
      {"a file where the folder goes, after a good node",
       {with(plan, "name", "first.txt"), projects},
       false,
       kTaskFails,
       401},
  };
  const std::string live = kAliceHome + "/projects/plan.txt";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string dest = DropFolder("bad");
    fs::remove_all(dest);
    fs::remove_all("/volume1/drop/escaped");
    DropFolder("bad");
    tptest::WriteFile(dest + "/projects", "a file, not a folder\n");
    tptest::WriteFile(live, "Plan, final\n");
    Tree before = EverythingBut(c.in_place ? "" : dest);
    const Tree dest_before = TreeOf(dest);
    Params params;
    if (!c.in_place) params.push_back({"copy_to", dest});
    const RestoreRun run = RestoreAndFinish(alice_, "mine", c.nodes, params);
    if (c.expect == kRefused) {
      EXPECT_FALSE(run.started) << run.start.body;
      EXPECT_TRUE(run.start.json.isMember("error")) << "no error envelope: " << run.start.body;
      EXPECT_EQ(run.start.code(), c.code) << run.start.body;
    } else if (c.expect == kTaskFails) {
      ASSERT_TRUE(run.started) << run.start.body;
      EXPECT_FALSE(run.done) << run.last_status;
      EXPECT_EQ(run.error, c.code) << run.last_status;
    } else {
      ASSERT_TRUE(run.started) << run.start.body;
      EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
    }
    if (c.in_place && c.expect == kDone) {
      // Back at its own place in the home, and nowhere else.
      EXPECT_EQ(Look(live).sha, first_draft);
      Tree after = EverythingBut("");
      after.erase(live);
      after.erase(kAliceHome + "/projects");
      before.erase(live);
      before.erase(kAliceHome + "/projects");
      EXPECT_EQ(after, before);
    } else {
      EXPECT_EQ(EverythingBut(c.in_place ? "" : dest), before);
    }
    EXPECT_FALSE(fs::exists("/volume1/drop/escaped"));
    // The file in the folder's way is untouched; what came before it stays,
    // under the node's own name.
    EXPECT_EQ(tptest::ReadFile(dest + "/projects"), "a file, not a folder\n");
    Tree expected = dest_before;
    if (c.nodes.size() == 2 || (c.expect == kDone && !c.in_place)) {
      expected["plan.txt"] = first_draft;
    }
    EXPECT_EQ(TreeOf(dest), expected);
  }
}

}  // namespace
