// The repository mover on its own: a kill in every phase followed by a
// recovery, a full target volume, a second mover, a volume used before.
// After each, the repository is whole on exactly one volume and serves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "db/log-manager.h"
#include "db/log-types.h"
#include "move-world.h"
#include "process.h"
#include "sandbox.h"
#include "sync-service.h"
#include "volume.h"

namespace fs = std::filesystem;
using namespace mtest;

namespace {

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

// Entries that stand on the target before a move, and are owed back.
const std::string kForeign = "/volume2/@tidepool/user-db.sqlite";
const std::string kForeignContent = "a repository of long ago\n";

void PlaceForeign() {
  fs::create_directories("/volume2/@tidepool/@sync");
  std::ofstream(kForeign) << kForeignContent;
  std::ofstream("/volume2/@tidepool/@sync/file-db.sqlite") << "volume2's own store\n";
}

std::string Read(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::vector<std::string>> MoveRecords(const std::string& volume) {
  return Records(volume, db::kLogDbVolumeChange);
}

class MoveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedMoveWorld();
  }
};

// Where a kill leaves the repository once recovery has run.
struct KillCase {
  const char* phase;
  const char* holds;  // the volume that serves afterwards
};

TEST_F(MoveTest, AKillInAnyPhaseIsRecoveredToExactlyOneWholeRepository) {
  const KillCase cases[] = {
      {"journal", "/volume1"},    {"stop", "/volume1"},       {"quiesce", "/volume1"},
      {"checkpoint", "/volume1"}, {"copy", "/volume1"},       {"verify", "/volume1"},
      {"switch", "/volume1"},     {"switch-one", "/volume1"}, {"commit", "/volume1"},
      {"committed", "/volume2"},  {"cleanup", "/volume2"},    {"finish", "/volume2"},
  };
  fs::create_directories("/volume1/@tidepool-office");
  std::ofstream("/volume1/@tidepool-office/doc.odt") << "office bytes\n";
  for (const KillCase& c : cases) {
    SCOPED_TRACE(c.phase);
    // Each case starts from the repository on /volume1 and a target that
    // already holds files of its own.
    if (RepoVolume() != "/volume1") {
      ASSERT_EQ(RunMover({"/volume2", "/volume1"}), 0);
    }
    fs::remove_all("/volume2/@tidepool");
    PlaceForeign();

    EXPECT_EQ(RunMover({"/volume1", "/volume2"}, {{"DFTW_MOVE_KILL_AT", c.phase}}), 128 + 9);
    const bool journal_left = fs::exists(kMoveJournalPath);
    // Until recovered, nobody is served from a half-moved repository.
    if (journal_left) {
      EXPECT_EQ(Status(), "moving_db");
      EXPECT_NE(tptest::RunProcess({kControl, "service", "--status"}).out.find("moving repository"),
                std::string::npos);
    }
    ASSERT_EQ(RunMover({"--recover"}), 0);
    EXPECT_FALSE(fs::exists(kMoveJournalPath));
    EXPECT_EQ(CheckServes(c.holds), "");

    const std::string other = std::string(c.holds) == "/volume1" ? "/volume2" : "/volume1";
    EXPECT_FALSE(fs::exists(other + "/@tidepool/log-db.sqlite"));
    EXPECT_FALSE(fs::exists(other + "/@tidepool/views"));
    EXPECT_FALSE(fs::exists("/volume2/@tidepool/.move-staging"));
    // The office documents go where the repository goes.
    EXPECT_EQ(Read(std::string(c.holds) + "/@tidepool-office/doc.odt"), "office bytes\n");
    EXPECT_FALSE(fs::exists(other + "/@tidepool-office"));
    // Version content never moves; the target's own store is untouched.
    EXPECT_TRUE(fs::exists("/volume1/@tidepool/@sync"));
    EXPECT_EQ(Read("/volume2/@tidepool/@sync/file-db.sqlite"), "volume2's own store\n");
    if (std::string(c.holds) == "/volume1") {
      EXPECT_EQ(Read(kForeign), kForeignContent);
    } else {
      bool kept = false;
      for (const auto& entry : fs::directory_iterator("/volume2/@tidepool")) {
        if (entry.path().filename().string().rfind(".moved-aside-", 0) == 0) {
          kept |= Read(entry.path().string() + "/user-db.sqlite") == kForeignContent;
        }
      }
      EXPECT_TRUE(kept) << "the target's earlier files were not kept aside";
    }
  }
}

