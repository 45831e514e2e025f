// What both zip writers share: opening the folder, holding SIGPIPE back while
// writing, and buffered writes to a pipe or a socket.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace tparchive {

// The folder at the absolute path `folder`, opened as a directory with no
// symbolic link followed anywhere on the path. A descriptor, or -1 with errno.
int OpenFolder(const std::string& folder);

// Whether the folder behind `dir_fd` has no entries; -1 with errno when it
// cannot be read.
int IsEmptyFolder(int dir_fd);

// Whether `codepage` asks for names in UTF-8 ("unicode", empty, "utf-8").
bool IsUnicode(const std::string& codepage);

// Whether the tree behind `dir_fd` holds a symbolic link anywhere; -1 with
// errno when a folder of it cannot be read.
int HasSymlink(int dir_fd);

// Writes all of `data`; 0, or -1 with errno.
int WriteAll(int fd, const void* data, size_t size);

// Asks for a bigger pipe buffer when `fd` is a pipe; failure changes nothing.
void TryGrowPipe(int fd, int bytes);

// While alive, SIGPIPE is blocked in this thread so that a reader that went
// away shows as EPIPE, never as a signal that ends the process; a SIGPIPE
// raised meanwhile is taken off the thread before the old mask returns.
class SigpipeHold {
 public:
  SigpipeHold();
  ~SigpipeHold();
  SigpipeHold(const SigpipeHold&) = delete;
  SigpipeHold& operator=(const SigpipeHold&) = delete;

 private:
  sigset_t old_mask_;
  bool was_pending_ = false;
};

// Coalesces small writes (entry headers) into one buffer in front of `fd`;
// writes at least as big as the buffer go straight through once it is empty.
class OutputBuffer {
 public:
  OutputBuffer(int fd, size_t capacity);
  // 0, or -1 with errno.
  int Write(const void* data, size_t size);
  int Flush();
  // Bytes accepted so far.
  off_t total() const { return total_; }

 private:
  int fd_;
  size_t capacity_;
  std::unique_ptr<char[]> buffer_;
  size_t used_ = 0;
  off_t total_ = 0;
};

// The smallest valid zip: only the end-of-central-directory record.
extern const unsigned char kEmptyZip[22];

}  // namespace tparchive
