// The host's account directory on SQLite. SQLiteCpp reports failures by
// exception; they are caught at the edge of every operation and turned into
// a HostAccounts::Error by FromSqlite, the only place that knows SQLite codes.
#include "host-accounts.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sodium.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>

#include "account-schema.h"
#include "password-check.h"
#include "root-scope.h"
#include "share-folder.h"
#include "share-keys.h"

namespace hostaccounts {
namespace {

constexpr uint32_t kUsersGid = 100;
constexpr int kBusyTimeoutMs = 10000;
constexpr size_t kMaxNameBytes = 64;

int FromSqlite(const SQLite::Exception& e) {
  return (e.getErrorCode() & 0xff) == SQLITE_CONSTRAINT ? kErrExists : kErrStorage;
}

// Runs one operation; any SQLite failure becomes an Error.
template <typename Fn>
int Guarded(Fn&& fn) {
  try {
    return fn();
  } catch (const SQLite::Exception& e) {
    return FromSqlite(e);
  } catch (const std::exception&) {
    return kErrStorage;
  }
}

// The case-folded form that makes names unique regardless of case.
std::string NameKey(const std::string& name) {
  std::string key;
  icu::UnicodeString::fromUTF8(name).foldCase().toUTF8String(key);
  return key;
}

bool IsValidUtf8(const std::string& text) {
  std::string round_trip;
  icu::UnicodeString::fromUTF8(text).toUTF8String(round_trip);
  return round_trip == text;
}

// Names become path components and appear in logs and JSON: 1 to 64 bytes of
// valid UTF-8, no '/', no control characters, not "." or "..".
bool IsValidName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameBytes || name == "." || name == "..") return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f || c == '/') return false;
  }
  return IsValidUtf8(name);
}

// '@' and '\' mark LDAP and domain accounts elsewhere in the system.
bool IsValidUserName(const std::string& name) {
  return IsValidName(name) && name.find_first_of("@\\") == std::string::npos;
}

// A leading '@' is kept for the service's own folders (@tidepool, @tmp).
bool IsValidShareName(const std::string& name) { return IsValidName(name) && name[0] != '@'; }

// "/volumeN" with N from 1: the volume's id.
int VolumeIdOf(const std::string& path) {
  static constexpr const char kPrefix[] = "/volume";
  const size_t prefix = sizeof(kPrefix) - 1;
  if (path.compare(0, prefix, kPrefix) != 0 || path.size() == prefix) return -1;
  if (path[prefix] == '0' || path.size() > prefix + 5) return -1;
  int id = 0;
  for (size_t i = prefix; i < path.size(); ++i) {
    if (path[i] < '0' || path[i] > '9') return -1;
    id = id * 10 + (path[i] - '0');
  }
  return id;
}

bool InitSodium() {
  static const bool ok = sodium_init() >= 0;
  return ok;
}

// Verified in place of a stored hash when the name is unknown (or has no
// password): made once with the parameters HashPassword uses, so that the
// check costs the same memory and time.
constexpr const char* kDummyHash =
    "$argon2id$v=19$m=65536,t=2,p=1$7vIQrZwPsTN6KfsbiC7/cw$"
    "qy9WGK2xCVPCawGczIJK4/vGHa1EUoRPTmcAsC17luA";

uint64_t g_verifications = 0;

