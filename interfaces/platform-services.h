// The appliance's users and shares as value objects, for privilege decisions
// in requests. Backed by the host account directory's read-only look-ups:
// no password hashing or Unicode case folding is loaded. The constructors'
// bool selects the cached mode (true) or a fresh look-up (false). This host
// has no cache daemon: a cached share look-up goes through one read-only
// connection kept by the process, which still reads the newest state. Results: 0 found, negative
// when there is no such user or share or the directory cannot be read; out parameters are left
// untouched on failure.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace Platform {

class User {
 public:
  uint32_t GetID() const { return uid_; }
  const std::string& GetName() const { return name_; }
  const std::string& GetHomePath() const { return home_; }  // "/volume1/homes/<name>"
  // The primary group and every group the user is a member of. Negative
  // when the memberships cannot be read (the set then holds the primary).
  int ListGroupID(std::set<unsigned int>& out) const;

 private:
  friend class UserService;
  uint32_t uid_ = 0;
  uint32_t gid_ = 0;
  std::string name_;
  std::string home_;
};

class UserService {
 public:
  explicit UserService(bool cached = false) : cached_(cached) {}
  // The name matches as stored or ignoring ASCII case.
  int GetUser(const std::string& name, User& out) const;
  int GetUserById(uint32_t uid, User& out) const;

 private:
  bool cached_;
};

class SharePrivilege {
 public:
  SharePrivilege() = default;
  explicit SharePrivilege(int level) : level_(level) {}
  bool IsReadOnly() const { return level_ == 1; }
  bool IsReadWrite() const { return level_ == 2; }

 private:
  int level_ = 0;  // 0 none, 1 read only, 2 read and write
};

class Share {
 public:
  bool IsActive() const { return active_; }
  // For an encrypted share: whether it is unlocked at the moment.
  bool IsMounted() const { return mounted_; }
  // Whether the sync service can watch it now: active and mounted.
  bool IsSyncable() const { return active_ && mounted_; }
  bool IsEncryption() const { return encrypted_; }
  // The name with the case the administrator gave it.
  const std::string& GetDisplayName() const { return name_; }
  const std::string& GetPath() const { return path_; }  // "/volume1/<name>"
  // The user's own permission on the share (none when nothing is set or the
  // directory cannot be read).
  SharePrivilege GetPrivilege(const User& user) const;

 private:
  friend class ShareService;
  std::string name_;
  std::string key_;  // the directory's key of the share
  std::string path_;
  bool active_ = false;
  bool mounted_ = false;
  bool encrypted_ = false;
};

class ShareService {
 public:
  explicit ShareService(bool cached = true) : cached_(cached) {}
  // The name matches ignoring case.
  int GetShare(const std::string& name, Share& out) const;

 private:
  bool cached_;
};

}  // namespace Platform