TEST_F(MoveTest, AFullTargetFailsTheMoveAndSaysWhy) {
  const std::string why = tptest::LoopVolumeUnsupported(tptest::VolumeType::kExt4);
  if (!why.empty()) GTEST_SKIP() << why;
  std::string error;
  auto volume = tptest::LoopVolume::Create(tptest::VolumeType::kExt4, 16, "/volume2", &error);
  ASSERT_TRUE(volume) << error;
  // Room for the small databases but not for a big file beside them.
  const std::string big = "/volume1/@tidepool/big.bin";
  std::ofstream(big, std::ios::binary) << tptest::RandomBytes(24 << 20, 7);
  EXPECT_EQ(RunMover({"/volume1", "/volume2"}), 1);
  fs::remove(big);
  EXPECT_EQ(CheckServes("/volume1"), "");
  EXPECT_FALSE(fs::exists("/volume2/@tidepool/.move-staging"));
  EXPECT_FALSE(fs::exists("/volume2/@tidepool/user-db.sqlite"));
  const auto records = MoveRecords("/volume1");
  ASSERT_FALSE(records.empty());
  ASSERT_EQ(records.back().size(), 3u);
  EXPECT_NE(records.back()[2].find("No space left on device"), std::string::npos)
      << records.back()[2];
}

TEST_F(MoveTest, ASecondMoverOrAStaleRequestChangesNothing) {
  {
    // A mover at work holds the lock: another one leaves at once.
    const int fd = open(kMoveLockPath, O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(RunMover({"/volume1", "/volume2"}), 1);
    close(fd);
  }
  // A move decided against a repository that is no longer there.
  EXPECT_EQ(RunMover({"/volume3", "/volume2"}), 1);
  EXPECT_EQ(RunMover({"/volume1", "/volume1"}), 1);
  EXPECT_EQ(RunMover({"/volume1/", "/volume2"}), 2);
  EXPECT_EQ(CheckServes("/volume1"), "");
  EXPECT_FALSE(fs::exists("/volume2/@tidepool/user-db.sqlite"));

  EXPECT_EQ(RunMover({"/volume1", "/volume2"}), 0);
  EXPECT_EQ(CheckServes("/volume2"), "");
  EXPECT_EQ(MoveRecords("/volume2").back(), (std::vector<std::string>{"/volume1", "/volume2"}));
}

TEST_F(MoveTest, AMoveCutShortIsRecoveredByTheDaemonsStartOrByTheNextRequest) {
  // Killed while copying: the daemon's start puts the old repository back.
  EXPECT_EQ(RunMover({"/volume1", "/volume2"}, {{"DFTW_MOVE_KILL_AT", "copy"}}), 128 + 9);
  EXPECT_EQ(Status(), "moving_db");
  EXPECT_EQ(tptest::RunProcess({kControl, "service", "--start"}).exit_status, 0);
  EXPECT_FALSE(fs::exists(kMoveJournalPath));
  EXPECT_EQ(CheckServes("/volume1"), "");
  EXPECT_EQ(tptest::RunProcess({kControl, "service", "--stop"}).exit_status, 0);
  ASSERT_EQ(ServiceStatusSet("enabled"), 0);

  // Killed after the commit: the first request sees no mover, starts the
  // recovery and is told to wait; soon the new repository serves.
  EXPECT_EQ(RunMover({"/volume1", "/volume2"}, {{"DFTW_MOVE_KILL_AT", "committed"}}), 128 + 9);
  const auto first = rtest::Call("KSTX.Tidepool.Config", "get", {}, rtest::LoginAs("admin"));
  EXPECT_EQ(first.code(), 503) << first.body;
  ASSERT_TRUE(MoveEnded());
  EXPECT_TRUE(tptest::Eventually([] { return !fs::exists(kMoveJournalPath); }));
  EXPECT_EQ(CheckServes("/volume2"), "");
  EXPECT_FALSE(fs::exists("/volume1/@tidepool/user-db.sqlite"));
}

}  // namespace
