#include "private-files.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tpsys {
namespace {

// Narrows `path` to `mode` when it is ours (the process's euid) and of the
// expected kind; links and other people's files are left alone.
void Narrow(const std::string& path, bool dir, mode_t mode) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || st.st_uid != geteuid()) return;
  if (dir ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode)) return;
  if ((st.st_mode & 07777) != mode) chmod(path.c_str(), mode);
}

int NarrowEntry(const char* path, const struct stat* st, int type, FTW*) {
  if (st->st_uid != geteuid()) return 0;
  const mode_t want = type == FTW_D || type == FTW_DP         ? kPrivateDirMode
                      : type == FTW_F && S_ISREG(st->st_mode) ? kPrivateFileMode
                                                              : 0;
  if (want != 0 && (st->st_mode & 07777) != want) chmod(path, want);
  return 0;
}

}  // namespace

int MakePrivateDir(const std::string& dir) {
  if (dir.empty()) {
    errno = EINVAL;
    return -1;
  }
  // The folder nearly always exists already: one call, and the walk down
  // from the top only when a parent is missing too.
  if (mkdir(dir.c_str(), kPrivateDirMode) != 0 && errno == ENOENT) {
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
      const std::string part = dir.substr(0, slash);
      if (mkdir(part.c_str(), kPrivateDirMode) != 0 && errno != EEXIST) return -1;
      if (slash == std::string::npos) break;
    }
  }
  Narrow(dir, true, kPrivateDirMode);
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  return 0;
}

int PreparePrivateDatabase(const std::string& path, bool create) {
  // One open and one fstat: requests open their databases every time.
  const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | (create ? O_CREAT : 0);
  const int fd = open(path.c_str(), flags, kPrivateFileMode);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
      (st.st_mode & 07777) != kPrivateFileMode) {
    (void)fchmod(fd, kPrivateFileMode);
  }
  close(fd);
  return 0;
}

int SecureRepository(const std::string& repository) {
  struct stat st;
  if (lstat(repository.c_str(), &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    errno = EPERM;
    return -1;
  }
  // The mark says the walk was made; a repository made by this version
  // never needs it, but cannot tell itself apart from an old one without.
  const std::string mark = repository + "/.private";
  if (access(mark.c_str(), F_OK) == 0) return 0;
  if (nftw(repository.c_str(), NarrowEntry, 16, FTW_PHYS | FTW_MOUNT) != 0) return -1;
  const int fd = open(mark.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kPrivateFileMode);
  if (fd < 0) return -1;
  close(fd);
  return 0;
}

}  // namespace tpsys
