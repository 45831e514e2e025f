// Database usage runs that do not end well, with the worker held or ended
// at a chosen moment so the stop or the crash always lands mid-run: a stop
// keeps the figure of the last complete run, a worker that dies clears it,
// and a run that is alive refuses a second one.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fake-request.h"
#include "handlers/dbusage/get.h"
#include "handlers/dbusage/start.h"
#include "handlers/dbusage/status.h"
#include "handlers/dbusage/stop.h"
#include "hvos-task.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kOwner = "admin";
constexpr const char* kName = "dftw_db_usage_polling";

RequestAuthentication Admin() {
  RequestAuthentication auth;
  auth.user = "admin";
  auth.uid = Uid("admin");
  auth.is_admin = true;
  auth.remote_ip = "127.0.0.1";
  auth.url_host = "localhost";
  auth.is_expired = false;
  return auth;
}

// One call through the whole pipeline: 0, or negative with the error in
// `response`.
template <typename Handler>
int Call(BridgeResponse& response) {
  Handler handler;
  FixedIdentity identity(Admin());
  handler.SetAuthenticationService(&identity);
  FakeRequest request;
  return handler.HandleRequest(request, response);
}

Json::Value Answer(const BridgeResponse& response) { return response.GetJsonObject(); }

// start; the process that answers for the run.
pid_t Start() {
  BridgeResponse started;
  EXPECT_EQ(Call<DBUsageStartHandler>(started), 0) << started.GetErrorMessage();
  return static_cast<pid_t>(Answer(started)["task_id"].asInt());
}

bool Ended(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; }
bool Alive(pid_t pid) { return fs::exists("/proc/" + std::to_string(pid)); }

std::vector<pid_t> ChildrenOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

// The running sum the worker last wrote.
uint64_t RecordedUsage() {
  Json::Value properties;
  if (!HVOS::TaskUtil::peekTask(kOwner, kName, properties)) return 0;
  return properties["data"]["usage"].asUInt64();
}

class DBUsageStopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    if (HasFatalFailure()) return;
    BuildHistory(kAliceHome, {{kT0, {Entry("a.txt", std::string(10000, 'a'))}, {}}});
    // A complete run first: the figure the others are judged against.
    const pid_t run = Start();
    ASSERT_GT(run, 0);
    ASSERT_TRUE(tptest::Eventually([&] { return Ended(run); }));
    BridgeResponse status;
    ASSERT_EQ(Call<DBUsageStatusHandler>(status), 0) << status.GetErrorMessage();
    ASSERT_TRUE(Answer(status)["finish"].asBool());
    cached_ = Cached();
    ASSERT_GT(cached_["usage"].asUInt64(), 0u);
  }
  void TearDown() override { DBUsageStartHandler::TEST_SetAfterEachSumHook(nullptr); }

  static Json::Value Cached() {
    BridgeResponse get;
    EXPECT_EQ(Call<DBUsageGetHandler>(get), 0) << get.GetErrorMessage();
    return Answer(get);
  }

  // The run's end as status reports it: the error code, or 0.
  static int FinalStatus(BridgeResponse& status) {
    return Call<DBUsageStatusHandler>(status) < 0 ? status.GetErrorCode() : 0;
  }

  Json::Value cached_;
};

TEST_F(DBUsageStopTest, AStopEndsTheHeldWorkerAndKeepsTheLastFigure) {
  // The worker stops for good after its first part, as a slow part would.
  DBUsageStartHandler::TEST_SetAfterEachSumHook([](unsigned long long) {
    for (;;) pause();
  });
  const pid_t run = Start();
  ASSERT_GT(run, 0);
  ASSERT_TRUE(tptest::Eventually([&] { return RecordedUsage() > 0; }));
  const std::vector<pid_t> workers = ChildrenOf(run);
  ASSERT_EQ(workers.size(), 1u);

  // While it runs: no figure shown, and a second start is refused.
  BridgeResponse running;
  ASSERT_EQ(Call<DBUsageStatusHandler>(running), 0);
  EXPECT_EQ(Answer(running)["usage"].asUInt64(), 0u);
  EXPECT_FALSE(Answer(running)["finish"].asBool());
  BridgeResponse second;
  EXPECT_LT(Call<DBUsageStartHandler>(second), 0);
  EXPECT_EQ(second.GetErrorCode(), 410);
  EXPECT_EQ(second.GetErrorMessage(), "another db usage calculate task exists");

  BridgeResponse stopped;
  EXPECT_EQ(Call<DBUsageStopHandler>(stopped), 0) << stopped.GetErrorMessage();
  ASSERT_TRUE(tptest::Eventually([&] { return Ended(run); }));
  EXPECT_FALSE(Alive(workers[0]));

  BridgeResponse status;
  EXPECT_EQ(FinalStatus(status), 401);
  EXPECT_EQ(status.GetErrorMessage(), "db usage caculation failed");
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists(kOwner, kName));
  EXPECT_EQ(Cached(), cached_);

  // Nothing of the stopped run stands in the way of the next.
  DBUsageStartHandler::TEST_SetAfterEachSumHook(nullptr);
  const pid_t next = Start();
  ASSERT_GT(next, 0);
  ASSERT_TRUE(tptest::Eventually([&] { return Ended(next); }));
  BridgeResponse done;
  EXPECT_EQ(FinalStatus(done), 0) << done.GetErrorMessage();
  EXPECT_TRUE(Answer(done)["finish"].asBool());
}

TEST_F(DBUsageStopTest, AWorkerThatDiesClearsTheFigure) {
  DBUsageStartHandler::TEST_SetAfterEachSumHook([](unsigned long long) { raise(SIGKILL); });
  const pid_t run = Start();
  ASSERT_GT(run, 0);
  ASSERT_TRUE(tptest::Eventually([&] { return Ended(run); }));
  BridgeResponse status;
  EXPECT_EQ(FinalStatus(status), 401);
  const Json::Value cached = Cached();
  EXPECT_EQ(cached["usage"].asUInt64(), 0u);
  EXPECT_EQ(cached["last_update_usage_time"].asString(), "");
}

TEST_F(DBUsageStopTest, ARecordLeftByADeadRunDoesNotBlockAStart) {
  // A run whose process is gone, as after a reboot of the service.
  {
    HVOS::Task task(kOwner, kName);
    Json::Value data(Json::objectValue);
    data["usage"] = 5;
    data["finish"] = false;
    task.setProperty("data", data);
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    task.setCreatePid(gone);
  }
  const pid_t run = Start();
  ASSERT_GT(run, 0);
  ASSERT_TRUE(tptest::Eventually([&] { return Ended(run); }));
  BridgeResponse status;
  EXPECT_EQ(FinalStatus(status), 0) << status.GetErrorMessage();
  EXPECT_TRUE(Answer(status)["finish"].asBool());
}

}  // namespace
