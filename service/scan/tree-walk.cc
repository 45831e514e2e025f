#include "tree-walk.h"

#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "db/types.h"
#include "logger.h"

namespace scan {
namespace {

int TypeOf(mode_t mode) {
  if (S_ISREG(mode)) return db::kFileTypeFile;
  if (S_ISDIR(mode)) return db::kFileTypeDir;
  if (S_ISLNK(mode)) return db::kFileTypeSymlink;
  return -1;
}

void Walk(int dir_fd, const std::string& view_path, const std::string& abs_path,
          std::vector<DiskEntry>& out) {
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
      if (n < 0) continue;
      target.resize(static_cast<size_t>(n));
      e.link_target = std::move(target);
    } else {
      e.acl = AclText(e.abs_path);
    }
    const bool is_dir = e.file_type == db::kFileTypeDir;
    const std::string child_view = e.path, child_abs = e.abs_path;
    out.push_back(std::move(e));
    if (is_dir) {
      const int fd =
          openat(dirfd(dir), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd < 0) {
        LOG_WARNING("scan: cannot open %s: %s\n", child_abs.c_str(), strerror(errno));
        continue;
      }
      Walk(fd, child_view, child_abs, out);
    }
  }
  closedir(dir);
}

}  // namespace

std::string AclText(const std::string& path) {
  // Most files have no extended ACL; one attribute look-up says so.
  if (acl_extended_file_nofollow(path.c_str()) != 1) return "";
  acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
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

int WalkTree(const std::string& root, std::vector<DiskEntry>& out) {
  out.clear();
  const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  Walk(fd, "/", root, out);
  return 0;
}

}  // namespace scan
