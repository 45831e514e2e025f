#include "tree-walk.h"

#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/acl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "db/types.h"
#include "logger.h"

namespace scan {
namespace {

std::function<void(const std::string&)>& BeforeOpen() {
  static std::function<void(const std::string&)> hook;
  return hook;
}

void CallBeforeOpen(const std::string& view_path) {
  if (BeforeOpen()) BeforeOpen()(view_path);
}

int TypeOf(mode_t mode) {
  if (S_ISREG(mode)) return db::kFileTypeFile;
  if (S_ISDIR(mode)) return db::kFileTypeDir;
  if (S_ISLNK(mode)) return db::kFileTypeSymlink;
  return -1;
}

// Errors of an open that mean the entry is not what the listing said.
bool KindChanged(int error) {
  return error == ELOOP || error == ENOTDIR || error == ENXIO || error == ENOENT ||
         error == EXDEV || error == ESTALE;
}

void Walk(int dir_fd, const std::string& view_path, const std::string& abs_path,
          std::vector<DiskEntry>& out, std::vector<std::string>& deferred) {
  DIR* dir = fdopendir(dir_fd);
  if (!dir) {
    close(dir_fd);
    return;
  }
  std::vector<std::string> names;
  while (dirent* d = readdir(dir)) {
    // "@eaDir" holds the system's own data (restores build their files
    // there before moving them in): never a user's content.
    if (strcmp(d->d_name, ".") != 0 && strcmp(d->d_name, "..") != 0 &&
        strcmp(d->d_name, "@eaDir") != 0) {
      names.emplace_back(d->d_name);
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    DiskEntry e;
    if (fstatat(dirfd(dir), name.c_str(), &e.st, AT_SYMLINK_NOFOLLOW) != 0) {
      LOG_WARNING("scan: cannot stat %s/%s: %s\n", abs_path.c_str(), name.c_str(), strerror(errno));
      continue;
    }
    e.file_type = TypeOf(e.st.st_mode);
    if (e.file_type < 0) continue;
    e.path = (view_path == "/" ? "" : view_path) + "/" + name;
    e.abs_path = abs_path + "/" + name;
    if (e.file_type == db::kFileTypeSymlink) {
      std::string target(static_cast<size_t>(e.st.st_size) + 1, '\0');
      const ssize_t n = readlinkat(dirfd(dir), name.c_str(), target.data(), target.size());
      if (n < 0) {
        // No longer a link: whatever it is now waits for the next pass.
        if (errno == EINVAL || errno == ENOENT) deferred.push_back(e.path);
        continue;
      }
      target.resize(static_cast<size_t>(n));
      e.link_target = std::move(target);
    }
    if (e.file_type != db::kFileTypeDir) {
      out.push_back(std::move(e));
      continue;
    }
    // The folder is entered through what this open gives, never by path.
    CallBeforeOpen(e.path);
    const int fd =
        openat(dirfd(dir), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat now;
    if (fd < 0 || fstat(fd, &now) != 0) {
      const int error = errno;
      if (fd >= 0) close(fd);
      if (KindChanged(error)) {
        deferred.push_back(e.path);
      } else {
        LOG_WARNING("scan: cannot open %s: %s\n", e.abs_path.c_str(), strerror(error));
      }
      continue;
    }
    e.st = now;
    const std::string child_view = e.path, child_abs = e.abs_path;
    out.push_back(std::move(e));
    Walk(fd, child_view, child_abs, out, deferred);
  }
  closedir(dir);
}

}  // namespace

std::string AclText(int fd) {
  acl_t acl = acl_get_fd(fd);
  if (!acl) return "";
  std::string text;
  if (acl_equiv_mode(acl, nullptr) == 0) {
    acl_free(acl);
    return text;
  }
  if (char* t = acl_to_text(acl, nullptr)) {
    text = t;
    acl_free(t);
  }
  acl_free(acl);
  return text;
}

int OpenBeneath(int root_fd, DiskEntry& e) {
  CallBeforeOpen(e.path);
  const bool is_dir = e.file_type == db::kFileTypeDir;
  open_how how{};
  // O_NONBLOCK: a FIFO or device put in the file's place must not hang
  // the scan at the open; the fstat below refuses to read it.
  how.flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC |
              static_cast<uint64_t>(is_dir ? O_DIRECTORY : 0);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const std::string relative = e.path.substr(1);
  const int fd =
      static_cast<int>(syscall(SYS_openat2, root_fd, relative.c_str(), &how, sizeof how));
  if (fd < 0) {
    if (KindChanged(errno)) errno = ESTALE;
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || TypeOf(st.st_mode) != e.file_type) {
    close(fd);
    errno = ESTALE;
    return -1;
  }
  e.st = st;
  e.acl = AclText(fd);
  return fd;
}

int WalkTree(int root_fd, const std::string& root, std::vector<DiskEntry>& out,
             std::vector<std::string>& deferred) {
  out.clear();
  deferred.clear();
  // A descriptor of its own (the walk consumes it, and a listing position
  // shared with the caller's would be left at the end).
  const int fd = openat(root_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  Walk(fd, "/", root, out, deferred);
  return 0;
}

int WalkSubtree(int root_fd, const std::string& root, const std::string& view_path,
                std::vector<DiskEntry>& out, std::vector<std::string>& deferred) {
  DiskEntry e;
  e.path = view_path;
  e.abs_path = root + view_path;
  e.file_type = db::kFileTypeDir;
  const int fd = OpenBeneath(root_fd, e);
  if (fd < 0) {
    if (errno == ESTALE) errno = ENOTDIR;
    return -1;
  }
  out.push_back(e);
  Walk(fd, view_path, e.abs_path, out, deferred);
  return 0;
}

void TEST_SetBeforeOpen(std::function<void(const std::string& view_path)> hook) {
  BeforeOpen() = std::move(hook);
}

}  // namespace scan
