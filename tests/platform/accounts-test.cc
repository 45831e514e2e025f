#include <SQLiteCpp/Database.h>
#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "host-accounts.h"
#include "password-check.h"
#include "sandbox.h"
#include "sdk.h"

namespace {

using hostaccounts::HostAccounts;
using hostaccounts::SharePermission;

class AccountsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::ResetSandboxData();
    accounts_ = HostAccounts::Open();
    ASSERT_NE(accounts_, nullptr);
  }

  hostaccounts::Share MakeShare(const std::string& name, const std::string& volume = "/volume1") {
    hostaccounts::Share share;
    share.name = name;
    share.volume = volume;
    return share;
  }

  std::unique_ptr<HostAccounts> accounts_;
};

int64_t Today() { return static_cast<int64_t>(time(nullptr)) / 86400; }

// What `uid` (group users) can do in `dir`: 'r' when it can list it, 'w'
// when it can make a file in it, 'd' when it can remove `victim` there.
std::string TryAs(uint32_t uid, const std::string& dir, const std::string& victim = "") {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return "?";
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    gid_t users = 100;
    if (setgroups(1, &users) != 0 || setresgid(100, 100, 100) != 0 || setresuid(uid, uid, uid) != 0)
      _exit(1);
    std::string can;
    if (DIR* d = opendir(dir.c_str())) {
      can += 'r';
      closedir(d);
    }
    const std::string mine = dir + "/by-" + std::to_string(uid);
    const int fd = open(mine.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd >= 0) {
      can += 'w';
      close(fd);
    }
    if (!victim.empty() && unlink((dir + "/" + victim).c_str()) == 0) can += 'd';
    if (write(pipe_fds[1], can.data(), can.size()) < 0) _exit(1);
    _exit(0);
  }
  close(pipe_fds[1]);
  char buf[8];
  const ssize_t n = read(pipe_fds[0], buf, sizeof buf);
  close(pipe_fds[0]);
  waitpid(pid, nullptr, 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// The named user entries of a folder's access ACL, "uid:rwx" each.
std::vector<std::string> NamedEntries(const std::string& path) {
  std::vector<std::string> out;
  acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
  if (!acl) return out;
  char* text = acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS);
  std::string all = text ? text : "";
  acl_free(text);
  acl_free(acl);
  for (size_t pos = 0; pos < all.size();) {
    size_t end = all.find(',', pos);
    if (end == std::string::npos) end = all.size();
    const std::string entry = all.substr(pos, end - pos);
    if (entry.rfind("user:", 0) == 0 && entry.compare(0, 6, "user::") != 0)
      out.push_back(entry.substr(5));
    pos = end + 1;
  }
  return out;
}

