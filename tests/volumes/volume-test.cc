#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "process.h"
#include "sandbox.h"
#include "volume.h"

namespace fs = std::filesystem;
using tptest::LoopVolume;
using tptest::VolumeType;

namespace {

// Writes 1 MiB blocks to `path` until a write fails; returns its errno, or 0
// when `limit_mb` blocks all went through.
int FillUntilFailure(const std::string& path, int limit_mb) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  std::string block(1 << 20, 'x');
  int failure = 0;
  for (int i = 0; i < limit_mb && failure == 0; ++i) {
    size_t done = 0;
    while (done < block.size()) {
      ssize_t n = write(fd, block.data() + done, block.size() - done);
      if (n < 0) {
        failure = errno;
        break;
      }
      done += n;
    }
  }
  if (failure == 0 && fsync(fd) != 0) failure = errno;
  close(fd);
  return failure;
}

// Clones all of `from` into a new file `to`; the ioctl's result and errno.
int CloneFile(const std::string& from, const std::string& to) {
  int src = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  int dst = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  btrfs_ioctl_clone_range_args args{};
  args.src_fd = src;
  args.src_length = 0;  // to the end of the source
  int rc = ioctl(dst, BTRFS_IOC_CLONE_RANGE, &args) == 0 ? 0 : -errno;
  close(src);
  close(dst);
  return rc;
}

bool IsMountPoint(const std::string& path) {
  struct stat self {
  }, parent{};
  return stat(path.c_str(), &self) == 0 && stat((path + "/..").c_str(), &parent) == 0 &&
         self.st_dev != parent.st_dev;
}

std::string Content(int size) {
  std::string s(size, '\0');
  for (int i = 0; i < size; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
  return s;
}

class VolumeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(tptest::InSandbox()) << "mounts over /volume2"; }

  std::unique_ptr<LoopVolume> Make(VolumeType type, int size_mb) {
    std::string error;
    auto volume = LoopVolume::Create(type, size_mb, "/volume2", &error);
    EXPECT_NE(volume, nullptr) << error;
    return volume;
  }
};

TEST_F(VolumeTest, FullExt4VolumeRefusesWritesWithNoSpace) {
  std::string why = tptest::LoopVolumeUnsupported(VolumeType::kExt4);
  if (!why.empty()) GTEST_SKIP() << "ext4 loop volumes unavailable: " << why;
  auto volume = Make(VolumeType::kExt4, 16);
  ASSERT_NE(volume, nullptr);
  EXPECT_TRUE(IsMountPoint("/volume2"));
  EXPECT_EQ(FillUntilFailure("/volume2/big", 64), ENOSPC);

  // Space freed is space usable again: a restore may retry after cleaning up.
  ASSERT_EQ(unlink("/volume2/big"), 0);
  EXPECT_EQ(FillUntilFailure("/volume2/small", 4), 0);

  // ext4 has no extent clones; callers must fall back to copying.
  tptest::WriteFile("/volume2/a", "data");
  EXPECT_LT(CloneFile("/volume2/a", "/volume2/b"), 0);
}

TEST_F(VolumeTest, BtrfsClonesShareExtents) {
  std::string why = tptest::LoopVolumeUnsupported(VolumeType::kBtrfs);
  if (!why.empty()) GTEST_SKIP() << "btrfs loop volumes unavailable: " << why;
  auto volume = Make(VolumeType::kBtrfs, 128);
  ASSERT_NE(volume, nullptr);

  std::string content = Content(3 << 20);
  tptest::WriteFile("/volume2/origin", content);
  ASSERT_EQ(CloneFile("/volume2/origin", "/volume2/clone"), 0);
  EXPECT_EQ(tptest::ReadFile("/volume2/clone"), content);

  auto frag = tptest::RunProcess({"/usr/sbin/filefrag", "-v", "/volume2/clone"});
  ASSERT_EQ(frag.exit_status, 0) << frag.err;
  EXPECT_NE(frag.out.find("shared"), std::string::npos) << frag.out;

  // Writing to the clone leaves the origin as it was.
  tptest::WriteFile("/volume2/clone", "changed");
  EXPECT_EQ(tptest::ReadFile("/volume2/origin"), content);
}

TEST_F(VolumeTest, DestructionLeavesNothingBehind) {
  std::string why = tptest::LoopVolumeUnsupported(VolumeType::kExt4);
  if (!why.empty()) GTEST_SKIP() << "ext4 loop volumes unavailable: " << why;
  tptest::WriteFile("/volume2/underneath", "kept");
  std::string device, image;
  {
    auto volume = Make(VolumeType::kExt4, 16);
    ASSERT_NE(volume, nullptr);
    device = volume->device();
    image = volume->image();
    EXPECT_EQ(image.rfind(tptest::kLoopImagePrefix, 0), 0u) << image;
    EXPECT_FALSE(fs::exists("/volume2/underneath"));
    // An open file must not keep the volume alive.
    int fd = open("/volume2/open", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(fd, 0);
    volume.reset();
    if (fd >= 0) close(fd);
  }
  EXPECT_FALSE(fs::exists(image));
  auto list = tptest::RunProcess({"/usr/sbin/losetup", "--list", "--noheadings"});
  EXPECT_EQ(list.out.find(image), std::string::npos) << list.out;
  EXPECT_EQ(tptest::ReadFile("/volume2/underneath"), "kept");
  EXPECT_FALSE(IsMountPoint("/volume2"));
}

TEST_F(VolumeTest, StaleImagesOfAbortedRunsAreRemoved) {
  // An aborted run: an image still attached, untouched for two hours; and one
  // of a run in progress elsewhere, which must stay.
  std::string stale = std::string(tptest::kLoopImagePrefix) + "abortedrun.img";
  std::string young = std::string(tptest::kLoopImagePrefix) + "otherrun.img";
  for (const auto& path : {stale, young}) {
    unlink(path.c_str());  // a leftover of an earlier run of this test
    tptest::WriteFile(path, std::string(1 << 20, '\0'));
  }
  auto attached = tptest::RunProcess({"/usr/sbin/losetup", "--find", "--show", stale});
  ASSERT_EQ(attached.exit_status, 0) << attached.err;
  struct timespec times[2] = {{time(nullptr) - 7200, 0}, {time(nullptr) - 7200, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, stale.c_str(), times, 0), 0);

  EXPECT_EQ(tptest::RemoveStaleLoopVolumes(), 1);
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(young));
  auto list = tptest::RunProcess({"/usr/sbin/losetup", "--list", "--noheadings"});
  EXPECT_EQ(list.out.find(stale), std::string::npos) << list.out;
  unlink(young.c_str());
}

}  // namespace
