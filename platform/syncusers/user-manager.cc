// UserManager on SQLite: one process-wide connection to
// "<connection parameter>/user-db.sqlite". Every call catches the library's
// exceptions at this boundary and turns them into -1 (SqliteFailure).
#include "user-manager.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>

#include "host-accounts.h"
#include "logger.h"
#include "private-files.h"
#include "user-db-schema.h"
#include "user-db.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kDbFileName = "user-db.sqlite";
constexpr int kBusyTimeoutMs = 5000;
constexpr uint32_t kShareType = 1;
// A new view's rotation until an administrator says otherwise.
constexpr int kDefaultRotateCount = 32;
constexpr const char* kDefaultRotatePolicy = "fifo";

std::unique_ptr<SQLite::Database> g_db;
std::string g_path;

constexpr const char* kOwnerColumns =
    "id, name, uid, user_type, view_id, enabled, attribute, encrypted, root_path";

int SqliteFailure(const char* what, const SQLite::Exception& e) {
  LOG_ERROR("user db: %s failed: %s (%d)\n", what, e.what(), e.getErrorCode());
  return -1;
}

// Runs `body` on the open database; the one place where SQLite errors become
// results.
template <class Body>
int WithDb(const char* what, Body&& body) {
  if (!g_db) {
    LOG_ERROR("user db: %s without Initialize\n", what);
    return -1;
  }
  try {
    return body(*g_db);
  } catch (const SQLite::Exception& e) {
    return SqliteFailure(what, e);
  }
}

// Rows are checked before use: a value out of range means a damaged record,
// which is reported rather than truncated into someone else's uid.
bool ReadOwner(SQLite::Statement& row, UserInfo& out) {
  const int64_t id = row.getColumn(0).getInt64();
  const int64_t uid = row.getColumn(2).getInt64();
  const int64_t type = row.getColumn(3).getInt64();
  const int64_t view = row.getColumn(4).getInt64();
  const int64_t attribute = row.getColumn(6).getInt64();
  if (id <= 0 || uid < 0 || uid > std::numeric_limits<uint32_t>::max() || type < 0 || type > 3 ||
      view <= 0 || attribute < 0 || attribute > std::numeric_limits<uint32_t>::max()) {
    LOG_ERROR("user db: damaged owner record %lld\n", static_cast<long long>(id));
    return false;
  }
  UserInfo info;
  info.id = static_cast<uint64_t>(id);
  info.name = row.getColumn(1).getString();
  info.uid = static_cast<uint32_t>(uid);
  info.user_type = static_cast<uint32_t>(type);
  info.view_id = static_cast<uint64_t>(view);
  info.enabled = row.getColumn(5).getInt() != 0;
  info.attribute = static_cast<uint32_t>(attribute);
  info.encrypted = row.getColumn(7).getInt() != 0;
  info.root_path = row.getColumn(8).getString();
  out = std::move(info);
  return true;
}

// 1 with `out` filled, 0 when the statement has no row, -1 on a damaged row.
int FetchOne(SQLite::Statement& query, UserInfo& out) {
  if (!query.executeStep()) return 0;
  return ReadOwner(query, out) ? 1 : -1;
}

int FetchAll(SQLite::Statement& query, std::list<UserInfo>& out) {
  std::list<UserInfo> rows;
  while (query.executeStep()) {
    UserInfo info;
    if (!ReadOwner(query, info)) return -1;
    rows.push_back(std::move(info));
  }
  out.swap(rows);
  return 0;
}

// The appliance's view of the account: disabled there, or gone, both mean the
// person cannot use the service now.
void RefreshAccountState(UserInfo& info) {
  if (info.isShareUser()) return;
  bool disabled = true;
  hostaccounts::User user;
  if (hostaccounts::LookUpUser(info.name, user) >= 0) disabled = user.disabled;
  if (disabled)
    info.attribute |= UserInfo::kAttrHVOSDisabled;
  else
    info.attribute &= ~UserInfo::kAttrHVOSDisabled;
}

// Creates the owner's root folder. A person's root lies in their home
// ("<home>/Tidepool"): both are the person's and closed to everyone else;
// the folders above belong to the system.
int EnsureRootFolder(const std::string& root_path, uint32_t uid) {
  if (root_path.empty()) return 0;
  std::error_code ec;
  if (fs::is_directory(root_path, ec)) return 0;
  const fs::path root(root_path);
  const fs::path top = uid != 0 ? root.parent_path() : root;
  if (!fs::create_directories(top.parent_path(), ec) && ec) {
    LOG_ERROR("cannot create %s: %s\n", top.parent_path().c_str(), ec.message().c_str());
    return -1;
  }
  if (uid == 0) {
    if (mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) {
      LOG_ERROR("mkdir(%s): %s (%d)\n", root.c_str(), strerror(errno), errno);
      return -1;
    }
    return 0;
  }
  for (const fs::path& dir : {top, root}) {
    if (mkdir(dir.c_str(), 0700) != 0) {
      if (errno == EEXIST) continue;  // a home that exists stays as it is
      LOG_ERROR("mkdir(%s): %s (%d)\n", dir.c_str(), strerror(errno), errno);
      return -1;
    }
    if (chown(dir.c_str(), uid, static_cast<gid_t>(-1)) != 0) {
      LOG_ERROR("chown(%s, %u): %s (%d)\n", dir.c_str(), uid, strerror(errno), errno);
      return -1;
    }
  }
  return 0;
}

