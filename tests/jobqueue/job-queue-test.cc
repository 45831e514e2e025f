// The job queue's behaviour, the same on both stores: each case runs once on
// a SQLite file and once on a real redis-server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <map>
#include <memory>

#include "job-queue.h"
#include "job-store.h"
#include "redis-server.h"
#include "sandbox.h"

namespace tidepool::core::job_queue {
namespace {

namespace fs = std::filesystem;

constexpr const char* kA = "test.job-a";
constexpr const char* kB = "test.job-b";

class JobQueueTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "redis") {
      if (!tptest::RedisServer::Available()) GTEST_SKIP() << "redis-server is not installed";
      server_ = std::make_unique<tptest::RedisServer>();
      ASSERT_TRUE(server_->Start());
      location_ = server_->Location();
    } else {
      char pattern[] = "/tmp/job-queue-XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      dir_ = pattern;
      location_ = dir_ + "/job-queue.sqlite";
    }
    store_ = Open();
  }

  void TearDown() override {
    std::error_code ec;
    if (!dir_.empty()) fs::remove_all(dir_, ec);
  }

  std::unique_ptr<JobStore> Open() {
    std::unique_ptr<JobStore> store;
    EXPECT_EQ(OpenJobStore(location_, store), 0);
    return store;
  }

  int Push(const std::string& name, const std::string& payload, int64_t due = 0,
           int max_tries = kDefaultMaxTries) {
    NewJob job;
    job.name = name;
    job.payload = payload;
    job.user = "alice";
    job.uid = 1001;
    job.due = due == 0 ? now_ : due;
    job.max_tries = max_tries;
    return store_->Push(job);
  }

  long long Count(std::optional<std::string> name, std::optional<std::string> payload = {}) {
    long long count = -1;
    EXPECT_EQ(store_->Count(name, payload, count), 0);
    return count;
  }

  // Claims the next due job and says which it is: "name payload", or "".
  std::string Claim(int64_t at, JobRecord* record = nullptr) {
    JobRecord job;
    const int claimed = store_->Claim(at, job);
    EXPECT_GE(claimed, 0);
    if (claimed != 1) return "";
    EXPECT_EQ(job.state, JobState::kRunning);
    if (record) *record = job;
    return job.name + " " + job.payload;
  }

  // Every job as "name payload state tries", oldest first.
  std::vector<std::string> Listing() {
    std::vector<JobRecord> jobs;
    EXPECT_EQ(store_->List(jobs), 0);
    std::vector<std::string> out;
    for (const auto& job : jobs) {
      out.push_back(job.name + " " + job.payload + " " +
                    std::to_string(static_cast<int>(job.state)) + " " + std::to_string(job.tries));
    }
    return out;
  }

  const int64_t now_ = time(nullptr);
  std::unique_ptr<tptest::RedisServer> server_;
  std::string dir_;
  std::string location_;
  std::unique_ptr<JobStore> store_;
};

TEST_P(JobQueueTest, PushIsOncePerWaitingNameAndPayloadAndCountsWaitingAndRunning) {
  EXPECT_EQ(Push(kA, "{\"x\":1}"), 0);
  EXPECT_EQ(Push(kA, "{\"x\":1}"), 4);
  EXPECT_EQ(Open()->Push({kA, "{\"x\":1}", "bob", 1002, now_, 3}), 4);  // another client too
  EXPECT_EQ(Push(kA, "{\"x\":2}"), 0);
  EXPECT_EQ(Push(kB, "{\"x\":1}"), 0);

  // A running job is no longer waiting: the same job may be queued again.
  JobRecord running;
  EXPECT_EQ(Claim(now_, &running), std::string(kA) + " {\"x\":1}");
  EXPECT_EQ(running.user, "alice");
  EXPECT_EQ(running.uid, 1001u);
  EXPECT_EQ(running.tries, 1);
  EXPECT_EQ(Push(kA, "{\"x\":1}"), 0);
  EXPECT_EQ(Push(kA, "{\"x\":1}"), 4);

  EXPECT_EQ(Count(kA), 3);
  EXPECT_EQ(Count(kA, "{\"x\":1}"), 2);
  EXPECT_EQ(Count(kB), 1);
  EXPECT_EQ(Count(std::nullopt, "{\"x\":1}"), 3);
  EXPECT_EQ(Count(std::nullopt), 4);
  EXPECT_EQ(Count("test.none"), 0);

  EXPECT_EQ(store_->Finish(running.id), 0);
  EXPECT_EQ(Count(kA, "{\"x\":1}"), 1);
  EXPECT_EQ(Count(std::nullopt), 3);
}

