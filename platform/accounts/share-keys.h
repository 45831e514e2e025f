// The keys of encrypted shares inside the account directory (table
// share_keys). The content key is random; the passphrase only ever unwraps
// it. Keys and passphrases are never logged.
#pragma once

#include <SQLiteCpp/Database.h>

#include <string>

namespace hostaccounts {

// Makes and stores a wrapped content key for the share `share_key` (its
// name key), unwrapped as well. The caller holds the transaction.
// kErrInvalid for an empty passphrase, kErrStorage when out of memory.
int CreateShareKey(SQLite::Database& db, const std::string& share_key,
                   const std::string& passphrase);
// Unwraps the content key: kErrInvalid for a wrong passphrase,
// kErrNotFound when the share has no key.
int UnlockShareKey(SQLite::Database& db, const std::string& share_key,
                   const std::string& passphrase);
int LockShareKey(SQLite::Database& db, const std::string& share_key);

}  // namespace hostaccounts