// Look-ups by name see enabled owners only: to its callers a disabled owner
// is one the service does not serve. Its record stays for a later enabling.
int FindOwner(SQLite::Database& db, const std::string& name, bool share, bool with_disabled,
              UserInfo& out) {
  SQLite::Statement query(db, std::string("SELECT ") + kOwnerColumns +
                                  " FROM owners WHERE name = ? AND (user_type = 1) = ?" +
                                  (with_disabled ? "" : " AND enabled = 1"));
  query.bind(1, name);
  query.bind(2, share ? 1 : 0);
  return FetchOne(query, out);
}

// Enables a known owner or adds a new one with the next view id. The folder is
// made inside the transaction so that a failure leaves no record behind.
int EnableOwner(const char* what, const std::string& name, uint32_t uid, uint32_t user_type,
                const std::string& root_path, bool encrypted) {
  if (name.empty()) return -1;
  return WithDb(what, [&](SQLite::Database& db) {
    SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
    UserInfo existing;
    const int found = FindOwner(db, name, user_type == kShareType, true, existing);
    if (found < 0) return -1;
    if (found > 0) {
      if (EnsureRootFolder(existing.root_path, existing.uid) < 0) return -1;
      SQLite::Statement update(db, "UPDATE owners SET enabled = 1 WHERE id = ?");
      update.bind(1, static_cast<int64_t>(existing.id));
      update.exec();
      transaction.commit();
      return 0;
    }
    const int64_t view =
        db.execAndGet("SELECT COALESCE(MAX(view_id), 0) + 1 FROM owners").getInt64();
    SQLite::Statement insert(db,
                             "INSERT INTO owners (name, uid, user_type, view_id, enabled, "
                             "encrypted, root_path) VALUES (?, ?, ?, ?, 1, ?, ?)");
    insert.bind(1, name);
    insert.bind(2, static_cast<int64_t>(uid));
    insert.bind(3, static_cast<int64_t>(user_type));
    insert.bind(4, view);
    insert.bind(5, encrypted ? 1 : 0);
    insert.bind(6, root_path);
    insert.exec();
    SQLite::Statement rotate(db, "INSERT OR IGNORE INTO rotate_settings VALUES (?, ?, ?, 0)");
    rotate.bind(1, view);
    rotate.bind(2, kDefaultRotateCount);
    rotate.bind(3, kDefaultRotatePolicy);
    rotate.exec();
    if (EnsureRootFolder(root_path, uid) < 0) return -1;
    transaction.commit();
    return 0;
  });
}

int DisableOwner(const char* what, const std::string& name, bool share) {
  return WithDb(what, [&](SQLite::Database& db) {
    SQLite::Statement update(
        db, "UPDATE owners SET enabled = 0 WHERE name = ? AND (user_type = 1) = ?");
    update.bind(1, name);
    update.bind(2, share ? 1 : 0);
    if (update.exec() == 0) {
      LOG_ERROR("%s: '%s' is not known to the service\n", what, name.c_str());
      return -1;
    }
    return 0;
  });
}

}  // namespace

int UserManager::Initialize(const std::string& connect_param, const std::string& backend) {
  if (backend != "sqlite") {
    LOG_ERROR("user db: unsupported backend '%s'\n", backend.c_str());
    return -1;
  }
  const std::string path = (fs::path(connect_param) / kDbFileName).string();
  if (g_db && g_path == path) return 0;
  Destroy();
  tpsys::MakePrivateDir(connect_param);
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  tpsys::PreparePrivateDatabase(path, true);
  try {
    auto db = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE,
                                                 kBusyTimeoutMs);
    // The daemon and the tools write while the module reads.
    db->exec("PRAGMA journal_mode = WAL");
    // Keep the -wal and -shm files when the last connection closes: every
    // request opens this database, and creating and removing two files each
    // time costs more than the rest of the look-up.
    int persist = 1;
    sqlite3_file_control(db->getHandle(), "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    db->exec("PRAGMA foreign_keys = ON");
    if (syncusers::MigrateSchema(*db) < 0) return -1;
    g_db = std::move(db);
    g_path = path;
    return 0;
  } catch (const SQLite::Exception& e) {
    return SqliteFailure(("open " + path).c_str(), e);
  }
}

