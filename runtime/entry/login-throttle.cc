#include "login-throttle.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kstxentry {
namespace {

constexpr int kBusyTimeoutMs = 10000;

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS failures (key TEXT NOT NULL, at INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS failures_by_key ON failures(key, at);
CREATE TABLE IF NOT EXISTS blocks (
  key TEXT PRIMARY KEY,
  until INTEGER NOT NULL,
  seconds INTEGER NOT NULL
);
)sql";

bool OwnedAlone(const struct stat& st) {
  return st.st_uid == geteuid() && (st.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// Opens (creating) a file of ours beneath the checked folder. -1 when it is
// anything but a regular file of the effective user's alone.
int OpenPrivateFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || !OwnedAlone(st)) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string AccountKey(const std::string& key) { return "account:" + key; }
std::string AddressKey(const std::string& address) { return "address:" + address; }

}  // namespace

int PrepareLoginStateDir(const std::string& dir) {
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || !OwnedAlone(st)) return -1;
  return 0;
}

LoginThrottle::LoginThrottle(std::unique_ptr<SQLite::Database> db) : db_(std::move(db)) {}
LoginThrottle::~LoginThrottle() = default;

std::unique_ptr<LoginThrottle> LoginThrottle::Open(const std::string& dir) {
  if (PrepareLoginStateDir(dir) < 0) return nullptr;
  const std::string path = dir + "/failures.db";
  const int fd = OpenPrivateFile(path);
  if (fd < 0) return nullptr;
  close(fd);  // checked; SQLite opens it again by name inside our own folder
  try {
    auto db = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE, kBusyTimeoutMs);
    db->exec(kSchema);
    return std::unique_ptr<LoginThrottle>(new LoginThrottle(std::move(db)));
  } catch (const SQLite::Exception&) {
    return nullptr;
  }
}

bool LoginThrottle::IsBlocked(const std::string& account_key, const std::string& address,
                              time_t now) {
  try {
    SQLite::Statement query(*db_, "SELECT 1 FROM blocks WHERE key IN (?1, ?2) AND until > ?3");
    query.bind(1, AccountKey(account_key));
    query.bind(2, AddressKey(address));
    query.bind(3, static_cast<int64_t>(now));
    return query.executeStep();
  } catch (const SQLite::Exception&) {
    return true;
  }
}

// Adds a failure of `key` and blocks it when the window holds too many: a
// first block is short; one that follows a block within the longest block
// time lasts twice as long as that one did.
int LoginThrottle::CountFailure(const std::string& key, time_t now) {
  SQLite::Statement insert(*db_, "INSERT INTO failures (key, at) VALUES (?1, ?2)");
  insert.bind(1, key);
  insert.bind(2, static_cast<int64_t>(now));
  insert.exec();
  SQLite::Statement count(*db_, "SELECT count(*) FROM failures WHERE key = ?1 AND at > ?2");
  count.bind(1, key);
  count.bind(2, static_cast<int64_t>(now - kFailureWindow));
  count.executeStep();
  if (count.getColumn(0).getInt64() < kMaxFailures) return 0;
  time_t seconds = kFirstBlock;
  SQLite::Statement last(*db_, "SELECT until, seconds FROM blocks WHERE key = ?1");
  last.bind(1, key);
  const bool has_last = last.executeStep();
  // Attempts that raced a block in do not lengthen it.
  if (has_last && last.getColumn(0).getInt64() > now) return 0;
  if (has_last && last.getColumn(0).getInt64() + kLongestBlock > now) {
    const int64_t previous = last.getColumn(1).getInt64();
    seconds = previous >= kLongestBlock / 2 ? kLongestBlock : static_cast<time_t>(previous * 2);
    if (seconds < kFirstBlock) seconds = kFirstBlock;  // a damaged row counts as none
  }
  SQLite::Statement block(*db_,
                          "INSERT OR REPLACE INTO blocks (key, until, seconds) "
                          "VALUES (?1, ?2, ?3)");
  block.bind(1, key);
  block.bind(2, static_cast<int64_t>(now + seconds));
  block.bind(3, static_cast<int64_t>(seconds));
  block.exec();
  return 0;
}

int LoginThrottle::RecordFailure(const std::string& account_key, const std::string& address,
                                 time_t now) {
  try {
    SQLite::Transaction transaction(*db_, SQLite::TransactionBehavior::IMMEDIATE);
    SQLite::Statement prune(*db_, "DELETE FROM failures WHERE at <= ?1");
    prune.bind(1, static_cast<int64_t>(now - kFailureWindow));
    prune.exec();
    SQLite::Statement old(*db_, "DELETE FROM blocks WHERE until + ?1 <= ?2");
    old.bind(1, static_cast<int64_t>(kLongestBlock));
    old.bind(2, static_cast<int64_t>(now));
    old.exec();
    CountFailure(AccountKey(account_key), now);
    CountFailure(AddressKey(address), now);
    transaction.commit();
    return 0;
  } catch (const SQLite::Exception&) {
    return -1;
  }
}

int LoginThrottle::RecordSuccess(const std::string& account_key) {
  try {
    SQLite::Transaction transaction(*db_, SQLite::TransactionBehavior::IMMEDIATE);
    for (const char* sql :
         {"DELETE FROM failures WHERE key = ?1", "DELETE FROM blocks WHERE key = ?1"}) {
      SQLite::Statement remove(*db_, sql);
      remove.bind(1, AccountKey(account_key));
      remove.exec();
    }
    transaction.commit();
    return 0;
  } catch (const SQLite::Exception&) {
    return -1;
  }
}

time_t LoginThrottle::TEST_BlockedUntil(const std::string& key) {
  try {
    SQLite::Statement query(*db_, "SELECT until FROM blocks WHERE key = ?1");
    query.bind(1, key);
    return query.executeStep() ? static_cast<time_t>(query.getColumn(0).getInt64()) : 0;
  } catch (const SQLite::Exception&) {
    return 0;
  }
}

LoginSlot::~LoginSlot() {
  if (fd_ >= 0) close(fd_);  // releases the lock
}

int LoginSlot::Acquire(const std::string& dir, bool wait) {
  if (fd_ >= 0) return 0;
  if (PrepareLoginStateDir(dir) < 0) return -1;
  int fds[kLoginSlots];
  for (int i = 0; i < kLoginSlots; ++i) {
    fds[i] = OpenPrivateFile(dir + "/slot-" + std::to_string(i) + ".lock");
    if (fds[i] < 0) {
      for (int j = 0; j < i; ++j) close(fds[j]);
      return -1;
    }
  }
  int held = -1;
  for (int i = 0; i < kLoginSlots && held < 0; ++i) {
    if (flock(fds[i], LOCK_EX | LOCK_NB) == 0) held = i;
  }
  if (held < 0 && wait) {
    // All busy: queue on one of them; which one matters little.
    const int i = static_cast<int>(getpid() % kLoginSlots);
    int rc;
    while ((rc = flock(fds[i], LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc == 0) held = i;
  }
  for (int i = 0; i < kLoginSlots; ++i) {
    if (i != held) close(fds[i]);
  }
  if (held < 0) return wait ? -1 : 1;
  fd_ = fds[held];
  return 0;
}

}  // namespace kstxentry
