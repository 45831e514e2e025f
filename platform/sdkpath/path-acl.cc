// A user's rights on a path from the file system itself: the owner, mode and
// POSIX access ACL of the path, checked as the kernel checks them, after
// search rights on every folder above it. The rwx rights map onto the
// 13-bit masks of acl.h, so a user holds 0x58A (write data, read and write
// attributes, read named attributes and the ACL) exactly when it may read
// and write the path.
#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <string>
#include <vector>

#include "internal.h"
#include "platform-services.h"
#include "root-scope.h"
#include "sdk-path.h"

namespace {

constexpr unsigned kRead = 4, kWrite = 2, kSearch = 1;
constexpr int kAllRights = 0x1FFF;
constexpr int kReadMask = 0x0001 | 0x0008 | 0x0080 | 0x0400;
constexpr int kWriteMask = 0x0002 | 0x0004 | 0x0010 | 0x0040 | 0x0100 | 0x0200 | 0x0800 | 0x1000;
constexpr int kSearchMask = 0x0020;

struct Subject {
  uint32_t uid = 0;
  const std::set<unsigned int>* gids = nullptr;
};

struct AccessAcl {
  unsigned owner = 0, owning_group = 0, other = 0, mask = 7;
  bool has_mask = false;
  std::vector<std::pair<uint32_t, unsigned>> users, groups;
};

unsigned PermsOf(acl_entry_t entry) {
  acl_permset_t set = nullptr;
  if (acl_get_permset(entry, &set) != 0) return 0;
  return (acl_get_perm(set, ACL_READ) == 1 ? kRead : 0) |
         (acl_get_perm(set, ACL_WRITE) == 1 ? kWrite : 0) |
         (acl_get_perm(set, ACL_EXECUTE) == 1 ? kSearch : 0);
}

uint32_t QualifierOf(acl_entry_t entry) {
  void* q = acl_get_qualifier(entry);
  if (q == nullptr) return UINT32_MAX;
  const uint32_t id = *static_cast<id_t*>(q);
  acl_free(q);
  return id;
}

// The access ACL of `path`, or its mode alone where the volume keeps none.
int ReadAcl(const std::string& path, const struct stat& st, AccessAcl& out) {
  out.owner = (st.st_mode >> 6) & 7;
  out.owning_group = (st.st_mode >> 3) & 7;
  out.other = st.st_mode & 7;
  acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
  if (acl == nullptr) return errno == ENOTSUP || errno == ENOSYS ? 0 : -1;
  acl_entry_t entry;
  for (int id = ACL_FIRST_ENTRY; acl_get_entry(acl, id, &entry) == 1; id = ACL_NEXT_ENTRY) {
    acl_tag_t tag;
    if (acl_get_tag_type(entry, &tag) != 0) continue;
    const unsigned perms = PermsOf(entry);
    switch (tag) {
      case ACL_USER_OBJ:
        out.owner = perms;
        break;
      case ACL_GROUP_OBJ:
        out.owning_group = perms;
        break;
      case ACL_OTHER:
        out.other = perms;
        break;
      case ACL_MASK:
        out.mask = perms;
        out.has_mask = true;
        break;
      case ACL_USER:
        out.users.emplace_back(QualifierOf(entry), perms);
        break;
      case ACL_GROUP:
        out.groups.emplace_back(QualifierOf(entry), perms);
        break;
      default:
        break;
    }
  }
  acl_free(acl);
  return 0;
}

// The rwx the kernel would grant. Among matching group entries the kernel
// grants a request only when one entry holds all of it, so the richest entry
// is the answer, never a union.
int RightsOn(const std::string& path, const Subject& who, unsigned& rights) {
  struct stat st {};
  AccessAcl acl;
  if (stat(path.c_str(), &st) != 0 || ReadAcl(path, st, acl) < 0) return -1;
  if (who.uid == st.st_uid) {
    rights = acl.owner;
    return 0;
  }
  for (const auto& [uid, perms] : acl.users) {
    if (uid == who.uid) {
      rights = perms & acl.mask;
      return 0;
    }
  }
  bool group_matched = false;
  unsigned best = 0;
  auto consider = [&](unsigned perms) {
    group_matched = true;
    perms &= acl.mask;
    if (std::popcount(perms) > std::popcount(best)) best = perms;
  };
  if (who.gids->count(st.st_gid) != 0) consider(acl.owning_group);
  for (const auto& [gid, perms] : acl.groups) {
    if (who.gids->count(gid) != 0) consider(perms);
  }
  rights = group_matched ? best : acl.other;
  return 0;
}

int MaskOf(unsigned rights) {
  return ((rights & kRead) ? kReadMask : 0) | ((rights & kWrite) ? kWriteMask : 0) |
         ((rights & kSearch) ? kSearchMask : 0);
}

}  // namespace

namespace SDK {

int GetPathAclPrivilege(const std::string& user, const std::string& path, GroupCache& cache) {
  std::vector<std::string> parts;
  if (!sdkpath::SplitPath(path, parts)) return -1;
  Platform::User account;
  if (Platform::UserService().GetUser(user, account) < 0) return user == "root" ? kAllRights : -1;
  if (account.GetID() == 0) return kAllRights;
  auto cached = cache.groups.find(account.GetName());
  if (cached == cache.groups.end()) {
    std::set<unsigned int> gids;
    if (account.ListGroupID(gids) < 0) return -1;
    cached = cache.groups.emplace(account.GetName(), std::move(gids)).first;
  }
  const Subject who{account.GetID(), &cached->second};
  // The service account may not see into homes; the user's own rights are
  // judged below, not the caller's.
  hostaccounts::RootScope root;
  std::string folder = "/";
  unsigned rights = 0;
  for (const std::string& part : parts) {
    if (RightsOn(folder, who, rights) < 0) return -1;
    if ((rights & kSearch) == 0) return 0;
    folder += (folder.size() > 1 ? "/" : "") + part;
  }
  if (RightsOn(folder, who, rights) < 0) return -1;
  return MaskOf(rights);
}

}  // namespace SDK
