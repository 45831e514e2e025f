// The tree on disk under a view's root, parents before children, names in
// byte order within a folder. Sockets, pipes and devices are left out.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace scan {

struct DiskEntry {
  std::string path;       // in the view: "/a/b"
  std::string abs_path;   // on disk
  int32_t file_type = 0;  // db::kFileType*
  struct stat st {};
  std::string acl;          // access ACL in long text form; empty when the mode says it all
  std::string link_target;  // symlinks
  int64_t mtime_ns() const {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  }
};

// 0, or negative when the root cannot be read; unreadable entries below it
// are logged and left out.
int WalkTree(const std::string& root, std::vector<DiskEntry>& out);

// The access ACL of `path` as text, empty when it only mirrors the mode.
std::string AclText(const std::string& path);

}  // namespace scan
