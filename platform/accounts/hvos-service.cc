// HVOSService shares from the account directory, opened read-only for each
// call like the other request-path look-ups. The key is read as stored; it
// is there only while the share is unlocked.
#include "hvos-service.h"

#include <SQLiteCpp/Statement.h>

#include "directory-read.h"
#include "platform-services.h"

namespace HVOSService {
namespace {

constexpr size_t kKeyHexLength = 64;

}  // namespace

// The directory itself is the cache here: each call reads it afresh, so a
// share locked a moment ago never hands out its key.
int ShareService::GetShare(const std::string& name, Share& out) const {
  Platform::Share share;
  const int rc = Platform::ShareService(cached_).GetShare(name, share);
  if (rc < 0) return rc;
  out.name_ = share.GetDisplayName();
  out.encrypted_ = share.IsEncryption();
  return 0;
}

int Share::getUniqueKey(std::string& key) const {
  if (!encrypted_) return 0;
  return hostaccounts::WithDirectory([&](SQLite::Database& db) {
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

int UserService::GetUserByUid(uint32_t uid, User& out) const {
  Platform::User user;
  const int rc = Platform::UserService(cached_).GetUserById(uid, user);
  if (rc < 0) return rc;
  out.name_ = user.GetName();
  return 0;
}

int UserService::GetLoginName(const std::string& name, std::string& out) const {
  Platform::User user;
  const int rc = Platform::UserService(cached_).GetUser(name, user);
  out = rc < 0 ? name : user.GetName();
  return rc < 0 ? rc : 0;
}

}  // namespace HVOSService
