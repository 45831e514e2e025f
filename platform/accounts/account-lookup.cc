// Read-only look-ups of the account directory for request paths. A request
// is one short process: what it links and opens is paid on every call, so
// this file stays clear of ICU, libsodium and the schema migrations, and
// reads through the process's one read-only connection, which in the
// directory's rollback-journal mode creates no file.
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include <ctime>

#include "directory-read.h"
#include "host-accounts.h"
#include "root-scope.h"

namespace hostaccounts {
namespace {

// The key is indexed and matches nearly always; the stored name only for a
// name whose key folds more than ASCII. An OR of the two would scan the
// whole directory each time.
constexpr const char* kUserByName =
    "SELECT uid, name, gid, home, disabled, expire_day, app_allowed FROM users WHERE name_key = ?2 "
    "UNION ALL SELECT uid, name, gid, home, disabled, expire_day, app_allowed FROM users "
    "WHERE name = ?1 LIMIT 1";
constexpr const char* kUserByUid =
    "SELECT uid, name, gid, home, disabled, expire_day, app_allowed FROM users WHERE uid = ?1";
constexpr const char* kStanding =
    "SELECT u.name, u.disabled, u.expire_day, EXISTS (SELECT 1 FROM memberships m JOIN groups g "
    "ON g.gid = m.gid WHERE m.uid = u.uid AND g.name_key = ?2) FROM users u WHERE u.uid = ?1";

// One read of the kept connection, reset afterwards so that no read lock
// outlives the look-up: a request looks the same accounts up several times,
// and opening the file (and parsing its schema) each time cost more than
// the query.
template <typename Bind, typename Read>
int CachedQuery(const char* sql, Bind bind, Read read) {
  return WithCachedDirectory([&](SQLite::Database&) -> int {
    SQLite::Statement& query = CachedStatement(sql);
    bind(query);
    const int rc = query.executeStep() ? read(query) : kErrNotFound;
    query.reset();
    return rc;
  });
}

int ReadUser(SQLite::Statement& query, User& out) {
  const int64_t uid = query.getColumn(0).getInt64();
  const int64_t gid = query.getColumn(2).getInt64();
  // Stored rows are checked before use, like any other input.
  if (uid < 0 || uid > UINT32_MAX || gid < 0 || gid > UINT32_MAX) return kErrStorage;
  out.uid = static_cast<uint32_t>(uid);
  out.name = query.getColumn(1).getString();
  out.gid = static_cast<uint32_t>(gid);
  out.home = query.getColumn(3).getString();
  out.disabled = query.getColumn(4).getInt() != 0;
  out.expire_day = query.getColumn(5).getInt64();
  out.app_allowed = query.getColumn(6).getInt() != 0;
  return 0;
}

}  // namespace

int LookUpUser(const std::string& name, User& out) {
  if (name.empty()) return kErrNotFound;
  return CachedQuery(
      kUserByName,
      [&](SQLite::Statement& q) {
        q.bind(1, name);
        q.bind(2, AsciiLower(name));
      },
      [&](SQLite::Statement& q) { return ReadUser(q, out); });
}

int LookUpUserByUid(uint32_t uid, User& out) {
  return CachedQuery(
      kUserByUid, [&](SQLite::Statement& q) { q.bind(1, static_cast<int64_t>(uid)); },
      [&](SQLite::Statement& q) { return ReadUser(q, out); });
}

int LookUpStanding(uint32_t uid, AccountStanding& out) {
  return CachedQuery(
      kStanding,
      [&](SQLite::Statement& q) {
        q.bind(1, static_cast<int64_t>(uid));
        q.bind(2, kAdministratorsGroup);
      },
      [&](SQLite::Statement& q) {
        AccountStanding standing;
        standing.name = q.getColumn(0).getString();
        standing.disabled = q.getColumn(1).getInt() != 0;
        const int64_t expire_day = q.getColumn(2).getInt64();
        standing.expired =
            expire_day != 0 && static_cast<int64_t>(time(nullptr)) / 86400 > expire_day;
        standing.is_admin = q.getColumn(3).getInt() != 0;
        out = std::move(standing);
        return 0;
      });
}

int LookUpVolumes(std::vector<Volume>& out) {
  RootScope root;
  try {
    SQLite::Database db(kDefaultPath, SQLite::OPEN_READONLY, kReadBusyTimeoutMs);
    SQLite::Statement query(
        db, "SELECT id, path, description, type, writable FROM volumes ORDER BY id");
    std::vector<Volume> volumes;
    while (query.executeStep()) {
      Volume volume;
      volume.id = query.getColumn(0).getInt();
      volume.path = query.getColumn(1).getString();
      volume.description = query.getColumn(2).getString();
      volume.type = query.getColumn(3).getInt();
      volume.writable = query.getColumn(4).getInt() != 0;
      // A stored path is trusted only when it names a volume mount point.
      if (volume.path.rfind("/volume", 0) != 0 || volume.path.find('/', 1) != std::string::npos) {
        continue;
      }
      volumes.push_back(std::move(volume));
    }
    out.swap(volumes);
    return 0;
  } catch (const SQLite::Exception&) {
    return kErrStorage;
  }
}

}  // namespace hostaccounts

int KSTXUserCheckExpired(const char* user) {
  if (user == nullptr) return hostaccounts::kErrInvalid;
  hostaccounts::User found;
  const int rc = hostaccounts::LookUpUser(user, found);
  if (rc < 0) return rc;
  const int64_t today = static_cast<int64_t>(time(nullptr)) / 86400;
  return found.expire_day != 0 && today > found.expire_day ? 1 : 0;
}

void KSTXUsersCheckExpired(const std::vector<std::string>& users, std::vector<int>& out) {
  out.assign(users.size(), hostaccounts::kErrStorage);
  if (users.empty()) return;
  const int64_t today = static_cast<int64_t>(time(nullptr)) / 86400;
  hostaccounts::RootScope root;
  try {
    SQLite::Database db(hostaccounts::kDefaultPath, SQLite::OPEN_READONLY,
                        hostaccounts::kReadBusyTimeoutMs);
    SQLite::Statement query(db,
                            "SELECT expire_day FROM users WHERE name_key = ?2 UNION ALL "
                            "SELECT expire_day FROM users WHERE name = ?1 LIMIT 1");
    for (size_t i = 0; i < users.size(); ++i) {
      query.reset();
      query.bind(1, users[i]);
      query.bind(2, hostaccounts::AsciiLower(users[i]));
      if (!query.executeStep()) {
        out[i] = hostaccounts::kErrNotFound;
        continue;
      }
      const int64_t expire_day = query.getColumn(0).getInt64();
      out[i] = expire_day != 0 && today > expire_day ? 1 : 0;
    }
  } catch (const SQLite::Exception&) {
    // What was not answered stays a failure.
  }
}
