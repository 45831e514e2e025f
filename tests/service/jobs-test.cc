// The daemon as the job queue's worker, run as a process: jobs pushed to
// the queue run once due, also when pushed while the daemon was down or
// left running by one that died; hostile unlink paths remove nothing;
// failing jobs end as failed in `driftway-control jobs`; an idle worker
// sleeps.
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include "appliance.h"
#include "driftway-protocol.h"
#include "job-queue.h"
#include "job-store.h"
#include "logger.h"
#include "process.h"

namespace {

using tptest::Eventually;

namespace jq = tidepool::core::job_queue;
namespace stdfs = std::filesystem;
using tptest::ReadFile;
using tptest::RunProcess;
using tptest::WriteFile;

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kUnlink = jq::jobs::UnlinkJob::kName;

struct Listed {
  std::string id, name, state, due, tries, user, payload, error;
};

// `driftway-control jobs`, one entry per line.
std::vector<Listed> ListJobs() {
  const auto listed = RunProcess({kControl, "jobs"});
  EXPECT_EQ(listed.exit_status, 0) << listed.err;
  std::vector<Listed> jobs;
  std::istringstream lines(listed.out);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> f;
    std::istringstream fields(line);
    std::string field;
    while (std::getline(fields, field, '\t')) f.push_back(field);
    EXPECT_EQ(f.size(), 8u) << line;
    f.resize(8);
    jobs.push_back({f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7]});
  }
  return jobs;
}

bool QueueEmpty() { return ListJobs().empty(); }

bool Gone(const std::string& path) { return !stdfs::exists(stdfs::symlink_status(path)); }

std::string UnlinkPayload(const std::string& path) { return jq::jobs::UnlinkJob(path).Payload(); }

class JobsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedAppliance();
    stdfs::create_directories("/volume1/@tidepool");
    ASSERT_GE(jq::OpenJobStore(jq::ConfiguredQueueLocation(), store_), 0);
  }
  void TearDown() override { RunProcess({kControl, "service", "--stop"}); }

  // The daemon with its test hooks: failed jobs try again at once, and
  // "test.throw" names a runner that throws.
  static void StartDaemon() {
    const auto started = RunProcess({kControl, "service", "--start"},
                                    {{"PATH", "/usr/bin:/bin"}, {"DRIFTWAY_TEST_HOOKS", "1"}});
    ASSERT_EQ(started.exit_status, 0) << started.out << started.err;
  }

  void Push(const std::string& name, const std::string& payload, int64_t due_in = 0,
            int max_tries = jq::kDefaultMaxTries) {
    jq::NewJob job;
    job.name = name;
    job.payload = payload;
    job.due = time(nullptr) + due_in;
    job.max_tries = max_tries;
    ASSERT_EQ(store_->Push(job), 0) << name << " " << payload;
  }

  // As a request pushes: through the client of the configured queue.
  static void PushUnlink(const std::string& path) {
    jq::JobQueueClient client;
    ASSERT_EQ(client.PushJob(std::make_shared<jq::jobs::UnlinkJob>(path), {}), jq::kPushDone);
  }

  std::unique_ptr<jq::JobStore> store_;
};

TEST_F(JobsTest, DueUnlinkJobsRunAndLaterOnesWait) {
  StartDaemon();
  WriteFile("/tmp/jobs/due.txt", "x");
  WriteFile("/tmp/jobs/later.txt", "x");
  WriteFile("/volume1/@tmp/tree/a/b/c.txt", "x");
  stdfs::create_symlink("/volume1/@tmp/tree/a", "/volume1/@tmp/tree/loop");
  Push(kUnlink, UnlinkPayload("/tmp/jobs/later.txt"), 3600);
  PushUnlink("/tmp/jobs/due.txt");
  PushUnlink("/volume1/@tmp/tree");
  PushUnlink("/tmp/jobs/never-was");

  ASSERT_TRUE(Eventually([] { return Gone("/tmp/jobs/due.txt") && Gone("/volume1/@tmp/tree"); }))
      << "removals";
  ASSERT_TRUE(Eventually([] { return ListJobs().size() == 1; })) << "only the later job left";
  EXPECT_TRUE(stdfs::exists("/tmp/jobs/later.txt"));
  const auto jobs = ListJobs();
  EXPECT_EQ(jobs[0].name, kUnlink);
  EXPECT_EQ(jobs[0].state, "waiting");
  EXPECT_EQ(jobs[0].tries, "0/3");
  EXPECT_NE(jobs[0].payload.find("/tmp/jobs/later.txt"), std::string::npos);
  EXPECT_EQ(jobs[0].error, "-");
}

TEST_F(JobsTest, JobsQueuedWhileDownOrLeftRunningRunAtStart) {
  WriteFile("/tmp/jobs/interrupted.txt", "x");
  WriteFile("/tmp/jobs/queued.txt", "x");
  // A worker that died after taking its job.
  Push(kUnlink, UnlinkPayload("/tmp/jobs/interrupted.txt"));
  jq::JobRecord claimed;
  ASSERT_EQ(store_->Claim(time(nullptr), claimed), 1);
  PushUnlink("/tmp/jobs/queued.txt");

  // Listing needs no daemon.
  const auto before = ListJobs();
  ASSERT_EQ(before.size(), 2u);
  EXPECT_EQ(before[0].state, "running");
  EXPECT_EQ(before[0].tries, "1/3");
  EXPECT_EQ(before[1].state, "waiting");
  EXPECT_TRUE(stdfs::exists("/tmp/jobs/queued.txt"));

  StartDaemon();
  ASSERT_TRUE(Eventually([] {
    return Gone("/tmp/jobs/interrupted.txt") && Gone("/tmp/jobs/queued.txt");
  })) << "both removed";
  ASSERT_TRUE(Eventually(QueueEmpty)) << "every job done or dropped";
}

