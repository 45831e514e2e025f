// The host's account directory: users, groups, shares and volumes of the
// appliance, and the web login's passwords. It lives in one SQLite file,
// /usr/kstx/etc/accounts.db (the path can be overridden for tools and tests).
//
// Every call opens the directory for its own duration unless the caller holds
// a HostAccounts object, which keeps one connection. All functions return 0 or
// more on success and a negative HostAccounts::Error on failure; out
// parameters are left untouched on failure.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hostaccounts {

constexpr uint32_t kAnonymousUid = 4294967295u;
constexpr const char* kAdministratorsGroup = "administrators";
constexpr const char* kDefaultPath = "/usr/kstx/etc/accounts.db";

enum Error : int {
  kErrNotFound = -2,  // no such user, group, share or volume
  kErrExists = -3,    // the name is taken
  kErrInvalid = -4,   // a bad name, path or value
  kErrStorage = -5,   // the directory could not be read or written
};

struct User {
  uint32_t uid = 0;
  std::string name;
  uint32_t gid = 100;  // primary group ("users")
  std::string home;    // "/volume1/homes/<name>"
  bool disabled = false;
  int64_t expire_day = 0;  // days since the epoch after which the account is expired; 0 never
  // Application privilege of the sync service: false denies the login.
  bool app_allowed = true;
};

struct Group {
  uint32_t gid = 0;
  std::string name;
  std::vector<std::string> members;
};

enum class SharePermission { kNone = 0, kReadOnly = 1, kReadWrite = 2 };

struct Share {
  std::string name;    // as the administrator typed it
  std::string volume;  // "/volume1"
  std::string path;    // "/volume1/<name>"
  bool encrypted = false;
  bool mounted = true;  // an encrypted share is mounted while it is unlocked
  bool active = true;
};

struct Volume {
  int id = 0;        // 1 for /volume1
  std::string path;  // "/volume1"
  std::string description;
  int type = 1;  // 1 ordinary data volume
  bool writable = true;
};

class HostAccounts {
 public:
  // Opens (and creates, with its schema) the directory at `path`.
  static std::unique_ptr<HostAccounts> Open(const std::string& path = kDefaultPath);
  virtual ~HostAccounts() = default;

  // Users. A new user gets the next free uid from 1026 up unless `uid` is set.
  virtual int AddUser(const std::string& name, const std::string& password, uint32_t uid = 0) = 0;
  virtual int DeleteUser(const std::string& name) = 0;
  // Stores an argon2id hash of the password.
  virtual int SetPassword(const std::string& name, const std::string& password) = 0;
  // 0 when the password is right; kErrNotFound for an unknown user and
  // kErrInvalid for a wrong password.
  virtual int VerifyPassword(const std::string& name, const std::string& password) = 0;
  virtual int SetDisabled(const std::string& name, bool disabled) = 0;
  virtual int SetExpireDay(const std::string& name, int64_t expire_day) = 0;
  virtual int SetAppPrivilege(const std::string& name, bool allowed) = 0;
  virtual int GetUser(const std::string& name, User& out) = 0;
  virtual int GetUserByUid(uint32_t uid, User& out) = 0;
  virtual int ListUsers(std::vector<User>& out) = 0;
  // True when the user is a member of "administrators".
  virtual bool IsAdmin(const std::string& name) = 0;

  // Groups.
  virtual int AddGroup(const std::string& name, uint32_t gid = 0) = 0;
  virtual int AddGroupMember(const std::string& group, const std::string& user) = 0;
  virtual int RemoveGroupMember(const std::string& group, const std::string& user) = 0;
  virtual int GetGroup(const std::string& name, Group& out) = 0;
  virtual int ListGroupsOfUser(const std::string& user, std::vector<Group>& out) = 0;

  // Shares. A share lives on a volume at "<volume>/<name>"; AddShare creates
  // the folder.
  virtual int AddShare(const Share& share) = 0;
  virtual int DeleteShare(const std::string& name) = 0;
  virtual int GetShare(const std::string& name, Share& out) = 0;  // name case-insensitive
  virtual int ListShares(std::vector<Share>& out) = 0;
  virtual int SetShareMounted(const std::string& name, bool mounted) = 0;
  // An encrypted share: like AddShare, with a fresh random content key kept
  // wrapped under a key derived from `passphrase`, so that a new passphrase
  // never means re-encrypting content. The share starts unlocked.
  // kErrInvalid for an empty passphrase.
  virtual int AddEncryptedShare(const Share& share, const std::string& passphrase) = 0;
  // Unwraps the content key with `passphrase`: the share is mounted and its
  // key can be read (by root) until LockShare. kErrInvalid for a wrong
  // passphrase; kErrNotFound when there is no such encrypted share.
  virtual int UnlockShare(const std::string& name, const std::string& passphrase) = 0;
  // Forgets the unwrapped key and unmounts the share.
  virtual int LockShare(const std::string& name) = 0;
  virtual int SetSharePermission(const std::string& share, const std::string& user,
                                 SharePermission permission) = 0;
  // The user's own permission, or kNone when none is set.
  virtual int GetSharePermission(const std::string& share, const std::string& user,
                                 SharePermission& out) = 0;

  // Volumes.
  virtual int AddVolume(const Volume& volume) = 0;
  virtual int ListVolumes(std::vector<Volume>& out) = 0;
  virtual int GetVolume(const std::string& path, Volume& out) = 0;
};

}  // namespace hostaccounts

namespace hostaccounts {

// Read-only look-ups for request paths: they open the directory read-only
// (with root's rights, which a request's process holds as its real uid), run
// one query and close it, and load neither the password hashing nor the
// Unicode case folding of the full directory. A name matches its stored form
// exactly or ignoring ASCII case. 0 found, kErrNotFound, or kErrStorage.
int LookUpUser(const std::string& name, User& out);
int LookUpUserByUid(uint32_t uid, User& out);

// What a request needs to know of a logged-in account, read anew for each
// request so that a change takes effect at the next one.
struct AccountStanding {
  std::string name;
  bool disabled = false;
  bool expired = false;   // past its expire_day
  bool is_admin = false;  // a member of "administrators"
};
// 0 found, kErrNotFound, or kErrStorage; one opening of the directory.
int LookUpStanding(uint32_t uid, AccountStanding& out);

// The registered volumes by id, read-only: 0 or kErrStorage.
int LookUpVolumes(std::vector<Volume>& out);

}  // namespace hostaccounts

// Whether the account has expired: 1 expired, 0 not, negative on failure.
int KSTXUserCheckExpired(const char* user);

// KSTXUserCheckExpired for many accounts with one opening of the directory,
// for listings of thousands of users: `out[i]` is the answer for `users[i]`.
void KSTXUsersCheckExpired(const std::vector<std::string>& users, std::vector<int>& out);
