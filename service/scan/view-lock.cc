#include "view-lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "logger.h"
#include "private-files.h"

namespace scan {

ViewLock::~ViewLock() {
  if (fd_ >= 0) close(fd_);
}

int ViewLock::Acquire(const std::string& connect, uint64_t view_id) {
  const std::string dir = connect + "/views";
  if (tpsys::MakePrivateDir(dir) < 0) return -1;
  const std::string path = dir + "/" + std::to_string(view_id) + ".lock";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0) {
    LOG_ERROR("cannot use the lock of view %llu (%s)\n", static_cast<unsigned long long>(view_id),
              fd < 0 ? strerror(errno) : "not a root-owned file");
    if (fd >= 0) close(fd);
    return -1;
  }
  int rc;
  while ((rc = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
  }
  if (rc != 0) {
    close(fd);
    return -1;
  }
  fd_ = fd;
  return 0;
}

}  // namespace scan
