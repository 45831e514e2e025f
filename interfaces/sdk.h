// The appliance's services by kind, backed by the host account directory.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace SDK {

class User {
 public:
  User() = default;
  User(std::string name, uint32_t uid) : name_(std::move(name)), uid_(uid) {}
  const std::string& getName() const { return name_; }
  uint32_t getUid() const { return uid_; }

 private:
  std::string name_;
  uint32_t uid_ = 0;
};

class UserService {
 public:
  // 0 when found, negative when there is no such user or on failure.
  int GetUserByUid(uint32_t uid, User& out) const;
  // A page of the local users whose name contains `substr` (ASCII case
  // ignored; "" matches all), ordered by name: `count` gets the number of
  // matches, `names` the page from `offset`, at most `limit` (negative: all).
  // 0, or negative when the directory cannot be read (outputs untouched).
  int ListLocalUsersWithPaging(int offset, int limit, const std::string& substr, uint32_t& count,
                               std::vector<std::string>& names) const;
};

// Directory services. Whether one is enabled comes from
// /usr/kstx/etc/directory.conf; a plain host has none. They list no users
// (count 0, names empty, result 0).
class LDAPService {
 public:
  bool IsServiceEnabled() const;
  std::string GetDomainName() const;  // empty when none is configured
  int ListUsersWithPaging(int offset, int limit, const std::string& substr, uint32_t& count,
                          std::vector<std::string>& names) const;
};

class DomainService {
 public:
  bool IsServiceEnabled() const;
  int ListUsersWithPaging(int offset, int limit, const std::string& substr,
                          const std::string& domain, uint32_t& count,
                          std::vector<std::string>& names) const;
};

// The users who hold the sync service's application privilege, paged as
// UserService::ListLocalUsersWithPaging pages.
class AppPrivilegeService {
 public:
  int GetPrivilegedLocalUsers(int offset, int limit, const std::string& substr, uint32_t& count,
                              std::vector<std::string>& names) const;
  int GetPrivilegedLdapUsers(int offset, int limit, const std::string& substr, uint32_t& count,
                             std::vector<std::string>& names) const;
  int GetPrivilegedDomainUsers(int offset, int limit, const std::string& substr,
                               const std::string& domain, uint32_t& count,
                               std::vector<std::string>& names) const;
};

// The application privilege of the sync service for one login. Each query
// gives (known, answer): whether the directory could answer, and the answer.
class UserAppPrivilege {
 public:
  void SetLoginInfo(const std::string& user, const std::string& ip);
  std::pair<bool, bool> IsLoginAllowed() const;
  std::pair<bool, bool> UserMayHavePrivilege() const;

 private:
  std::string user_;
  std::string ip_;
};

// The volumes that can hold data: those of the host's volume registry whose
// mount point is present, with their space as statvfs sees it.
struct Volume {
  int id = 0;               // 1 for /volume1
  std::string mount_point;  // "/volume1"
  std::string display;      // "Volume 1"
  std::string desc;         // the registry's description
  uint64_t size_free = 0;   // bytes an unprivileged writer may still use
  uint64_t size_total = 0;  // bytes
};

class VolumeService {
 public:
  // The present volumes by id. 0, or negative when the registry cannot be
  // read (`out` untouched).
  int List(std::vector<Volume>& out) const;
};

}  // namespace SDK

// One volume as the mount table and the registry know it. Every field is 0
// when the path is not a registered volume that is present.
struct KSTXMountVolInfo {
  int volume_present = 0;
  int volume_type = 0;      // 1 an ordinary data volume
  int volume_writable = 0;  // registered writable and not mounted read-only
  uint64_t volume_free_bytes = 0;
  uint64_t volume_total_bytes = 0;
};
// `path` must be the registered mount point exactly ("/volume2", not
// "/volume2/"). 0 when the registry could be read (look at volume_present),
// negative otherwise.
int KSTXMountVolInfoGet(const std::string& path, KSTXMountVolInfo& out);
