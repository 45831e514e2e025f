// The daemon versions by itself: files written, renamed, moved and deleted
// in a watched home become versions and log records within seconds, a
// burst of writes becomes one version, a killed daemon catches up when it
// starts again, enabling a share starts its watch, and a volume short of
// space freezes the service until space is back. Everything is checked
// through the web API and the log, as a user would see it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "driftway-client.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "volume.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

// The daemon has nothing waiting and no pass running.
bool Idle() {
  const auto status = tptest::RunControl({"service", "--status"});
  return status.out.find("waiting: none") != std::string::npos &&
         status.out.find("versioning: none") != std::string::npos;
}

// How many versioning passes the daemon has run.
unsigned long Passes() {
  const std::string out = tptest::RunControl({"service", "--status"}).out;
  const size_t at = out.find("passes: ");
  return at == std::string::npos ? 0 : std::stoul(out.substr(at + 8));
}

// Versions of `path` in alice's home as list_version shows them.
size_t VersionCount(const std::string& sid, const std::string& path) {
  const auto answer =
      Call("KSTX.Tidepool.Node", "list_version", {{"target", "mine"}, {"path", path}}, sid);
  return answer.success() ? answer.json["data"]["items"].size() : 0;
}

void Write(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  chown(path.c_str(), Uid("alice"), kUsersGid);
}

class WatchDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, {{kT0, {Entry("start.txt", "there before\n")}, {}}});
    tptest::AppendSetting("watch_quiet_ms", "300");
    tptest::AppendSetting("freeze_free_mb", "0");
    ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
    alice_ = LoginAs("alice");
  }
  void TearDown() override { tptest::RunControl({"service", "--stop"}); }

  std::string alice_;
};

TEST_F(WatchDaemonTest, ChangesInAWatchedHomeBecomeVersionsAndLogRecords) {
  ASSERT_TRUE(tptest::Eventually(Idle));
  const size_t added_before = Logs(13).size();
  Write(kAliceHome + "/notes/today.txt", "first\n");
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/notes/today.txt") == 1; }));
  EXPECT_GT(Logs(13).size(), added_before);

  // A burst of writes, each sooner than the quiet moment: one version.
  for (int i = 0; i < 10; ++i) {
    std::ofstream(kAliceHome + "/notes/today.txt", std::ios::app) << "line " << i << "\n";
    usleep(50000);
  }
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/notes/today.txt") == 2; }));
  ASSERT_TRUE(tptest::Eventually(Idle));
  EXPECT_EQ(VersionCount(alice_, "/notes/today.txt"), 2u);

  // A new tree made at once is watched all the way down.
  Write(kAliceHome + "/deep/a/b/c/leaf.txt", "leaf\n");
  ASSERT_TRUE(
      tptest::Eventually([&] { return VersionCount(alice_, "/deep/a/b/c/leaf.txt") == 1; }));
  Write(kAliceHome + "/deep/a/b/c/leaf.txt", "leaf, changed\n");
  ASSERT_TRUE(
      tptest::Eventually([&] { return VersionCount(alice_, "/deep/a/b/c/leaf.txt") == 2; }));

  // Renamed and moved across folders: the node keeps its history, and the
  // move is recorded.
  const size_t moves_before = Logs(17).size();
  fs::rename(kAliceHome + "/notes/today.txt", kAliceHome + "/notes/yesterday.txt");
  fs::rename(kAliceHome + "/deep/a", kAliceHome + "/notes/a");
  ASSERT_TRUE(tptest::Eventually([&] {
    return VersionCount(alice_, "/notes/yesterday.txt") >= 2 &&
           VersionCount(alice_, "/notes/a/b/c/leaf.txt") >= 2;
  }));
  EXPECT_GE(Logs(17).size(), moves_before + 2);
  // The moved folder is still watched at its new place.
  Write(kAliceHome + "/notes/a/b/c/leaf.txt", "leaf, moved and changed\n");
  ASSERT_TRUE(
      tptest::Eventually([&] { return VersionCount(alice_, "/notes/a/b/c/leaf.txt") >= 3; }));

  // Deleted: recorded as removed.
  const size_t removed_before = Logs(14).size();
  fs::remove(kAliceHome + "/notes/yesterday.txt");
  ASSERT_TRUE(tptest::Eventually([&] { return Logs(14).size() > removed_before; }));
  EXPECT_EQ(Logs(14).back().s.front(), "/notes/yesterday.txt");

  // A whole folder removed: the folder and all below it are removed.
  const size_t before_tree = Logs(14).size();
  fs::remove_all(kAliceHome + "/notes/a");
  ASSERT_TRUE(tptest::Eventually([&] { return Logs(14).size() > before_tree; }));
  ASSERT_TRUE(tptest::Eventually(Idle));
  const auto list =
      Call("KSTX.Tidepool.Node", "list", {{"target", "mine"}, {"path", "/notes"}}, alice_);
  for (const Json::Value& item : list.json["data"]["items"]) {
    EXPECT_NE(item["name"].asString(), "a") << list.body;
  }

  // The service's start is in the log.
  ASSERT_FALSE(Logs(0).empty());
  EXPECT_EQ(Logs(0).back().p.front(), "1");
}

