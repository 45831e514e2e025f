// Restores that meet real faults: a full destination volume, a delta file
// missing from the store, a live file that has moved on since its version;
// and the clone route of a volume that can share extents.
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "content.h"
#include "db/manager.h"
#include "node-world.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "volume.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kAdminTool = "/usr/kstx/bin/kstx-admin";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

const std::string kSmall = "a few bytes\n";
const std::string kBig1 = tptest::RandomBytes(2 << 20, 1);

std::string Edited(std::string bytes, char mark) {
  for (size_t i = 0; i < bytes.size(); i += 100000) bytes[i] = mark;
  return bytes;
}

class RestoreFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, {{kT0, {Entry("small.txt", kSmall), Entry("big.bin", kBig1)}, {}},
                              {kT1, {Entry("big.bin", Edited(kBig1, 'x'))}, {}},
                              {kT2, {Entry("big.bin", Edited(kBig1, 'y'))}, {}}});
    alice_ = LoginAs("alice");
  }
  void TearDown() override { volume_.reset(); }

  // A loop volume over /volume2 with the share "small" on it, where alice
  // may write.
  void MountVolume(tptest::VolumeType type, int size_mb, const std::string& share) {
    const std::string why = tptest::LoopVolumeUnsupported(type);
    if (!why.empty()) GTEST_SKIP() << why;
    std::string error;
    volume_ = tptest::LoopVolume::Create(type, size_mb, "/volume2", &error);
    ASSERT_TRUE(volume_) << error;
    ASSERT_EQ(
        tptest::RunProcess({kAdminTool, "share", "add", share, "--volume", "/volume2"}).exit_status,
        0);
    ASSERT_EQ(tptest::RunProcess({kAdminTool, "share", "perm", share, "alice", "rw"}).exit_status,
              0);
    MakeDir("/volume2/" + share, "root", 0777);
  }

  std::vector<db::Version> Versions(uint64_t view_id, const std::string& path) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    db::Node node;
    EXPECT_EQ(view->QueryNode(path, node, db::ViewManager::kQueryAny), 0) << path;
    std::vector<db::Version> versions;
    EXPECT_GE(view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
    return versions;
  }

  // Marks the newest version of `path` as one whose content is the live
  // file itself, as the service records files it does not keep.
  void MakeLive(uint64_t view_id, const std::string& path) {
    const auto versions = Versions(view_id, path);
    ASSERT_FALSE(versions.empty());
    tptest::RunSql(view_id, "UPDATE versions SET ver_type = 2 WHERE sync_id = " +
                                std::to_string(versions.back().getSyncId()));
  }

  std::string alice_;
  std::unique_ptr<tptest::LoopVolume> volume_;
};

