// FSRenameWithEA: a rename that keeps extended attributes also when it has
// to cross file systems, where it becomes copy, replace, remove.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "fd.h"
#include "file-util.h"

namespace {

int CopyData(const std::string& src, int out) {
  fileutil::Fd in(open(src.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.ok()) return -1;
  constexpr size_t kBlock = 1 << 20;
  std::unique_ptr<char[]> buf(new char[kBlock]);
  for (;;) {
    ssize_t n = read(in.get(), buf.get(), kBlock);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return 0;
    if (fileutil::WriteAll(out, buf.get(), static_cast<size_t>(n)) < 0) return -1;
  }
}

// Copies every extended attribute. Only user.* ones must arrive: the others
// (security labels, ACLs) may be refused by the target file system.
int CopyXattrs(const std::string& src, const std::string& dst) {
  ssize_t size = llistxattr(src.c_str(), nullptr, 0);
  if (size < 0) return errno == ENOTSUP ? 0 : -1;
  std::string names(static_cast<size_t>(size), '\0');
  size = llistxattr(src.c_str(), names.data(), names.size());
  if (size < 0) return -1;
  names.resize(static_cast<size_t>(size));
  for (size_t pos = 0; pos < names.size();) {
    std::string name = names.c_str() + pos;
    pos += name.size() + 1;
    ssize_t len = lgetxattr(src.c_str(), name.c_str(), nullptr, 0);
    if (len < 0) return -1;
    std::string value(static_cast<size_t>(len), '\0');
    len = lgetxattr(src.c_str(), name.c_str(), value.data(), value.size());
    if (len < 0) return -1;
    if (lsetxattr(dst.c_str(), name.c_str(), value.data(), static_cast<size_t>(len), 0) < 0 &&
        name.compare(0, 5, "user.") == 0)
      return -1;
  }
  return 0;
}

// Builds the copy of `src` at `tmp` (which does not exist yet).
int CopyEntry(const std::string& src, const struct stat& st, const std::string& tmp) {
  if (S_ISLNK(st.st_mode)) {
    char target[PATH_MAX + 1];
    ssize_t n = readlink(src.c_str(), target, PATH_MAX);
    if (n < 0) return -1;
    target[n] = '\0';
    if (symlink(target, tmp.c_str()) < 0) return -1;
  } else {
    fileutil::Fd out(open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!out.ok()) return -1;
    if (CopyData(src, out.get()) < 0 || out.close() < 0) return -1;
  }
  if (CopyXattrs(src, tmp) < 0) return -1;
  // Owner before mode: chown clears set-id bits.
  if (lchown(tmp.c_str(), st.st_uid, st.st_gid) < 0 && errno != EPERM) return -1;
  if (!S_ISLNK(st.st_mode) && chmod(tmp.c_str(), st.st_mode & 07777) < 0) return -1;
  struct timespec times[2] = {st.st_atim, st.st_mtim};
  utimensat(AT_FDCWD, tmp.c_str(), times, AT_SYMLINK_NOFOLLOW);
  return 0;
}

}  // namespace

int FSRenameWithEA(const std::string& src, const std::string& dst) {
  if (rename(src.c_str(), dst.c_str()) == 0) return 0;
  if (errno != EXDEV) return -1;
  struct stat st {};
  if (lstat(src.c_str(), &st) < 0) return -1;
  if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
    errno = EXDEV;
    return -1;
  }
  // A name beside dst, so the final step is a rename within its file system.
  std::string tmp = dst + ".tidepool-mv." + std::to_string(getpid());
  unlink(tmp.c_str());
  if (CopyEntry(src, st, tmp) < 0 || rename(tmp.c_str(), dst.c_str()) < 0) {
    int saved = errno;
    unlink(tmp.c_str());
    errno = saved;
    return -1;
  }
  return unlink(src.c_str());
}
