// Purges as the daemon runs them: pushed as a request pushes them, run by
// the worker, and finished after the daemon was killed in the middle.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include "appliance.h"
#include "content.h"
#include "control.h"
#include "job-queue.h"
#include "job-store.h"
#include "process.h"
#include "user-manager.h"

namespace fs = std::filesystem;
namespace jq = tidepool::core::job_queue;

namespace {

using tptest::Eventually;

const std::string kHome = "/volume1/homes/alice/Tidepool";
using scantest::Control;
using scantest::Scan;

long long Purges() {
  jq::JobQueueClient client;
  long long count = -1;
  jq::JobQueueClient::QueryOperation operation;
  operation.name = jq::jobs::DeleteNodeJob::kName;
  EXPECT_EQ(client.CountJob(count, operation), 0);
  return count;
}

// The pieces of content under the store, signatures included.
size_t Pieces() {
  size_t n = 0;
  for (const char* sub : {"/repo", "/delta", "/node_delta"})
    for (const auto& e :
         fs::recursive_directory_iterator("/volume1/@tidepool/@sync" + std::string(sub)))
      n += e.is_regular_file() ? 1 : 0;
  return n;
}

class PurgeDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    ASSERT_EQ(Control({"user", "--enable", "alice"}).exit_status, 0);
    const std::string big = tptest::RandomBytes(64 << 10, 3);
    tptest::WriteFile(kHome + "/kept.bin", tptest::RandomBytes(64 << 10, 4));
    tptest::WriteFile(kHome + "/doomed/a.bin", big);
    Scan(4000000);
    tptest::WriteFile(kHome + "/doomed/a.bin", big + "more");
    Scan(4000100);
    fs::remove_all(kHome + "/doomed");
    Scan(4000200);
    ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    UserInfo alice;
    ASSERT_GT(UserManager::GetUser("alice", alice, 0), 0);
    view_ = alice.view_id;
    UserManager::Destroy();
  }
  void TearDown() override { Control({"service", "--stop"}); }

  static void StartDaemon(const std::string& kill_at = "") {
    std::map<std::string, std::string> env = {{"PATH", "/usr/bin:/bin"},
                                              {"DRIFTWAY_TEST_HOOKS", "1"}};
    if (!kill_at.empty()) env["DRIFTWAY_TEST_KILL_IN_PURGE"] = kill_at;
    const auto started = tptest::RunProcess({scantest::kControl, "service", "--start"}, env);
    // A daemon told to die may be gone before its start is confirmed.
    if (kill_at.empty()) {
      ASSERT_EQ(started.exit_status, 0) << started.out << started.err;
    }
  }
  static bool DaemonRuns() { return Control({"service", "--status"}).exit_status == 0; }

  void PushTrashPurge() {
    jq::JobQueueClient client;
    auto job = std::make_shared<jq::jobs::DeleteNodeJob>(view_);
    job->SetUserInfo("admin", 1024);
    ASSERT_EQ(client.PushJob(job, {}), jq::kPushDone);
  }

  uint64_t view_ = 0;
};

TEST_F(PurgeDaemonTest, TheWorkerPurgesAndAPurgeKilledMidwayRunsAgainAtStart) {
  const size_t before = Pieces();
  PushTrashPurge();
  // Killed once before any piece went, then once while pieces go.
  for (const char* moment : {"commit", "unlink"}) {
    SCOPED_TRACE(moment);
    StartDaemon(moment);
    ASSERT_TRUE(Eventually([] { return !DaemonRuns(); })) << "the daemon was not killed";
    // Killed with the job running: the repository is sound, and the job
    // is still there to run again.
    const auto check = Control({"check"});
    EXPECT_EQ(check.exit_status, 0) << check.out;
    EXPECT_EQ(Purges(), 1);
  }
  StartDaemon();
  ASSERT_TRUE(Eventually([] { return Purges() == 0; }));
  const auto check = Control({"check"});
  EXPECT_EQ(check.exit_status, 0) << check.out;
  EXPECT_LT(Pieces(), before);
  const auto listed = Control({"jobs"});
  EXPECT_EQ(listed.out, "") << "finished jobs leave the queue";
}

}  // namespace
