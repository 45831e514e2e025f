// Temporary files, clones and the plain-file form of symlinks.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "fd.h"
#include "file-util.h"

namespace fileutil {

int ReadWhole(const std::string& path, std::string& out, size_t limit) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) return -1;
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    if (data.size() + static_cast<size_t>(n) > limit) {
      errno = EFBIG;
      return -1;
    }
    data.append(buf, static_cast<size_t>(n));
  }
  out = std::move(data);
  return 0;
}

}  // namespace fileutil

TempFile::~TempFile() {
  if (!path_.empty() && !permanent_) unlink(path_.c_str());
}

int TempFile::create() {
  if (!path_.empty()) {
    errno = EEXIST;
    return -1;
  }
  std::string name = dir_ + "/.tidepool-tmp.XXXXXX";
  std::vector<char> buf(name.begin(), name.end());
  buf.push_back('\0');
  int fd = mkostemp(buf.data(), O_CLOEXEC);
  if (fd < 0) return -1;
  close(fd);
  path_ = buf.data();
  return 0;
}

int CloneFile(const std::string& src, const std::string& dst) {
  fileutil::Fd in(open(src.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.ok()) return -1;
  fileutil::Fd out(open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out.ok()) return -1;
  btrfs_ioctl_clone_range_args args{};
  args.src_fd = in.get();
  args.src_offset = 0;
  args.src_length = 0;  // to the end of the file
  args.dest_offset = 0;
  if (ioctl(out.get(), BTRFS_IOC_CLONE_RANGE, &args) < 0) return -1;
  return out.close();
}

namespace SDK {

bool IsPathSupportSnapShot(const std::string& path, bool follow) {
  struct statfs st {};
  if (statfs(path.c_str(), &st) < 0) return false;
  return static_cast<unsigned long>(st.f_type) == BTRFS_SUPER_MAGIC;
}

}  // namespace SDK

int getFileFromSymlink(const std::string& link, const std::string& file) {
  struct stat st {};
  if (lstat(link.c_str(), &st) < 0) return -1;
  if (!S_ISLNK(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  char target[PATH_MAX + 1];
  ssize_t n = readlink(link.c_str(), target, sizeof target);
  if (n < 0) return -1;
  if (static_cast<size_t>(n) >= sizeof target) {
    errno = ENAMETOOLONG;
    return -1;
  }
  fileutil::Fd out(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out.ok()) return -1;
  if (fileutil::WriteAll(out.get(), target, static_cast<size_t>(n)) < 0) return -1;
  return out.close();
}

int getSymlinkFromFile(const std::string& file, std::string& target) {
  std::string content;
  if (fileutil::ReadWhole(file, content, PATH_MAX + 1) < 0) {
    if (errno == EFBIG) errno = EINVAL;
    return -1;
  }
  if (content.empty() || content.size() > PATH_MAX || content.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  target = std::move(content);
  return 0;
}