// A share's folder lets in the users its permissions name, as far as they
// name, and the sticky bit keeps writers off each other's entries.
TEST_F(AccountsTest, ShareFoldersOpenAsFarAsTheirPermissionsSay) {
  const int alice = accounts_->AddUser("alice", "pw");
  const int bob = accounts_->AddUser("bob", "pw");
  const int carol = accounts_->AddUser("carol", "pw");
  const int admin = accounts_->AddUser("admin", "pw");
  ASSERT_GT(alice, 0);
  ASSERT_GT(bob, 0);
  ASSERT_GT(carol, 0);
  ASSERT_GT(admin, 0);
  ASSERT_EQ(accounts_->AddShare(MakeShare("team")), 0);
  const std::string team = "/volume1/team";
  struct stat st {};
  ASSERT_EQ(stat(team.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_gid, 100u);
  EXPECT_EQ(st.st_mode & 07777, 01700u);
  EXPECT_EQ(TryAs(alice, team), "");

  ASSERT_EQ(accounts_->SetSharePermission("team", "alice", SharePermission::kReadWrite), 0);
  ASSERT_EQ(accounts_->SetSharePermission("team", "carol", SharePermission::kReadWrite), 0);
  ASSERT_EQ(accounts_->SetSharePermission("team", "bob", SharePermission::kReadOnly), 0);
  ASSERT_GE(accounts_->AddGroupMember(hostaccounts::kAdministratorsGroup, "admin"), 0);
  ASSERT_EQ(stat(team.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 01770u);
  auto entry = [](int uid, const char* perms) { return std::to_string(uid) + ":" + perms; };
  EXPECT_EQ(NamedEntries(team),
            (std::vector<std::string>{entry(alice, "rwx"), entry(bob, "r-x"), entry(carol, "rwx"),
                                      entry(admin, "rwx")}));
  EXPECT_EQ(TryAs(alice, team), "rw");
  EXPECT_EQ(TryAs(bob, team), "r");
  EXPECT_EQ(TryAs(admin, team), "rw");
  // carol may write too, yet not remove what alice made.
  EXPECT_EQ(TryAs(carol, team, "by-" + std::to_string(alice)), "rw");
  EXPECT_TRUE(std::filesystem::exists(team + "/by-" + std::to_string(alice)));

  ASSERT_EQ(accounts_->SetSharePermission("team", "carol", SharePermission::kNone), 0);
  ASSERT_GE(accounts_->RemoveGroupMember(hostaccounts::kAdministratorsGroup, "admin"), 0);
  EXPECT_EQ(NamedEntries(team), (std::vector<std::string>{entry(alice, "rwx"), entry(bob, "r-x")}));
  EXPECT_EQ(TryAs(carol, team), "");
  EXPECT_EQ(TryAs(admin, team), "");
}

TEST_F(AccountsTest, UsersLogInWithTheirOwnPasswordOnly) {
  EXPECT_EQ(accounts_->AddUser("alice", "wonder land"), 1026);
  EXPECT_EQ(accounts_->AddUser("bob", "builder"), 1027);

  EXPECT_EQ(accounts_->VerifyPassword("alice", "wonder land"), 0);
  EXPECT_EQ(accounts_->VerifyPassword("ALICE", "wonder land"), 0);
  EXPECT_EQ(accounts_->VerifyPassword("alice", "builder"), hostaccounts::kErrInvalid);
  EXPECT_EQ(accounts_->VerifyPassword("alice", ""), hostaccounts::kErrInvalid);
  EXPECT_EQ(accounts_->VerifyPassword("carol", "builder"), hostaccounts::kErrNotFound);

  ASSERT_EQ(accounts_->SetPassword("alice", "new one"), 0);
  EXPECT_EQ(accounts_->VerifyPassword("alice", "wonder land"), hostaccounts::kErrInvalid);
  EXPECT_EQ(accounts_->VerifyPassword("alice", "new one"), 0);
  EXPECT_EQ(accounts_->SetPassword("carol", "x"), hostaccounts::kErrNotFound);

  // A user made without a password cannot log in at all.
  ASSERT_GE(accounts_->AddUser("nopass", ""), 0);
  EXPECT_EQ(accounts_->VerifyPassword("nopass", ""), hostaccounts::kErrInvalid);
}

// An unknown name, a user without a password and a known one all cost one
// argon2id check, so the time of an answer does not tell them apart.
TEST_F(AccountsTest, EveryPasswordCheckRunsTheHash) {
  ASSERT_GE(accounts_->AddUser("alice", "wonder land"), 0);
  ASSERT_GE(accounts_->AddUser("nopass", ""), 0);
  for (const char* name : {"alice", "ALICE", "mallory", "nopass", ""}) {
    SCOPED_TRACE(name);
    const uint64_t before = hostaccounts::TEST_PasswordVerifications();
    EXPECT_LT(accounts_->VerifyPassword(name, "guess"), 0);
    EXPECT_EQ(hostaccounts::TEST_PasswordVerifications(), before + 1);
  }
}

TEST_F(AccountsTest, NamesAreUniqueWhateverTheirCase) {
  ASSERT_GE(accounts_->AddUser("Élise", "pw"), 0);
  EXPECT_EQ(accounts_->AddUser("élise", "pw"), hostaccounts::kErrExists);
  EXPECT_EQ(accounts_->AddUser("ÉLISE", "pw"), hostaccounts::kErrExists);

  hostaccounts::User user;
  ASSERT_EQ(accounts_->GetUser("éLiSe", user), 0);
  EXPECT_EQ(user.name, "Élise");  // kept as typed
  EXPECT_EQ(user.home, "/volume1/homes/Élise");
  EXPECT_EQ(user.gid, 100u);

  // An explicit uid is used as given, once.
  EXPECT_EQ(accounts_->AddUser("admin", "pw", 1024), 1024);
  EXPECT_EQ(accounts_->AddUser("other", "pw", 1024), hostaccounts::kErrExists);
  ASSERT_EQ(accounts_->GetUserByUid(1024, user), 0);
  EXPECT_EQ(user.name, "admin");
  EXPECT_EQ(accounts_->AddUser("huge", "pw", hostaccounts::kAnonymousUid),
            hostaccounts::kErrInvalid);
  EXPECT_EQ(accounts_->GetUserByUid(4242, user), hostaccounts::kErrNotFound);
  EXPECT_EQ(user.name, "admin");  // untouched on failure

  // A deleted user's uid is not handed to the next one.
  const int carol = accounts_->AddUser("carol", "pw");
  ASSERT_EQ(accounts_->DeleteUser("carol"), 0);
  EXPECT_EQ(accounts_->DeleteUser("carol"), hostaccounts::kErrNotFound);
  EXPECT_GT(accounts_->AddUser("dave", "pw"), carol);
}

TEST_F(AccountsTest, BadNamesAreRefused) {
  const std::vector<std::string> bad_users = {
      "",        "a/b",       "tab\tname",          "new\nline",
      ".",       "..",        std::string(65, 'x'), "bad\xff utf8",
      "me@ldap", "DOMAIN\\me"};
  for (const auto& name : bad_users) {
    EXPECT_EQ(accounts_->AddUser(name, "pw"), hostaccounts::kErrInvalid) << name;
    EXPECT_EQ(accounts_->AddGroup(name), hostaccounts::kErrInvalid) << name;
  }
  for (const auto& name : {std::string("@tidepool"), std::string("a/b"), std::string("..")}) {
    EXPECT_EQ(accounts_->AddShare(MakeShare(name)), hostaccounts::kErrInvalid) << name;
  }
  EXPECT_GE(accounts_->AddUser(std::string(64, 'x'), "pw"), 0);
  std::vector<hostaccounts::User> users;
  EXPECT_EQ(accounts_->ListUsers(users), 1);
}

TEST_F(AccountsTest, AdministratorsAreTheMembersOfTheirGroup) {
  hostaccounts::Group group;
  ASSERT_EQ(accounts_->GetGroup("administrators", group), 0);
  EXPECT_EQ(group.gid, 101u);
  EXPECT_TRUE(group.members.empty());
  ASSERT_EQ(accounts_->GetGroup("users", group), 0);
  EXPECT_EQ(group.gid, 100u);

  ASSERT_GE(accounts_->AddUser("admin", "pw"), 0);
  ASSERT_GE(accounts_->AddUser("alice", "pw"), 0);
  EXPECT_FALSE(accounts_->IsAdmin("admin"));
  ASSERT_EQ(accounts_->AddGroupMember("Administrators", "admin"), 0);
  ASSERT_EQ(accounts_->AddGroupMember("administrators", "admin"), 0);  // twice is once
  EXPECT_TRUE(accounts_->IsAdmin("admin"));
  EXPECT_TRUE(accounts_->IsAdmin("ADMIN"));
  EXPECT_FALSE(accounts_->IsAdmin("alice"));
  EXPECT_FALSE(accounts_->IsAdmin("nobody"));

  std::vector<hostaccounts::Group> groups;
  ASSERT_EQ(accounts_->ListGroupsOfUser("admin", groups), 2);
  EXPECT_EQ(groups[0].name, "users");
  EXPECT_EQ(groups[1].name, "administrators");
  EXPECT_EQ(groups[1].members, std::vector<std::string>{"admin"});

  EXPECT_EQ(accounts_->AddGroupMember("administrators", "nobody"), hostaccounts::kErrNotFound);
  EXPECT_EQ(accounts_->AddGroupMember("nogroup", "alice"), hostaccounts::kErrNotFound);
  EXPECT_EQ(accounts_->ListGroupsOfUser("nobody", groups), hostaccounts::kErrNotFound);

  const int gid = accounts_->AddGroup("staff");
  EXPECT_GT(gid, 101);
  EXPECT_EQ(accounts_->AddGroup("STAFF"), hostaccounts::kErrExists);
  ASSERT_EQ(accounts_->AddGroupMember("staff", "alice"), 0);
  ASSERT_EQ(accounts_->RemoveGroupMember("administrators", "admin"), 0);
  EXPECT_FALSE(accounts_->IsAdmin("admin"));
  ASSERT_EQ(accounts_->GetGroup("staff", group), 0);
  EXPECT_EQ(group.members, std::vector<std::string>{"alice"});
}

TEST_F(AccountsTest, SharesHaveAFolderAndPerUserPermissions) {
  ASSERT_GE(accounts_->AddUser("alice", "pw"), 0);
  ASSERT_GE(accounts_->AddUser("bob", "pw"), 0);
  ASSERT_EQ(accounts_->AddShare(MakeShare("Photos")), 0);
  EXPECT_EQ(accounts_->AddShare(MakeShare("photos")), hostaccounts::kErrExists);

  struct stat st {};
  ASSERT_EQ(stat("/volume1/Photos", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));

  hostaccounts::Share share;
  ASSERT_EQ(accounts_->GetShare("PHOTOS", share), 0);
  EXPECT_EQ(share.name, "Photos");
  EXPECT_EQ(share.path, "/volume1/Photos");
  EXPECT_FALSE(share.encrypted);
  EXPECT_TRUE(share.mounted);
  ASSERT_EQ(accounts_->SetShareMounted("photos", false), 0);
  ASSERT_EQ(accounts_->GetShare("Photos", share), 0);
  EXPECT_FALSE(share.mounted);

  // A volume that does not exist holds no share.
  EXPECT_EQ(accounts_->AddShare(MakeShare("lost", "/volume9")), hostaccounts::kErrInvalid);
  EXPECT_EQ(accounts_->AddShare(MakeShare("odd", "/data")), hostaccounts::kErrInvalid);
  std::vector<hostaccounts::Share> shares;
  EXPECT_EQ(accounts_->ListShares(shares), 1);

  SharePermission permission = SharePermission::kReadWrite;
  ASSERT_EQ(accounts_->GetSharePermission("photos", "alice", permission), 0);
  EXPECT_EQ(permission, SharePermission::kNone);
  for (auto wanted : {SharePermission::kReadOnly, SharePermission::kReadWrite,
                      SharePermission::kNone, SharePermission::kReadWrite}) {
    ASSERT_EQ(accounts_->SetSharePermission("Photos", "ALICE", wanted), 0);
    ASSERT_EQ(accounts_->GetSharePermission("photos", "alice", permission), 0);
    EXPECT_EQ(permission, wanted);
  }
  ASSERT_EQ(accounts_->GetSharePermission("photos", "bob", permission), 0);
  EXPECT_EQ(permission, SharePermission::kNone);
  EXPECT_EQ(accounts_->SetSharePermission("nope", "alice", SharePermission::kReadOnly),
            hostaccounts::kErrNotFound);
  EXPECT_EQ(accounts_->SetSharePermission("photos", "nobody", SharePermission::kReadOnly),
            hostaccounts::kErrNotFound);
  EXPECT_EQ(accounts_->GetSharePermission("photos", "nobody", permission),
            hostaccounts::kErrNotFound);

  // A user made again under an old name starts without the old rights.
  ASSERT_EQ(accounts_->DeleteUser("alice"), 0);
  ASSERT_GE(accounts_->AddUser("alice", "pw"), 0);
  ASSERT_EQ(accounts_->GetSharePermission("photos", "alice", permission), 0);
  EXPECT_EQ(permission, SharePermission::kNone);

  ASSERT_EQ(accounts_->DeleteShare("photos"), 0);
  EXPECT_EQ(accounts_->GetShare("Photos", share), hostaccounts::kErrNotFound);
}

TEST_F(AccountsTest, VolumesAreNumberedByTheirPath) {
  hostaccounts::Volume volume;
  volume.path = "/volume2";
  volume.description = "second";
  EXPECT_EQ(accounts_->AddVolume(volume), 2);
  volume.path = "/volume1";
  volume.description = "";
  EXPECT_EQ(accounts_->AddVolume(volume), 1);
  EXPECT_EQ(accounts_->AddVolume(volume), hostaccounts::kErrExists);
  for (const char* bad : {"/volume0", "/volume", "/volume1x", "/vol1", "volume1", "/volume1/"}) {
    volume.path = bad;
    EXPECT_EQ(accounts_->AddVolume(volume), hostaccounts::kErrInvalid) << bad;
  }

  std::vector<hostaccounts::Volume> volumes;
  ASSERT_EQ(accounts_->ListVolumes(volumes), 2);
  EXPECT_EQ(volumes[0].path, "/volume1");
  EXPECT_EQ(volumes[1].id, 2);
  EXPECT_EQ(volumes[1].description, "second");
  ASSERT_EQ(accounts_->GetVolume("/volume2", volume), 0);
  EXPECT_EQ(volume.id, 2);
  EXPECT_TRUE(volume.writable);
  EXPECT_EQ(accounts_->GetVolume("/volume3", volume), hostaccounts::kErrNotFound);
}

TEST_F(AccountsTest, ExpiryCountsFromTheDayAfter) {
  struct Case {
    const char* name;
    int64_t expire_day;  // relative to today; 0 never
    int expired;
  };
  const Case cases[] = {{"never", 0, 0}, {"yesterday", -1, 1}, {"today", 0, 0}, {"tomorrow", 1, 0}};
  for (const auto& c : cases) {
    ASSERT_GE(accounts_->AddUser(c.name, "pw"), 0);
    const bool never = std::string(c.name) == "never";
    ASSERT_EQ(accounts_->SetExpireDay(c.name, never ? 0 : Today() + c.expire_day), 0);
    EXPECT_EQ(KSTXUserCheckExpired(c.name), c.expired) << c.name;
  }
  EXPECT_LT(KSTXUserCheckExpired("nobody"), 0);
  EXPECT_LT(KSTXUserCheckExpired(nullptr), 0);
  EXPECT_EQ(accounts_->SetExpireDay("never", -5), hostaccounts::kErrInvalid);
}

TEST_F(AccountsTest, AppPrivilegeDecidesTheLogin) {
  struct Case {
    const char* name;
    bool disabled;
    bool allowed;
    std::pair<bool, bool> login, may_have;
  };
  const Case cases[] = {
      {"plain", false, true, {true, true}, {true, true}},
      {"disabled", true, true, {true, false}, {true, true}},
      {"denied", false, false, {true, false}, {true, false}},
  };
  for (const auto& c : cases) {
    ASSERT_GE(accounts_->AddUser(c.name, "pw"), 0);
    ASSERT_EQ(accounts_->SetDisabled(c.name, c.disabled), 0);
    ASSERT_EQ(accounts_->SetAppPrivilege(c.name, c.allowed), 0);
    SDK::UserAppPrivilege privilege;
    privilege.SetLoginInfo(c.name, "127.0.0.1");
    EXPECT_EQ(privilege.IsLoginAllowed(), c.login) << c.name;
    EXPECT_EQ(privilege.UserMayHavePrivilege(), c.may_have) << c.name;
  }
  SDK::UserAppPrivilege stranger;
  stranger.SetLoginInfo("nobody", "10.0.0.1");
  EXPECT_EQ(stranger.IsLoginAllowed(), std::make_pair(true, false));
  EXPECT_EQ(stranger.UserMayHavePrivilege(), std::make_pair(true, false));

  hostaccounts::User plain;
  ASSERT_EQ(accounts_->GetUser("plain", plain), 0);
  SDK::User found;
  ASSERT_EQ(SDK::UserService().GetUserByUid(plain.uid, found), 0);
  EXPECT_EQ(found.getName(), "plain");
  EXPECT_EQ(found.getUid(), plain.uid);
  EXPECT_LT(SDK::UserService().GetUserByUid(99999, found), 0);
}

// entry.cgi asks with the service account's effective uid and root as its
// saved uid: the SDK still answers, the file stays closed to the account
// itself, and the caller keeps its identity.
TEST_F(AccountsTest, SdkAnswersCallersRunningAsTheServiceAccount) {
  const int uid = accounts_->AddUser("alice", "pw");
  ASSERT_GE(uid, 0);
  accounts_.reset();
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(setresuid(static_cast<uid_t>(-1), kNobody, static_cast<uid_t>(-1)), 0);

  EXPECT_EQ(HostAccounts::Open(), nullptr);
  SDK::UserAppPrivilege privilege;
  privilege.SetLoginInfo("alice", "127.0.0.1");
  const auto allowed = privilege.IsLoginAllowed();
  SDK::User found;
  const int found_rc = SDK::UserService().GetUserByUid(static_cast<uint32_t>(uid), found);
  const int expired = KSTXUserCheckExpired("alice");
  const uid_t euid_after = geteuid();

  ASSERT_EQ(setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)), 0);
  EXPECT_EQ(allowed, std::make_pair(true, true));
  EXPECT_EQ(found_rc, 0);
  EXPECT_EQ(found.getName(), "alice");
  EXPECT_EQ(expired, 0);
  EXPECT_EQ(euid_after, kNobody);
}