TEST_P(JobQueueTest, ClaimTakesDueJobsInDueOrderAndNothingEarly) {
  int64_t due = 0;
  EXPECT_EQ(store_->NextDue(due), 0);
  EXPECT_EQ(Push(kA, "later", now_ + 100), 0);
  EXPECT_EQ(Push(kA, "third", now_), 0);
  EXPECT_EQ(Push(kA, "first", now_ - 20), 0);
  EXPECT_EQ(Push(kA, "second", now_ - 10), 0);
  EXPECT_EQ(Push(kB, "fourth", now_), 0);  // same due as "third": pushed after it
  ASSERT_EQ(store_->NextDue(due), 1);
  EXPECT_EQ(due, now_ - 20);

  std::vector<std::string> order;
  for (std::string job; !(job = Claim(now_)).empty();) order.push_back(job);
  EXPECT_EQ(order, (std::vector<std::string>{"test.job-a first", "test.job-a second",
                                             "test.job-a third", "test.job-b fourth"}));
  ASSERT_EQ(store_->NextDue(due), 1);
  EXPECT_EQ(due, now_ + 100);
  EXPECT_EQ(Claim(now_ + 99), "");
  EXPECT_EQ(Claim(now_ + 100), "test.job-a later");
  EXPECT_EQ(store_->NextDue(due), 0);
}

TEST_P(JobQueueTest, FailedJobRetriesUntilItsTriesAreSpentThenStaysListedButUncounted) {
  EXPECT_EQ(Push(kA, "flaky", now_, 2), 0);
  JobRecord job;
  ASSERT_NE(Claim(now_, &job), "");
  EXPECT_EQ(store_->Fail(job.id, "disk busy", now_ + 30), 1);
  EXPECT_EQ(Count(kA), 1);
  EXPECT_EQ(Push(kA, "flaky"), 4);  // waiting again
  EXPECT_EQ(Claim(now_ + 29), "");
  ASSERT_NE(Claim(now_ + 30, &job), "");
  EXPECT_EQ(job.tries, 2);
  EXPECT_EQ(job.last_error, "disk busy");

  EXPECT_EQ(store_->Fail(job.id, "disk gone", now_ + 60), 0);
  EXPECT_EQ(Count(kA), 0);
  EXPECT_EQ(Claim(now_ + 1000), "");
  std::vector<JobRecord> jobs;
  ASSERT_EQ(store_->List(jobs), 0);
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_EQ(jobs[0].state, JobState::kFailed);
  EXPECT_EQ(jobs[0].last_error, "disk gone");
  EXPECT_EQ(jobs[0].max_tries, 2);
  // A failed job is history, not a waiting one: the same job queues anew.
  EXPECT_EQ(Push(kA, "flaky"), 0);
  EXPECT_EQ(Count(kA), 1);

  // Dropped and finished jobs are gone from the listing too.
  ASSERT_NE(Claim(now_, &job), "");
  EXPECT_EQ(store_->Drop(job.id), 0);
  EXPECT_EQ(Listing(), std::vector<std::string>{"test.job-a flaky 2 2"});
}

