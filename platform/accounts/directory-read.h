// Read-only access to the account directory for request paths: opened for
// one look-up with root's rights and closed again, with no ICU or libsodium
// behind it. Names are matched as stored or through their ASCII-lowered key.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

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

// The cached mode of the look-ups: one read-only connection kept for the
// life of the process, as a client of the appliance's cache daemon would
// keep its channel. It answers what the directory holds at each call (every
// statement reads the newest commit), and is opened again in a forked child
// or once the file was replaced. Null when the directory cannot be opened.
// Call under a RootScope.
SQLite::Database* CachedDirectory();
// Drops the kept connection after it failed.
void DropCachedDirectory();
// A statement of the kept connection, prepared once and reset for each use.
// `sql` is a literal: its address names the statement. The caller resets it
// when done, or its read lock stays on the directory.
SQLite::Statement& CachedStatement(const char* sql);

// As WithDirectory, over the kept connection.
template <typename Body>
int WithCachedDirectory(Body&& body) {
  RootScope root;
  try {
    SQLite::Database* db = CachedDirectory();
    if (db == nullptr) return kErrStorage;
    return body(*db);
  } catch (const SQLite::Exception&) {
    DropCachedDirectory();
    return kErrStorage;
  }
}

}  // namespace hostaccounts
