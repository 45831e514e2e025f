#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <string>

#include "host-accounts.h"
#include "sandbox.h"
#include "sdk-path.h"
#include "seed.h"
#include "user-manager.h"

namespace {

constexpr int kRead = 0x0001 | 0x0008 | 0x0080 | 0x0400;
constexpr int kWrite = 0x0002 | 0x0004 | 0x0010 | 0x0040 | 0x0100 | 0x0200 | 0x0800 | 0x1000;
constexpr int kSearch = 0x0020;
constexpr int kRestoreOver = 0x58A;

const std::string kTeam = "/volume1/team";

// The demo system with a share "team" (alice may write, bob may read), a
// group "staff" holding bob, and carol, who has no say anywhere.
class SdkPathTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tptest::SeedDemoSystem();
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_TRUE(accounts);
    hostaccounts::Share team;
    team.name = "team";
    team.volume = "/volume1";
    team.path = kTeam;
    ASSERT_GE(accounts->AddShare(team), 0);
    ASSERT_GE(
        accounts->SetSharePermission("team", "alice", hostaccounts::SharePermission::kReadWrite),
        0);
    ASSERT_GE(accounts->SetSharePermission("team", "bob", hostaccounts::SharePermission::kReadOnly),
              0);
    ASSERT_GE(accounts->AddGroup("staff"), 0);
    ASSERT_GE(accounts->AddGroupMember("staff", "bob"), 0);
    hostaccounts::Group staff;
    ASSERT_GE(accounts->GetGroup("staff", staff), 0);
    staff_gid_ = staff.gid;
    tptest::AddHostUser("carol", "carol-demo");
    std::filesystem::create_directories("/volume1/homes/alice");
  }

  // A file (or folder) with an owner, a mode and, unless empty, an ACL in
  // short text form with numeric qualifiers.
  static std::string Make(const std::string& name, uid_t uid, gid_t gid, mode_t mode,
                          const std::string& acl_text = "", bool folder = false) {
    const std::string path = kTeam + "/" + name;
    if (folder) {
      std::filesystem::create_directories(path);
    } else {
      tptest::WriteFile(path, "x");
    }
    EXPECT_EQ(chown(path.c_str(), uid, gid), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    if (!acl_text.empty()) {
      acl_t acl = acl_from_text(acl_text.c_str());
      EXPECT_NE(acl, nullptr) << acl_text;
      EXPECT_EQ(acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl), 0) << acl_text;
      acl_free(acl);
    }
    return path;
  }

  static int Rights(const std::string& user, const std::string& path) {
    SDK::GroupCache cache;
    return SDK::GetPathAclPrivilege(user, path, cache);
  }

  static inline gid_t staff_gid_ = 0;
};

TEST_F(SdkPathTest, SharesOfPaths) {
  EXPECT_EQ(SDK::PathGetShareName("/volume1/team/a/b"), "team");
  EXPECT_EQ(SDK::PathGetShareName("/volume1//team"), "team");
  EXPECT_EQ(SDK::PathGetShareName("/volume1/homes/alice/x"), "homes");
  for (const char* outside : {"/volume1", "/volume1/nosuch/x", "/volume2/team/x", "/volume1/Team/x",
                              "/volume1/team/../homes/x", "volume1/team/x", "/tmp/team/x"}) {
    EXPECT_EQ(SDK::PathGetShareName(outside), "") << outside;
  }
  EXPECT_EQ(SDK::GetSharePrivilege("team", "alice"), SDK::kShareReadWrite);
  EXPECT_EQ(SDK::GetSharePrivilege("TEAM", "bob"), SDK::kShareReadOnly);
  EXPECT_EQ(SDK::GetSharePrivilege("team", "admin"), SDK::kShareFull);
  EXPECT_EQ(SDK::GetSharePrivilege("team", "carol"), SDK::kShareNoAccess);
  EXPECT_EQ(SDK::GetSharePrivilege("homes", "carol"), SDK::kShareReadWrite);
  EXPECT_LT(SDK::GetSharePrivilege("nosuch", "alice"), 0);
  EXPECT_LT(SDK::GetSharePrivilege("team", "nobody"), 0);

  EXPECT_TRUE(SDK::IsLocalHomeServiceEnabled());
  EXPECT_FALSE(SDK::IsLdapHomeServiceEnabled());
  EXPECT_FALSE(SDK::IsDomainHomeServiceEnabled());
}

