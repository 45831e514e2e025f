// HVOSService shares from the account directory, opened read-only for each
// call like the other request-path look-ups: no ICU, no libsodium. The key
// is read as stored; it is there only while the share is unlocked.
#include "hvos-service.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include "host-accounts.h"
#include "root-scope.h"

namespace HVOSService {
namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr size_t kKeyHexLength = 64;

std::string AsciiLower(const std::string& text) {
  std::string lower = text;
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

template <typename Body>
int WithDirectory(Body body) {
  hostaccounts::RootScope root;
  try {
    SQLite::Database db(hostaccounts::kDefaultPath, SQLite::OPEN_READONLY, kBusyTimeoutMs);
    return body(db);
  } catch (const SQLite::Exception&) {
    return hostaccounts::kErrStorage;
  }
}

}  // namespace

// The directory itself is the cache here: each call reads it afresh, so a
// share locked a moment ago never hands out its key.
int ShareService::GetShare(const std::string& name, Share& out) const {
  (void)cached_;
  if (name.empty()) return hostaccounts::kErrNotFound;
  return WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db,
                            "SELECT name, encrypted FROM shares"
                            " WHERE name = ?1 OR name_key = ?2 LIMIT 1");
    query.bind(1, name);
    query.bind(2, AsciiLower(name));
    if (!query.executeStep()) return static_cast<int>(hostaccounts::kErrNotFound);
    out.name_ = query.getColumn(0).getString();
    out.encrypted_ = query.getColumn(1).getInt() != 0;
    return 0;
  });
}

int Share::getUniqueKey(std::string& key) const {
  if (!encrypted_) return 0;
  return WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db,
                            "SELECT k.content_key FROM shares s JOIN share_keys k"
                            " ON k.share_key = s.name_key WHERE s.name = ?1 AND s.mounted != 0");
    query.bind(1, name_);
    if (!query.executeStep() || query.getColumn(0).isNull()) return 0;
    std::string found = query.getColumn(0).getString();
    // A stored key of the wrong shape is damage, not a locked share.
    if (found.size() != kKeyHexLength) return static_cast<int>(hostaccounts::kErrStorage);
    key.swap(found);
    return 1;
  });
}

}  // namespace HVOSService
