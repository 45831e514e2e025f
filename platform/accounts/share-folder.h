// The folder of a share on disk, set up as its permissions say: owned by
// root with the users' group, no access for the group or others, and one
// named ACL entry per user granted access (rwx to write, r-x to read). The
// sticky bit keeps users who may write from deleting or renaming each
// other's entries. Folders made inside keep their makers' own modes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hostaccounts {

struct ShareGrant {
  uint32_t uid = 0;
  bool write = false;
};

// Makes `path` when missing and gives it the owner, mode and access ACL
// above for `grants`. The folder is opened without following a link. 0, or
// -1 with errno set.
int SetUpShareFolder(const std::string& path, uint32_t gid, const std::vector<ShareGrant>& grants);

}  // namespace hostaccounts