TEST_F(SdkPathTest, RightsFromOwnerModeAndAcl) {
  const uid_t alice = tptest::UidOf("alice"), bob = tptest::UidOf("bob");
  const std::string b = std::to_string(bob), staff = std::to_string(staff_gid_);
  // Owner, owning group ("users" holds everyone) and other, from the mode.
  const std::string plain = Make("plain", alice, 100, 0640);
  EXPECT_EQ(Rights("alice", plain), kRead | kWrite);
  EXPECT_EQ(Rights("bob", plain), kRead);
  // A named user entry, limited by the mask.
  const std::string shared =
      Make("shared", 0, 0, 0600, "u::rw-,u:" + b + ":rw-,g::---,m::rw-,o::---");
  EXPECT_EQ(Rights("bob", shared) & kRestoreOver, kRestoreOver);
  EXPECT_EQ(Rights("alice", shared), 0);
  const std::string masked =
      Make("masked", 0, 0, 0600, "u::rw-,u:" + b + ":rwx,g::---,m::r--,o::rw-");
  EXPECT_EQ(Rights("bob", masked), kRead);
  EXPECT_EQ(Rights("alice", masked), kRead | kWrite);  // other
  // A named group entry: bob through "staff", and a matching group entry
  // wins over a richer "other".
  const std::string grouped =
      Make("grouped", 0, 0, 0600, "u::rw-,g::---,g:" + staff + ":r--,m::rwx,o::rwx");
  EXPECT_EQ(Rights("bob", grouped), kRead);
  EXPECT_EQ(Rights("alice", grouped), kRead | kWrite | kSearch);
  // The share's folder itself stops carol, who has no say on the share.
  EXPECT_EQ(Rights("carol", grouped), 0);
  // A folder's x is search; root may do everything.
  const std::string folder = Make("folder", alice, 100, 0750, "", true);
  EXPECT_EQ(Rights("alice", folder), kRead | kWrite | kSearch);
  EXPECT_EQ(Rights("bob", folder), kRead | kSearch);
  EXPECT_EQ(Rights("root", folder), 0x1FFF);
}

TEST_F(SdkPathTest, SearchIsNeededOnEveryFolderAbove) {
  const uid_t alice = tptest::UidOf("alice"), bob = tptest::UidOf("bob");
  Make("closed", alice, 100, 0700, "", true);
  const std::string inside = Make("closed/open.txt", bob, 100, 0666);
  EXPECT_EQ(Rights("bob", inside), 0);  // owner of the file, but cannot reach it
  EXPECT_EQ(Rights("alice", inside), kRead | kWrite);
  // An ACL entry on the folder opens the way.
  Make("closed", alice, 100, 0700, "u::rwx,u:" + std::to_string(bob) + ":--x,g::---,m::--x,o::---",
       true);
  EXPECT_EQ(Rights("bob", inside), kRead | kWrite);

  SDK::GroupCache cache;
  EXPECT_LT(SDK::GetPathAclPrivilege("nobody", inside, cache), 0);
  EXPECT_LT(SDK::GetPathAclPrivilege("alice", kTeam + "/missing", cache), 0);
  EXPECT_LT(SDK::GetPathAclPrivilege("alice", "relative/path", cache), 0);
  EXPECT_EQ(cache.groups.count("alice"), 1u);  // looked up once, kept
  EXPECT_EQ(cache.groups["alice"].count(100), 1u);
}

TEST_F(SdkPathTest, EnumeratesOwnersByType) {
  ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
  ASSERT_GE(UserManager::EnableShare("team", kTeam, false), 0);
  std::list<UserInfo> locals, shares, ldap;
  ASSERT_EQ(UserManager::EnumUserByType(0, locals), 0);
  ASSERT_EQ(UserManager::EnumUserByType(1, shares), 0);
  ASSERT_EQ(UserManager::EnumUserByType(2, ldap), 0);
  UserManager::Destroy();
  std::vector<std::string> names;
  for (const UserInfo& u : locals) names.push_back(u.name);
  EXPECT_EQ(names, (std::vector<std::string>{"admin", "alice", "bob"}));
  ASSERT_EQ(shares.size(), 1u);
  EXPECT_EQ(shares.front().name, "team");
  EXPECT_TRUE(shares.front().isShareUser());
  EXPECT_TRUE(ldap.empty());
}

}  // namespace
