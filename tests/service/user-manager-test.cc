// The user database as its callers see it: records after enabling and
// disabling people and shares, look-ups, the host account's state, order.
#include <SQLiteCpp/Database.h>

#include <filesystem>
#include <list>
#include <vector>

#include "appliance.h"
#include "user-manager.h"

namespace {

using tptest::HostUid;
using tptest::OwnerOf;

constexpr const char* kRepo = "/volume1/@tidepool";

class UserManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedAppliance();
    ASSERT_EQ(UserManager::Initialize(kRepo, "sqlite"), 0);
  }
  void TearDown() override { UserManager::Destroy(); }

  static std::string Home(const std::string& user) {
    return "/volume1/homes/" + user + "/Tidepool";
  }
  static void Enable(const std::string& user) {
    ASSERT_EQ(UserManager::EnableUser(user, HostUid(user), 0, Home(user)), 0);
  }
  static UserInfo Get(const std::string& name, int flag = UserManager::kQueryStored) {
    UserInfo info;
    EXPECT_EQ(UserManager::GetUser(name, info, flag), 1) << name;
    return info;
  }
  static std::vector<std::string> Names(const std::list<UserInfo>& users) {
    std::vector<std::string> names;
    for (const auto& u : users) names.push_back(u.name);
    return names;
  }
};

TEST_F(UserManagerTest, OpeningTheDatabase) {
  // Another backend is refused; opening again, or after closing, is fine and
  // keeps what was stored.
  UserManager::Destroy();
  EXPECT_LT(UserManager::Initialize(kRepo, "postgresql"), 0);
  EXPECT_FALSE(UserManager::IsInitialized());
  ASSERT_EQ(UserManager::Initialize(kRepo, "sqlite"), 0);
  ASSERT_EQ(UserManager::Initialize(kRepo, "sqlite"), 0);
  Enable("alice");
  UserManager::Destroy();
  UserInfo info;
  EXPECT_LT(UserManager::GetUser("alice", info, 0), 0) << "closed database answers";
  ASSERT_EQ(UserManager::Initialize(kRepo, "sqlite"), 0);
  EXPECT_EQ(Get("alice").view_id, 1u);

  // The file carries a schema version for later upgrades.
  SQLite::Database db(std::string(kRepo) + "/user-db.sqlite");
  EXPECT_GE(db.execAndGet("PRAGMA user_version").getInt(), 1);
}

TEST_F(UserManagerTest, EnablingPeople) {
  Enable("alice");
  Enable("bob");
  const UserInfo alice = Get("alice");
  EXPECT_EQ(alice.name, "alice");
  EXPECT_EQ(alice.uid, HostUid("alice"));
  EXPECT_EQ(alice.view_id, 1u);
  EXPECT_TRUE(alice.isEnabled());
  EXPECT_TRUE(alice.isHVOSEnabled());
  EXPECT_FALSE(alice.isShareUser());
  EXPECT_EQ(alice.root_path, Home("alice"));
  EXPECT_EQ(Get("bob").view_id, 2u);
  // The home folder exists and belongs to its user, closed to everyone else
  // (the folder it lies in too); the homes folder above stays the system's.
  for (const char* user : {"alice", "bob"}) {
    for (const std::string& dir : {Home(user), std::string("/volume1/homes/") + user}) {
      struct stat st {};
      ASSERT_EQ(stat(dir.c_str(), &st), 0) << dir;
      EXPECT_EQ(st.st_uid, HostUid(user)) << dir;
      EXPECT_EQ(st.st_mode & 07777, 0700u) << dir;
    }
  }
  EXPECT_EQ(OwnerOf("/volume1/homes"), 0);

  // Names match without case; a wrong uid does not.
  EXPECT_EQ(Get("ALICE").view_id, 1u);
  UserInfo info;
  EXPECT_EQ(UserManager::GetUser("alice", HostUid("bob"), info, 0), 0);
  EXPECT_EQ(UserManager::GetUser("alice", HostUid("alice"), info, 0), 1);
  EXPECT_EQ(UserManager::GetUser("carol", info, 0), 0);
  EXPECT_EQ(UserManager::GetUserByDefaultView(2, info), 1);
  EXPECT_EQ(info.name, "bob");
  EXPECT_EQ(UserManager::GetUserByDefaultView(99, info), 0);

  // A new view gets the default rotation.
  int count = 0, days = -1;
  std::string policy;
  EXPECT_EQ(UserManager::QueryRotateSettingTable(1, count, policy, days), 1);
  EXPECT_EQ(count, 32);
  EXPECT_EQ(policy, "fifo");
  EXPECT_EQ(days, 0);
}

TEST_F(UserManagerTest, DisableAndEnableAgainKeepsTheView) {
  Enable("alice");
  Enable("bob");
  ASSERT_EQ(UserManager::DisableUser("Alice"), 0);
  EXPECT_EQ(UserManager::DisableUser("alice"), 0) << "disabling twice is fine";
  EXPECT_LT(UserManager::DisableUser("carol"), 0);
  // The service no longer serves her, but the enumeration still lists her.
  UserInfo info;
  EXPECT_EQ(UserManager::GetUser("alice", info, UserManager::kQueryStored), 0);
  EXPECT_EQ(UserManager::GetUser("alice", info, UserManager::kQueryWithAccountState), 0);
  std::list<UserInfo> all;
  ASSERT_EQ(UserManager::EnumAllUser(all), 0);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all.front().name, "alice");
  EXPECT_FALSE(all.front().isEnabled());
  EXPECT_EQ(all.front().view_id, 1u);
  EXPECT_TRUE(all.back().isEnabled());
  EXPECT_EQ(UserManager::GetUserByDefaultView(1, info), 1);
  EXPECT_EQ(info.name, "alice");

  // The folder went away meanwhile: enabling again recreates it.
  std::filesystem::remove_all("/volume1/homes/alice");
  Enable("alice");
  EXPECT_TRUE(Get("alice").isEnabled());
  EXPECT_EQ(Get("alice").view_id, 1u);
  EXPECT_EQ(OwnerOf(Home("alice")), HostUid("alice"));
  ASSERT_EQ(UserManager::EnumAllUser(all), 0);
  EXPECT_EQ(Names(all), (std::vector<std::string>{"alice", "bob"}));
}

