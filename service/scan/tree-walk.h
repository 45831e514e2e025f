// The tree on disk under a view's root, parents before children, names in
// byte order within a folder. Sockets, pipes and devices are left out.
//
// A user may swap any entry for something else at any moment, a symlink
// to a file only root may read among them. So the walk only ever descends
// through folders it opened without following links, and content and
// attributes come from a descriptor opened beneath the root
// (OpenBeneath), never from a path: what is versioned is exactly what was
// opened. An entry whose kind changed between the listing and the open is
// deferred: neither versioned nor taken as removed, and looked at again by
// the next pass.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace scan {

struct DiskEntry {
  std::string path;       // in the view: "/a/b"
  std::string abs_path;   // on disk, for messages
  int32_t file_type = 0;  // db::kFileType*
  struct stat st {};
  std::string acl;          // access ACL in long text form; empty when the mode says it all
  std::string link_target;  // symlinks
  int64_t mtime_ns() const {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  }
};

// Walks beneath the open folder `root_fd` (left open), named `root` in
// messages. Entries that changed kind while being looked at go to
// `deferred` (view paths). 0, or negative when the root cannot be read;
// unreadable entries below it are logged and left out.
int WalkTree(int root_fd, const std::string& root, std::vector<DiskEntry>& out,
             std::vector<std::string>& deferred);

// Appends the folder `view_path` ("/a/b") itself and everything below it,
// the folder opened beneath `root_fd` without following any link. 0, or -1
// with errno set (ENOENT, ENOTDIR or ELOOP: no such folder now).
int WalkSubtree(int root_fd, const std::string& root, const std::string& view_path,
                std::vector<DiskEntry>& out, std::vector<std::string>& deferred);

// Opens the file or folder `e` beneath `root_fd` without following any
// symlink, never blocking on a FIFO or device, and refreshes `e.st` and
// `e.acl` from the opened descriptor. The descriptor (caller closes), or
// -1 with errno set; ESTALE when the entry is no longer of its kind (now a
// symlink, a FIFO, a device, or gone).
int OpenBeneath(int root_fd, DiskEntry& e);

// The access ACL of the open file `fd` as text, empty when it only mirrors
// the mode.
std::string AclText(int fd);

// Called with the view path of each entry between its listing and its
// open; lets a test change the tree at exactly that moment. Empty to clear.
void TEST_SetBeforeOpen(std::function<void(const std::string& view_path)> hook);

}  // namespace scan
