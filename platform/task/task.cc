// Task records on disk. Every change is read-modify-write under an exclusive
// flock of "<record>.lock": a change re-reads the record first, so two
// processes that set different properties both keep theirs. The record is
// replaced by rename, so readers (who take the lock shared) never see half
// of one.
//
// The folders live under /tmp, where anyone may create names first. So
// /tmp/tidepool-tasks and each owner's folder in it are opened without
// following a link on every use, and the opened folder must be a directory
// of root's with mode 0700; a folder that fails is refused, not repaired (its
// maker could race a repair), and the record behaves as absent and
// unwritable. Files are opened relative to the checked folder, never through
// a link.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"

namespace HVOS {
namespace {

constexpr const char* kParent = "/tmp";
constexpr const char* kRootName = "tidepool-tasks";
constexpr int kPollMs = 10;

// Requests work with the service account's effective ids while their real
// uid is root; records are root's, so file work is done with root's rights
// when the process has them.
class RootForFiles {
 public:
  RootForFiles() : euid_(geteuid()) {
    raised_ = euid_ != 0 && getuid() == 0 && setresuid(-1, 0, -1) == 0;
  }
  ~RootForFiles() {
    if (raised_ && setresuid(-1, euid_, -1) != 0) abort();
  }

 private:
  uid_t euid_;
  bool raised_ = false;
};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

bool SafeComponent(const std::string& part) {
  return !part.empty() && part.size() <= 200 && part != "." && part != ".." &&
         part.find('/') == std::string::npos && part.find('\0') == std::string::npos;
}

// Opens the folder `name` in `dir` (making it first when `create`); -1 when it
// is missing or is not root's private folder. The check is made on the open
// descriptor (as lstat would see the name, since a link is never followed),
// so what is checked is what is used.
int OpenPrivateFolder(int dir, const std::string& name, const std::string& shown, bool create) {
  if (create && mkdirat(dir, name.c_str(), 0700) != 0 && errno != EEXIST) {
    LOG_ERROR("cannot create task folder %s: %s\n", shown.c_str(), strerror(errno));
    return -1;
  }
  Fd fd(openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno != ENOENT) {
      // ELOOP or ENOTDIR: a link or a file stands where the folder belongs.
      LOG_ERROR("task folder %s refused: %s\n", shown.c_str(), strerror(errno));
    }
    return -1;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode) || st.st_uid != 0 || (st.st_mode & 07777) != 0700) {
    LOG_ERROR("task folder %s refused: owner %u, mode %o (root's and 0700 expected)\n",
              shown.c_str(), static_cast<unsigned>(st.st_uid),
              static_cast<unsigned>(st.st_mode & 07777));
    return -1;
  }
  return fd.release();
}

