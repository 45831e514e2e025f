// KSTX.Tidepool.Node.Delete over HTTP: every refusal leaves the job queue
// as it was; each form of start queues the jobs the sync service's worker
// will run, in the caller's name; status tells whether any still waits.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "host-accounts.h"
#include "job-queue.h"
#include "job-store.h"
#include "node-world.h"
#include "process.h"
#include "sandbox.h"
#include "seed.h"
#include "sync-service.h"
#include "webapi-client.h"

namespace {

namespace jq = tidepool::core::job_queue;
using tptest::kAdd;
using tptest::kRemove;

constexpr const char* kApi = "KSTX.Tidepool.Node.Delete";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

struct Queued {
  std::string payload;
  std::string user;
  uint32_t uid;
  bool operator==(const Queued&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Queued& job) {
  return out << job.payload << " by " << job.user << " (" << job.uid << ")";
}

std::unique_ptr<jq::JobStore> OpenQueue() {
  std::unique_ptr<jq::JobStore> store;
  EXPECT_GE(jq::OpenJobStore(jq::ConfiguredQueueLocation(), store), 0)
      << jq::ConfiguredQueueLocation();
  return store;
}

// The purges waiting or running, oldest first.
std::vector<Queued> Purges() {
  std::vector<Queued> out;
  auto store = OpenQueue();
  if (!store) return out;
  std::vector<jq::JobRecord> jobs;
  EXPECT_GE(store->List(jobs), 0);
  for (const jq::JobRecord& job : jobs) {
    if (job.name == jq::jobs::DeleteNodeJob::kName && job.state != jq::JobState::kFailed) {
      out.push_back({job.payload, job.user, job.uid});
    }
  }
  return out;
}

Json::Value FileInfo(const std::vector<std::string>& ids) {
  Json::Value list(Json::arrayValue);
  for (const std::string& id : ids) {
    Json::Value entry(Json::objectValue);
    entry["node_id"] = id;
    list.append(entry);
  }
  return list;
}

void SetQueueLocation(const std::string& location) {
  const std::string conf = tptest::ReadFile(SyncConfigMgr::kPath);
  tptest::WriteFile(SyncConfigMgr::kPath, conf + "job_queue=\"" + location + "\"\n");
}

// A loopback port nobody listens on.
int ClosedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  close(fd);
  return ntohs(address.sin_port);
}

class NodeDeleteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedWorld();
    home_ = tptest::HomeView("alice");
    tptest::Apply(home_, {{100, kAdd, "/a.txt", 1},
                          {110, kAdd, "/b.txt", 2},
                          {120, kAdd, "/c.txt", 3},
                          {130, kRemove, "/c.txt"}});
    team_ = tptest::AddEnabledShare("team");
    tptest::Apply(team_, {{100, kAdd, "/plan.txt", 4}});
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_TRUE(accounts);
    ASSERT_GE(
        accounts->SetSharePermission("team", "alice", hostaccounts::SharePermission::kReadWrite),
        0);
    ASSERT_GE(accounts->SetSharePermission("team", "bob", hostaccounts::SharePermission::kReadOnly),
              0);
    admin_ = tptest::Login("admin", "admin-demo");
    alice_ = tptest::Login("alice", "alice-demo");
    bob_ = tptest::Login("bob", "bob-demo");
  }

  tptest::WebAnswer Start(const tptest::Params& params, const std::string& sid) {
    return tptest::CallApi(kApi, "start", params, sid);
  }

  // `current` of status, checking the rest of its answer.
  int StatusCurrent(const std::string& sid) {
    const auto answer = tptest::CallApi(kApi, "status", {}, sid);
    EXPECT_TRUE(answer.success()) << answer.body;
    EXPECT_EQ(answer.json["data"]["total"].asInt(), 1) << answer.body;
    return answer.json["data"]["current"].asInt();
  }

  std::string Id(uint64_t view, const std::string& path) {
    return std::to_string(tptest::NodeAt(view, path).getNodeId());
  }
  std::string ViewPayload(uint64_t view) { return "{\"view_id\":" + std::to_string(view) + "}"; }
  std::string NodePayload(uint64_t view, const std::string& path) {
    return "{\"node_id\":" + Id(view, path) + ",\"view_id\":" + std::to_string(view) + "}";
  }

  uint64_t home_ = 0;
  uint64_t team_ = 0;
  std::string admin_, alice_, bob_;
};

