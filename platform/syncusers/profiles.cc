// Profiles in the user database: the rules as the front-end wrote them, and
// the users each one applies to. The store never reads the rules.
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include <limits>

#include "logger.h"
#include "user-db.h"
#include "user-manager.h"

namespace {

constexpr int64_t kDefaultProfileId = 1;

template <class Body>
int WithDb(const char* what, Body&& body) {
  SQLite::Database* db = syncusers::OpenDatabase();
  if (db == nullptr) {
    LOG_ERROR("user db: %s without Initialize\n", what);
    return -1;
  }
  try {
    return body(*db);
  } catch (const SQLite::Exception& e) {
    LOG_ERROR("user db: %s failed: %s (%d)\n", what, e.what(), e.getErrorCode());
    return -1;
  }
}

// Replaces the profile `id` (made when missing) and its users. A user named
// twice, or assigned elsewhere before, ends up in this profile once.
void StoreProfile(SQLite::Database& db, const ProfileInfoWithUserIds& profile) {
  int64_t id = profile.id;
  if (id <= 0) {
    SQLite::Statement insert(db, "INSERT INTO profiles (name, description) VALUES (?, ?)");
    insert.bind(1, profile.name);
    insert.bind(2, profile.description);
    insert.exec();
    id = db.getLastInsertRowid();
  } else {
    // The hidden flag stays as stored: the default profile keeps being
    // hidden even when its rules are rewritten.
    SQLite::Statement upsert(db,
                             "INSERT INTO profiles (id, name, description) VALUES (?1, ?2, ?3) "
                             "ON CONFLICT (id) DO UPDATE SET name = ?2, description = ?3");
    upsert.bind(1, id);
    upsert.bind(2, profile.name);
    upsert.bind(3, profile.description);
    upsert.exec();
    SQLite::Statement clear(db, "DELETE FROM profile_users WHERE profile_id = ?");
    clear.bind(1, id);
    clear.exec();
  }
  SQLite::Statement assign(db,
                           "INSERT OR REPLACE INTO profile_users (uid, profile_id, seq) "
                           "VALUES (?, ?, (SELECT COALESCE(MAX(seq), 0) + 1 FROM profile_users))");
  for (uint64_t uid : profile.user_ids) {
    if (uid > std::numeric_limits<uint32_t>::max()) continue;  // not a user number
    assign.bind(1, static_cast<int64_t>(uid));
    assign.bind(2, id);
    assign.exec();
    assign.reset();
  }
}

}  // namespace

int UserManager::GetAllProfiles(std::vector<ProfileInfo>& out) {
  return WithDb("GetAllProfiles", [&](SQLite::Database& db) {
    SQLite::Statement query(db, "SELECT id, name, description, hidden FROM profiles ORDER BY id");
    std::vector<ProfileInfo> rows;
    while (query.executeStep()) {
      const int64_t id = query.getColumn(0).getInt64();
      if (id <= 0) {
        LOG_ERROR("user db: damaged profile record %lld\n", static_cast<long long>(id));
        return -1;
      }
      ProfileInfo info;
      info.id = static_cast<uint64_t>(id);
      info.name = query.getColumn(1).getString();
      info.description = query.getColumn(2).getString();
      info.hidden = query.getColumn(3).getInt() != 0;
      rows.push_back(std::move(info));
    }
    out.swap(rows);
    return 0;
  });
}

int UserManager::GetUserProfileMap(
    std::vector<std::pair<unsigned long long, unsigned long long>>& out) {
  return WithDb("GetUserProfileMap", [&](SQLite::Database& db) {
    SQLite::Statement query(db,
                            "SELECT uid, profile_id FROM profile_users ORDER BY profile_id, seq");
    std::vector<std::pair<unsigned long long, unsigned long long>> rows;
    while (query.executeStep()) {
      const int64_t uid = query.getColumn(0).getInt64();
      const int64_t profile = query.getColumn(1).getInt64();
      if (uid < 0 || profile <= 0) continue;  // damaged row: no one to show
      rows.emplace_back(static_cast<unsigned long long>(uid),
                        static_cast<unsigned long long>(profile));
    }
    out.swap(rows);
    return 0;
  });
}

int UserManager::CommitProfiles(const std::vector<ProfileInfoWithUserIds>& profiles,
                                const std::vector<unsigned long long>& removed) {
  return WithDb("CommitProfiles", [&](SQLite::Database& db) {
    SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
    for (const ProfileInfoWithUserIds& profile : profiles) StoreProfile(db, profile);
    SQLite::Statement drop(db, "DELETE FROM profiles WHERE id = ? AND hidden = 0");
    for (unsigned long long id : removed) {
      if (id == 0 || id > static_cast<unsigned long long>(std::numeric_limits<int64_t>::max()) ||
          static_cast<int64_t>(id) == kDefaultProfileId)
        continue;
      drop.bind(1, static_cast<int64_t>(id));
      drop.exec();
      drop.reset();
    }
    transaction.commit();
    return 0;
  });
}
