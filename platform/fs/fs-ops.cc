// Plain file-system operations. Each answers -1 with errno from the failing
// system call, so a full volume (ENOSPC, EDQUOT) reaches the caller as such.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "fs.h"

namespace {

int TypeOf(mode_t mode) {
  if (S_ISREG(mode)) return kFSTypeFile;
  if (S_ISDIR(mode)) return kFSTypeDir;
  if (S_ISLNK(mode)) return kFSTypeSymlink;
  return 0;
}

// Makes one folder; an existing folder is fine, anything else in its place
// is EEXIST.
int MakeOne(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) return 0;
  if (errno != EEXIST) return -1;
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return 0;
  errno = EEXIST;
  return -1;
}

// Makes every missing folder of `path` after its first `keep` characters
// (which end at a component boundary).
int MakeBelow(const std::string& path, size_t keep) {
  size_t pos = keep;
  while (pos < path.size()) {
    size_t next = path.find('/', pos + 1);
    if (next == std::string::npos) next = path.size();
    const std::string prefix = path.substr(0, next);
    pos = next;
    if (prefix.empty() || prefix.back() == '/') continue;  // doubled slashes
    if (MakeOne(prefix) < 0) return -1;
  }
  return 0;
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

int FSStat(const std::string& path, FSInfo& info, bool no_follow) {
  struct stat st {};
  const int rc = no_follow ? lstat(path.c_str(), &st) : stat(path.c_str(), &st);
  if (rc != 0) {
    // ENOTDIR: a file stands where a folder of the path should be, so
    // nothing can be there either.
    if (errno != ENOENT && errno != ENOTDIR) return -1;
    info = FSInfo();
    return 0;
  }
  info.exists = true;
  info.type = TypeOf(st.st_mode);
  info.uid = st.st_uid;
  info.gid = st.st_gid;
  info.mode = st.st_mode & 07777;
  info.size = static_cast<uint64_t>(st.st_size);
  info.mtime = st.st_mtim.tv_sec;
  return 0;
}

bool IsFileExist(const std::string& path, bool no_follow) {
  FSInfo info;
  return FSStat(path, info, no_follow) == 0 && info.exists;
}

int FSMKDirFromRoot(const std::string& path, const std::string& root) {
  const std::string top = WithoutTrailingSlashes(root);
  const std::string target = WithoutTrailingSlashes(path);
  if (top.empty() || top[0] != '/' || target.compare(0, top.size(), top) != 0) {
    errno = EINVAL;
    return -1;
  }
  if (target.size() == top.size()) {
    // Nothing to make: the root is never created, only found.
    struct stat st {};
    if (stat(target.c_str(), &st) != 0) return -1;
    if (S_ISDIR(st.st_mode)) return 0;
    errno = ENOTDIR;
    return -1;
  }
  if (top != "/" && target[top.size()] != '/') {
    errno = EINVAL;  // "/a/bc" is not below "/a/b"
    return -1;
  }
  return MakeBelow(target, top == "/" ? 0 : top.size());
}

int FSMKDir(const std::string& path, bool parents) {
  const std::string target = WithoutTrailingSlashes(path);
  if (target.empty()) {
    errno = ENOENT;
    return -1;
  }
  if (!parents) return MakeOne(target);
  return MakeBelow(target, 0);
}

int FSChown(const std::string& path, uint32_t uid, uint32_t gid) {
  return lchown(path.c_str(), uid, gid) == 0 ? 0 : -1;
}

int FSUTime(const std::string& path, int64_t atime, int64_t mtime) {
  const timespec times[2] = {{static_cast<time_t>(atime), 0}, {static_cast<time_t>(mtime), 0}};
  return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : -1;
}

int FSMktemp(const std::string& dir, std::string& out) {
  std::string name = dir + "/.tidepool-tmp.XXXXXX";
  std::vector<char> buf(name.begin(), name.end());
  buf.push_back('\0');
  const int fd = mkostemp(buf.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) return -1;
  if (close(fd) != 0) {
    const int saved = errno;
    unlink(buf.data());
    errno = saved;
    return -1;
  }
  out = buf.data();
  return 0;
}

int FSCreateSymbolicLink(const std::string& target, const std::string& path) {
  return symlink(target.c_str(), path.c_str()) == 0 ? 0 : -1;
}

int FSRemove(const std::string& path, bool recursive) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode)) return unlink(path.c_str()) == 0 ? 0 : -1;
  if (!recursive) return rmdir(path.c_str()) == 0 ? 0 : -1;
  // remove_all never follows links, so a link to a folder outside the tree
  // only loses the link.
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  if (ec) {
    errno = ec.value();
    return -1;
  }
  return 0;
}
