// SDK::ACL over libacl: the stored text is parsed once, then written as the
// access ACL of each path it is applied to.
#include <acl/libacl.h>
#include <sys/acl.h>

#include <cerrno>

#include "file-util.h"

namespace SDK {

ACL::~ACL() {
  if (acl_) acl_free(acl_);
}

int ACL::set(const std::string& text) {
  if (acl_) acl_free(acl_);
  acl_ = nullptr;
  parsed_ = false;
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
    parsed_ = true;
    return 0;
  }
  acl_t acl = acl_from_text(text.c_str());
  if (!acl) {
    errno = EINVAL;
    return -1;
  }
  // acl_from_text accepts a text that misses required entries; such an ACL
  // cannot be set, so it is refused here rather than at write.
  if (acl_valid(acl) != 0) {
    acl_free(acl);
    errno = EINVAL;
    return -1;
  }
  acl_ = acl;
  parsed_ = true;
  return 0;
}

int ACL::write(const std::string& path) const {
  if (!parsed_) {
    errno = EINVAL;
    return -1;
  }
  if (!acl_) return 0;
  return acl_set_file(path.c_str(), ACL_TYPE_ACCESS, static_cast<acl_t>(acl_)) < 0 ? -1 : 0;
}

}  // namespace SDK
