#include "user-db-schema.h"

#include <SQLiteCpp/Transaction.h>

#include <array>

#include "logger.h"

namespace syncusers {
namespace {

// Step N takes a database of version N to N+1. Steps are never edited once
// shipped; a change of layout is a new step.
constexpr std::array<const char*, 2> kSteps = {
    // 0 -> 1: owners (people and share users) and the rotation settings of
    // their views. Names compare without case, as the appliance's do.
    R"sql(
    CREATE TABLE owners (
      id INTEGER PRIMARY KEY AUTOINCREMENT,
      name TEXT NOT NULL COLLATE NOCASE,
      uid INTEGER NOT NULL DEFAULT 0,
      user_type INTEGER NOT NULL DEFAULT 0,
      view_id INTEGER NOT NULL UNIQUE,
      enabled INTEGER NOT NULL DEFAULT 1,
      attribute INTEGER NOT NULL DEFAULT 0,
      encrypted INTEGER NOT NULL DEFAULT 0,
      root_path TEXT NOT NULL DEFAULT ''
    );
    -- A share and a person may carry the same name; two people may not.
    CREATE UNIQUE INDEX owners_name ON owners (name COLLATE NOCASE, user_type = 1);
    CREATE TABLE rotate_settings (
      view_id INTEGER PRIMARY KEY,
      rotate_cnt INTEGER NOT NULL,
      rotate_policy TEXT NOT NULL,
      rotate_days INTEGER NOT NULL
    );
    )sql",
    // 1 -> 2: profiles of upload filter rules and the users they apply to,
    // by the appliance's user number; a user is in one profile at most. The
    // hidden default profile (id 1) stands for everyone else.
    R"sql(
    CREATE TABLE profiles (
      id INTEGER PRIMARY KEY AUTOINCREMENT,
      name TEXT NOT NULL,
      description TEXT NOT NULL DEFAULT '{}',
      hidden INTEGER NOT NULL DEFAULT 0
    );
    CREATE TABLE profile_users (
      uid INTEGER PRIMARY KEY,
      profile_id INTEGER NOT NULL REFERENCES profiles (id) ON DELETE CASCADE,
      seq INTEGER NOT NULL
    );
    CREATE INDEX profile_users_profile ON profile_users (profile_id, seq);
    INSERT INTO profiles (id, name, description, hidden) VALUES (1, 'default', '{}', 1);
    )sql",
};

}  // namespace

int SchemaVersion() { return static_cast<int>(kSteps.size()); }

int MigrateSchema(SQLite::Database& db) {
  int version = db.execAndGet("PRAGMA user_version").getInt();
  if (version > SchemaVersion()) {
    LOG_ERROR("user db has schema version %d, newer than %d\n", version, SchemaVersion());
    return -1;
  }
  for (; version < SchemaVersion(); ++version) {
    SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
    // Another process may have upgraded while we waited for the lock.
    if (db.execAndGet("PRAGMA user_version").getInt() > version) continue;
    db.exec(kSteps[version]);
    db.exec("PRAGMA user_version = " + std::to_string(version + 1));
    transaction.commit();
  }
  return 0;
}

}  // namespace syncusers
