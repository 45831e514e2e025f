// The SDK's user services answer from the host account directory through its
// read-only look-ups: they are asked a few times per request at most.
#include "sdk.h"

#include "host-accounts.h"

namespace SDK {
namespace {

// Whether the directory could answer, and the user when it knows one.
std::pair<bool, bool> LookUp(const std::string& name, hostaccounts::User& out) {
  const int rc = hostaccounts::LookUpUser(name, out);
  if (rc == hostaccounts::kErrNotFound) return {true, false};
  return {rc >= 0, rc >= 0};
}

}  // namespace

int UserService::GetUserByUid(uint32_t uid, User& out) const {
  hostaccounts::User user;
  if (hostaccounts::LookUpUserByUid(uid, user) < 0) return -1;
  out = User(user.name, user.uid);
  return 0;
}

void UserAppPrivilege::SetLoginInfo(const std::string& user, const std::string& ip) {
  user_ = user;
  ip_ = ip;
}

std::pair<bool, bool> UserAppPrivilege::IsLoginAllowed() const {
  hostaccounts::User user;
  const auto [known, exists] = LookUp(user_, user);
  return {known, exists && !user.disabled && user.app_allowed};
}

// A disabled user who holds the privilege may log in again once enabled; a
// user denied the privilege may not.
std::pair<bool, bool> UserAppPrivilege::UserMayHavePrivilege() const {
  hostaccounts::User user;
  const auto [known, exists] = LookUp(user_, user);
  return {known, exists && user.app_allowed};
}

}  // namespace SDK
