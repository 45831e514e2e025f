// Small helpers shared by the file utilities: an owned descriptor and
// complete writes.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace fileutil {

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = other.fd_;
      other.fd_ = -1;
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  bool ok() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // Closes now, reporting the error of close (a late ENOSPC shows here).
  int close() {
    int fd = fd_;
    fd_ = -1;
    return fd >= 0 ? ::close(fd) : 0;
  }

 private:
  int fd_;
};

// Writes all of `data`; -1 with errno on failure.
inline int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// Reads the whole of a file into `out`, at most `limit` bytes (EFBIG beyond).
int ReadWhole(const std::string& path, std::string& out, size_t limit);

}  // namespace fileutil
