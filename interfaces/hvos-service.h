// The older form of the appliance's share service, which also hands out the
// key of an unlocked encrypted share. Backed by the host account directory.
#pragma once

#include <cstdint>
#include <string>

namespace HVOSService {

class Share {
 public:
  const std::string& getName() const { return name_; }
  bool isEncryption() const { return encrypted_; }
  // The share's content key as an opaque text, for the version store's
  // cipher: 1 with `key` set while the share is unlocked, 0 while it is
  // locked (or not encrypted), negative on failure. Never logged or stored
  // by callers.
  int getUniqueKey(std::string& key) const;

 private:
  friend class ShareService;
  std::string name_;
  bool encrypted_ = false;
};

class ShareService {
 public:
  explicit ShareService(bool cached = true) : cached_(cached) {}
  // The share by name (case ignored); "homes" is the share of all homes.
  // 0 found, negative when there is none or the directory cannot be read.
  int GetShare(const std::string& name, Share& out) const;

 private:
  bool cached_;
};

// Users in the older form, as profiles name them.
class User {
 public:
  const std::string& getName() const { return name_; }

 private:
  friend class UserService;
  std::string name_;
};

class UserService {
 public:
  explicit UserService(bool cached = true) : cached_(cached) {}
  // 0 found, negative when there is no such user or the directory cannot be
  // read.
  int GetUserByUid(uint32_t uid, User& out) const;
  // The name the user logs in with: the directory's own spelling of `name`.
  // 0, or negative (with `out` set to `name`) when the user is unknown.
  int GetLoginName(const std::string& name, std::string& out) const;

 private:
  bool cached_;
};

}  // namespace HVOSService
