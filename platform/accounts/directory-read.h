// Read-only access to the account directory for request paths: opened for
// one look-up with root's rights and closed again, with no ICU or libsodium
// behind it. Names are matched as stored or through their ASCII-lowered key.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

#include <string>

#include "host-accounts.h"
#include "root-scope.h"

namespace hostaccounts {

inline constexpr int kReadBusyTimeoutMs = 5000;

inline std::string AsciiLower(const std::string& text) {
  std::string lower = text;
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// Runs `body` over the directory; the directory's errors become kErrStorage.
template <typename Body>
int WithDirectory(Body&& body) {
  RootScope root;
  try {
    SQLite::Database db(kDefaultPath, SQLite::OPEN_READONLY, kReadBusyTimeoutMs);
    return body(db);
  } catch (const SQLite::Exception&) {
    return kErrStorage;
  }
}

}  // namespace hostaccounts
