// Platform:: users and shares and the SDK's paged user lists, answered from
// the host account directory opened read-only for each call, like the other
// request-path look-ups (account-lookup.cc): no ICU, no libsodium.
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include "directory-read.h"
#include "host-accounts.h"
#include "platform-services.h"
#include "root-scope.h"
#include "sdk.h"

namespace {

using hostaccounts::AsciiLower;
using hostaccounts::WithDirectory;

bool ValidId(int64_t id) { return id >= 0 && id <= UINT32_MAX; }

// LIKE pattern for "contains `text`": LIKE ignores ASCII case.
std::string ContainsPattern(const std::string& text) {
  std::string pattern = "%";
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern.push_back('\\');
    pattern.push_back(c);
  }
  return pattern + "%";
}

// One page of user names under `where` (which may use ?1 for the pattern).
int PageUsers(const char* where, int offset, int limit, const std::string& substr, uint32_t& count,
              std::vector<std::string>& names) {
  return WithDirectory([&](SQLite::Database& db) {
    const std::string pattern = ContainsPattern(substr);
    SQLite::Statement total(db, std::string("SELECT count(*) FROM users WHERE ") + where);
    total.bind(1, pattern);
    if (!total.executeStep()) return static_cast<int>(hostaccounts::kErrStorage);
    SQLite::Statement page(db, std::string("SELECT name FROM users WHERE ") + where +
                                   " ORDER BY name_key LIMIT ?2 OFFSET ?3");
    page.bind(1, pattern);
    page.bind(2, limit < 0 ? -1 : limit);
    page.bind(3, offset < 0 ? 0 : offset);
    std::vector<std::string> found;
    while (page.executeStep()) found.push_back(page.getColumn(0).getString());
    count = static_cast<uint32_t>(total.getColumn(0).getInt64());
    names.swap(found);
    return 0;
  });
}

constexpr const char* kMatchName = "name LIKE ?1 ESCAPE '\\'";
constexpr const char* kMatchPrivileged =
    "name LIKE ?1 ESCAPE '\\' AND app_allowed != 0 AND disabled = 0";

int NoUsers(uint32_t& count, std::vector<std::string>& names) {
  count = 0;
  names.clear();
  return 0;
}

}  // namespace

namespace Platform {

int User::ListGroupID(std::set<unsigned int>& out) const {
  out.insert(gid_);
  return WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db, "SELECT gid FROM memberships WHERE uid = ?1");
    query.bind(1, static_cast<int64_t>(uid_));
    while (query.executeStep()) {
      const int64_t gid = query.getColumn(0).getInt64();
      if (ValidId(gid)) out.insert(static_cast<unsigned int>(gid));
    }
    return 0;
  });
}

int UserService::GetUser(const std::string& name, User& out) const {
  hostaccounts::User found;
  const int rc = hostaccounts::LookUpUser(name, found);
  if (rc < 0) return rc;
  out.uid_ = found.uid;
  out.gid_ = found.gid;
  out.name_ = found.name;
  out.home_ = found.home;
  return 0;
}

int UserService::GetUserById(uint32_t uid, User& out) const {
  hostaccounts::User found;
  const int rc = hostaccounts::LookUpUserByUid(uid, found);
  if (rc < 0) return rc;
  out.uid_ = found.uid;
  out.gid_ = found.gid;
  out.name_ = found.name;
  out.home_ = found.home;
  return 0;
}

int ShareService::GetShare(const std::string& name, Share& out) const {
  if (name.empty()) return hostaccounts::kErrNotFound;
  // The key is the table's index; the name as stored is looked at only when
  // the key finds nothing (LIMIT stops the second arm before it runs).
  static constexpr const char* kSql =
      "SELECT name, name_key, path, active, mounted, encrypted FROM shares WHERE name_key = ?2"
      " UNION ALL SELECT name, name_key, path, active, mounted, encrypted FROM shares"
      " WHERE name = ?1 LIMIT 1";
  auto lookup = [&](SQLite::Statement& query) {
    query.bind(1, name);
    query.bind(2, AsciiLower(name));
    if (!query.executeStep()) return static_cast<int>(hostaccounts::kErrNotFound);
    out.name_ = query.getColumn(0).getString();
    out.key_ = query.getColumn(1).getString();
    out.path_ = query.getColumn(2).getString();
    out.active_ = query.getColumn(3).getInt() != 0;
    out.mounted_ = query.getColumn(4).getInt() != 0;
    out.encrypted_ = query.getColumn(5).getInt() != 0;
    return 0;
  };
  if (cached_) {
    return hostaccounts::WithCachedDirectory([&](SQLite::Database&) {
      SQLite::Statement& query = hostaccounts::CachedStatement(kSql);
      const int rc = lookup(query);
      // A statement left on its row keeps the file's read lock, which
      // would shut writers out until the next look-up.
      query.reset();
      return rc;
    });
  }
  return WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db, kSql);
    return lookup(query);
  });
}

SharePrivilege Share::GetPrivilege(const User& user) const {
  int level = 0;
  WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db,
                            "SELECT permission FROM share_permissions"
                            " WHERE share_key = ?1 AND uid = ?2");
    query.bind(1, key_);
    query.bind(2, static_cast<int64_t>(user.GetID()));
    if (query.executeStep()) level = query.getColumn(0).getInt();
    return 0;
  });
  return SharePrivilege(level == 1 || level == 2 ? level : 0);
}

}  // namespace Platform

namespace SDK {

int UserService::ListLocalUsersWithPaging(int offset, int limit, const std::string& substr,
                                          uint32_t& count, std::vector<std::string>& names) const {
  return PageUsers(kMatchName, offset, limit, substr, count, names);
}

int AppPrivilegeService::GetPrivilegedLocalUsers(int offset, int limit, const std::string& substr,
                                                 uint32_t& count,
                                                 std::vector<std::string>& names) const {
  return PageUsers(kMatchPrivileged, offset, limit, substr, count, names);
}

int AppPrivilegeService::GetPrivilegedLdapUsers(int, int, const std::string&, uint32_t& count,
                                                std::vector<std::string>& names) const {
  return NoUsers(count, names);
}

int AppPrivilegeService::GetPrivilegedDomainUsers(int, int, const std::string&, const std::string&,
                                                  uint32_t& count,
                                                  std::vector<std::string>& names) const {
  return NoUsers(count, names);
}

int LDAPService::ListUsersWithPaging(int, int, const std::string&, uint32_t& count,
                                     std::vector<std::string>& names) const {
  return NoUsers(count, names);
}

int DomainService::ListUsersWithPaging(int, int, const std::string&, const std::string&,
                                       uint32_t& count, std::vector<std::string>& names) const {
  return NoUsers(count, names);
}

}  // namespace SDK