// Fills a volume but for about `spare` bytes, as root, reserve included.
void FillVolume(const std::string& mountpoint, size_t spare) {
  tptest::WriteFile(mountpoint + "/spacer", std::string(spare, 's'));
  const int fd = open((mountpoint + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  const std::string block(1 << 20, 'f');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  const std::string small(4096, 'f');
  while (write(fd, small.data(), small.size()) > 0) {
  }
  fsync(fd);
  close(fd);
  fs::remove(mountpoint + "/spacer");
}

TEST_F(RestoreFaultTest, AFullDestinationFailsAsNoSpaceAndKeepsWhatWasCopied) {
  MountVolume(tptest::VolumeType::kExt4, 32, "small");
  if (HasFatalFailure() || IsSkipped()) return;
  const std::string dest = "/volume2/small/out";
  MakeDir(dest, "root", 0777);
  FillVolume("/volume2", 256 << 10);
  const RestoreRun run = RestoreAndFinish(alice_, "mine",
                                          {BrowseVersion(alice_, "mine", "/small.txt", 0),
                                           BrowseVersion(alice_, "mine", "/big.bin", 0)},
                                          {{"copy_to", dest}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_EQ(run.error, 600) << run.last_status;
  EXPECT_EQ(TreeOf(dest), Expect({{"small.txt", kSmall}}));
}

TEST_F(RestoreFaultTest, AMissingDeltaFailsTheTaskAndKeepsEarlierFiles) {
  const auto versions = Versions(HomeViewOf("alice"), "/big.bin");
  ASSERT_EQ(versions.size(), 3u);
  db::FileDBInterface files;
  ASSERT_GE(db::Manager::GetFileDB(versions.back().getFileUuid(), files, false, ""), 0);
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_GE(files->GetPatchFiles(versions.back().getFileId(), origin, patches), 0);
  ASSERT_FALSE(patches.empty()) << "the newest version is stored whole";
  ASSERT_TRUE(fs::remove(patches.back())) << patches.back();

  const std::string dest = "/volume1/drop/out";
  MakeDir(dest, "root", 0777);
  const RestoreRun run = RestoreAndFinish(alice_, "mine",
                                          {BrowseVersion(alice_, "mine", "/small.txt", 0),
                                           BrowseVersion(alice_, "mine", "/big.bin", 0)},
                                          {{"copy_to", dest}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_EQ(run.error, 401) << run.last_status;
  EXPECT_EQ(TreeOf(dest), Expect({{"small.txt", kSmall}}));

  // The first version needs no delta and still comes back.
  const RestoreRun first = RestoreAndFinish(
      alice_, "mine", {BrowseVersion(alice_, "mine", "/big.bin", 2)}, {{"copy_to", dest}});
  EXPECT_TRUE(first.done) << "error " << first.error << ": " << first.last_status;
  EXPECT_EQ(Look(dest + "/big.bin").sha, tptest::Sha256Hex(kBig1));
}

// A version without stored content is the live file; once that file has
// changed or gone, it can no longer stand for the version.
TEST_F(RestoreFaultTest, ALiveVersionComesOnlyFromAnUnchangedLiveFile) {
  MakeLive(HomeViewOf("alice"), "/small.txt");
  const Json::Value small = BrowseVersion(alice_, "mine", "/small.txt", 0);
  struct Case {
    const char* label;
    const char* live;  // the live file's content; null: deleted
    int error;
  } cases[] = {{"unchanged", kSmall.c_str(), 0},
               {"changed", "changed since\n", 401},
               {"deleted", nullptr, 401}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string live = kAliceHome + "/small.txt";
    if (c.live) {
      tptest::WriteFile(live, c.live);
    } else {
      fs::remove(live);
    }
    const std::string dest = "/volume1/drop/" + std::string(c.label);
    MakeDir(dest, "root", 0777);
    const RestoreRun run = RestoreAndFinish(alice_, "mine", {small}, {{"copy_to", dest}});
    ASSERT_TRUE(run.started) << run.start.body;
    EXPECT_EQ(run.error, c.error) << run.last_status;
    EXPECT_EQ(TreeOf(dest), c.error ? Tree() : Expect({{"small.txt", kSmall}}));
    EXPECT_EQ(Look(dest + "/small.txt").uid, c.error ? 0u : Uid("alice"));
    // The live file itself is left as it is.
    EXPECT_EQ(fs::exists(live), c.live != nullptr);
  }
}

// True when some extent of the file is shared with another file.
bool SharesExtents(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  alignas(fiemap) char buffer[sizeof(fiemap) + 16 * sizeof(fiemap_extent)] = {};
  auto* map = reinterpret_cast<fiemap*>(buffer);
  map->fm_length = FIEMAP_MAX_OFFSET;
  map->fm_flags = FIEMAP_FLAG_SYNC;
  map->fm_extent_count = 16;
  bool shared = false;
  if (ioctl(fd, FS_IOC_FIEMAP, map) == 0) {
    for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
      if (map->fm_extents[i].fe_flags & FIEMAP_EXTENT_SHARED) shared = true;
    }
  }
  close(fd);
  return shared;
}

// On a volume that clones, a live version is copied by sharing the live
// file's extents.
TEST_F(RestoreFaultTest, ALiveVersionOnACloningVolumeIsCloned) {
  MountVolume(tptest::VolumeType::kBtrfs, 128, "fast");
  if (HasFatalFailure() || IsSkipped()) return;
  ASSERT_EQ(tptest::RunProcess({kControl, "share", "--enable", "fast"}).exit_status, 0);
  MakeDir("/volume2/fast", "alice", 0775);
  BuildHistory("/volume2/fast", {{kT0, {Entry("live.bin", kBig1, 0644)}, {}}});
  MakeLive(ShareViewOf("fast"), "/live.bin");
  const std::string admin = LoginAs("admin");
  const std::string dest = "/volume2/fast/out";
  MakeDir(dest, "root", 0777);
  const RestoreRun run = RestoreAndFinish(
      admin, "@fast", {BrowseVersion(admin, "@fast", "/live.bin", 0)}, {{"copy_to", dest}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(Look(dest + "/live.bin").sha, tptest::Sha256Hex(kBig1));
  EXPECT_TRUE(SharesExtents(dest + "/live.bin"));
}

}  // namespace
