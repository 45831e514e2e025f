// The appliance's services by kind, backed by the host account directory.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

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

}  // namespace SDK
