// Targets, node privilege and log records as a handler sees them, over the
// seeded demo system (admin, alice, bob) and views built step by step.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "db/log-manager.h"
#include "db/manager.h"
#include "db/view-writer.h"
#include "fixture.h"
#include "host-accounts.h"
#include "seed.h"
#include "user-manager.h"
#include "util/webapi-util.h"

namespace {

constexpr const char* kConnect = "/volume1/@tidepool";

class WebapiUtil : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedDemoSystem();
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_TRUE(accounts);
    ASSERT_GE(accounts->AddGroup("staff", 300), 0);
    ASSERT_GE(accounts->AddGroupMember("staff", "bob"), 0);
    for (const auto& [name, active] :
         {std::pair{"team", true}, {"dormant", false}, {"new", true}}) {
      hostaccounts::Share share;
      share.name = name;
      share.volume = "/volume1";
      share.path = std::string("/volume1/") + name;
      share.active = active;
      ASSERT_GE(accounts->AddShare(share), 0);
    }
    ASSERT_GE(
        accounts->SetSharePermission("team", "alice", hostaccounts::SharePermission::kReadOnly), 0);
    ASSERT_GE(UserManager::Initialize(kConnect, "sqlite"), 0);
    ASSERT_GE(UserManager::EnableShare("team", "/volume1/team", false), 0);
    dbtest::OpenDatabases(kConnect);
  }
  void TearDown() override { UserManager::Destroy(); }

  static RequestAuthentication Caller(const std::string& name) {
    RequestAuthentication auth;
    auth.user = name;
    auth.uid = tptest::UidOf(name);
    auth.is_admin = name == "admin";
    auth.is_expired = false;
    return auth;
  }

  static UserInfo Owner(const std::string& target) {
    UserInfo info;
    BridgeResponse response;
    EXPECT_EQ(GetUserInfoByTarget(Caller("admin"), response, target, info, true), 0) << target;
    return info;
  }
};

TEST_F(WebapiUtil, TargetsResolveToOwnersAndViews) {
  struct Case {
    std::string target;
    bool valid;
  } validity[] = {{"", false},     {"user", true},      {"anything", true}, {"@team", true},
                  {"@TEAM", true}, {"@dormant", false}, {"@missing", false}};
  for (const Case& c : validity) EXPECT_EQ(IsValidTarget(c.target), c.valid) << c.target;

  struct Lookup {
    std::string caller, target;
    bool allow_non_admin;
    int code;  // 0: success
    std::string message;
  } lookups[] = {
      {"alice", "user", false, 0, ""},
      {"alice", "", false, 0, ""},
      {"admin", "@team", false, 0, ""},
      {"alice", "@team", true, 0, ""},
      {"bob", "@team", true, 403, "no privilege"},
      {"alice", "@team", false, 402, "admin-only operation"},
      {"alice", "@missing", false, 402, "admin-only operation"},
      {"admin", "@new", false, 501, "share new is not enabled"},
      {"carol", "user", true, 501, "failed to get user carol"},
  };
  tptest::AddHostUser("carol", "carol-pass");
  for (const Lookup& c : lookups) {
    SCOPED_TRACE(c.caller + " asks for '" + c.target + "'");
    BridgeResponse response;
    uint64_t view_id = 0;
    const int rc =
        GetDatabaseViewId(Caller(c.caller), response, c.target, view_id, c.allow_non_admin);
    EXPECT_EQ(response.GetErrorCode(), c.code);
    EXPECT_EQ(response.GetErrorMessage(), c.message);
    EXPECT_EQ(rc, c.code == 0 ? 0 : -1);
    if (c.code == 0) {
      EXPECT_NE(view_id, 0u);
    }
  }
  // Each home target gives the caller's own view; the share its own.
  EXPECT_NE(Owner("@team").view_id, Owner("user").view_id);
  UserInfo alice;
  BridgeResponse response;
  ASSERT_EQ(GetUserInfoByTarget(Caller("alice"), response, "x", alice, false), 0);
  EXPECT_EQ(alice.name, "alice");
  EXPECT_NE(alice.view_id, Owner("user").view_id);  // admin's home differs
}