TEST_F(NodeDeleteTest, RefusalsQueueNothing) {
  tptest::AddHostShare("inactive", false);
  const std::string a = Id(home_, "/a.txt");
  const struct {
    const char* what;
    std::string sid;
    tptest::Params params;
    int code;
    const char* message;
  } kCases[] = {
      {"clean-up of everything by a non-administrator", alice_, {}, 105, "no permission"},
      {"an empty target is a target, not everything",
       admin_,
       {{"target", ""}},
       603,
       "share is not mounted"},
      {"a share that does not exist", admin_, {{"target", "@nosuch"}}, 603, "share is not mounted"},
      {"an inactive share, before any rights",
       bob_,
       {{"target", "@inactive"}},
       603,
       "share is not mounted"},
      {"acting as another user, before any rights",
       bob_,
       {{"target", "@team"}, {"view_role", "alice"}},
       105,
       "Failed to switch auth for user"},
      {"a share, by a user who may only read it",
       bob_,
       {{"target", "@team"}},
       402,
       "admin-only operation"},
      {"named nodes in a share, by a user who may write it",
       alice_,
       {{"target", "@team"}, {"fileinfo", FileInfo({Id(team_, "/plan.txt")})}},
       402,
       "admin-only operation"},
      {"a node id with a sign",
       alice_,
       {{"target", "mine"}, {"fileinfo", FileInfo({"-1"})}},
       401,
       "invalid node_id"},
      {"a node id with trailing text, after good ones",
       alice_,
       {{"target", "mine"}, {"fileinfo", FileInfo({a, a + "x"})}},
       401,
       "invalid node_id"},
      {"a node id beyond 64 bits",
       alice_,
       {{"target", "mine"}, {"fileinfo", FileInfo({"18446744073709551616"})}},
       401,
       "invalid node_id"},
      {"an empty node id",
       alice_,
       {{"target", "mine"}, {"fileinfo", FileInfo({""})}},
       401,
       "invalid node_id"},
  };
  for (const auto& c : kCases) {
    const auto answer = Start(c.params, c.sid);
    EXPECT_FALSE(answer.success()) << c.what << ": " << answer.body;
    EXPECT_EQ(answer.code(), c.code) << c.what << ": " << answer.body;
    EXPECT_EQ(answer.message(), c.message) << c.what << ": " << answer.body;
  }
  // Entries that are not objects with a text node_id never get past the
  // parameter check.
  Json::Value numbers(Json::arrayValue);
  numbers.append(Json::UInt64(std::stoull(a)));
  EXPECT_EQ(Start({{"target", "mine"}, {"fileinfo", numbers}}, alice_).code(), 120);
  EXPECT_EQ(Purges(), std::vector<Queued>{});
  EXPECT_EQ(StatusCurrent(alice_), 1);
}

