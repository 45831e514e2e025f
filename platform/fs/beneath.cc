// Path resolution beneath a folder: one openat2 call per path with
// RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS, so the
// kernel refuses "..", absolute links and any symlink on the way, and a
// folder swapped for a link between two calls is refused too.
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <dirent.h>

#include <cstring>
#include <vector>

#include "fs-beneath.h"

namespace fsb {

namespace {

BeneathHook g_make_dirs_hook = nullptr;

int OpenAt2(int dir_fd, const char* path, int flags, mode_t mode, uint64_t resolve) {
  struct open_how how {};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & (O_CREAT | O_TMPFILE)) ? mode : 0;
  how.resolve = resolve;
  for (;;) {
    const long fd = syscall(SYS_openat2, dir_fd, path, &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    // The kernel asks for a retry when a rename raced the walk.
    if (errno != EAGAIN && errno != EINTR) return -1;
  }
}

constexpr uint64_t kBeneath = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;

// "" names the folder itself; leading and doubled slashes are dropped so
// that RESOLVE_BENEATH sees a relative path.
std::string Clean(const std::string& rel) {
  std::string out;
  size_t i = 0;
  while (i < rel.size()) {
    while (i < rel.size() && rel[i] == '/') ++i;
    const size_t end = rel.find('/', i);
    const size_t stop = end == std::string::npos ? rel.size() : end;
    if (stop > i) {
      if (!out.empty()) out += '/';
      out.append(rel, i, stop - i);
    }
    i = stop;
  }
  return out.empty() ? "." : out;
}

}  // namespace

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool IsPlainRelative(const std::string& rel) {
  size_t i = 0;
  while (i < rel.size()) {
    while (i < rel.size() && rel[i] == '/') ++i;
    const size_t end = rel.find('/', i);
    const size_t stop = end == std::string::npos ? rel.size() : end;
    if (stop > i && !IsPlainName(rel.substr(i, stop - i))) return false;
    i = stop;
  }
  return rel.find('\0') == std::string::npos;
}

int OpenNoSymlinks(const std::string& path, int flags) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  return OpenAt2(AT_FDCWD, path.c_str(), flags, 0, RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS);
}

int OpenBeneath(int root_fd, const std::string& rel, int flags, mode_t mode) {
  if (!IsPlainRelative(rel)) {
    errno = EXDEV;
    return -1;
  }
  return OpenAt2(root_fd, Clean(rel).c_str(), flags, mode, kBeneath);
}

int MakeDirsBeneath(int root_fd, const std::string& rel, uid_t uid, gid_t gid, mode_t mode) {
  if (!IsPlainRelative(rel)) {
    errno = EXDEV;
    return -1;
  }
  const int whole = OpenBeneath(root_fd, rel, O_DIRECTORY | O_RDONLY);
  if (whole >= 0 || errno != ENOENT) return whole;
  // Walk one component at a time from the root, each step from the
  // descriptor of the last, so no folder is ever reached through a link.
  UniqueFd dir(fcntl(root_fd, F_DUPFD_CLOEXEC, 0));
  if (!dir.valid()) return -1;
  const std::string clean = Clean(rel);
  size_t i = 0;
  while (i < clean.size()) {
    const size_t end = clean.find('/', i);
    const size_t stop = end == std::string::npos ? clean.size() : end;
    const std::string name = clean.substr(i, stop - i);
    i = stop + 1;
    int next = OpenAt2(dir.get(), name.c_str(), O_DIRECTORY | O_RDONLY, 0, kBeneath);
    if (next < 0 && errno == ENOENT) {
      if (g_make_dirs_hook != nullptr) g_make_dirs_hook(dir.get(), name);
      if (mkdirat(dir.get(), name.c_str(), mode) == 0) {
        next = OpenAt2(dir.get(), name.c_str(), O_DIRECTORY | O_RDONLY, 0, kBeneath);
        if (next >= 0 && fchown(next, uid, gid) != 0 && errno != EPERM) {
          const int err = errno;
          close(next);
          errno = err;
          return -1;
        }
      } else if (errno == EEXIST) {
        next = OpenAt2(dir.get(), name.c_str(), O_DIRECTORY | O_RDONLY, 0, kBeneath);
      }
    }
    if (next < 0) return -1;
    dir.reset(next);
  }
  return dir.release();
}

namespace {

// Each level holds one descriptor while its children go.
constexpr int kMaxRemoveDepth = 256;

// The names a folder holds, read before any is removed: removing while
// reading may make readdir skip entries.
int ListNames(int dir_fd, std::vector<std::string>& names) {
  const int copy = fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return -1;
  DIR* dir = fdopendir(copy);
  if (dir == nullptr) {
    close(copy);
    return -1;
  }
  errno = 0;
  while (const dirent* entry = readdir(dir)) {
    if (IsPlainName(entry->d_name)) names.emplace_back(entry->d_name);
  }
  const int err = errno;
  closedir(dir);
  errno = err;
  return err == 0 ? 0 : -1;
}

int RemoveTreeAtDepth(int dir_fd, const std::string& name, dev_t device, int depth) {
  // A folder swapped for a link between the two calls below is met again
  // as a link and unlinked; the loop is bounded in case it keeps changing.
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (unlinkat(dir_fd, name.c_str(), 0) == 0) return 0;
    if (errno != EISDIR) return -1;
    UniqueFd dir(openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.valid()) {
      if (errno == ELOOP || errno == ENOTDIR) continue;
      return -1;
    }
    struct stat st {};
    if (fstat(dir.get(), &st) != 0) return -1;
    if (st.st_dev != device) {
      errno = EXDEV;
      return -1;
    }
    if (depth >= kMaxRemoveDepth) {
      errno = ENAMETOOLONG;
      return -1;
    }
    std::vector<std::string> names;
    if (ListNames(dir.get(), names) < 0) return -1;
    for (const auto& child : names) {
      if (RemoveTreeAtDepth(dir.get(), child, device, depth + 1) < 0 && errno != ENOENT) {
        return -1;
      }
    }
    if (unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR) == 0) return 0;
    if (errno != ENOTDIR) return -1;
  }
  errno = EAGAIN;
  return -1;
}

}  // namespace

int RemoveTreeAt(int dir_fd, const std::string& name) {
  if (!IsPlainName(name)) {
    errno = EINVAL;
    return -1;
  }
  struct stat st {};
  if (fstat(dir_fd, &st) != 0) return -1;
  return RemoveTreeAtDepth(dir_fd, name, st.st_dev, 0);
}

int RemovePathNoSymlinks(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (path.empty() || path[0] != '/' || slash == std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
  UniqueFd dir(OpenNoSymlinks(parent, O_RDONLY | O_DIRECTORY));
  if (!dir.valid()) return -1;
  return RemoveTreeAt(dir.get(), path.substr(slash + 1));
}

std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

void TEST_SetMakeDirsHook(BeneathHook hook) { g_make_dirs_hook = hook; }

}  // namespace fsb
