#include "volume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "process.h"

namespace fs = std::filesystem;

namespace tptest {
namespace {

const char* FsName(VolumeType type) { return type == VolumeType::kExt4 ? "ext4" : "btrfs"; }

// Tools live in sbin, which a test's PATH may lack.
std::string FindTool(const std::string& name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = std::string(dir) + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return "";
}

std::string Trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

bool KernelKnows(const std::string& fstype) {
  std::ifstream in("/proc/filesystems");
  std::string line;
  while (std::getline(in, line)) {
    auto tab = line.rfind('\t');
    if (line.substr(tab == std::string::npos ? 0 : tab + 1) == fstype) return true;
  }
  return false;
}

// The loop devices whose backing file is `image` (even when it was deleted).
std::vector<std::string> DevicesBackedBy(const std::string& image) {
  std::vector<std::string> devices;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/sys/block", ec)) {
    std::string name = entry.path().filename();
    if (name.rfind("loop", 0) != 0) continue;
    std::ifstream in(entry.path() / "loop" / "backing_file");
    std::string backing;
    if (!std::getline(in, backing)) continue;
    if (backing == image || backing == image + " (deleted)") devices.push_back("/dev/" + name);
  }
  return devices;
}

// Mount points of `device` in this mount namespace, innermost last.
std::vector<std::string> MountsOf(const std::string& device) {
  std::vector<std::string> points;
  std::ifstream in("/proc/self/mounts");
  std::string source, point, rest;
  while (in >> source >> point && std::getline(in, rest)) {
    if (source == device) points.push_back(point);
  }
  return points;
}

// Returns false when the file system stays in use after all: a file left
// open by a failed test must not keep the mount, so it is detached lazily and
// the kernel releases the device once that file is closed.
bool Unmount(const std::string& point) {
  if (umount2(point.c_str(), 0) == 0 || errno != EBUSY) return true;
  umount2(point.c_str(), MNT_DETACH);
  return false;
}

// Detaches `device`; with `wait`, until the kernel has let go of it.
void Detach(const std::string& device, bool wait) {
  int fd = open(device.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ioctl(fd, LOOP_CLR_FD, 0);  // ENXIO: already detached by autoclear
    close(fd);
  }
  std::string backing = "/sys/block/" + fs::path(device).filename().string() + "/loop";
  for (int i = 0; wait && i < 200 && access(backing.c_str(), F_OK) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// From now on the kernel detaches the device itself when its last user (the
// mount) goes away, so a killed test leaves no attached device behind.
void SetAutoclear(const std::string& device) {
  int fd = open(device.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  loop_info64 info{};
  if (ioctl(fd, LOOP_GET_STATUS64, &info) == 0) {
    info.lo_flags |= LO_FLAGS_AUTOCLEAR;
    ioctl(fd, LOOP_SET_STATUS64, &info);
  }
  close(fd);
}

void Release(const std::string& image) {
  for (const auto& device : DevicesBackedBy(image)) {
    auto points = MountsOf(device);
    bool released = true;
    for (auto it = points.rbegin(); it != points.rend(); ++it) released &= Unmount(*it);
    Detach(device, released);
  }
  unlink(image.c_str());
}

}  // namespace

std::string LoopVolumeUnsupported(VolumeType type) {
  std::string fstype = FsName(type);
  if (access("/dev/loop-control", F_OK) != 0) {
    RunProcess({FindTool("modprobe"), "loop"});
    if (access("/dev/loop-control", F_OK) != 0) return "no loop devices (/dev/loop-control)";
  }
  if (FindTool("losetup").empty()) return "losetup is not installed";
  if (FindTool("mkfs." + fstype).empty()) return "mkfs." + fstype + " is not installed";
  if (!KernelKnows(fstype)) {
    std::string modprobe = FindTool("modprobe");
    if (!modprobe.empty()) RunProcess({modprobe, fstype});
    if (!KernelKnows(fstype)) return "the kernel cannot mount " + fstype;
  }
  return "";
}

std::unique_ptr<LoopVolume> LoopVolume::Create(VolumeType type, int size_mb,
                                               const std::string& mountpoint, std::string* error) {
  RemoveStaleLoopVolumes();
  std::string fstype = FsName(type);
  std::unique_ptr<LoopVolume> volume(new LoopVolume());
  volume->mountpoint_ = mountpoint;
  auto fail = [&](const std::string& why) {
    *error = why;
    return nullptr;  // ~LoopVolume undoes what was done so far
  };

  std::string pattern = std::string(kLoopImagePrefix) + "XXXXXX.img";
  int fd = mkstemps(pattern.data(), 4);
  if (fd < 0) return fail("cannot create an image under /var/tmp: " + std::string(strerror(errno)));
  volume->image_ = pattern;
  int rc = ftruncate(fd, static_cast<off_t>(size_mb) << 20);  // sparse
  close(fd);
  if (rc != 0) return fail("cannot size the image: " + std::string(strerror(errno)));

  std::string mkfs = FindTool("mkfs." + fstype);
  if (mkfs.empty()) return fail("mkfs." + fstype + " is not installed");
  std::vector<std::string> mkfs_args = {mkfs, "-q", type == VolumeType::kExt4 ? "-F" : "-f",
                                        volume->image_};
  auto made = RunProcess(mkfs_args);
  if (made.exit_status != 0) return fail("mkfs." + fstype + " failed: " + made.err);

  auto attached = RunProcess({FindTool("losetup"), "--find", "--show", volume->image_});
  if (attached.exit_status != 0) return fail("losetup failed: " + attached.err);
  volume->device_ = Trim(attached.out);

  std::error_code ec;
  fs::create_directories(mountpoint, ec);
  if (mount(volume->device_.c_str(), mountpoint.c_str(), fstype.c_str(), 0, nullptr) != 0) {
    return fail("cannot mount " + fstype + " on " + mountpoint + ": " + strerror(errno));
  }
  volume->mounted_ = true;
  SetAutoclear(volume->device_);
  return volume;
}

LoopVolume::~LoopVolume() {
  bool released = mounted_ ? Unmount(mountpoint_) : true;
  if (!device_.empty()) Detach(device_, released);
  if (!image_.empty()) unlink(image_.c_str());
}

int RemoveStaleLoopVolumes(long max_age_s) {
  fs::path prefix(kLoopImagePrefix);
  std::string stem = prefix.filename();
  int removed = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(prefix.parent_path(), ec)) {
    std::string name = entry.path().filename();
    if (name.rfind(stem, 0) != 0) continue;
    struct stat st {};
    if (lstat(entry.path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (time(nullptr) - st.st_mtime < max_age_s) continue;
    Release(entry.path());
    ++removed;
  }
  return removed;
}

}  // namespace tptest
