#include "login-plugin.h"

#include "host-accounts.h"

extern "C" int KSTXWebLogin(const char* account, const char* password, uint32_t* uid,
                            int* is_admin) {
  auto accounts = hostaccounts::HostAccounts::Open();
  if (accounts == nullptr) return -100;
  const int verified = accounts->VerifyPassword(account, password);
  if (verified == hostaccounts::kErrNotFound || verified == hostaccounts::kErrInvalid) {
    return -400;  // the same answer, so that names cannot be probed
  }
  hostaccounts::User user;
  if (verified < 0 || accounts->GetUser(account, user) < 0) return -100;
  if (user.disabled) return -408;
  const int expired = KSTXUserCheckExpired(account);
  if (expired < 0) return -100;
  if (expired == 1) return -409;
  *uid = user.uid;
  *is_admin = accounts->IsAdmin(account) ? 1 : 0;
  return 0;
}