TEST_P(JobQueueTest, FailOrResetOfAJobThatWaitsAgainLeavesOneWaitingCopy) {
  EXPECT_EQ(Push(kA, "twin"), 0);
  EXPECT_EQ(Push(kB, "alone"), 0);
  JobRecord twin, alone;
  ASSERT_NE(Claim(now_, &twin), "");
  ASSERT_NE(Claim(now_, &alone), "");
  EXPECT_EQ(Push(kA, "twin"), 0);
  EXPECT_EQ(store_->Fail(twin.id, "broken", now_ + 30), 1);  // the waiting twin will do it
  EXPECT_EQ(Listing(), (std::vector<std::string>{"test.job-b alone 1 1", "test.job-a twin 0 0"}));
  EXPECT_EQ(Count(kA, "twin"), 1);

  // A worker died with both running, and the twin queued meanwhile.
  ASSERT_NE(Claim(now_, &twin), "");
  EXPECT_EQ(Push(kA, "twin"), 0);
  EXPECT_EQ(store_->ResetRunning(), 2);
  EXPECT_EQ(Listing(), (std::vector<std::string>{"test.job-b alone 0 1", "test.job-a twin 0 0"}));
  EXPECT_EQ(Count(std::nullopt), 2);
  EXPECT_EQ(Claim(now_), "test.job-b alone");
  EXPECT_EQ(Claim(now_), "test.job-a twin");
  EXPECT_EQ(store_->ResetRunning(), 2);
  EXPECT_EQ(store_->ResetRunning(), 0);
}

// A job that stops the worker each time it runs does not run forever.
TEST_P(JobQueueTest, AJobLeftRunningWithItsTriesSpentFails) {
  EXPECT_EQ(Push(kA, "crashes", 0, 2), 0);
  for (int run = 1; run <= 2; ++run) {
    ASSERT_EQ(Claim(now_), "test.job-a crashes");
    EXPECT_EQ(store_->ResetRunning(), run == 1 ? 1 : 0);
  }
  EXPECT_EQ(Listing(), std::vector<std::string>{"test.job-a crashes 2 2"});
  std::vector<JobRecord> jobs;
  ASSERT_EQ(store_->List(jobs), 0);
  EXPECT_EQ(jobs[0].last_error, "the worker stopped while it ran");
  EXPECT_EQ(Count(kA), 0);
}

TEST_P(JobQueueTest, WakeFdTurnsReadableOnAPushFromAnotherClientUntilAcknowledged) {
  const int fd = store_->WakeFd();
  ASSERT_GE(fd, 0);
  store_->AckWake();
  pollfd idle = {fd, POLLIN, 0};
  EXPECT_EQ(poll(&idle, 1, 0), 0);

  auto other = Open();
  NewJob job{kA, "wake", "alice", 1001, now_, 3};
  ASSERT_EQ(other->Push(job), 0);
  pollfd woken = {fd, POLLIN, 0};
  // The bound only keeps a broken build from hanging; readiness is what counts.
  EXPECT_EQ(poll(&woken, 1, 30000), 1);
  store_->AckWake();
  EXPECT_EQ(store_->WakeFd(), fd);
  pollfd quiet = {fd, POLLIN, 0};
  EXPECT_EQ(poll(&quiet, 1, 0), 0);
}

