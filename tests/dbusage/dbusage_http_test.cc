// Database usage over HTTP as the administrator's page uses it: start a
// measurement, follow status to its figure, read the cached figure with
// get, on a repository built by real scans; what grows the figure, what
// makes a run fail, and who is refused.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "hvos-task.h"
#include "restore-world.h"
#include "seed.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.DBUsage";
constexpr const char* kRecord = "/tmp/tidepool-tasks/admin/dftw_db_usage_polling.json";
const std::string kRepo = "/volume1/@tidepool";
const std::string kOffice = "/volume1/@tidepool-office";

void Write(const std::string& path, size_t bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << std::string(bytes, 'o');
}

// Bytes of a database file with its write-ahead log.
unsigned long long DatabaseBytes(const std::string& path) {
  unsigned long long bytes = 0;
  for (const std::string& p : {path, path + "-wal"}) {
    struct stat st {};
    if (stat(p.c_str(), &st) == 0) bytes += static_cast<unsigned long long>(st.st_size);
  }
  return bytes;
}

// One run from start to its end, as status tells it.
struct Measurement {
  tptest::WebAnswer start;
  tptest::WebAnswer last;  // the status answer that ended the run
  bool ended = false;
};

class DBUsageHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SeedRestoreWorld();
    if (HasFatalFailure()) return;
    BuildHistory(kAliceHome, {{kT0, {Entry("a.txt", "one\n"), Entry("docs/b.txt", "two\n")}, {}},
                              {kT1, {Entry("a.txt", "one, again\n")}, {}}});
    BuildHistory(kTeam, {{kT2, {Entry("plan.txt", std::string(4096, 'p'))}, {}}});
    admin_ = LoginAs("admin");
    ASSERT_FALSE(admin_.empty());
  }

  tptest::WebAnswer Call(const char* method, const std::string& sid = "") {
    return rtest::Call(kApi, method, {}, sid.empty() ? admin_ : sid);
  }

  // start, then status every 50 ms until the run ends, for at most 60 s.
  Measurement Measure() {
    Measurement run;
    run.start = Call("start");
    if (!run.start.success()) return run;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
      run.last = Call("status");
      if (!run.last.success() || run.last.json["data"]["finish"].asBool()) {
        run.ended = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return run;
  }

  // The figure of a run that must succeed.
  uint64_t Usage() {
    const Measurement run = Measure();
    EXPECT_TRUE(run.start.success()) << run.start.body;
    EXPECT_TRUE(run.ended && run.last.success()) << run.last.body;
    return run.last.json["data"]["usage"].asUInt64();
  }

  std::string admin_;
};

