// Guessing passwords through the web login is slowed down in two ways.
//
// Failures are counted per account and per client address in a store of
// root's own (a SQLite file, mode 0600, in a folder of mode 0700 under
// /usr/kstx/etc). kMaxFailures failures within kFailureWindow seconds for
// either refuse further attempts, even with the right password, for
// kFirstBlock seconds; each new block after that doubles, up to kLongestBlock.
// A successful login clears its account's count, never an address's: one
// known password must not buy an address more guesses at other accounts.
//
// Each password check costs about 64 MiB (argon2id's memory limit), so at most
// kLoginSlots checks run at once on the whole host: a check holds an flock on
// one of kLoginSlots lock files beside the store.
#pragma once

#include <ctime>
#include <memory>
#include <string>

namespace SQLite {
class Database;
}

namespace kstxentry {

constexpr const char* kLoginStateDir = "/usr/kstx/etc/login";
constexpr int kMaxFailures = 10;
constexpr time_t kFailureWindow = 10 * 60;
constexpr time_t kFirstBlock = 60;
constexpr time_t kLongestBlock = 60 * 60;
constexpr int kLoginSlots = 2;

// Makes `dir` (mode 0700) if it is missing and checks that it is a real
// folder of the effective user's that nobody else may write. 0 or -1.
int PrepareLoginStateDir(const std::string& dir);

class LoginThrottle {
 public:
  // Opens, creating it if needed, the store in `dir`. Null when the folder or
  // the file is not the effective user's alone, or cannot be opened.
  static std::unique_ptr<LoginThrottle> Open(const std::string& dir = kLoginStateDir);
  ~LoginThrottle();
  LoginThrottle(const LoginThrottle&) = delete;
  LoginThrottle& operator=(const LoginThrottle&) = delete;

  // True when the account or the address is blocked at `now`; also true
  // when the store cannot be read, so that a broken store never opens the
  // door wider.
  bool IsBlocked(const std::string& account_key, const std::string& address, time_t now);
  // Counts a failure for both; 0 or -1.
  int RecordFailure(const std::string& account_key, const std::string& address, time_t now);
  // Clears the account's failures and block; 0 or -1.
  int RecordSuccess(const std::string& account_key);

  // The end of the current or last block of `key` ("account:..." or
  // "address:..."), 0 for none.
  time_t TEST_BlockedUntil(const std::string& key);

 private:
  explicit LoginThrottle(std::unique_ptr<SQLite::Database> db);
  int CountFailure(const std::string& key, time_t now);

  std::unique_ptr<SQLite::Database> db_;
};

// One of the host's password-check slots, held for the life of the object.
class LoginSlot {
 public:
  LoginSlot() = default;
  ~LoginSlot();
  LoginSlot(const LoginSlot&) = delete;
  LoginSlot& operator=(const LoginSlot&) = delete;

  // Takes a free slot; when all are taken, waits for one (`wait`) or answers
  // 1. 0 once held, -1 on failure.
  int Acquire(const std::string& dir = kLoginStateDir, bool wait = true);

 private:
  int fd_ = -1;
};

}  // namespace kstxentry
