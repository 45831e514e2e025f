// Volumes: the host's registry says which ones exist and what they are for;
// the mount table says whether one is there now, read-only, and how full.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "host-accounts.h"
#include "sdk.h"

namespace {

// statvfs of a directory that really is there (a link is not a volume).
bool StatVolume(const std::string& path, struct statvfs& fs) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  return statvfs(path.c_str(), &fs) == 0;
}

}  // namespace

namespace SDK {

int VolumeService::List(std::vector<Volume>& out) const {
  std::vector<hostaccounts::Volume> registered;
  if (hostaccounts::LookUpVolumes(registered) < 0) return -1;
  std::vector<Volume> volumes;
  for (const auto& entry : registered) {
    struct statvfs fs {};
    if (!StatVolume(entry.path, fs)) continue;
    Volume volume;
    volume.id = entry.id;
    volume.mount_point = entry.path;
    volume.display = "Volume " + std::to_string(entry.id);
    volume.desc = entry.description;
    volume.size_free = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    volume.size_total = static_cast<uint64_t>(fs.f_blocks) * fs.f_frsize;
    volumes.push_back(std::move(volume));
  }
  out.swap(volumes);
  return 0;
}

}  // namespace SDK

int KSTXMountVolInfoGet(const std::string& path, KSTXMountVolInfo& out) {
  out = KSTXMountVolInfo();
  std::vector<hostaccounts::Volume> registered;
  if (hostaccounts::LookUpVolumes(registered) < 0) return -1;
  for (const auto& entry : registered) {
    if (entry.path != path) continue;
    struct statvfs fs {};
    if (!StatVolume(entry.path, fs)) return 0;
    out.volume_present = 1;
    out.volume_type = entry.type;
    out.volume_writable = entry.writable && (fs.f_flag & ST_RDONLY) == 0;
    out.volume_free_bytes = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    out.volume_total_bytes = static_cast<uint64_t>(fs.f_blocks) * fs.f_frsize;
    return 0;
  }
  return 0;
}
