// The account directory's tables and their migrations. The schema version is
// SQLite's user_version; each step moves it by one, so a directory written by
// an older build is brought up to date when it is opened.
#pragma once

#include <SQLiteCpp/Database.h>

namespace hostaccounts {

constexpr int kSchemaVersion = 2;

// Brings the open database to kSchemaVersion. False when it can't, or when the
// file was written by a newer build.
bool MigrateSchema(SQLite::Database& db);

}  // namespace hostaccounts
