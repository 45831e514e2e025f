// Schema of the user database and its upgrades. Private to tp_syncusers.
#pragma once

#include <SQLiteCpp/Database.h>

namespace syncusers {

// The schema version this build writes (PRAGMA user_version).
int SchemaVersion();

// Brings the database up to SchemaVersion(), one step at a time, each step in
// its own transaction. Throws SQLite::Exception; refuses (returns -1) a
// database written by a newer build.
int MigrateSchema(SQLite::Database& db);

}  // namespace syncusers
