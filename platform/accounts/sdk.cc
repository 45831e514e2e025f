// The SDK's user services answer from the host account directory, opened for
// the length of each call: they are asked a few times per request at most.
#include "sdk.h"

#include "host-accounts.h"
#include "root-scope.h"

namespace SDK {
namespace {

// Whether the directory could answer, and the user when it knows one.
std::pair<bool, bool> LookUp(const std::string& name, hostaccounts::User& out) {
  hostaccounts::RootScope root;
  auto accounts = hostaccounts::HostAccounts::Open();
  if (!accounts) return {false, false};
  const int rc = accounts->GetUser(name, out);
  if (rc == hostaccounts::kErrNotFound) return {true, false};
  return {rc >= 0, rc >= 0};
}

}  // namespace

int UserService::GetUserByUid(uint32_t uid, User& out) const {
  hostaccounts::RootScope root;
  auto accounts = hostaccounts::HostAccounts::Open();
  if (!accounts) return -1;
  hostaccounts::User user;
  if (accounts->GetUserByUid(uid, user) < 0) return -1;
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
