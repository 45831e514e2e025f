// Real file systems of limited size for tests: a sparse image under /var/tmp,
// formatted, attached to a loop device and mounted where the test wants it
// (inside a sandbox, over /volume2 for instance, which only that test sees).
//
// A volume lives as long as its object: destruction unmounts it, detaches the
// loop device and deletes the image, also when the test body failed and
// returned early. A run killed outright leaves at most an image whose loop
// device detaches itself once the mount is gone (the mount namespace of a
// sandbox dies with its test); RemoveStaleLoopVolumes() removes such images.
#pragma once

#include <memory>
#include <string>

namespace tptest {

enum class VolumeType { kExt4, kBtrfs };

// Where images go, and the start of their names.
inline constexpr const char* kLoopImagePrefix = "/var/tmp/tidepool-loop-";

class LoopVolume {
 public:
  // Creates a `size_mb` MiB volume of `type` and mounts it on `mountpoint`
  // (created when missing). Returns null with `*error` set when any step
  // fails; whatever was set up by then is undone. btrfs needs about 114 MiB.
  static std::unique_ptr<LoopVolume> Create(VolumeType type, int size_mb,
                                            const std::string& mountpoint, std::string* error);
  ~LoopVolume();
  LoopVolume(const LoopVolume&) = delete;
  LoopVolume& operator=(const LoopVolume&) = delete;

  const std::string& mountpoint() const { return mountpoint_; }
  const std::string& device() const { return device_; }  // e.g. /dev/loop3
  const std::string& image() const { return image_; }

 private:
  LoopVolume() = default;
  std::string mountpoint_, device_, image_;
  bool mounted_ = false;
};

// Empty when volumes of `type` can be made and mounted here; otherwise the
// reason (missing mkfs tool, file system unknown to the kernel, no loop
// devices), fit for a GTEST_SKIP message.
std::string LoopVolumeUnsupported(VolumeType type);

// Deletes images under /var/tmp named like ours and older than `max_age_s`
// seconds, after unmounting and detaching the loop devices still backed by
// them. Younger ones may belong to a run in progress and are left alone.
// Returns how many images were removed.
int RemoveStaleLoopVolumes(long max_age_s = 3600);

}  // namespace tptest