bool VerifyHash(const std::string& hash, const std::string& password) {
  ++g_verifications;
  return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

int HashPassword(const std::string& password, std::string& out) {
  if (!InitSodium()) return kErrStorage;
  char hash[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
    return kErrStorage;  // out of memory
  }
  out = hash;
  return 0;
}

User ReadUser(SQLite::Statement& row) {
  User user;
  user.uid = static_cast<uint32_t>(row.getColumn("uid").getInt64());
  user.name = row.getColumn("name").getString();
  user.gid = static_cast<uint32_t>(row.getColumn("gid").getInt64());
  user.home = row.getColumn("home").getString();
  user.disabled = row.getColumn("disabled").getInt() != 0;
  user.expire_day = row.getColumn("expire_day").getInt64();
  user.app_allowed = row.getColumn("app_allowed").getInt() != 0;
  return user;
}

Share ReadShare(SQLite::Statement& row) {
  Share share;
  share.name = row.getColumn("name").getString();
  share.volume = row.getColumn("volume").getString();
  share.path = row.getColumn("path").getString();
  share.encrypted = row.getColumn("encrypted").getInt() != 0;
  share.mounted = row.getColumn("mounted").getInt() != 0;
  share.active = row.getColumn("active").getInt() != 0;
  return share;
}

Volume ReadVolume(SQLite::Statement& row) {
  Volume volume;
  volume.id = row.getColumn("id").getInt();
  volume.path = row.getColumn("path").getString();
  volume.description = row.getColumn("description").getString();
  volume.type = row.getColumn("type").getInt();
  volume.writable = row.getColumn("writable").getInt() != 0;
  return volume;
}

constexpr const char* kUserColumns =
    "SELECT uid, name, gid, home, disabled, expire_day, app_allowed FROM users ";
constexpr const char* kShareColumns =
    "SELECT name, volume, path, encrypted, mounted, active FROM shares ";

class SqliteHostAccounts final : public HostAccounts {
 public:
  explicit SqliteHostAccounts(const std::string& path)
      : db_(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, kBusyTimeoutMs) {
    db_.exec("PRAGMA foreign_keys = ON");
  }

  SQLite::Database& db() { return db_; }

  int AddUser(const std::string& name, const std::string& password, uint32_t uid) override {
    // The new uid is the result, so it must fit an int.
    if (!IsValidUserName(name) || uid > INT32_MAX) return kErrInvalid;
    std::string hash;
    // An empty password leaves the account without one: no login until set.
    if (!password.empty()) {
      const int rc = HashPassword(password, hash);
      if (rc < 0) return rc;
    }
    return Guarded([&] {
      SQLite::Transaction transaction(db_);
      SQLite::Statement insert(db_,
                               "INSERT INTO users (uid, name, name_key, gid, home, password_hash)"
                               " VALUES (?, ?, ?, ?, ?, ?)");
      if (uid != 0) insert.bind(1, static_cast<int64_t>(uid));  // else the next in sequence
      insert.bind(2, name);
      insert.bind(3, NameKey(name));
      insert.bind(4, static_cast<int64_t>(kUsersGid));
      insert.bind(5, "/volume1/homes/" + name);
      insert.bind(6, hash);
      insert.exec();
      const int64_t new_uid = db_.getLastInsertRowid();
      if (new_uid <= 0 || new_uid > INT32_MAX) return static_cast<int>(kErrStorage);
      uid = static_cast<uint32_t>(new_uid);
      SQLite::Statement member(db_, "INSERT INTO memberships (gid, uid) VALUES (?, ?)");
      member.bind(1, static_cast<int64_t>(kUsersGid));
      member.bind(2, static_cast<int64_t>(uid));
      member.exec();
      transaction.commit();
      return static_cast<int>(uid);
    });
  }

  int DeleteUser(const std::string& name) override {
    return Guarded([&] {
      SQLite::Statement remove(db_, "DELETE FROM users WHERE name_key = ?");
      remove.bind(1, NameKey(name));
      return remove.exec() == 1 ? 0 : static_cast<int>(kErrNotFound);
    });
  }

  int SetPassword(const std::string& name, const std::string& password) override {
    if (password.empty()) return kErrInvalid;
    std::string hash;
    const int rc = HashPassword(password, hash);
    if (rc < 0) return rc;
    return UpdateUser(name, "password_hash", hash);
  }

  int VerifyPassword(const std::string& name, const std::string& password) override {
    std::string hash;
    const int rc = Guarded([&] {
      SQLite::Statement query(db_, "SELECT password_hash FROM users WHERE name_key = ?");
      query.bind(1, NameKey(name));
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      hash = query.getColumn(0).getString();
      return 0;
    });
    if (rc < 0 && rc != kErrNotFound) return rc;
    if (!InitSodium()) return kErrStorage;
    if (rc == kErrNotFound || hash.empty()) {
      VerifyHash(kDummyHash, password);  // the same cost as a real check
      return rc == kErrNotFound ? rc : kErrInvalid;
    }
    return VerifyHash(hash, password) ? 0 : kErrInvalid;
  }

  int SetDisabled(const std::string& name, bool disabled) override {
    return UpdateUser(name, "disabled", int64_t{disabled});
  }

  int SetExpireDay(const std::string& name, int64_t expire_day) override {
    if (expire_day < 0) return kErrInvalid;
    return UpdateUser(name, "expire_day", expire_day);
  }

  int SetAppPrivilege(const std::string& name, bool allowed) override {
    return UpdateUser(name, "app_allowed", int64_t{allowed});
  }

  int GetUser(const std::string& name, User& out) override {
    return Guarded([&] {
      SQLite::Statement query(db_, std::string(kUserColumns) + "WHERE name_key = ?");
      query.bind(1, NameKey(name));
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      out = ReadUser(query);
      return 0;
    });
  }

  int GetUserByUid(uint32_t uid, User& out) override {
    return Guarded([&] {
      SQLite::Statement query(db_, std::string(kUserColumns) + "WHERE uid = ?");
      query.bind(1, static_cast<int64_t>(uid));
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      out = ReadUser(query);
      return 0;
    });
  }

  int ListUsers(std::vector<User>& out) override {
    return Guarded([&] {
      std::vector<User> users;
      SQLite::Statement query(db_, std::string(kUserColumns) + "ORDER BY uid");
      while (query.executeStep()) users.push_back(ReadUser(query));
      out.swap(users);
      return static_cast<int>(out.size());
    });
  }

  bool IsAdmin(const std::string& name) override {
    Group group;
    if (GetGroup(kAdministratorsGroup, group) < 0) return false;
    const std::string key = NameKey(name);
    for (const auto& member : group.members) {
      if (NameKey(member) == key) return true;
    }
    return false;
  }

  int AddGroup(const std::string& name, uint32_t gid) override {
    if (!IsValidUserName(name) || gid > INT32_MAX) return kErrInvalid;
    return Guarded([&] {
      SQLite::Transaction transaction(db_);
      if (gid == 0) {
        gid = static_cast<uint32_t>(db_.execAndGet("SELECT max(gid) FROM groups").getInt64() + 1);
      }
      SQLite::Statement insert(db_, "INSERT INTO groups (gid, name, name_key) VALUES (?, ?, ?)");
      insert.bind(1, static_cast<int64_t>(gid));
      insert.bind(2, name);
      insert.bind(3, NameKey(name));
      insert.exec();
      transaction.commit();
      return static_cast<int>(gid);
    });
  }

  int AddGroupMember(const std::string& group, const std::string& user) override {
    return Guarded([&] {
      SQLite::Statement insert(db_,
                               "INSERT OR IGNORE INTO memberships (gid, uid)"
                               " SELECT g.gid, u.uid FROM groups g, users u"
                               " WHERE g.name_key = ? AND u.name_key = ?");
      insert.bind(1, NameKey(group));
      insert.bind(2, NameKey(user));
      insert.exec();
      const int rc = GroupAndUserExist(group, user);
      if (rc == 0 && NameKey(group) == NameKey(kAdministratorsGroup)) SetUpAllFolders();
      return rc;
    });
  }

  int RemoveGroupMember(const std::string& group, const std::string& user) override {
    return Guarded([&] {
      SQLite::Statement remove(db_,
                               "DELETE FROM memberships"
                               " WHERE gid = (SELECT gid FROM groups WHERE name_key = ?)"
                               " AND uid = (SELECT uid FROM users WHERE name_key = ?)");
      remove.bind(1, NameKey(group));
      remove.bind(2, NameKey(user));
      remove.exec();
      const int rc = GroupAndUserExist(group, user);
      if (rc == 0 && NameKey(group) == NameKey(kAdministratorsGroup)) SetUpAllFolders();
      return rc;
    });
  }

  int GetGroup(const std::string& name, Group& out) override {
    return Guarded([&] {
      SQLite::Statement query(db_, "SELECT gid, name FROM groups WHERE name_key = ?");
      query.bind(1, NameKey(name));
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      Group group;
      group.gid = static_cast<uint32_t>(query.getColumn(0).getInt64());
      group.name = query.getColumn(1).getString();
      ReadMembers(group);
      out = std::move(group);
      return 0;
    });
  }

  int ListGroupsOfUser(const std::string& user, std::vector<Group>& out) override {
    return Guarded([&] {
      User found;
      const int rc = GetUser(user, found);
      if (rc < 0) return rc;
      std::vector<Group> groups;
      SQLite::Statement query(db_,
                              "SELECT g.gid, g.name FROM groups g JOIN memberships m"
                              " ON m.gid = g.gid WHERE m.uid = ? ORDER BY g.gid");
      query.bind(1, static_cast<int64_t>(found.uid));
      while (query.executeStep()) {
        Group group;
        group.gid = static_cast<uint32_t>(query.getColumn(0).getInt64());
        group.name = query.getColumn(1).getString();
        groups.push_back(std::move(group));
      }
      for (auto& group : groups) ReadMembers(group);
      out.swap(groups);
      return static_cast<int>(out.size());
    });
  }

  int AddShare(const Share& share) override {
    if (!IsValidShareName(share.name) || VolumeIdOf(share.volume) < 0) return kErrInvalid;
    const std::string path = share.volume + "/" + share.name;
    const int rc = Guarded([&] {
      SQLite::Statement insert(db_,
                               "INSERT INTO shares (name_key, name, volume, path, encrypted,"
                               " mounted, active) VALUES (?, ?, ?, ?, ?, ?, ?)");
      insert.bind(1, NameKey(share.name));
      insert.bind(2, share.name);
      insert.bind(3, share.volume);
      insert.bind(4, path);
      insert.bind(5, int64_t{share.encrypted});
      insert.bind(6, int64_t{share.mounted});
      insert.bind(7, int64_t{share.active});
      insert.exec();
      return 0;
    });
    if (rc < 0) return rc;
    // On disk as its permissions say, so that users reach the folder itself
    // no further than the service lets them.
    if (SetUpFolder(share.name, path) < 0) {
      const int error = errno;
      DeleteShare(share.name);
      return error == ENOENT ? kErrInvalid : kErrStorage;  // ENOENT: no such volume
    }
    return 0;
  }

  int DeleteShare(const std::string& name) override {
    return Guarded([&] {
      SQLite::Statement remove(db_, "DELETE FROM shares WHERE name_key = ?");
      remove.bind(1, NameKey(name));
      return remove.exec() == 1 ? 0 : static_cast<int>(kErrNotFound);
    });
  }

  int GetShare(const std::string& name, Share& out) override {
    return Guarded([&] {
      SQLite::Statement query(db_, std::string(kShareColumns) + "WHERE name_key = ?");
      query.bind(1, NameKey(name));
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      out = ReadShare(query);
      return 0;
    });
  }

  int ListShares(std::vector<Share>& out) override {
    return Guarded([&] {
      std::vector<Share> shares;
      SQLite::Statement query(db_, std::string(kShareColumns) + "ORDER BY name_key");
      while (query.executeStep()) shares.push_back(ReadShare(query));
      out.swap(shares);
      return static_cast<int>(out.size());
    });
  }

  int SetShareMounted(const std::string& name, bool mounted) override {
    return Guarded([&] {
      SQLite::Statement update(db_, "UPDATE shares SET mounted = ? WHERE name_key = ?");
      update.bind(1, int64_t{mounted});
      update.bind(2, NameKey(name));
      return update.exec() == 1 ? 0 : static_cast<int>(kErrNotFound);
    });
  }

  int AddEncryptedShare(const Share& share, const std::string& passphrase) override {
    if (passphrase.empty()) return kErrInvalid;
    Share encrypted = share;
    encrypted.encrypted = true;
    encrypted.mounted = true;
    int rc = AddShare(encrypted);
    if (rc < 0) return rc;
    rc = Guarded([&] {
      SQLite::Transaction transaction(db_);
      const int made = CreateShareKey(db_, NameKey(share.name), passphrase);
      if (made == 0) transaction.commit();
      return made;
    });
    // A share whose key could not be kept would hold content no one can open.
    if (rc < 0) DeleteShare(share.name);
    return rc;
  }

  int UnlockShare(const std::string& name, const std::string& passphrase) override {
    return Guarded([&] {
      SQLite::Transaction transaction(db_);
      const int rc = UnlockShareKey(db_, NameKey(name), passphrase);
      if (rc == 0) transaction.commit();
      return rc;
    });
  }

  int LockShare(const std::string& name) override {
    return Guarded([&] {
      SQLite::Transaction transaction(db_);
      const int rc = LockShareKey(db_, NameKey(name));
      if (rc == 0) transaction.commit();
      return rc;
    });
  }

  int SetSharePermission(const std::string& share, const std::string& user,
                         SharePermission permission) override {
    const int value = static_cast<int>(permission);
    if (value < 0 || value > 2) return kErrInvalid;
    return Guarded([&] {
      uint32_t uid = 0;
      const int rc = FindShareAndUser(share, user, uid);
      if (rc < 0) return rc;
      SQLite::Statement write(
          db_, permission == SharePermission::kNone
                   ? "DELETE FROM share_permissions WHERE share_key = ? AND uid = ?"
                   : "INSERT OR REPLACE INTO share_permissions (share_key, uid, permission)"
                     " VALUES (?, ?, ?)");
      write.bind(1, NameKey(share));
      write.bind(2, static_cast<int64_t>(uid));
      if (permission != SharePermission::kNone) write.bind(3, value);
      write.exec();
      Share found;
      if (GetShare(share, found) < 0) return static_cast<int>(kErrStorage);
      // A share whose folder is gone has nothing on disk to open up.
      if (SetUpFolder(found.name, found.path) < 0 && errno != ENOENT)
        return static_cast<int>(kErrStorage);
      return 0;
    });
  }

  int GetSharePermission(const std::string& share, const std::string& user,
                         SharePermission& out) override {
    return Guarded([&] {
      uint32_t uid = 0;
      const int rc = FindShareAndUser(share, user, uid);
      if (rc < 0) return rc;
      SQLite::Statement query(
          db_, "SELECT permission FROM share_permissions WHERE share_key = ? AND uid = ?");
      query.bind(1, NameKey(share));
      query.bind(2, static_cast<int64_t>(uid));
      int value = 0;
      if (query.executeStep()) value = query.getColumn(0).getInt();
      // A stored value outside the known ones grants nothing.
      out = value == 1   ? SharePermission::kReadOnly
            : value == 2 ? SharePermission::kReadWrite
                         : SharePermission::kNone;
      return 0;
    });
  }

  int AddVolume(const Volume& volume) override {
    const int id = VolumeIdOf(volume.path);
    if (id < 0) return kErrInvalid;
    return Guarded([&] {
      SQLite::Statement insert(db_,
                               "INSERT INTO volumes (id, path, description, type, writable)"
                               " VALUES (?, ?, ?, ?, ?)");
      insert.bind(1, id);
      insert.bind(2, volume.path);
      insert.bind(3, volume.description);
      insert.bind(4, volume.type);
      insert.bind(5, int64_t{volume.writable});
      insert.exec();
      return id;
    });
  }

  int ListVolumes(std::vector<Volume>& out) override {
    return Guarded([&] {
      std::vector<Volume> volumes;
      SQLite::Statement query(db_, "SELECT * FROM volumes ORDER BY id");
      while (query.executeStep()) volumes.push_back(ReadVolume(query));
      out.swap(volumes);
      return static_cast<int>(out.size());
    });
  }

  int GetVolume(const std::string& path, Volume& out) override {
    return Guarded([&] {
      SQLite::Statement query(db_, "SELECT * FROM volumes WHERE path = ?");
      query.bind(1, path);
      if (!query.executeStep()) return static_cast<int>(kErrNotFound);
      out = ReadVolume(query);
      return 0;
    });
  }

 private:
  template <typename Value>
  int UpdateUser(const std::string& name, const char* column, const Value& value) {
    return Guarded([&] {
      SQLite::Statement update(
          db_, std::string("UPDATE users SET ") + column + " = ? WHERE name_key = ?");
      update.bind(1, value);
      update.bind(2, NameKey(name));
      return update.exec() == 1 ? 0 : static_cast<int>(kErrNotFound);
    });
  }

  void ReadMembers(Group& group) {
    SQLite::Statement query(db_,
                            "SELECT u.name FROM users u JOIN memberships m ON m.uid = u.uid"
                            " WHERE m.gid = ? ORDER BY u.uid");
    query.bind(1, static_cast<int64_t>(group.gid));
    group.members.clear();
    while (query.executeStep()) group.members.push_back(query.getColumn(0).getString());
  }

  int GroupAndUserExist(const std::string& group, const std::string& user) {
    SQLite::Statement query(db_,
                            "SELECT (SELECT count(*) FROM groups WHERE name_key = ?),"
                            " (SELECT count(*) FROM users WHERE name_key = ?)");
    query.bind(1, NameKey(group));
    query.bind(2, NameKey(user));
    query.executeStep();
    return query.getColumn(0).getInt() == 1 && query.getColumn(1).getInt() == 1
               ? 0
               : static_cast<int>(kErrNotFound);
  }

  int FindShareAndUser(const std::string& share, const std::string& user, uint32_t& uid) {
    SQLite::Statement query(db_,
                            "SELECT (SELECT count(*) FROM shares WHERE name_key = ?),"
                            " (SELECT uid FROM users WHERE name_key = ?)");
    query.bind(1, NameKey(share));
    query.bind(2, NameKey(user));
    query.executeStep();
    if (query.getColumn(0).getInt() != 1 || query.getColumn(1).isNull()) return kErrNotFound;
    uid = static_cast<uint32_t>(query.getColumn(1).getInt64());
    return 0;
  }

  // The share's folder set up for the users granted access to it now. 0, or
  // -1 with errno set.
  int SetUpFolder(const std::string& share, const std::string& path) {
    std::vector<ShareGrant> grants;
    try {
      // Administrators may write every share.
      SQLite::Statement query(
          db_,
          "SELECT uid, max(permission) FROM ("
          " SELECT uid, permission FROM share_permissions"
          "  WHERE share_key = ? AND permission IN (1, 2)"
          " UNION ALL SELECT m.uid, 2 FROM memberships m JOIN groups g ON g.gid = m.gid"
          "  WHERE g.name_key = ?)"
          " GROUP BY uid ORDER BY uid");
      query.bind(1, NameKey(share));
      query.bind(2, NameKey(kAdministratorsGroup));
      while (query.executeStep())
        grants.push_back({static_cast<uint32_t>(query.getColumn(0).getInt64()),
                          query.getColumn(1).getInt() == 2});
    } catch (const std::exception&) {
      errno = EIO;
      return -1;
    }
    return SetUpShareFolder(path, kUsersGid, grants);
  }

  // Every share's folder again, after the administrators changed. Shares
  // whose folders cannot be set up now keep what they had.
  void SetUpAllFolders() {
    std::vector<Share> shares;
    if (ListShares(shares) < 0) return;
    for (const Share& share : shares) SetUpFolder(share.name, share.path);
  }

  SQLite::Database db_;
};

// The directory holds password hashes: the file is made root-only before
// SQLite first touches it (SQLite gives its -wal and -shm files the same mode).
bool CreateFilePrivately(const std::string& path) {
  std::error_code ec;
  const std::filesystem::path file(path);
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ec);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0) {
    close(fd);
    return true;
  }
  return errno == EEXIST;
}

}  // namespace

std::unique_ptr<HostAccounts> HostAccounts::Open(const std::string& path) {
  if (path.empty() || !CreateFilePrivately(path)) return nullptr;
  try {
    auto accounts = std::make_unique<SqliteHostAccounts>(path);
    if (!MigrateSchema(accounts->db())) return nullptr;
    return accounts;
  } catch (const std::exception&) {
    return nullptr;
  }
}

uint64_t TEST_PasswordVerifications() { return g_verifications; }

}  // namespace hostaccounts
