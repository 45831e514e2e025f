// File operations confined beneath a folder held open. Restores, downloads
// and purges run as root on folders their users can write: every path they
// touch is resolved from a descriptor of the folder they work in, and no
// component may be a symbolic link or lead out of it, so nothing a user
// plants can steer root elsewhere.
//
// Functions returning int give a descriptor or 0 on success and -1 on
// failure with errno set; ELOOP or EXDEV say that a link or a way out was
// met.
#pragma once

#include <sys/types.h>

#include <string>

namespace fsb {

// Owns one descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Opens the absolute `path` with no symbolic link on the way.
int OpenNoSymlinks(const std::string& path, int flags);
// Opens `rel` (relative; "" or "." is the folder itself) beneath `root_fd`.
int OpenBeneath(int root_fd, const std::string& rel, int flags, mode_t mode = 0);
// Opens the folder `rel` beneath `root_fd`, making it and its missing
// parents (mode `mode`, then given to uid/gid). Folders that exist are left
// as they are. The descriptor of the folder, or -1.
int MakeDirsBeneath(int root_fd, const std::string& rel, uid_t uid, gid_t gid, mode_t mode);
// A path that names what `fd` holds, for library calls that only take
// paths: "/proc/self/fd/N". Followed by "/" and one name, it reaches that
// entry of an open folder without resolving anything a user could change.
std::string FdPath(int fd);
// Removes the entry `name` of the folder `dir_fd` with everything it
// holds. A link is removed as a link, never followed, and a folder on
// another file system (a mount point) is not entered (EXDEV). 0, or -1 with
// errno (ENOENT when nothing was there).
int RemoveTreeAt(int dir_fd, const std::string& name);
// Removes the absolute `path` as RemoveTreeAt does, from its parent opened
// with no symbolic link on the way (ELOOP when there is one).
int RemovePathNoSymlinks(const std::string& path);
// True when `name` is one plain path component: not empty, not "." or
// "..", without "/" or NUL.
bool IsPlainName(const std::string& name);
// True when every component of `rel` is plain (leading, repeated and
// trailing "/" allowed); "" is the folder itself.
bool IsPlainRelative(const std::string& rel);

// For tests: called inside MakeDirsBeneath after a missing component was
// seen and before it is made, with the descriptor of its folder and its
// name, so that a test can change the folder in between.
using BeneathHook = void (*)(int dir_fd, const std::string& name);
void TEST_SetMakeDirsHook(BeneathHook hook);

}  // namespace fsb