// A version of `path` owned by `uid` with `mode` and `acl`.
void Put(db::ViewWriter& writer, const std::string& path, uint32_t uid, uint32_t mode,
         const std::string& acl = "", uint32_t time = 100) {
  db::NewVersion v;
  v.path = path;
  const bool folder = path == "/" || path.back() == '/';
  v.file_type = folder ? db::kFileTypeDir : db::kFileTypeFile;
  v.ctime = v.mtime = time;
  v.uid = uid;
  v.gid = 100;
  v.mode = mode;
  v.acl = acl;
  v.ver_type = db::kVerTypeLive;
  db::Node out;
  ASSERT_GE(writer.AddVersion(v, out), 0) << path;
}

TEST_F(WebapiUtil, NodePrivilegeFollowsTheChain) {
  const uint32_t alice = tptest::UidOf("alice");
  const UserInfo share = Owner("@team");
  dbtest::Tree tree({}, share.view_id);
  db::ViewWriter& w = tree.Writer();
  Put(w, "/", 0, 040755);
  Put(w, "/open/", alice, 040755);
  Put(w, "/open/f.txt", alice, 0100644);
  Put(w, "/closed/", 0, 040700);
  Put(w, "/closed/f.txt", alice, 0100644);
  Put(w, "/staff/", 0, 040750, "u::rwx,g::---,g:300:r-x,m::r-x,o::---");
  Put(w, "/staff/f.txt", 0, 0100644);
  Put(w, "/ro/", 0, 040555);
  Put(w, "/ro/f.txt", alice, 0100644);
  Put(w, "/gone.txt", alice, 0100644);
  ASSERT_GE(w.RemoveNode(tree.Id("/gone.txt"), 200, "c"), 0);
  std::vector<db::Version> rotated;  // leaves the deletion marker alone
  ASSERT_GE(w.RotateVersions(tree.Id("/gone.txt"), 1, rotated), 0);
  Put(w, "/was-open.txt", alice, 0100644);
  Put(w, "/was-open.txt", alice, 0100600, "", 150);                // closed, then deleted:
  ASSERT_GE(w.RemoveNode(tree.Id("/was-open.txt"), 200, "c"), 0);  // judged by 0600

  db::ViewDBInterface view;
  ASSERT_EQ(GetViewDB(share.view_id, view), 0);
  struct Case {
    std::string who;
    std::vector<std::string> paths;
    bool need_write;
    bool allowed;
  } cases[] = {
      {"alice", {"/open/f.txt"}, false, true},
      {"alice", {"/open/f.txt"}, true, true},
      {"alice", {"/closed/f.txt"}, false, false},
      {"alice", {"/open/f.txt", "/closed/f.txt"}, false, false},
      {"bob", {"/staff/f.txt"}, false, true},
      {"alice", {"/staff/f.txt"}, false, false},
      {"alice", {"/ro/f.txt"}, false, true},
      {"alice", {"/ro/f.txt"}, true, false},
      {"alice", {"/gone.txt"}, false, false},
      {"alice", {"/was-open.txt"}, false, true},
      {"bob", {"/was-open.txt"}, false, false},
      {"admin", {"/closed/f.txt"}, true, true},
      {"alice", {}, true, true},
  };
  for (const Case& c : cases) {
    std::vector<uint64_t> ids;
    std::string names;
    for (const std::string& p : c.paths) {
      ids.push_back(tree.Id(p));
      names += p + " ";
    }
    BridgeResponse response;
    EXPECT_EQ(CheckPrivilegeByNodeId(Caller(c.who), response, view, share, ids, c.need_write),
              c.allowed)
        << c.who << " on " << names << (c.need_write ? "(write)" : "(read)");
    EXPECT_FALSE(response.IsErrorSet());
  }
  // Administrators pass without a look at the view, even an unknown node.
  // For others a node missing from the view is skipped like a missing
  // ancestor: the root alone decides (readable here, not writable).
  BridgeResponse response;
  EXPECT_TRUE(CheckPrivilegeByNodeId(Caller("admin"), response, view, share, {999999}, false));
  EXPECT_TRUE(CheckPrivilegeByNodeId(Caller("alice"), response, view, share, {999999}, false));
  EXPECT_FALSE(CheckPrivilegeByNodeId(Caller("alice"), response, view, share, {999999}, true));
}