TEST_F(UserManagerTest, AccountStateComesFromTheHostOnRequest) {
  Enable("alice");
  Enable("bob");
  auto host = hostaccounts::HostAccounts::Open();
  ASSERT_GE(host->SetDisabled("alice", true), 0);
  ASSERT_GE(host->DeleteUser("bob"), 0);

  // Flag 0 reads the record as stored, flag 3 sees the appliance now.
  EXPECT_TRUE(Get("alice", UserManager::kQueryStored).isHVOSEnabled());
  EXPECT_FALSE(Get("alice", UserManager::kQueryWithAccountState).isHVOSEnabled());
  EXPECT_FALSE(Get("bob", UserManager::kQueryWithAccountState).isHVOSEnabled());
  EXPECT_TRUE(Get("alice", UserManager::kQueryWithAccountState).isEnabled());

  ASSERT_GE(host->SetDisabled("alice", false), 0);
  EXPECT_TRUE(Get("alice", UserManager::kQueryWithAccountState).isHVOSEnabled());
  // The refresh was never stored.
  EXPECT_TRUE(Get("bob", UserManager::kQueryStored).isHVOSEnabled());
}

TEST_F(UserManagerTest, ShareUsers) {
  UserInfo info;
  info.name = "stale";
  EXPECT_GE(UserManager::GetShareUser("Photos", info), 0);
  EXPECT_TRUE(info.name.empty()) << "a share never enabled has no share user";

  Enable("alice");
  ASSERT_EQ(UserManager::EnableShare("Photos", "/volume1/Photos", false), 0);
  ASSERT_EQ(UserManager::EnableShare("Docs", "/volume1/Docs", true), 0);
  ASSERT_EQ(UserManager::EnableShare("archive", "/volume1/archive", false), 0);
  EXPECT_TRUE(std::filesystem::is_directory("/volume1/archive"));

  ASSERT_GE(UserManager::GetShareUser("photos", info), 1);
  EXPECT_EQ(info.name, "Photos");
  EXPECT_TRUE(info.isShareUser());
  EXPECT_FALSE(info.isEncryptionShare());
  EXPECT_EQ(info.view_id, 2u);
  EXPECT_EQ(info.root_path, "/volume1/Photos");
  ASSERT_GE(UserManager::GetShareUser("Docs", info), 1);
  EXPECT_TRUE(info.isEncryptionShare());

  // A share and a person are looked up apart, even with the same name.
  ASSERT_EQ(UserManager::EnableShare("alice", "/volume1/alice", false), 0);
  EXPECT_EQ(Get("alice").view_id, 1u);
  EXPECT_LT(UserManager::EnableUser("bob", HostUid("bob"), 1, Home("bob")), 0)
      << "type 1 is not a person";

  std::list<UserInfo> shares;
  ASSERT_EQ(UserManager::EnumShareUser(shares, "ASC"), 0);
  EXPECT_EQ(Names(shares), (std::vector<std::string>{"alice", "archive", "Docs", "Photos"}));
  ASSERT_EQ(UserManager::EnumShareUser(shares, "DESC"), 0);
  EXPECT_EQ(Names(shares), (std::vector<std::string>{"Photos", "Docs", "archive", "alice"}));
  ASSERT_EQ(UserManager::EnumShareUser(shares, ""), 0);
  EXPECT_EQ(Names(shares), (std::vector<std::string>{"Photos", "Docs", "archive", "alice"}));

  // A disabled share reads like one never enabled, so that it can be
  // enabled again; the enumeration shows it disabled.
  ASSERT_EQ(UserManager::DisableShare("PHOTOS"), 0);
  EXPECT_GE(UserManager::GetShareUser("Photos", info), 0);
  EXPECT_TRUE(info.name.empty());
  ASSERT_EQ(UserManager::EnumShareUser(shares, ""), 0);
  EXPECT_FALSE(shares.front().isEnabled());
  EXPECT_EQ(shares.front().name, "Photos");
  EXPECT_LT(UserManager::DisableShare("Music"), 0);
  ASSERT_EQ(UserManager::EnableShare("Photos", "/volume1/Photos", false), 0);
  ASSERT_GE(UserManager::GetShareUser("Photos", info), 1);
  EXPECT_TRUE(info.isEnabled());
  EXPECT_EQ(info.view_id, 2u);
}

TEST_F(UserManagerTest, RotationSettings) {
  int count = 7, days = 7;
  std::string policy = "kept";
  // A missing row leaves the caller's values alone.
  EXPECT_EQ(UserManager::QueryRotateSettingTable(0, count, policy, days), 0);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(policy, "kept");
  ASSERT_EQ(UserManager::InsertRotateSettingTable(0, 10, "smart", 30), 0);
  ASSERT_EQ(UserManager::InsertRotateSettingTable(0, 12, "fifo", 60), 0);
  EXPECT_EQ(UserManager::QueryRotateSettingTable(0, count, policy, days), 1);
  EXPECT_EQ(count, 12);
  EXPECT_EQ(policy, "fifo");
  EXPECT_EQ(days, 60);
}

}  // namespace
