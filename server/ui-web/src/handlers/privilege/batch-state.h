// The state of a running privilege batch: a System V segment of 1024 bytes
// holding "<mode> <done> <total>", keyed by ftok of a key file and guarded
// by an exclusive flock of a lock file, both at fixed paths in /tmp. The
// segment exists while a batch runs; its absence means none does.
#pragma once

#include <string>

namespace privilege {

constexpr const char* kBatchLockPath = "/tmp/dftw_batch_all";
constexpr const char* kBatchKeyPath = "/tmp/dftw_batch_shm";
constexpr int kBatchKeyProject = 83;
constexpr size_t kBatchSegmentSize = 1024;

struct BatchState {
  std::string mode;  // "enable_all", "disable_all" or "normal"
  int done = 0;
  int total = 0;
};

// The lock file opened and locked for one access to the segment; released
// and closed at the end of the scope. Files under /tmp may have been put
// there by anyone: only root's regular files, reached without a link, are
// used.
class BatchLock {
 public:
  BatchLock();
  ~BatchLock();
  BatchLock(const BatchLock&) = delete;
  BatchLock& operator=(const BatchLock&) = delete;
  bool locked() const { return fd_ >= 0; }
  // The segment's key, the key file made when missing; -1 when it cannot be
  // had.
  int Key() const;

 private:
  int fd_ = -1;
};

// Writes the state into the segment, made when missing. 0, or -1.
int WriteBatchState(const std::string& mode, int done, int total);
// Reads the state: 1 with `out` while a batch runs, 0 when none does or the
// state cannot be read.
int ReadBatchState(BatchState& out);
// Removes the segment at the end of a batch. 0, or -1 (logged).
int RemoveBatchState();

}  // namespace privilege