TEST_F(WebapiUtil, HomeOwnerHasFullControlOfTheHome) {
  const UserInfo home = Owner("user");  // admin's home; judge alice in her own instead
  BridgeResponse response;
  UserInfo alice_home;
  ASSERT_EQ(GetUserInfoByTarget(Caller("alice"), response, "user", alice_home, false), 0);
  dbtest::Tree tree({}, alice_home.view_id);
  db::ViewWriter& w = tree.Writer();
  Put(w, "/", 0, 040700);  // nothing in the stored rights lets alice in
  Put(w, "/docs/", 0, 040700);
  Put(w, "/docs/a.txt", 0, 0100600);
  Put(w, "/pics/", 0, 040700);
  Put(w, "/pics/b.txt", 0, 0100600);

  db::ViewDBInterface view;
  ASSERT_EQ(GetViewDB(alice_home.view_id, view), 0);
  const std::vector<uint64_t> ids = {tree.Id("/docs/a.txt"), tree.Id("/pics/b.txt")};
  EXPECT_TRUE(CheckPrivilegeByNodeId(Caller("alice"), response, view, alice_home, ids, true));
  // Bob is no owner here, and the same rights give him nothing.
  EXPECT_FALSE(CheckPrivilegeByNodeId(Caller("bob"), response, view, alice_home, ids, false));
  // Alice in someone else's view does not get the owner's entry.
  EXPECT_FALSE(CheckPrivilegeByNodeId(Caller("alice"), response, view, home, ids, false));
}

TEST_F(WebapiUtil, SmallUtilities) {
  struct {
    const char* in;
    const char* out;
  } paths[] = {{"a/b", "/a/b"}, {"", ""},          {"/a//b/", "/a/b"}, {"a/./b/../c", "/a/c"},
               {"/..", "/"},    {"../../x", "/x"}, {"/", "/"}};
  for (const auto& p : paths) EXPECT_EQ(AppendLeadingSlashIfNeeded(p.in), p.out) << p.in;

  EXPECT_TRUE(SyncIsShareReq("@team"));
  EXPECT_FALSE(SyncIsShareReq("@"));
  EXPECT_FALSE(SyncIsShareReq("team"));
  EXPECT_EQ(SyncTargetNameGet("@team"), "team");

  EXPECT_TRUE(NaturalSortComparator("file2", "file10"));
  EXPECT_FALSE(NaturalSortComparator("File2", "file2"));
  EXPECT_FALSE(NaturalSortComparator("file2", "File2"));

  EXPECT_FALSE(IsUserExpired("alice"));
  EXPECT_TRUE(IsUserExpired("nobody-here"));

  uint32_t total = 99;
  std::vector<std::string> names;
  GetPrivilegedUsers(0, -1, "", "local", "", total, names);
  EXPECT_EQ(total, 3u);
  EXPECT_EQ(names, (std::vector<std::string>{"admin", "alice", "bob"}));
  GetPrivilegedUsers(1, 1, "", "local", "", total, names);
  EXPECT_EQ(total, 3u);
  EXPECT_EQ(names, std::vector<std::string>{"alice"});
  GetPrivilegedUsers(0, 10, "LI", "local", "", total, names);
  EXPECT_EQ(names, std::vector<std::string>{"alice"});
  GetPrivilegedUsers(0, 10, "", "ldap", "", total, names);
  EXPECT_EQ(total, 0u);
  EXPECT_TRUE(names.empty());
  total = 7;
  names = {"kept"};
  GetPrivilegedUsers(0, 10, "", "other", "", total, names);
  EXPECT_EQ(total, 7u);
  EXPECT_EQ(names, std::vector<std::string>{"kept"});
}

TEST_F(WebapiUtil, InsertLogsWritesAsTheCaller) {
  ASSERT_GE(db::LogManager::Initialize(kConnect, kConnect, "sqlite", false), 0);
  std::vector<db::Log> logs(2);
  logs[0].setType(3);
  logs[0].setUserName("someone else");
  logs[0].setUserId(1);
  logs[0].pushArg("alice", true);
  logs[0].pushArg("laptop", true);
  logs[1].setType(7);
  logs[1].pushArg("/a", false);
  logs[1].pushArg("b", true);
  InsertLogs("alice", tptest::UidOf("alice"), {});
  InsertLogs("alice", tptest::UidOf("alice"), logs);

  std::vector<db::Log> stored;
  ASSERT_GE(db::LogManager::SearchLog(db::LogFilter(), stored), 0);
  ASSERT_EQ(stored.size(), 2u);
  for (const db::Log& log : stored) {
    EXPECT_EQ(log.getUserName(), "alice");
    EXPECT_EQ(log.getUserId(), tptest::UidOf("alice"));
  }
  db::LogManager::Destroy();
}

}  // namespace
