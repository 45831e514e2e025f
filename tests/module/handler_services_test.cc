// What RequestHandler offers its handlers beyond the pipeline: acting as
// another user, forking around open databases, the system volume's temporary
// folder, task error codes, and the module's log lines.
#include <gtest/gtest.h>
#include <kstx/webapi.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "process.h"
#include "request-handler.h"
#include "sandbox.h"
#include "seed.h"
#include "user-manager.h"
#include "webapi-bridge.h"

namespace {

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

class HandlerServicesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { tptest::SeedDemoSystem(); }
};

RequestAuthentication Caller(const std::string& name, bool admin) {
  RequestAuthentication auth;
  auth.user = name;
  auth.uid = tptest::UidOf(name);
  auth.is_admin = admin;
  auth.is_expired = false;
  auth.remote_ip = "127.0.0.1";
  return auth;
}

TEST_F(HandlerServicesTest, SwitchAuthAsksTheSyncService) {
  RequestHandler handler;
  RequestAuthentication result;
  // Acting as oneself needs no service at all.
  ASSERT_EQ(handler.SwitchAuth(Caller("alice", false), "alice", result), 0);
  EXPECT_EQ(result.user, "alice");
  // Without the daemon nobody may act as someone else.
  result.user = "untouched";
  EXPECT_EQ(handler.SwitchAuth(Caller("admin", true), "alice", result), -1);
  EXPECT_EQ(result.user, "untouched");

  ASSERT_EQ(tptest::RunProcess({kControl, "service", "--start"}).exit_status, 0);
  ASSERT_EQ(handler.SwitchAuth(Caller("admin", true), "alice", result), 0);
  EXPECT_EQ(result.user, "alice");
  EXPECT_EQ(result.uid, tptest::UidOf("alice"));
  EXPECT_FALSE(result.is_admin);
  EXPECT_FALSE(result.is_anonymous);
  EXPECT_EQ(result.remote_ip, "127.0.0.1");  // the rest is the caller's

  result.user = "untouched";
  EXPECT_EQ(handler.SwitchAuth(Caller("alice", false), "bob", result), -1);
  EXPECT_EQ(result.user, "untouched");
  ASSERT_EQ(tptest::RunProcess({kControl, "service", "--stop"}).exit_status, 0);
}

TEST_F(HandlerServicesTest, ForkReopensTheDatabasesInBothProcesses) {
  RequestHandler handler;
  handler.SetRequiredDatabase(RequestHandler::kUserDatabase | RequestHandler::kDataDatabase);
  handler.SetRequiredAccessPrivilege(0);
  ASSERT_EQ(handler.InitializeDatabase(), 0);
  const pid_t pid = handler.Fork(0);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    UserInfo info;
    const bool ok = handler.GetOpenedDatabases() == 5 &&
                    UserManager::GetUser("alice", 0, info, 0) > 0 && info.name == "alice";
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(handler.GetOpenedDatabases(), 5u);
  UserInfo info;
  EXPECT_GT(UserManager::GetUser("bob", 0, info, 0), 0);
}

TEST_F(HandlerServicesTest, SystemVolumeTemporaryFolder) {
  RequestHandler handler;
  EXPECT_EQ(handler.CreateAndGetSysVolumeTempDirectory(), "/volume1/@tmp");
  struct stat st;
  ASSERT_EQ(stat("/volume1/@tmp", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  // An existing folder, and even a file of that name, are taken as they are.
  EXPECT_EQ(handler.CreateAndGetSysVolumeTempDirectory(), "/volume1/@tmp");
  rmdir("/volume1/@tmp");
  tptest::WriteFile("/volume1/@tmp", "x");
  EXPECT_EQ(handler.CreateAndGetSysVolumeTempDirectory(), "/volume1/@tmp");
  unlink("/volume1/@tmp");
}

TEST_F(HandlerServicesTest, TaskErrorCodeFromItemResult) {
  const std::pair<int, int> cases[] = {{-3, 800}, {-2, 600}, {-1, 401}, {-4, 401}, {0, 401}};
  for (const auto& [item_result, code] : cases) {
    Json::Value data(Json::objectValue);
    RequestHandler::SetTaskErrDataByItemRc(item_result, data);
    EXPECT_EQ(data["code"].asInt(), code) << item_result;
  }
}

TEST_F(HandlerServicesTest, LogLinesCarryThePrefix) {
  KSTX::RequestContext ctx;
  ctx.api = "KSTX.Tidepool";
  ctx.method = "no_such_method";
  ctx.version = 1;
  KSTX::APIRequest request(ctx);
  KSTX::APIResponse response;
  {
    WebAPIBridge bridge(&request, &response);
    bridge.Process();
  }
  const std::string log = tptest::ReadPackageLog();
  const std::regex line(
      R"(\( *\d+: *\d+\) \[ERROR\] webapi-bridge\.cc\(\d+\): no such api : KSTX\.Tidepool\.no_such_method\.\n)"
      R"(\( *\d+: *\d+\) \[ERROR\] webapi-bridge\.cc\(\d+\): Fail to find handler\n)");
  EXPECT_TRUE(std::regex_search(log, line)) << log;
}

}  // namespace