void UserManager::Destroy() {
  g_db.reset();
  g_path.clear();
}

bool UserManager::IsInitialized() { return g_db != nullptr; }

int UserManager::GetUser(const std::string& name, uint32_t uid, UserInfo& out, int flag) {
  UserInfo found;
  const int rc = WithDb("GetUser", [&](SQLite::Database& db) {
    const int got = FindOwner(db, name, false, false, found);
    if (got > 0 && uid != 0 && found.uid != uid) return 0;
    return got;
  });
  if (rc <= 0) return rc;
  if (flag == kQueryWithAccountState) RefreshAccountState(found);
  out = std::move(found);
  return 1;
}

int UserManager::GetUser(const std::string& name, UserInfo& out, int flag) {
  return GetUser(name, 0, out, flag);
}

int UserManager::GetShareUser(const std::string& share, UserInfo& out) {
  UserInfo found;
  const int rc = WithDb("GetShareUser", [&](SQLite::Database& db) {
    return FindOwner(db, share, true, false, found);
  });
  if (rc < 0) return rc;
  out = std::move(found);  // empty when the share was never enabled
  return rc;
}

int UserManager::GetUserByDefaultView(uint64_t view_id, UserInfo& out) {
  return WithDb("GetUserByDefaultView", [&](SQLite::Database& db) {
    SQLite::Statement query(
        db, std::string("SELECT ") + kOwnerColumns + " FROM owners WHERE view_id = ?");
    query.bind(1, static_cast<int64_t>(view_id));
    return FetchOne(query, out);
  });
}

int UserManager::EnumAllUser(std::list<UserInfo>& out) {
  return WithDb("EnumAllUser", [&](SQLite::Database& db) {
    SQLite::Statement query(db,
                            std::string("SELECT ") + kOwnerColumns + " FROM owners ORDER BY id");
    return FetchAll(query, out);
  });
}

int UserManager::EnumShareUser(std::list<UserInfo>& out, const std::string& order) {
  std::string order_by = "id";
  if (order == "ASC" || order == "DESC") order_by = "name COLLATE NOCASE " + order + ", id";
  return WithDb("EnumShareUser", [&](SQLite::Database& db) {
    SQLite::Statement query(db, std::string("SELECT ") + kOwnerColumns +
                                    " FROM owners WHERE user_type = 1 ORDER BY " + order_by);
    return FetchAll(query, out);
  });
}

int UserManager::EnumUserByType(uint32_t user_type, std::list<UserInfo>& out) {
  return WithDb("EnumUserByType", [&](SQLite::Database& db) {
    SQLite::Statement query(db, std::string("SELECT ") + kOwnerColumns +
                                    " FROM owners WHERE user_type = ? ORDER BY id");
    query.bind(1, static_cast<int64_t>(user_type));
    return FetchAll(query, out);
  });
}

int UserManager::EnableUser(const std::string& name, uint32_t uid, uint32_t user_type,
                            const std::string& root_path) {
  if (user_type == kShareType) return -1;
  return EnableOwner("EnableUser", name, uid, user_type, root_path, false);
}

int UserManager::DisableUser(const std::string& name) {
  return DisableOwner("DisableUser", name, false);
}

int UserManager::EnableShare(const std::string& share, const std::string& root_path,
                             bool encrypted) {
  return EnableOwner("EnableShare", share, 0, kShareType, root_path, encrypted);
}

int UserManager::DisableShare(const std::string& share) {
  return DisableOwner("DisableShare", share, true);
}

int UserManager::InsertRotateSettingTable(uint64_t view_id, int rotate_cnt,
                                          const std::string& rotate_policy, int rotate_days) {
  return WithDb("InsertRotateSettingTable", [&](SQLite::Database& db) {
    SQLite::Statement insert(db, "INSERT OR REPLACE INTO rotate_settings VALUES (?, ?, ?, ?)");
    insert.bind(1, static_cast<int64_t>(view_id));
    insert.bind(2, rotate_cnt);
    insert.bind(3, rotate_policy);
    insert.bind(4, rotate_days);
    insert.exec();
    return 0;
  });
}

int UserManager::QueryRotateSettingTable(uint64_t view_id, int& rotate_cnt,
                                         std::string& rotate_policy, int& rotate_days) {
  return WithDb("QueryRotateSettingTable", [&](SQLite::Database& db) {
    SQLite::Statement query(
        db, "SELECT rotate_cnt, rotate_policy, rotate_days FROM rotate_settings WHERE view_id = ?");
    query.bind(1, static_cast<int64_t>(view_id));
    if (!query.executeStep()) return 0;
    rotate_cnt = query.getColumn(0).getInt();
    rotate_policy = query.getColumn(1).getString();
    rotate_days = query.getColumn(2).getInt();
    return 1;
  });
}

namespace syncusers {

SQLite::Database* OpenDatabase() { return g_db.get(); }

}  // namespace syncusers
