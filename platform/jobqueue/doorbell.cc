#include "doorbell.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "logger.h"

namespace tidepool::core::job_queue {

Doorbell::~Doorbell() {
  if (inotify_fd_ >= 0) close(inotify_fd_);
}

int Doorbell::OpenBell() {
  const int fd =
      open(path_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) {
    LOG_WARNING("cannot open the job queue's bell %s: %m\n", path_.c_str());
    return -1;
  }
  struct stat st;
  // Anyone who could replace the bell must not choose what Push opens.
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0) {
    LOG_WARNING("the job queue's bell %s is not a regular file of root's\n", path_.c_str());
    close(fd);
    return -1;
  }
  return fd;
}

int Doorbell::Ring() {
  const int fd = OpenBell();
  if (fd < 0) return -1;
  // Nothing is written: closing a descriptor opened for writing is the
  // IN_CLOSE_WRITE the watchers wait for.
  close(fd);
  return 0;
}

int Doorbell::Fd() {
  if (inotify_fd_ >= 0) return inotify_fd_;
  // The watch needs the file; making it here also checks its form once.
  const int bell = OpenBell();
  if (bell < 0) return -1;
  close(bell);
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return -1;
  if (inotify_add_watch(fd, path_.c_str(), IN_CLOSE_WRITE | IN_DONT_FOLLOW) < 0) {
    LOG_WARNING("cannot watch the job queue's bell %s: %m\n", path_.c_str());
    close(fd);
    return -1;
  }
  inotify_fd_ = fd;
  return fd;
}

void Doorbell::Drain() {
  if (inotify_fd_ < 0) return;
  alignas(struct inotify_event) char buffer[4096];
  while (read(inotify_fd_, buffer, sizeof buffer) > 0) {
  }
}

}  // namespace tidepool::core::job_queue