TEST_P(JobQueueTest, ClientPushesRequestJobsWithTheirDueTimeAndCountsThem) {
  JobQueueClient client(location_);
  auto purge = std::make_shared<jobs::DeleteNodeJob>(7, 42);
  purge->SetUserInfo("alice", 1001);
  EXPECT_EQ(client.PushJob(purge, {}), kPushDone);
  // The user is not part of what makes a job the same job.
  auto again = std::make_shared<jobs::DeleteNodeJob>(7, 42);
  again->SetUserInfo("bob", 1002);
  EXPECT_EQ(client.PushJob(again, {}), kPushAlreadyWaiting);

  const int64_t before = time(nullptr);
  EXPECT_EQ(client.PushJob(std::make_shared<jobs::UnlinkJob>("/tmp/x"), {before - 500, 60, 0}),
            kPushDone);
  const int64_t after = time(nullptr);

  long long count = -1;
  ASSERT_EQ(client.CountJob(count, {jobs::DeleteNodeJob::kName, std::nullopt}), 0);
  EXPECT_EQ(count, 1);
  ASSERT_EQ(client.CountJob(count, {}), 0);
  EXPECT_EQ(count, 2);

  std::vector<JobRecord> queued;
  ASSERT_EQ(store_->List(queued), 0);
  ASSERT_EQ(queued.size(), 2u);
  EXPECT_EQ(queued[0].user, "alice");
  EXPECT_EQ(queued[0].payload, "{\"node_id\":42,\"view_id\":7}");
  EXPECT_EQ(queued[0].max_tries, kDefaultMaxTries);
  EXPECT_EQ(queued[1].name, jobs::UnlinkJob::kName);
  EXPECT_GE(queued[1].due, before + 60);
  EXPECT_LE(queued[1].due, after + 60);

  // A list stops at the job that already waits; those before it stay.
  std::vector<std::shared_ptr<Job>> list = {std::make_shared<jobs::DeleteNodeJob>(7, 41),
                                            std::make_shared<jobs::DeleteNodeJob>(7, 42),
                                            std::make_shared<jobs::DeleteNodeJob>(7, 43)};
  size_t pushed = 9;
  EXPECT_EQ(client.PushJobs(list, {}, pushed), kPushAlreadyWaiting);
  EXPECT_EQ(pushed, 1u);
  ASSERT_EQ(client.CountJob(count, {jobs::DeleteNodeJob::kName, std::nullopt}), 0);
  EXPECT_EQ(count, 2);
  list.erase(list.begin(), list.begin() + 2);
  EXPECT_EQ(client.PushJobs(list, {}, pushed), kPushDone);
  EXPECT_EQ(pushed, 1u);
  EXPECT_EQ(client.PushJobs({}, {}, pushed), kPushDone);
  EXPECT_EQ(pushed, 0u);
}

INSTANTIATE_TEST_SUITE_P(Stores, JobQueueTest, ::testing::Values("sqlite", "redis"),
                         [](const auto& info) { return info.param; });

TEST(JobPayload, EqualJobsGiveEqualCompactTexts) {
  EXPECT_EQ(jobs::DeleteNodeJob().Payload(), "{}");
  EXPECT_EQ(jobs::DeleteNodeJob(3).Payload(), "{\"view_id\":3}");
  EXPECT_EQ(jobs::DeleteNodeJob(3, 18446744073709551615ull).Payload(),
            "{\"node_id\":18446744073709551615,\"view_id\":3}");
  EXPECT_EQ(jobs::DeleteNodeJob().Name(), "cleanup.delete-node-job");

  // Any path survives the round trip to the worker byte for byte.
  const std::string path = "/volume1/@tmp/a \"b\"\\c\n\xc3\xa9\xff";
  const std::string payload = jobs::UnlinkJob(path).Payload();
  EXPECT_EQ(payload.find('\n'), std::string::npos);
  Json::Value parsed;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  ASSERT_TRUE(reader->parse(payload.data(), payload.data() + payload.size(), &parsed, &errors));
  EXPECT_EQ(parsed["path"].asString(), path);
  EXPECT_EQ(jobs::UnlinkJob("/a").Payload(), "{\"path\":\"/a\"}");
}