TEST_F(JobsTest, HostileUnlinkJobsAreDroppedAndRemoveNothing) {
  WriteFile("/volume2/keep/victim", "precious");
  WriteFile("/tmp/jobs/victim", "precious");
  stdfs::create_symlink("/volume2/keep", "/tmp/jobs/link");
  stdfs::create_symlink("/volume2/keep", "/tmp/jobs/removable-link");
  const char* hostile[] = {
      "/volume2/keep/victim",
      "/tmp/../volume2/keep/victim",
      "/tmp/jobs/link/victim",
      "/tmp/./jobs/victim",
      "/tmp//jobs/victim",
      "/tmp/jobs/victim/",
      "tmp/jobs/victim",
      "/tmp",
      "/tmp/",
      "/volume2/@tmpx/../keep",
      "/volumeX/@tmp/x",
      "/volume/@tmp/x",
      "/volume2/@tmp",
      "/volume2/keep/../@tmp/x",
  };
  for (const char* path : hostile) Push(kUnlink, UnlinkPayload(path));
  for (const char* payload : {"not json", "{\"path\":5}", "[\"/tmp/jobs/victim\"]", "{}",
                              "{\"path\":\"/tmp/jobs/victim\"} trailing"}) {
    Push(kUnlink, payload);
  }
  // A link named by the job itself goes as a link.
  PushUnlink("/tmp/jobs/removable-link");

  StartDaemon();
  ASSERT_TRUE(Eventually(QueueEmpty)) << "every job done or dropped";
  EXPECT_EQ(ReadFile("/volume2/keep/victim"), "precious");
  EXPECT_EQ(ReadFile("/tmp/jobs/victim"), "precious");
  EXPECT_TRUE(stdfs::is_symlink("/tmp/jobs/link"));
  EXPECT_TRUE(Gone("/tmp/jobs/removable-link"));
  const std::string log = ReadFile(Logger::LogFilePath());
  for (const char* reason :
       {"not a temporary path", "a symbolic link on the way", "unreadable payload"}) {
    EXPECT_NE(log.find(std::string("job dropped (") + reason), std::string::npos) << reason;
  }
}

TEST_F(JobsTest, FailingJobsEndAsFailedWithTheirError) {
  Push("test.nothing", "{\"x\":\"line\nbreak \x1b[31m\"}", 0, 2);
  Push("test.throw", "{}", 0, 3);
  // A real removal that keeps failing: a file system mounted inside.
  stdfs::create_directories("/tmp/jobs/mnt");
  ASSERT_EQ(mount("tidepool-test", "/tmp/jobs/mnt", "tmpfs", 0, nullptr), 0) << strerror(errno);
  WriteFile("/tmp/jobs/mnt/kept", "x");
  Push(kUnlink, UnlinkPayload("/tmp/jobs"), 0, 2);

  StartDaemon();
  ASSERT_TRUE(Eventually([&] {
    const auto jobs = ListJobs();
    return jobs.size() == 3u && std::all_of(jobs.begin(), jobs.end(), [](const Listed& job) {
             return job.state == "failed";
           });
  })) << "every job failed";
  const auto jobs = ListJobs();
  EXPECT_EQ(jobs[0].name, "test.nothing");
  EXPECT_EQ(jobs[0].tries, "2/2");
  EXPECT_EQ(jobs[0].error, "unknown job");
  // What the queue holds is shown, never obeyed by the terminal.
  EXPECT_EQ(jobs[0].payload, "{\"x\":\"line\\x0abreak \\x1b[31m\"}");
  EXPECT_EQ(jobs[1].tries, "3/3");
  EXPECT_EQ(jobs[1].error, "runner failed: thrown by the test runner");
  EXPECT_EQ(jobs[2].tries, "2/2");
  EXPECT_EQ(jobs[2].error, strerror(EXDEV));
  EXPECT_EQ(ReadFile("/tmp/jobs/mnt/kept"), "x");
  umount2("/tmp/jobs/mnt", MNT_DETACH);
}

// The worker thread's count of voluntary context switches.
long long WorkerSwitches(const std::string& pid) {
  for (const auto& task : stdfs::directory_iterator("/proc/" + pid + "/task")) {
    if (ReadFile(task.path() / "comm") != "jobs\n") continue;
    std::istringstream status(ReadFile(task.path() / "status"));
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stoll(line.substr(24));
    }
  }
  return -1;
}

TEST_F(JobsTest, AnIdleWorkerSleepsUntilAPush) {
  StartDaemon();
  const std::string pid = std::to_string(std::stoi(ReadFile(driftway::kPidFile)));
  // Settle: the worker opens the store and finds nothing to do.
  ASSERT_TRUE(Eventually([&] { return QueueEmpty() && WorkerSwitches(pid) >= 0; }))
      << "a worker thread";
  const long long before = WorkerSwitches(pid);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const long long settled = WorkerSwitches(pid);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(WorkerSwitches(pid), settled) << "started at " << before;

  WriteFile("/tmp/jobs/pushed.txt", "x");
  PushUnlink("/tmp/jobs/pushed.txt");
  ASSERT_TRUE(Eventually([] { return Gone("/tmp/jobs/pushed.txt"); })) << "the pushed job ran";
}

}  // namespace
