// A download stopped while its worker is busy: the worker is held at the
// moment it would rebuild the nodes, so the stop always lands mid-task.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fake-request.h"
#include "handlers/node/download/finish.h"
#include "handlers/node/download/start.h"
#include "handlers/node/download/stop.h"
#include "hvos-task.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

RequestAuthentication Alice() {
  RequestAuthentication auth;
  auth.user = "alice";
  auth.uid = Uid("alice");
  auth.remote_ip = "127.0.0.1";
  auth.url_host = "localhost";
  auth.is_expired = false;
  return auth;
}

int RunHandler(RequestHandler& handler, Json::Value params, BridgeResponse& response) {
  FixedIdentity identity(Alice());
  handler.SetAuthenticationService(&identity);
  FakeRequest request(std::move(params));
  return handler.HandleRequest(request, response);
}

Json::Value StartParams(const Json::Value& node) {
  Json::Value params(Json::objectValue);
  params["target"] = "mine";
  params["nodes"].append(node);
  return params;
}

// The processes whose parent is `pid`.
std::vector<pid_t> ChildrenOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

bool Alive(pid_t pid) { return fs::exists("/proc/" + std::to_string(pid)); }

TEST(DownloadStopTest, StopEndsTheWorkerAndRemovesItsFolder) {
  ASSERT_TRUE(tptest::InSandbox());
  SeedRestoreWorld();
  BuildHistory(kAliceHome, {{kT0, {Entry("big.txt", std::string(1 << 20, 'b'))}, {}}});
  const Json::Value node = Browse(LoginAs("alice"), "mine", "/big.txt");

  NodeDownloadStartHandler::TEST_SetWorkerHook([] {
    for (;;) pause();
  });
  NodeDownloadStartHandler start;
  BridgeResponse started;
  ASSERT_EQ(RunHandler(start, StartParams(node), started), 0) << started.GetErrorMessage();
  HVOS::Task task("alice", "dftw_download_progress");
  const pid_t supervisor = task.getCreatePid();
  const std::string folder = task.getProperty("data")["temp_folder"].asString();
  ASSERT_TRUE(fs::is_directory(folder)) << folder;
  std::vector<pid_t> workers;
  ASSERT_TRUE(tptest::Eventually([&] { return !(workers = ChildrenOf(supervisor)).empty(); }));

  // A second start is refused while this one runs.
  NodeDownloadStartHandler second;
  BridgeResponse refused;
  EXPECT_LT(RunHandler(second, StartParams(node), refused), 0);
  EXPECT_EQ(refused.GetErrorCode(), 405);

  NodeDownloadStopHandler stop;
  BridgeResponse stopped;
  EXPECT_EQ(RunHandler(stop, Json::Value(Json::objectValue), stopped), 0);
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists("alice", "dftw_download_progress"));
  // The child ends, with its worker, and takes the folder with it.
  ASSERT_TRUE(
      tptest::Eventually([&] { return waitpid(supervisor, nullptr, WNOHANG) == supervisor; }));
  for (pid_t worker : workers) EXPECT_FALSE(Alive(worker)) << worker;
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists("alice", "dftw_download_progress"));

  // The next start is not refused because of the stopped task.
  NodeDownloadStartHandler::TEST_SetWorkerHook(nullptr);
  NodeDownloadStartHandler third;
  BridgeResponse again;
  EXPECT_EQ(RunHandler(third, StartParams(node), again), 0) << again.GetErrorMessage();
}

// One file leaves under the chosen name with the extension of what lies in
// the folder: an office document's export, or the stored file itself.
TEST(DownloadNameTest, OneFileIsNamedAfterOutnameAndItsExtension) {
  EXPECT_EQ(NodeDownloadFinishHandler::OutputFileName("x", "report.docx"), "x.docx");
  EXPECT_EQ(NodeDownloadFinishHandler::OutputFileName("x", "report.tdoc"), "x.tdoc");
  EXPECT_EQ(NodeDownloadFinishHandler::OutputFileName("x.tsheet", "a.xlsx"), "x.xlsx.xlsx");
  EXPECT_EQ(NodeDownloadFinishHandler::OutputFileName("x", "README"), "x.");
  EXPECT_EQ(NodeDownloadFinishHandler::OutputFileName("Tidepool", "a.tar.gz"), "Tidepool.gz");
}

}  // namespace