TEST_F(AccountsTest, TheDirectoryOutlivesItsConnection) {
  ASSERT_GE(accounts_->AddUser("alice", "secret"), 0);
  ASSERT_EQ(accounts_->SetDisabled("alice", true), 0);
  ASSERT_EQ(accounts_->AddShare(MakeShare("docs")), 0);
  accounts_.reset();

  struct stat st {};
  ASSERT_EQ(stat(hostaccounts::kDefaultPath, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);  // it holds password hashes

  auto reopened = HostAccounts::Open();
  ASSERT_NE(reopened, nullptr);
  hostaccounts::User user;
  ASSERT_EQ(reopened->GetUser("alice", user), 0);
  EXPECT_TRUE(user.disabled);
  EXPECT_EQ(reopened->VerifyPassword("alice", "secret"), 0);
  hostaccounts::Share share;
  EXPECT_EQ(reopened->GetShare("docs", share), 0);

  // A directory written by a newer build is not touched.
  const std::string newer = "/usr/kstx/etc/newer.db";
  {
    SQLite::Database db(newer, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    db.exec("PRAGMA user_version = 99");
  }
  EXPECT_EQ(HostAccounts::Open(newer), nullptr);
  EXPECT_EQ(HostAccounts::Open(std::string(hostaccounts::kDefaultPath) + "/under-a-file.db"),
            nullptr);
}

}  // namespace