TEST_F(NodeDeleteTest, EachFormQueuesItsJobsInTheCallersName) {
  const uint32_t admin_uid = tptest::UidOf("admin");
  const uint32_t alice_uid = tptest::UidOf("alice");
  EXPECT_EQ(StatusCurrent(alice_), 1);

  auto answer = Start({}, admin_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_FALSE(answer.json.isMember("data")) << answer.body;
  answer = Start({{"target", "mine"}}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  answer = Start({{"target", "@team"}, {"fileinfo", FileInfo({Id(team_, "/plan.txt")})}}, admin_);
  ASSERT_TRUE(answer.success()) << answer.body;
  answer = Start(
      {{"target", "mine"}, {"fileinfo", FileInfo({Id(home_, "/a.txt"), Id(home_, "/c.txt")})}},
      alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  answer = Start({{"target", "@team"}}, admin_);
  ASSERT_TRUE(answer.success()) << answer.body;
  // An empty list names no node: nothing more is queued.
  answer = Start({{"target", "mine"}, {"fileinfo", Json::Value(Json::arrayValue)}}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;

  const std::vector<Queued> expected = {
      {"{}", "admin", admin_uid},
      {ViewPayload(home_), "alice", alice_uid},
      {NodePayload(team_, "/plan.txt"), "admin", admin_uid},
      {NodePayload(home_, "/a.txt"), "alice", alice_uid},
      {NodePayload(home_, "/c.txt"), "alice", alice_uid},
      {ViewPayload(team_), "admin", admin_uid},
  };
  EXPECT_EQ(Purges(), expected);

  // One bar for all purges, whoever asks: done only when none waits or runs.
  EXPECT_EQ(StatusCurrent(bob_), 0);
  auto store = OpenQueue();
  ASSERT_TRUE(store);
  std::vector<jq::JobRecord> claimed(expected.size());
  for (jq::JobRecord& job : claimed) ASSERT_EQ(store->Claim(time(nullptr), job), 1);
  EXPECT_EQ(StatusCurrent(bob_), 0) << "running purges are not done";
  for (size_t i = 0; i + 1 < claimed.size(); ++i) ASSERT_GE(store->Finish(claimed[i].id), 0);
  EXPECT_EQ(StatusCurrent(alice_), 0);
  ASSERT_GE(store->Finish(claimed.back().id), 0);
  EXPECT_EQ(StatusCurrent(alice_), 1);
}

TEST_F(NodeDeleteTest, AJobAlreadyWaitingStopsTheListWhereItStands) {
  const std::string a = Id(home_, "/a.txt"), b = Id(home_, "/b.txt"), c = Id(home_, "/c.txt");
  ASSERT_TRUE(Start({{"target", "mine"}, {"fileinfo", FileInfo({b})}}, alice_).success());
  auto answer = Start({{"target", "mine"}, {"fileinfo", FileInfo({a, b, c})}}, alice_);
  EXPECT_EQ(answer.code(), 407) << answer.body;
  EXPECT_EQ(answer.message(), "another delete task is running");
  const uint32_t uid = tptest::UidOf("alice");
  EXPECT_EQ(Purges(), (std::vector<Queued>{{NodePayload(home_, "/b.txt"), "alice", uid},
                                           {NodePayload(home_, "/a.txt"), "alice", uid}}));

  // The same for a whole clean-up that waits already.
  ASSERT_TRUE(Start({}, admin_).success());
  answer = Start({}, admin_);
  EXPECT_EQ(answer.code(), 407) << answer.body;
  EXPECT_EQ(Purges().size(), 3u);
}

// An administrator acting for a user purges in that user's home; the job
// still runs in the administrator's name. Only administrators may act so.
TEST_F(NodeDeleteTest, ViewRoleChoosesTheViewNotTheName) {
  const auto started = tptest::RunProcess({kControl, "service", "--start"});
  ASSERT_EQ(started.exit_status, 0) << started.out << started.err;
  // The daemon's worker keeps the queue it found at its start; the module
  // follows setting.conf, so the jobs stay where this test reads them.
  SetQueueLocation("/volume1/@tidepool/delete-test-queue.sqlite");

  auto answer = Start({{"target", "mine"}, {"view_role", "alice"}}, admin_);
  EXPECT_TRUE(answer.success()) << answer.body;
  answer = Start(
      {{"target", "mine"}, {"view_role", "alice"}, {"fileinfo", FileInfo({Id(home_, "/a.txt")})}},
      admin_);
  EXPECT_TRUE(answer.success()) << answer.body;
  answer = Start({{"target", "mine"}, {"view_role", "admin"}}, alice_);
  EXPECT_EQ(answer.code(), 105) << answer.body;
  EXPECT_EQ(answer.message(), "Failed to switch auth for user");
  tptest::RunProcess({kControl, "service", "--stop"});

  const uint32_t uid = tptest::UidOf("admin");
  EXPECT_EQ(Purges(), (std::vector<Queued>{{ViewPayload(home_), "admin", uid},
                                           {NodePayload(home_, "/a.txt"), "admin", uid}}));
}

// A queue that cannot be reached: nothing is claimed to be queued.
TEST_F(NodeDeleteTest, UnreachableQueue) {
  SetQueueLocation("redis://127.0.0.1:" + std::to_string(ClosedPort()));
  for (const tptest::Params& params :
       {tptest::Params{}, tptest::Params{{"target", "mine"}},
        tptest::Params{{"target", "mine"}, {"fileinfo", FileInfo({Id(home_, "/a.txt")})}}}) {
    const auto answer = Start(params, admin_);
    EXPECT_EQ(answer.code(), 401) << answer.body;
    EXPECT_EQ(answer.message(), "job enqueue failed") << answer.body;
  }
  // A count that cannot be made shows no failure.
  EXPECT_EQ(StatusCurrent(admin_), 1);
}

// Not a test of speed: prints how long queueing a large selection takes,
// beside the same request with one node (the cost of a request itself).
TEST_F(NodeDeleteTest, ThousandNodesAtOnce) {
  const auto timed = [&](int count) {
    std::vector<std::string> ids;
    for (int i = 1; i <= count; ++i) ids.push_back(std::to_string(count * 1000000 + i));
    const auto begin = std::chrono::steady_clock::now();
    const auto answer = Start({{"target", "mine"}, {"fileinfo", FileInfo(ids)}}, alice_);
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(answer.success()) << answer.body;
    return static_cast<long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
  };
  const long long one = timed(1);
  const long long thousand = timed(1000);
  EXPECT_EQ(Purges().size(), 1001u);
  printf("start with 1 fileinfo entry: %lld ms; with 1,000: %lld ms (target: under 100 ms)\n", one,
         thousand);
}

}  // namespace
