// Task records on disk. Every change is read-modify-write under an exclusive
// flock of "<record>.lock": a change re-reads the record first, so two
// processes that set different properties both keep theirs. The record is
// replaced by rename, so readers (who take the lock shared) never see half
// of one.
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "hvos-task.h"

namespace HVOS {
namespace {

constexpr const char* kRoot = "/tmp/tidepool-tasks";
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

bool SafeComponent(const std::string& part) {
  return !part.empty() && part.size() <= 200 && part != "." && part != ".." &&
         part.find('/') == std::string::npos && part.find('\0') == std::string::npos;
}

int LockFile(const std::string& path, int operation) {
  const int fd = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
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
  folder_ = std::string(kRoot) + "/" + owner;
  path_ = folder_ + "/" + name + ".json";
  RootForFiles root;
  mkdir(kRoot, 0700);
  mkdir(folder_.c_str(), 0700);
  const int fd = LockFile(path_, LOCK_EX);
  if (fd < 0) return;
  if (!Load()) {
    create_pid_ = getpid();
    Store();
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
  lock_fd_ = LockFile(path_, LOCK_EX);
  if (lock_fd_ >= 0) Load();
}

int Task::endUpdate() {
  if (!valid_ || lock_fd_ < 0) return 0;
  RootForFiles root;
  const bool stored = Store();
  Unlock(lock_fd_);
  lock_fd_ = -1;
  return stored ? 1 : 0;
}

void Task::reload() {
  if (!valid_) return;
  if (lock_fd_ >= 0) {
    Load();
    return;
  }
  RootForFiles root;
  const int fd = LockFile(path_, LOCK_SH);
  if (fd < 0) return;
  Load();
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
  const int fd = lock_fd_ >= 0 ? lock_fd_ : LockFile(path_, LOCK_EX);
  unlink(path_.c_str());
  // The lock file stays: a process waiting on it must find the same inode.
  if (fd != lock_fd_) Unlock(fd);
  properties_ = Json::Value(Json::objectValue);
  finished_ = false;
}

// Reads the record; false when it is missing or unreadable. Values of the
// wrong kind from disk are not trusted: the record reads as empty then.
bool Task::Load() {
  FILE* f = fopen(path_.c_str(), "re");
  if (f == nullptr) return false;
  std::string text;
  char buffer[8192];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
  fclose(f);
  Json::Value record;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &record, &errors) ||
      !record.isObject() || !record["properties"].isObject() || !record["create_pid"].isInt() ||
      !record["finished"].isBool()) {
    return false;
  }
  properties_ = record["properties"];
  create_pid_ = record["create_pid"].asInt();
  finished_ = record["finished"].asBool();
  return true;
}

bool Task::Store() {
  Json::Value record(Json::objectValue);
  record["create_pid"] = static_cast<int>(create_pid_);
  record["finished"] = finished_;
  record["properties"] = properties_;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  const std::string text = Json::writeString(writer, record);
  const std::string temp = path_ + ".tmp";
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !written || rename(temp.c_str(), path_.c_str()) != 0) {
    unlink(temp.c_str());
    return false;
  }
  return true;
}

bool TaskUtil::checkTaskExists(const std::string& owner, const std::string& name) {
  if (!SafeComponent(owner) || !SafeComponent(name)) return false;
  RootForFiles root;
  const std::string path = std::string(kRoot) + "/" + owner + "/" + name + ".json";
  return access(path.c_str(), F_OK) == 0;
}

}  // namespace HVOS
