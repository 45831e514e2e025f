// The open user database, for the parts of UserManager kept in their own
// files. Private to tp_syncusers.
#pragma once

#include <SQLiteCpp/Database.h>

namespace syncusers {

// The connection UserManager::Initialize opened; null before it or after
// Destroy.
SQLite::Database* OpenDatabase();

}  // namespace syncusers
