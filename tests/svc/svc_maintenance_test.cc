// The maintenance methods under a running sync service: deleting the
// database stops the versioning and leaves no repository behind; resuming
// from freeze restarts the service, which versions what waited; and
// get_extension hands the caller's application privilege to the service.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host-accounts.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "seed.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kTidepool = "KSTX.Tidepool";
constexpr const char* kDaemon = "/var/packages/Tidepool/target/bin/driftway";

bool DaemonRuns() { return tptest::RunControl({"service", "--status"}).exit_status == 0; }

std::string DaemonPid() {
  const std::string out = tptest::RunControl({"service", "--status"}).out;
  const size_t at = out.find("(pid ");
  return at == std::string::npos ? "" : out.substr(at + 5, out.find(')', at) - at - 5);
}

bool Frozen() {
  return tptest::RunControl({"service", "--status"}).out.find("frozen") != std::string::npos;
}

size_t VersionCount(const std::string& sid, const std::string& path) {
  const auto answer =
      Call("KSTX.Tidepool.Node", "list_version", {{"target", "mine"}, {"path", path}}, sid);
  return answer.success() ? answer.json["data"]["items"].size() : 0;
}

void Write(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  ASSERT_EQ(chown(path.c_str(), Uid("alice"), kUsersGid), 0);
}

// The whole answer, so that anything a program printed into it shows.
void ExpectEmptySuccess(const tptest::WebAnswer& answer) {
  Json::Value success(Json::objectValue);
  success["success"] = true;
  EXPECT_EQ(answer.exit_status, 0);
  EXPECT_EQ(answer.json, success) << answer.body;
}

class MaintenanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, {{kT0, {Entry("start.txt", "there before\n")}, {}}});
    tptest::AppendSetting("watch_quiet_ms", "300");
    tptest::AppendSetting("freeze_free_mb", "0");
    ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
    admin_ = LoginAs("admin");
    alice_ = LoginAs("alice");
  }
  void TearDown() override { tptest::RunControl({"service", "--stop"}); }

  std::string admin_;
  std::string alice_;
};

TEST_F(MaintenanceTest, DeletingTheDatabaseStopsVersioningAndRemovesEveryRepository) {
  Write(kAliceHome + "/before.txt", "versioned\n");
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/before.txt") == 1; }));
  // A repository left on the second volume by an earlier move.
  tptest::WriteFile("/volume2/@tidepool/views/1.sqlite", "old");

  // Refused: not an administrator; the repository moving; a GET.
  auto answer = Call(kTidepool, "delete_database", {}, alice_);
  EXPECT_EQ(answer.code(), 105) << answer.body;
  EXPECT_EQ(answer.message(), "permission denied (admin only)");
  answer = tptest::Get("api=KSTX.Tidepool&method=delete_database&version=1", admin_);
  EXPECT_EQ(answer.code(), 105) << answer.body;
  tptest::SetServiceStatus("moving_db");
  answer = Call(kTidepool, "delete_database", {}, admin_);
  EXPECT_EQ(answer.code(), 503) << answer.body;
  EXPECT_EQ(answer.message(), "database is moving");
  tptest::SetServiceStatus("enabled");
  ASSERT_TRUE(fs::exists("/volume1/@tidepool"));
  ASSERT_TRUE(DaemonRuns());

  ExpectEmptySuccess(Call(kTidepool, "delete_database", {}, admin_));
  EXPECT_FALSE(fs::exists("/volume1/@tidepool"));
  EXPECT_FALSE(fs::exists("/volume2/@tidepool"));
  EXPECT_FALSE(DaemonRuns());
  answer = Call(kTidepool, "get_status", {}, admin_);
  EXPECT_EQ(answer.json["data"]["enable_status"].asString(), "disabled") << answer.body;
  // Nothing versions any more: a change makes no repository again.
  Write(kAliceHome + "/after.txt", "not versioned\n");
  EXPECT_FALSE(fs::exists("/volume1/@tidepool"));
  EXPECT_EQ(Call(kTidepool, "check_user", {}, alice_).code(), 501);
  // The users' files are theirs and stay.
  EXPECT_EQ(tptest::ReadFile(kAliceHome + "/before.txt"), "versioned\n");

  // Again, on a service that is stopped and has nothing left.
  ExpectEmptySuccess(Call(kTidepool, "delete_database", {}, admin_));
}

