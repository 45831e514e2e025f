// Serialises the writers of one view across processes: a scan and a purge
// of the same view never run interleaved. An exclusive lock on
// "<connect>/views/<view id>.lock", inside the root-only repository; the
// lock goes with the process however it ends.
#pragma once

#include <cstdint>
#include <string>

namespace scan {

class ViewLock {
 public:
  ViewLock() = default;
  ~ViewLock();
  ViewLock(const ViewLock&) = delete;
  ViewLock& operator=(const ViewLock&) = delete;

  // Waits for the lock; 0, or negative when the lock file cannot be used.
  int Acquire(const std::string& connect, uint64_t view_id);

 private:
  int fd_ = -1;
};

}  // namespace scan