// A file still being written is not versioned half way because a change
// elsewhere fell due: its one version holds all it was given.
TEST_F(WatchDaemonTest, AFileBeingWrittenIsNotVersionedHalfWay) {
  ASSERT_TRUE(tptest::Eventually(Idle));
  Write(kAliceHome + "/slow/growing.txt", "");
  std::ofstream growing(kAliceHome + "/slow/growing.txt", std::ios::binary);
  std::string all;
  for (int i = 0; i < 20; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    growing << line << std::flush;
    all += line;
    if (i == 5) Write(kAliceHome + "/elsewhere/quick.txt", "done\n");
    usleep(100000);
  }
  growing.close();
  ASSERT_TRUE(
      tptest::Eventually([&] { return VersionCount(alice_, "/elsewhere/quick.txt") == 1; }));
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/slow/growing.txt") >= 1; }));
  ASSERT_TRUE(tptest::Eventually(Idle));
  const auto answer = Call("KSTX.Tidepool.Node", "list_version",
                           {{"target", "mine"}, {"path", "/slow/growing.txt"}}, alice_);
  // The empty file written first may have its own version; nothing between.
  for (const Json::Value& item : answer.json["data"]["items"]) {
    const uint64_t size = item["size"].asUInt64();
    EXPECT_TRUE(size == 0 || size == all.size()) << answer.body;
  }
}

// A copy of many files that outlasts the quiet moment is versioned as it
// goes, while a file it holds open and one rewritten in place each wait for
// the end of their writing and get one version.
TEST_F(WatchDaemonTest, ALongCopyIsVersionedAsItGoes) {
  Write(kAliceHome + "/copy/old.txt", "before the copy\n");
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/copy/old.txt") == 1; }));
  ASSERT_TRUE(tptest::Eventually(Idle));
  Write(kAliceHome + "/copy/held.bin", "");
  std::ofstream held(kAliceHome + "/copy/held.bin", std::ios::binary);
  std::ofstream old(kAliceHome + "/copy/old.txt", std::ios::binary | std::ios::app);
  bool seen_while_copying = false;
  size_t held_versions_while_open = 0;
  std::string held_content;
  for (int i = 0; i < 300; ++i) {
    Write(kAliceHome + "/copy/f" + std::to_string(i) + ".txt", "file " + std::to_string(i));
    old << "line " << i << "\n" << std::flush;
    held << "part " << i << "\n" << std::flush;
    held_content += "part " + std::to_string(i) + "\n";
    if (i % 25 == 24) {
      seen_while_copying = seen_while_copying || VersionCount(alice_, "/copy/f0.txt") == 1;
      held_versions_while_open += VersionCount(alice_, "/copy/held.bin") > 1;
    }
    usleep(10000);
  }
  EXPECT_TRUE(seen_while_copying);
  held.close();
  old.close();
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/copy/f299.txt") == 1; }));
  ASSERT_TRUE(tptest::Eventually(Idle));
  for (const char* name : {"/copy/f0.txt", "/copy/f150.txt", "/copy/f299.txt"})
    EXPECT_EQ(VersionCount(alice_, name), 1u) << name;
  EXPECT_EQ(VersionCount(alice_, "/copy/old.txt"), 2u);
  // Made empty before it was opened, so it may have an empty version; never
  // one of a part.
  EXPECT_EQ(held_versions_while_open, 0u);
  const auto answer = Call("KSTX.Tidepool.Node", "list_version",
                           {{"target", "mine"}, {"path", "/copy/held.bin"}}, alice_);
  ASSERT_GE(answer.json["data"]["items"].size(), 1u) << answer.body;
  for (const Json::Value& item : answer.json["data"]["items"]) {
    const uint64_t size = item["size"].asUInt64();
    EXPECT_TRUE(size == 0 || size == held_content.size()) << answer.body;
  }
}