TEST_F(MaintenanceTest, ResumingFromFreezeRestartsTheServiceWhichVersionsWhatWaited) {
  tptest::RunControl({"service", "--stop"});
  tptest::AppendSetting("freeze_free_mb", "1000000000");
  ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
  ASSERT_TRUE(tptest::Eventually(Frozen));
  Write(kAliceHome + "/frozen.txt", "written while frozen\n");
  const std::string frozen_pid = DaemonPid();

  // Refused, and the service left alone.
  auto answer = Call(kTidepool, "resume_freeze", {}, alice_);
  EXPECT_EQ(answer.code(), 105) << answer.body;
  tptest::SetServiceStatus("moving_db");
  answer = Call(kTidepool, "resume_freeze", {}, admin_);
  EXPECT_EQ(answer.code(), 503) << answer.body;
  EXPECT_EQ(answer.message(), "repository is moving");
  EXPECT_EQ(DaemonPid(), frozen_pid);
  tptest::SetServiceStatus("enabled");

  // Still short of space: the service restarts frozen.
  ExpectEmptySuccess(Call(kTidepool, "resume_freeze", {}, admin_));
  EXPECT_NE(DaemonPid(), frozen_pid);
  ASSERT_TRUE(tptest::Eventually(Frozen));
  EXPECT_EQ(VersionCount(alice_, "/frozen.txt"), 0u);
  // A freeze is answered by writing methods, not by resume_freeze.
  EXPECT_EQ(Call("KSTX.Tidepool.Node.Restore", "status", {}, alice_).code(), 502);

  // Space is back: resuming resumes.
  tptest::AppendSetting("freeze_free_mb", "0");
  ExpectEmptySuccess(Call(kTidepool, "resume_freeze", {}, admin_));
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/frozen.txt") == 1; }));
  answer = Call(kTidepool, "get_status", {}, alice_);
  EXPECT_FALSE(answer.json["data"]["dftw_freeze"].asBool()) << answer.body;

  // A service that cannot start again.
  const std::string aside = std::string(kDaemon) + ".aside";
  fs::rename(kDaemon, aside);
  answer = Call(kTidepool, "resume_freeze", {}, admin_);
  fs::rename(aside, kDaemon);
  EXPECT_EQ(answer.code(), 401) << answer.body;
  EXPECT_EQ(answer.message(), "restart service failed");
}

TEST_F(MaintenanceTest, TheExtensionHandsTheApplicationPrivilegeToTheService) {
  // carol holds the privilege but was never enabled: asking enables her.
  tptest::AddHostUser("carol", "carol-pw");
  const std::string carol = tptest::Login("carol", "carol-pw");
  EXPECT_EQ(Call(kTidepool, "check_user", {}, carol).code(), 105);
  auto answer = Call(kTidepool, "get_extension", {}, carol);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_TRUE(answer.json["data"]["service_config"]["user_enabled"].asBool()) << answer.body;
  EXPECT_TRUE(Call(kTidepool, "check_user", {}, carol).success());

  // alice loses the privilege: asking disables her in the service.
  auto host = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(host);
  ASSERT_GE(host->SetAppPrivilege("alice", false), 0);
  answer = Call(kTidepool, "get_extension", {}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_FALSE(answer.json["data"]["service_config"]["user_enabled"].asBool()) << answer.body;
  // With the privilege back she is still off in the service until she asks.
  ASSERT_GE(host->SetAppPrivilege("alice", true), 0);
  answer = Call(kTidepool, "check_user", {}, alice_);
  EXPECT_EQ(answer.code(), 105) << answer.body;
  EXPECT_EQ(answer.message(), "permission denied (disabled)");
  ASSERT_TRUE(Call(kTidepool, "get_extension", {}, alice_).success());
  EXPECT_TRUE(Call(kTidepool, "check_user", {}, alice_).success());
}

}  // namespace