TEST_F(DBUsageHttpTest, AMeasurementIsFollowedToItsFigureAndCached) {
  // Before any run: no figure, nothing running, nothing to stop.
  auto get = Call("get");
  ASSERT_TRUE(get.success()) << get.body;
  EXPECT_EQ(get.json["data"]["usage"].asUInt64(), 0u);
  EXPECT_EQ(get.json["data"]["last_update_usage_time"].asString(), "");
  auto status = Call("status");
  ASSERT_TRUE(status.success()) << status.body;
  EXPECT_EQ(status.json["data"]["usage"].asUInt64(), 0u);
  EXPECT_FALSE(status.json["data"]["finish"].asBool());
  EXPECT_TRUE(Call("stop").success());
  EXPECT_FALSE(fs::exists(kRecord)) << "asking made a record";

  const Measurement run = Measure();
  ASSERT_TRUE(run.start.success()) << run.start.body;
  EXPECT_GT(run.start.json["data"]["task_id"].asInt(), 0);
  ASSERT_TRUE(run.ended && run.last.success()) << run.last.body;
  const Json::Value& data = run.last.json["data"];
  EXPECT_TRUE(data["finish"].asBool());
  const uint64_t usage = data["usage"].asUInt64();
  // At least the databases themselves: the log, both views, the store's.
  unsigned long long files =
      DatabaseBytes(kRepo + "/log-db.sqlite") + DatabaseBytes(kRepo + "/@sync/file-db.sqlite");
  for (uint64_t view : {HomeViewOf("alice"), ShareViewOf("team")}) {
    files += DatabaseBytes(kRepo + "/views/" + std::to_string(view) + ".sqlite");
  }
  EXPECT_GE(usage, files);
  // The local time of the run, as a person reads it.
  const std::string time = data["time"].asString();
  EXPECT_TRUE(std::regex_match(time, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << time;

  // The ended run was handed over once: its record is gone.
  EXPECT_FALSE(fs::exists(kRecord));
  status = Call("status");
  EXPECT_EQ(status.json["data"]["usage"].asUInt64(), 0u);
  EXPECT_FALSE(status.json["data"]["finish"].asBool());
  get = Call("get");
  EXPECT_EQ(get.json["data"]["usage"].asUInt64(), usage);
  EXPECT_EQ(get.json["data"]["last_update_usage_time"].asString(), time);

  // A new file's stored copy grows the figure by at least its size.
  BuildHistory(kAliceHome, {{kT2, {Entry("big.bin", std::string(200000, 'b'))}, {}}});
  // The first opening after a scan may fold a database's write-ahead log
  // into it; the second run sees the settled files.
  Usage();
  const uint64_t with_big = Usage();
  EXPECT_GE(with_big, usage + 200000);

  // The office folder counts by the bytes of its files; a link there to
  // something bigger is not followed.
  Write(kOffice + "/docs/1.odoc", 3000);
  Write(kOffice + "/docs/2.odoc", 5000);
  Write("/volume1/elsewhere/huge", 1 << 20);
  fs::create_symlink("/volume1/elsewhere", kOffice + "/docs/out");
  EXPECT_EQ(Usage(), with_big + 8000);
  // An office folder that is itself a link is no office folder.
  fs::rename(kOffice, "/volume1/office-real");
  fs::create_symlink("/volume1/office-real", kOffice);
  EXPECT_EQ(Usage(), with_big);
}

TEST_F(DBUsageHttpTest, AFailedRunReportsOnceAndClearsTheCachedFigure) {
  ASSERT_GT(Usage(), 0u);
  // The share's view file disappears from under the service.
  const uint64_t view = ShareViewOf("team");
  const std::string file = kRepo + "/views/" + std::to_string(view) + ".sqlite";
  ASSERT_TRUE(fs::exists(file));
  fs::rename(file, file + ".away");

  const Measurement run = Measure();
  ASSERT_TRUE(run.start.success()) << run.start.body;
  ASSERT_TRUE(run.ended) << run.last.body;
  EXPECT_FALSE(run.last.success());
  EXPECT_EQ(run.last.code(), 401);
  EXPECT_EQ(run.last.message(), "db usage caculation failed");
  EXPECT_NE(tptest::ReadPackageLog().find("Failed to get view db for view_id (" +
                                          std::to_string(view) + ")"),
            std::string::npos);
  // Reported once; the figure of the earlier run does not outlive this one.
  auto status = Call("status");
  EXPECT_TRUE(status.success()) << status.body;
  EXPECT_FALSE(status.json["data"]["finish"].asBool());
  auto get = Call("get");
  ASSERT_TRUE(get.success()) << get.body;
  EXPECT_EQ(get.json["data"]["usage"].asUInt64(), 0u);
  EXPECT_EQ(get.json["data"]["last_update_usage_time"].asString(), "");

  // With the file back, the next run measures again.
  fs::rename(file + ".away", file);
  EXPECT_GT(Usage(), 0u);
  get = Call("get");
  EXPECT_NE(get.json["data"]["last_update_usage_time"].asString(), "");
}

TEST_F(DBUsageHttpTest, RefusalsOfCallersAndOfASecondRun) {
  const std::string alice = LoginAs("alice");
  for (const char* method : {"start", "status", "stop", "get"}) {
    SCOPED_TRACE(method);
    const auto answer = Call(method, alice);
    EXPECT_FALSE(answer.success()) << answer.body;
    EXPECT_EQ(answer.code(), 105);
    const auto anonymous = tptest::CallApi(kApi, method, {}, "");
    EXPECT_FALSE(anonymous.success()) << anonymous.body;
  }
  EXPECT_FALSE(fs::exists(kRecord));
  // Starting is a change: a plain GET (a link followed) starts nothing.
  const auto by_link = tptest::Get(std::string("api=") + kApi + "&method=start&version=1", admin_);
  EXPECT_FALSE(by_link.success()) << by_link.body;
  EXPECT_EQ(by_link.code(), 105);
  EXPECT_FALSE(fs::exists(kRecord));
  // Reading the cached figure is not.
  EXPECT_TRUE(tptest::Get(std::string("api=") + kApi + "&method=get&version=1", admin_).success());

  // A run whose process lives refuses a second one, whoever asks.
  {
    HVOS::Task running("admin", "dftw_db_usage_polling");  // this process answers for it
    Json::Value data(Json::objectValue);
    data["usage"] = 0;
    data["finish"] = false;
    running.setProperty("data", data);
  }
  const auto second = Call("start");
  EXPECT_FALSE(second.success()) << second.body;
  EXPECT_EQ(second.code(), 410);
  EXPECT_EQ(second.message(), "another db usage calculate task exists");
  EXPECT_FALSE(Call("status").json["data"]["finish"].asBool());
  HVOS::Task("admin", "dftw_db_usage_polling").remove();
}

}  // namespace