TEST_F(WatchDaemonTest, AKilledDaemonCatchesUpWhenItStartsAgain) {
  ASSERT_TRUE(tptest::Eventually(Idle));
  const auto status = tptest::RunControl({"service", "--status"});
  const size_t at = status.out.find("pid ");
  ASSERT_NE(at, std::string::npos) << status.out;
  const pid_t pid = std::stoi(status.out.substr(at + 4));
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(tptest::Eventually([&] { return kill(pid, 0) != 0; }));
  Write(kAliceHome + "/while-down.txt", "written while no daemon ran\n");
  Write(kAliceHome + "/start.txt", "changed while no daemon ran\n");
  ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
  ASSERT_TRUE(tptest::Eventually([&] {
    return VersionCount(alice_, "/while-down.txt") == 1 && VersionCount(alice_, "/start.txt") == 2;
  }));
  // A scan by hand meanwhile versions nothing twice.
  ASSERT_EQ(tptest::RunControl({"scan"}).exit_status, 0);
  ASSERT_TRUE(tptest::Eventually(Idle));
  EXPECT_EQ(VersionCount(alice_, "/start.txt"), 2u);
}

TEST_F(WatchDaemonTest, EnablingAShareThroughTheDaemonStartsItsWatch) {
  ASSERT_TRUE(tptest::Eventually(Idle));
  // "drop" exists on the host and alice may write there, but it is not versioned.
  ASSERT_GE(SendUserControl(1, "drop", 0, 5, "fifo", 0), 0);
  const std::string admin = LoginAs("admin");
  Write("/volume1/drop/fresh.txt", "in a share\n");
  ASSERT_TRUE(tptest::Eventually([&] {
    const auto answer = Call("KSTX.Tidepool.Node", "list_version",
                             {{"target", "@drop"}, {"path", "/fresh.txt"}}, admin);
    return answer.success() && answer.json["data"]["items"].size() == 1;
  }));
  EXPECT_NE(tptest::RunControl({"service", "--status"}).out.find("/volume1/drop"),
            std::string::npos);
  ASSERT_GE(SendUserControl(4, "drop", 0, 0, "", 0), 0);
  EXPECT_EQ(tptest::RunControl({"service", "--status"}).out.find("/volume1/drop"),
            std::string::npos);
}

