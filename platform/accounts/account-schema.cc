#include "account-schema.h"

#include <SQLiteCpp/Exception.h>

namespace hostaccounts {
namespace {

// kMigrations[i] takes the schema from version i to i + 1. Names are unique
// through `name_key`, their case-folded form, so "Alice" and "alice" clash
// also outside ASCII. New uids count up from 1026 and are never reused
// (AUTOINCREMENT): a deleted user's files keep their uid and must not fall
// to a newcomer.
const char* const kMigrations[] = {
    R"sql(
CREATE TABLE users (
  uid INTEGER PRIMARY KEY AUTOINCREMENT,
  name TEXT NOT NULL,
  name_key TEXT NOT NULL UNIQUE,
  gid INTEGER NOT NULL DEFAULT 100,
  home TEXT NOT NULL,
  password_hash TEXT NOT NULL DEFAULT '',
  disabled INTEGER NOT NULL DEFAULT 0,
  expire_day INTEGER NOT NULL DEFAULT 0,
  app_allowed INTEGER NOT NULL DEFAULT 1
);
CREATE TABLE groups (
  gid INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  name_key TEXT NOT NULL UNIQUE
);
CREATE TABLE memberships (
  gid INTEGER NOT NULL REFERENCES groups(gid) ON DELETE CASCADE,
  uid INTEGER NOT NULL REFERENCES users(uid) ON DELETE CASCADE,
  PRIMARY KEY (gid, uid)
);
CREATE INDEX memberships_by_uid ON memberships(uid);
CREATE TABLE shares (
  name_key TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  volume TEXT NOT NULL,
  path TEXT NOT NULL,
  encrypted INTEGER NOT NULL DEFAULT 0,
  mounted INTEGER NOT NULL DEFAULT 1,
  active INTEGER NOT NULL DEFAULT 1
);
CREATE TABLE share_permissions (
  share_key TEXT NOT NULL REFERENCES shares(name_key) ON DELETE CASCADE,
  uid INTEGER NOT NULL REFERENCES users(uid) ON DELETE CASCADE,
  permission INTEGER NOT NULL,
  PRIMARY KEY (share_key, uid)
);
CREATE INDEX share_permissions_by_uid ON share_permissions(uid);
CREATE TABLE volumes (
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  description TEXT NOT NULL DEFAULT '',
  type INTEGER NOT NULL DEFAULT 1,
  writable INTEGER NOT NULL DEFAULT 1
);
INSERT INTO sqlite_sequence (name, seq) VALUES ('users', 1025);
INSERT INTO groups (gid, name, name_key) VALUES (100, 'users', 'users');
INSERT INTO groups (gid, name, name_key) VALUES (101, 'administrators', 'administrators');
)sql",
    // Encrypted shares: the content key wrapped under a key derived from the
    // passphrase (argon2id with this salt and these limits), and while the
    // share is unlocked the content key itself. The directory file is
    // root's alone, which is what keeps that column to root.
    R"sql(
CREATE TABLE share_keys (
  share_key TEXT PRIMARY KEY REFERENCES shares(name_key) ON DELETE CASCADE,
  salt BLOB NOT NULL,
  opslimit INTEGER NOT NULL,
  memlimit INTEGER NOT NULL,
  wrapped BLOB NOT NULL,
  content_key TEXT
);
)sql",
};

static_assert(sizeof(kMigrations) / sizeof(kMigrations[0]) == kSchemaVersion);

int UserVersion(SQLite::Database& db) { return db.execAndGet("PRAGMA user_version").getInt(); }

}  // namespace

bool MigrateSchema(SQLite::Database& db) {
  try {
    int version = UserVersion(db);
    if (version == kSchemaVersion) return true;
    if (version > kSchemaVersion) return false;
    if (version == 0) {
      // A rollback journal: writes are rare (the administrator's tools), and
      // a reader in this mode creates and removes no file, which matters to
      // the web requests that read the directory a few times each. The mode
      // sticks to the file, so it is set once, outside a transaction.
      db.exec("PRAGMA journal_mode=DELETE");
    }
    // IMMEDIATE takes the write lock first: of two processes creating the
    // directory at once, the second sees the first one's version and stops.
    db.exec("BEGIN IMMEDIATE");
    try {
      version = UserVersion(db);
      for (; version < kSchemaVersion; ++version) {
        db.exec(kMigrations[version]);
      }
      db.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
      db.exec("COMMIT");
    } catch (const SQLite::Exception&) {
      db.exec("ROLLBACK");
      return false;
    }
    return true;
  } catch (const SQLite::Exception&) {
    return false;
  }
}

}  // namespace hostaccounts
