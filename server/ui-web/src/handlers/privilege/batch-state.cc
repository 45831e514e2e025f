#include "batch-state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logger.h"

namespace privilege {
namespace {

// A file in /tmp that root may trust: a regular file of root's, opened
// without following a link.
int OpenRootFile(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
    LOG_ERROR("%s is not a regular file of this service's; refused\n", path);
    close(fd);
    return -1;
  }
  return fd;
}

// Only a segment this service made holds a batch's state: another user
// could otherwise make one at the key first and forge the progress.
bool OwnSegment(int id) {
  shmid_ds info{};
  return shmctl(id, IPC_STAT, &info) == 0 && info.shm_perm.uid == geteuid() &&
         info.shm_perm.cuid == geteuid() && (info.shm_perm.mode & 077) == 0;
}

}  // namespace

BatchLock::BatchLock() {
  fd_ = OpenRootFile(kBatchLockPath);
  if (fd_ < 0) return;
  if (flock(fd_, LOCK_EX) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

BatchLock::~BatchLock() {
  if (fd_ < 0) return;
  flock(fd_, LOCK_UN);
  close(fd_);
}

int BatchLock::Key() const {
  struct stat st {};
  if (lstat(kBatchKeyPath, &st) != 0) {
    const int fd = OpenRootFile(kBatchKeyPath);
    if (fd < 0) return -1;
    close(fd);
  } else if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
    LOG_ERROR("%s is not a regular file of this service's; refused\n", kBatchKeyPath);
    return -1;
  }
  const key_t key = ftok(kBatchKeyPath, kBatchKeyProject);
  return key == static_cast<key_t>(-1) ? -1 : static_cast<int>(key);
}

int WriteBatchState(const std::string& mode, int done, int total) {
  BatchLock lock;
  if (!lock.locked()) return -1;
  const int key = lock.Key();
  if (key == -1) return -1;
  const int id = shmget(static_cast<key_t>(key), kBatchSegmentSize, IPC_CREAT | 0600);
  if (id < 0 || !OwnSegment(id)) return -1;
  void* segment = shmat(id, nullptr, 0);
  if (segment == reinterpret_cast<void*>(-1)) return -1;
  snprintf(static_cast<char*>(segment), kBatchSegmentSize, "%s %d %d", mode.c_str(), done, total);
  shmdt(segment);
  return 0;
}

int ReadBatchState(BatchState& out) {
  BatchLock lock;
  if (!lock.locked()) return 0;
  const int key = lock.Key();
  if (key == -1) return 0;
  // Asked for more than the segment holds, Linux refuses with EINVAL; size 0
  // takes the segment as it is.
  int id = shmget(static_cast<key_t>(key), 8192, 0);
  if (id < 0 && errno == EINVAL) id = shmget(static_cast<key_t>(key), 0, 0);
  if (id < 0 || !OwnSegment(id)) return 0;
  const void* segment = shmat(id, nullptr, SHM_RDONLY);
  if (segment == reinterpret_cast<void*>(-1)) return 0;
  char text[kBatchSegmentSize + 1];
  memcpy(text, segment, kBatchSegmentSize);
  text[kBatchSegmentSize] = '\0';
  shmdt(segment);
  char mode[kBatchSegmentSize + 1];
  BatchState state;
  if (sscanf(text, "%1024s %d %d", mode, &state.done, &state.total) != 3) return 0;
  state.mode = mode;
  out = std::move(state);
  return 1;
}

int RemoveBatchState() {
  BatchLock lock;
  if (!lock.locked()) {
    LOG_ERROR("open fail\n");
    return -1;
  }
  const int key = lock.Key();
  const int id = key == -1 ? -1 : shmget(static_cast<key_t>(key), kBatchSegmentSize, 0);
  if (id < 0) {
    LOG_ERROR("get id fail\n");
    return -1;
  }
  if (shmctl(id, IPC_RMID, nullptr) != 0) {
    LOG_ERROR("delete fail\n");
    return -1;
  }
  return 0;
}

}  // namespace privilege
