#include "stream-output.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace tparchive {

const unsigned char kEmptyZip[22] = {'P', 'K', 5, 6};

int OpenFolder(const std::string& folder) {
  if (folder.empty() || folder[0] != '/') {
    errno = EINVAL;
    return -1;
  }
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  int fd = static_cast<int>(syscall(SYS_openat2, AT_FDCWD, folder.c_str(), &how, sizeof(how)));
  // Kernels before openat2 still refuse a link as the last component.
  if (fd < 0 && errno == ENOSYS)
    fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return fd;
}

int IsEmptyFolder(int dir_fd) {
  const int fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  int empty = 1;
  errno = 0;
  while (const dirent* e = readdir(dir)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
      empty = 0;
      break;
    }
  }
  const int saved = errno;
  closedir(dir);
  if (empty == 1 && saved != 0) {
    errno = saved;
    return -1;
  }
  return empty;
}

int HasSymlink(int dir_fd) {
  const int fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return -1;
  }
  int found = 0;
  while (const dirent* e = readdir(dir)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    struct stat st;
    if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISLNK(st.st_mode)) {
      found = 1;
    } else if (S_ISDIR(st.st_mode)) {
      const int sub = openat(fd, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub < 0) continue;
      found = HasSymlink(sub);
      close(sub);
    }
    if (found != 0) break;
  }
  closedir(dir);
  return found;
}

bool IsUnicode(const std::string& codepage) {
  std::string lower;
  for (char c : codepage) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower.empty() || lower == "unicode" || lower == "utf-8" || lower == "utf8";
}

int WriteAll(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, p, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

void TryGrowPipe(int fd, int bytes) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) (void)fcntl(fd, F_SETPIPE_SZ, bytes);
}

SigpipeHold::SigpipeHold() {
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  sigset_t pending;
  sigemptyset(&pending);
  was_pending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipe_only, &old_mask_);
}

SigpipeHold::~SigpipeHold() {
  const int saved = errno;
  if (!was_pending_) {
    sigset_t pipe_only;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    const timespec now{0, 0};
    while (sigtimedwait(&pipe_only, nullptr, &now) == SIGPIPE) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
  errno = saved;
}

OutputBuffer::OutputBuffer(int fd, size_t capacity)
    : fd_(fd), capacity_(capacity), buffer_(new char[capacity]) {}

int OutputBuffer::Write(const void* data, size_t size) {
  if (used_ + size > capacity_ && Flush() != 0) return -1;
  if (size >= capacity_) {
    if (WriteAll(fd_, data, size) != 0) return -1;
  } else {
    memcpy(buffer_.get() + used_, data, size);
    used_ += size;
  }
  total_ += static_cast<off_t>(size);
  return 0;
}

int OutputBuffer::Flush() {
  if (used_ == 0) return 0;
  const int rc = WriteAll(fd_, buffer_.get(), used_);
  used_ = 0;
  return rc;
}

}  // namespace tparchive
