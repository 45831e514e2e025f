// Password checks live in a plugin that entry.cgi loads only for a login, so
// that no other request pays for loading the account directory's libraries
// (ICU, libsodium) or the login throttle's store.
#pragma once

#include <cstdint>

namespace kstxentry {
constexpr const char* kLoginPluginPath = "/usr/kstx/webapi/libkstxwebapi-login.so";
constexpr const char* kLoginSymbol = "KSTXWebLogin";
}  // namespace kstxentry

extern "C" {
// Checks a password against the host's accounts, for a client at `address`.
// 0 with the user's uid and administrator flag; otherwise the negated error
// code of the answer: -411 too many failed logins for the account or the
// address (whatever the password), -400 unknown account or wrong password,
// -408 disabled, -409 expired (only once the password was right), -100 the
// directory or the throttle's store could not be read. Call with root's
// effective rights.
int KSTXWebLogin(const char* account, const char* password, const char* address, uint32_t* uid,
                 int* is_admin);
using KSTXWebLoginFunc = int (*)(const char*, const char*, const char*, uint32_t*, int*);
}