// With less free space than the threshold the service freezes: the web API
// says so and nothing is versioned; once space is back (here: the
// threshold lowered and the service restarted, as resume_freeze does) the
// waiting change is versioned.
TEST_F(WatchDaemonTest, AVolumeShortOfSpaceFreezesTheServiceUntilSpaceIsBack) {
  ASSERT_TRUE(tptest::Eventually(Idle));
  tptest::RunControl({"service", "--stop"});
  tptest::AppendSetting("freeze_free_mb", "1000000000");
  ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
  ASSERT_TRUE(tptest::Eventually([] {
    return tptest::RunControl({"service", "--status"}).out.find("frozen") != std::string::npos;
  }));
  const auto status = Call("KSTX.Tidepool", "get_status", {}, alice_);
  EXPECT_TRUE(status.json["data"]["dftw_freeze"].asBool()) << status.body;
  Write(kAliceHome + "/frozen.txt", "written while frozen\n");
  // Its burst is over and it waits: not versioned.
  ASSERT_TRUE(tptest::Eventually([] {
    return tptest::RunControl({"service", "--status"}).out.find("waiting: none") ==
           std::string::npos;
  }));
  EXPECT_EQ(VersionCount(alice_, "/frozen.txt"), 0u);

  tptest::RunControl({"service", "--stop"});
  tptest::AppendSetting("freeze_free_mb", "0");
  ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
  ASSERT_TRUE(tptest::Eventually([&] { return VersionCount(alice_, "/frozen.txt") == 1; }));
  EXPECT_FALSE(
      Call("KSTX.Tidepool", "get_status", {}, alice_).json["data"]["dftw_freeze"].asBool());
}

// A volume that fills up while a version is being stored: the version is
// not made, the store stays sound, and the service goes on once there is
// room. (The freeze threshold is off here, so the write itself hits the
// full volume.)
TEST_F(WatchDaemonTest, AVolumeFillingUpDuringVersioningLeavesTheStoreSound) {
  const std::string why = tptest::LoopVolumeUnsupported(tptest::VolumeType::kExt4);
  if (!why.empty()) GTEST_SKIP() << why;
  std::string error;
  auto volume = tptest::LoopVolume::Create(tptest::VolumeType::kExt4, 64, "/volume2", &error);
  ASSERT_TRUE(volume) << error;
  ASSERT_EQ(tptest::RunProcess(
                {"/usr/kstx/bin/kstx-admin", "share", "add", "cold", "--volume", "/volume2"})
                .exit_status,
            0);
  ASSERT_EQ(tptest::RunProcess({"/usr/kstx/bin/kstx-admin", "share", "perm", "cold", "alice", "rw"})
                .exit_status,
            0);
  MakeDir("/volume2/cold", "alice", 0775);
  ASSERT_GE(SendUserControl(1, "cold", 0, 5, "fifo", 0), 0);
  const std::string admin = LoginAs("admin");
  const auto versions = [&](const std::string& path) -> size_t {
    const auto answer =
        Call("KSTX.Tidepool.Node", "list_version", {{"target", "@cold"}, {"path", path}}, admin);
    return answer.success() ? answer.json["data"]["items"].size() : 0;
  };
  Write("/volume2/cold/small.txt", "fits\n");
  ASSERT_TRUE(tptest::Eventually([&] { return versions("/small.txt") == 1; }));

  // The live file and its stored copy cannot both fit.
  ASSERT_TRUE(tptest::Eventually(Idle));
  const unsigned long before = Passes();
  Write("/volume2/cold/big.bin", tptest::RandomBytes(40 << 20, 7));
  ASSERT_TRUE(tptest::Eventually([&] { return Passes() > before && Idle(); }));
  EXPECT_EQ(versions("/big.bin"), 0u);
  const auto check = tptest::RunControl({"check"});
  EXPECT_EQ(check.exit_status, 0) << check.out << check.err;

  // Room again: the next change is versioned, the failed one with it.
  fs::remove("/volume2/cold/big.bin");
  Write("/volume2/cold/big.bin", tptest::RandomBytes(8 << 20, 8));
  ASSERT_TRUE(tptest::Eventually([&] { return versions("/big.bin") == 1; }));
  EXPECT_EQ(tptest::RunControl({"check"}).exit_status, 0);
  tptest::RunControl({"service", "--stop"});
}

}  // namespace
