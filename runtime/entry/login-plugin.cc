#include "login-plugin.h"

#include <ctime>
#include <string>

#include "host-accounts.h"
#include "login-throttle.h"

namespace {

// Failures of a known account count against it under whatever case its name
// was typed in; an unknown name's count is its own.
std::string AccountKey(hostaccounts::HostAccounts& accounts, const std::string& name) {
  hostaccounts::User user;
  if (accounts.GetUser(name, user) == 0) return "uid:" + std::to_string(user.uid);
  std::string lower = name;
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return "name:" + lower;
}

}  // namespace

extern "C" int KSTXWebLogin(const char* account, const char* password, const char* address,
                            uint32_t* uid, int* is_admin) {
  auto accounts = hostaccounts::HostAccounts::Open();
  auto throttle = kstxentry::LoginThrottle::Open();
  if (accounts == nullptr || throttle == nullptr) return -100;
  const std::string key = AccountKey(*accounts, account);
  const std::string client = address != nullptr ? address : "";
  if (throttle->IsBlocked(key, client, time(nullptr))) return -411;
  int verified;
  {
    kstxentry::LoginSlot slot;
    if (slot.Acquire() < 0) return -100;
    verified = accounts->VerifyPassword(account, password);
  }
  if (verified == hostaccounts::kErrNotFound || verified == hostaccounts::kErrInvalid) {
    throttle->RecordFailure(key, client, time(nullptr));
    return -400;  // the same answer, so that names cannot be probed
  }
  hostaccounts::User user;
  if (verified < 0 || accounts->GetUser(account, user) < 0) return -100;
  if (user.disabled) return -408;
  const int expired = KSTXUserCheckExpired(account);
  if (expired < 0) return -100;
  if (expired == 1) return -409;
  throttle->RecordSuccess(key);
  *uid = user.uid;
  *is_admin = accounts->IsAdmin(account) ? 1 : 0;
  return 0;
}
