#include "share-folder.h"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace hostaccounts {
namespace {

constexpr mode_t kShareMode = 01770;

class AclHolder {
 public:
  explicit AclHolder(acl_t acl) : acl_(acl) {}
  AclHolder(const AclHolder&) = delete;
  AclHolder& operator=(const AclHolder&) = delete;
  ~AclHolder() {
    if (acl_) acl_free(acl_);
  }
  acl_t get() const { return acl_; }

 private:
  acl_t acl_;
};

// "u::rwx,g::---,o::---" and a named entry per grant; the mask lets named
// entries through.
std::string AclText(const std::vector<ShareGrant>& grants) {
  std::string text = "u::rwx,g::---,o::---";
  for (const ShareGrant& g : grants)
    text += ",u:" + std::to_string(g.uid) + (g.write ? ":rwx" : ":r-x");
  return text;
}

}  // namespace

int SetUpShareFolder(const std::string& path, uint32_t gid, const std::vector<ShareGrant>& grants) {
  // Made closed, and opened up below once owner and ACL are right.
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  int rc = -1;
  AclHolder acl(acl_from_text(AclText(grants).c_str()));
  if (acl.get() && fchown(fd, 0, gid) == 0 && fchmod(fd, kShareMode) == 0) {
    acl_t raw = acl.get();
    if (acl_calc_mask(&raw) == 0 && acl_set_fd(fd, raw) == 0) rc = 0;
  }
  // acl_set_fd rewrites the group bits from the mask; the sticky bit stays.
  const int error = errno;
  close(fd);
  errno = error;
  return rc;
}

}  // namespace hostaccounts