// The checked folder of one owner's records.
class OwnerFolder {
 public:
  OwnerFolder(const std::string& owner, bool create) {
    Fd parent(open(kParent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0) return;
    const std::string root_shown = std::string(kParent) + "/" + kRootName;
    Fd root(OpenPrivateFolder(parent.get(), kRootName, root_shown, create));
    if (root.get() < 0) return;
    fd_ = OpenPrivateFolder(root.get(), owner, root_shown + "/" + owner, create);
  }
  ~OwnerFolder() {
    if (fd_ >= 0) close(fd_);
  }
  OwnerFolder(const OwnerFolder&) = delete;
  OwnerFolder& operator=(const OwnerFolder&) = delete;
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

// Opens a file of the record for writing or reading; only a regular file
// counts (O_NONBLOCK keeps a FIFO from hanging the open).
int OpenRegular(int dir, const std::string& name, int flags, mode_t mode = 0600) {
  Fd fd(openat(dir, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode));
  if (fd.get() < 0) return -1;
  struct stat st {};
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  return fd.release();
}

int LockFile(int dir, const std::string& file, int operation) {
  const int fd = OpenRegular(dir, file + ".lock", O_RDWR | O_CREAT);
  if (fd < 0) {
    LOG_ERROR("cannot open the lock of task record %s: %s\n", file.c_str(), strerror(errno));
    return -1;
  }
  while (flock(fd, operation) != 0) {
    if (errno != EINTR) {
      close(fd);
      return -1;
    }
  }
  return fd;
}

void Unlock(int fd) {
  if (fd >= 0) close(fd);  // closing releases the flock
}

}  // namespace

Task::Task(const std::string& owner, const std::string& name) {
  valid_ = SafeComponent(owner) && SafeComponent(name);
  if (!valid_) return;
  owner_ = owner;
  file_ = name + ".json";
  create_pid_ = getpid();
  RootForFiles root;
  OwnerFolder folder(owner_, true);
  if (!folder.ok()) return;
  const int fd = LockFile(folder.fd(), file_, LOCK_EX);
  if (fd < 0) return;
  if (!Load(folder.fd())) {
    create_pid_ = getpid();
    Store(folder.fd());
  }
  Unlock(fd);
}

Task::~Task() { Unlock(lock_fd_); }

bool Task::hasProperty(const std::string& key) const { return properties_.isMember(key); }

Json::Value Task::getProperty(const std::string& key) const {
  return properties_.isMember(key) ? properties_[key] : Json::Value();
}

void Task::setProperty(const std::string& key, const Json::Value& value) {
  if (lock_fd_ >= 0) {
    properties_[key] = value;
    return;
  }
  beginUpdate();
  properties_[key] = value;
  endUpdate();
}

void Task::beginUpdate() {
  if (!valid_ || lock_fd_ >= 0) return;
  RootForFiles root;
  OwnerFolder folder(owner_, true);
  if (!folder.ok()) return;
  lock_fd_ = LockFile(folder.fd(), file_, LOCK_EX);
  if (lock_fd_ >= 0) gone_ = !Load(folder.fd()) && keep_removed_;
}

int Task::endUpdate() {
  if (!valid_ || lock_fd_ < 0) return 0;
  RootForFiles root;
  OwnerFolder folder(owner_, false);
  const bool stored = !gone_ && folder.ok() && Store(folder.fd());
  gone_ = false;
  Unlock(lock_fd_);
  lock_fd_ = -1;
  return stored ? 1 : 0;
}

void Task::reload() {
  if (!valid_) return;
  RootForFiles root;
  OwnerFolder folder(owner_, false);
  if (!folder.ok()) return;
  if (lock_fd_ >= 0) {
    Load(folder.fd());
    return;
  }
  const int fd = LockFile(folder.fd(), file_, LOCK_SH);
  if (fd < 0) return;
  Load(folder.fd());
  Unlock(fd);
}

int Task::waitForDataReady(const std::string& key, int wait_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  for (;;) {
    reload();
    if (hasProperty(key)) return 1;
    if (std::chrono::steady_clock::now() >= deadline) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
  }
}

void Task::setCreatePid(pid_t pid) {
  const bool outside = lock_fd_ < 0;
  if (outside) beginUpdate();
  create_pid_ = pid;
  if (outside) endUpdate();
}

void Task::finish(bool /*keep_running*/) {
  const bool outside = lock_fd_ < 0;
  if (outside) beginUpdate();
  finished_ = true;
  if (outside) endUpdate();
}

void Task::remove() {
  if (!valid_) return;
  RootForFiles root;
  OwnerFolder folder(owner_, false);
  if (folder.ok()) {
    const int fd = lock_fd_ >= 0 ? lock_fd_ : LockFile(folder.fd(), file_, LOCK_EX);
    unlinkat(folder.fd(), file_.c_str(), 0);
    // The lock file stays: a process waiting on it must find the same inode.
    if (fd != lock_fd_) Unlock(fd);
  }
  properties_ = Json::Value(Json::objectValue);
  finished_ = false;
}

// Reads the record; false when it is missing, unreadable or not a record
// (then nothing changes in memory).
bool Task::Load(int folder) {
  Fd fd(OpenRegular(folder, file_, O_RDONLY));
  if (fd.get() < 0) return false;
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > kMaxRecordBytes) return false;
  }
  TaskRecord record;
  if (!ParseTaskRecord(text.data(), text.size(), record)) return false;
  properties_ = std::move(record.properties);
  create_pid_ = record.create_pid;
  finished_ = record.finished;
  return true;
}

bool Task::Store(int folder) {
  TaskRecord record;
  record.properties = properties_;
  record.create_pid = create_pid_;
  record.finished = finished_;
  const std::string text = SerializeTaskRecord(record);
  const std::string temp = file_ + ".tmp";
  // The lock is held, so a temporary file there is a crashed writer's.
  unlinkat(folder, temp.c_str(), 0);
  const int fd = OpenRegular(folder, temp, O_WRONLY | O_CREAT | O_EXCL);
  if (fd < 0) {
    LOG_ERROR("cannot write task record %s/%s: %s\n", owner_.c_str(), file_.c_str(),
              strerror(errno));
    return false;
  }
  bool written = true;
  for (size_t done = 0; written && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    written = n > 0;
    if (written) done += static_cast<size_t>(n);
  }
  if (close(fd) != 0 || !written || renameat(folder, temp.c_str(), folder, file_.c_str()) != 0) {
    unlinkat(folder, temp.c_str(), 0);
    return false;
  }
  return true;
}

bool TaskUtil::peekTask(const std::string& owner, const std::string& name, Json::Value& properties,
                        bool* finished) {
  if (!SafeComponent(owner) || !SafeComponent(name)) return false;
  RootForFiles root;
  OwnerFolder folder(owner, false);
  if (!folder.ok()) return false;
  const std::string file = name + ".json";
  // Writers replace the record whole by rename: what an open descriptor
  // reads is one complete record, without taking the lock.
  Fd again(OpenRegular(folder.fd(), file, O_RDONLY));
  if (again.get() < 0) return false;
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t n = read(again.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > kMaxRecordBytes) return false;
  }
  TaskRecord record;
  if (!ParseTaskRecord(text.data(), text.size(), record)) return false;
  properties = std::move(record.properties);
  if (finished != nullptr) *finished = record.finished;
  return true;
}

bool TaskUtil::checkTaskExists(const std::string& owner, const std::string& name) {
  if (!SafeComponent(owner) || !SafeComponent(name)) return false;
  RootForFiles root;
  OwnerFolder folder(owner, false);
  if (!folder.ok()) return false;
  struct stat st {};
  return fstatat(folder.fd(), (name + ".json").c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(st.st_mode);
}

}  // namespace HVOS