TEST(RedisQueue, AServerThatIsDownRefusesPushesAndLosesNothingOnRestart) {
  if (!tptest::RedisServer::Available()) GTEST_SKIP() << "redis-server is not installed";
  tptest::RedisServer server;
  ASSERT_TRUE(server.Start());
  JobQueueClient client(server.Location() + "/2");
  EXPECT_EQ(client.PushJob(std::make_shared<jobs::UnlinkJob>("/kept"), {}), kPushDone);
  std::unique_ptr<JobStore> store;

  ASSERT_EQ(OpenJobStore(server.Location() + "/2", store), 0);
  const int listening = store->WakeFd();
  ASSERT_GE(listening, 0);

  server.Stop();
  // The worker's descriptor wakes it when the server goes away, and it
  // listens again once the server is back.
  pollfd gone = {listening, POLLIN, 0};
  EXPECT_EQ(poll(&gone, 1, 30000), 1);
  store->AckWake();
  EXPECT_EQ(store->WakeFd(), -1);
  EXPECT_LT(client.PushJob(std::make_shared<jobs::UnlinkJob>("/refused"), {}), 0);
  long long count = -1;
  EXPECT_LT(client.CountJob(count, {}), 0);
  JobQueueClient fresh(server.Location() + "/2");
  EXPECT_LT(fresh.PushJob(std::make_shared<jobs::UnlinkJob>("/refused"), {}), 0);

  ASSERT_TRUE(server.Start());
  const int again = store->WakeFd();
  ASSERT_GE(again, 0);
  std::vector<JobRecord> jobs;
  ASSERT_EQ(store->List(jobs), 0);
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_EQ(jobs[0].payload, "{\"path\":\"/kept\"}");
  // The same client reaches the server again on its own.
  EXPECT_EQ(client.PushJob(std::make_shared<jobs::UnlinkJob>("/refused"), {}), kPushDone);
  ASSERT_EQ(client.CountJob(count, {}), 0);
  EXPECT_EQ(count, 2);
  pollfd woken = {again, POLLIN, 0};
  EXPECT_EQ(poll(&woken, 1, 30000), 1);
  // Another database of the same server is another queue.
  ASSERT_EQ(OpenJobStore(server.Location(), store), 0);
  ASSERT_EQ(store->List(jobs), 0);
  EXPECT_TRUE(jobs.empty());

  for (const char* bad : {"redis://", "redis://127.0.0.1:0", "redis://127.0.0.1:x",
                          "redis://127.0.0.1:6379/db", "redis://secret@127.0.0.1:6379"}) {
    EXPECT_LT(OpenJobStore(bad, store), 0) << bad;
  }
}

TEST(ConfiguredQueue, SettingsChooseTheQueueAndTheRepositoryFileIsPrivate) {
  ASSERT_TRUE(tptest::InSandbox());
  tptest::ResetSandboxData();
  fs::create_directories("/volume1/@tidepool");
  tptest::WriteFile("/var/packages/Tidepool/etc/setting.conf", "repo_volume=\"/volume1\"\n");
  EXPECT_EQ(ConfiguredQueueLocation(), "/volume1/@tidepool/job-queue.sqlite");

  // Someone planted a link where the bell goes: it is never followed.
  ASSERT_EQ(symlink("/volume1/planted", "/volume1/@tidepool/job-queue.bell"), 0);
  auto& holder = db::job::JobManagerHolder::Instance();
  ASSERT_EQ(holder.Initialize(), 0);
  EXPECT_TRUE(holder.IsInitialized());
  EXPECT_EQ(JobQueueClient::Instance().PushJob(std::make_shared<jobs::DeleteNodeJob>(), {}), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status("/volume1/planted")));
  struct stat st;
  ASSERT_EQ(stat("/volume1/@tidepool/job-queue.sqlite", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  // Closed around a fork, the process-wide client connects again on use.
  holder.Destroy();
  EXPECT_FALSE(holder.IsInitialized());
  EXPECT_EQ(JobQueueClient::Instance().PushJob(std::make_shared<jobs::DeleteNodeJob>(), {}), 4);
  EXPECT_TRUE(holder.IsInitialized());

  ASSERT_EQ(unlink("/volume1/@tidepool/job-queue.bell"), 0);
  std::unique_ptr<JobStore> store;
  ASSERT_EQ(OpenJobStore(ConfiguredQueueLocation(), store), 0);
  ASSERT_GE(store->WakeFd(), 0);
  ASSERT_EQ(lstat("/volume1/@tidepool/job-queue.bell", &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  tptest::WriteFile("/var/packages/Tidepool/etc/setting.conf",
                    "repo_volume=\"/volume1\"\njob_queue=\"redis://:pw@127.0.0.1:6390/1\"\n");
  EXPECT_EQ(ConfiguredQueueLocation(), "redis://:pw@127.0.0.1:6390/1");
}

}  // namespace
}  // namespace tidepool::core::job_queue
