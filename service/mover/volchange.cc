// DFTWVolChange OLD NEW: moves the repository's databases from the volume OLD
// to the volume NEW. The version content (@sync) stays on its volume.
//
//   1. lock       take the mover's lock; a second mover exits at once
//   2. journal    write the journal, set the status to "moving_db"
//   3. stop       stop the daemon
//   4. quiesce    wait until no process holds a file that moves
//   5. checkpoint fold every SQLite write-ahead log into its database
//   6. copy       copy into a staging folder on NEW, keeping all metadata
//   7. verify     sizes and SHA-256 against the source, PRAGMA quick_check
//   8. switch     renames inside NEW/@tidepool; whatever stood there is set
//                 aside in a folder of its own, never deleted
//   9. commit     rewrite setting.conf atomically: from here NEW holds
//  10. cleanup    remove the old files
//  11. finish     restore the status, restart the daemon, drop the journal
//
// Until step 9 the old repository is authoritative and a failure (or a
// kill, found later by --recover) undoes steps 6 to 8; after it the new one
// is, and recovery only completes steps 10 and 11. The journal records the
// phase reached, so that recovery knows which renames it may undo.
//
// DFTWVolChange --recover [--no-start]: finishes or undoes a move cut short.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "daemon-control.h"
#include "db/log-manager.h"
#include "db/log-types.h"
#include "keyvalue-file.h"
#include "logger.h"
#include "sync-service.h"
#include "tree-copy.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kDebugSettings = "/var/packages/Tidepool/target/etc/syncfolder.debug";
constexpr const char* kStaging = ".move-staging";
constexpr int kQuiesceWaitS = 60;
// What stays behind: the version content belongs to its volume, and the
// working folder holds only temporary files.
constexpr const char* kStays[] = {"@sync", "@tmp", kStaging};
// The office service's documents, found beside the repository's volume
// folder: they move with it.
constexpr const char* kOffice = "@tidepool-office";

// The journal: what recovery needs to finish or undo the move.
struct Journal {
  std::string old_volume, new_volume;
  std::string prior_status = "enabled";
  bool daemon_was_running = false;
  std::string phase;
  std::vector<std::string> names;  // entries of @tidepool that move
  std::string aside;               // where entries already on NEW are set aside

  std::string OldRepo() const { return old_volume + "/@tidepool"; }
  std::string NewRepo() const { return new_volume + "/@tidepool"; }
  // The office documents sit beside the repository, not in it.
  std::string OldPath(const std::string& name) const {
    return name == kOffice ? old_volume + "/" + name : OldRepo() + "/" + name;
  }
  std::string NewPath(const std::string& name) const {
    return name == kOffice ? new_volume + "/" + name : NewRepo() + "/" + name;
  }
};

int Save(const Journal& j) {
  std::string names;
  for (const std::string& name : j.names) names += (names.empty() ? "" : "/") + name;
  const std::string text = "old=\"" + j.old_volume + "\"\nnew=\"" + j.new_volume +
                           "\"\nprior_status=\"" + j.prior_status + "\"\ndaemon=\"" +
                           (j.daemon_was_running ? "1" : "0") + "\"\nphase=\"" + j.phase +
                           "\"\nnames=\"" + names + "\"\naside=\"" + j.aside + "\"\n";
  return tpsys::WriteFileAtomically(kMoveJournalPath, text, 0600);
}

bool Load(Journal& j) {
  std::map<std::string, std::string> values;
  if (!tpsys::ReadKeyValues(kMoveJournalPath, values)) return false;
  j.old_volume = values["old"];
  j.new_volume = values["new"];
  j.prior_status = values["prior_status"].empty() ? "enabled" : values["prior_status"];
  j.daemon_was_running = values["daemon"] == "1";
  j.phase = values["phase"];
  j.aside = values["aside"];
  j.names.clear();
  std::string rest = values["names"];
  while (!rest.empty()) {
    const size_t cut = rest.find('/');
    const std::string name = rest.substr(0, cut);
    // A journal is read like any stored data: only plain names count.
    if (!name.empty() && name != "." && name != "..") j.names.push_back(name);
    rest = cut == std::string::npos ? "" : rest.substr(cut + 1);
  }
  return !j.old_volume.empty() && !j.new_volume.empty();
}

// Tests stop the mover dead at a named phase to check what recovery makes
// of each state a kill can leave behind.
void KillPoint(const char* phase) {
  const char* at = getenv("DFTW_MOVE_KILL_AT");
  if (at != nullptr && strcmp(at, phase) == 0) raise(SIGKILL);
}

void Say(const std::string& what, const std::string& detail) {
  LOG_ERROR("volume change: %s%s\n", what.c_str(), detail.c_str());
  fprintf(stderr, "DFTWVolChange: %s%s\n", what.c_str(), detail.c_str());
}

// One record in the log of the repository that holds after the move (or
// after its undoing): the two volumes and, for a failure, why.
void WriteRecord(const std::string& holding_volume, const Journal& j, const std::string& reason) {
  const std::string repo = holding_volume + "/@tidepool";
  if (db::LogManager::Initialize(repo, repo, "sqlite", false) < 0) return;
  db::Log log;
  log.setType(db::kLogDbVolumeChange);
  log.pushArg(j.old_volume, false);
  log.pushArg(j.new_volume, false);
  if (!reason.empty()) log.pushArg("failed: " + reason, false);
  db::LogManager::InsertLog(log);
  db::LogManager::Destroy();
}

int OpenDir(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// -------- phases --------

int TakeLock() {
  fs::create_directories(fs::path(kMoveLockPath).parent_path());
  const int fd = open(kMoveLockPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0) return -1;
  return fd;  // held until the process ends
}

int WriteJournal(Journal& j) {
  KillPoint("journal");
  std::string status;
  if (ServiceStatusGet(status, false) == 0 && status != "moving_db") j.prior_status = status;
  j.phase = "begun";
  if (Save(j) < 0 || ServiceStatusSet("moving_db") < 0) return -1;
  return 0;
}

int StopService(Journal& j) {
  KillPoint("stop");
  j.daemon_was_running = driftway::RunningDaemonPid() != 0;
  j.phase = "stopped";
  if (Save(j) < 0) return -1;
  if (j.daemon_was_running && driftway::StopDaemon() != 0) return -1;
  // Stopping writes its own status word; the move's must stand.
  return ServiceStatusSet("moving_db");
}

// The files that move, by device and inode: a path says nothing about a
// process in another mount namespace, which may see other files there.
std::set<std::pair<dev_t, ino_t>> MovingInodes(const Journal& j) {
  std::set<std::pair<dev_t, ino_t>> inodes;
  std::error_code ec;
  for (const std::string& name : j.names) {
    const fs::path top = j.OldPath(name);
    struct stat st {};
    if (lstat(top.c_str(), &st) == 0) inodes.emplace(st.st_dev, st.st_ino);
    if (!S_ISDIR(st.st_mode)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(top, ec)) {
      if (lstat(entry.path().c_str(), &st) == 0) inodes.emplace(st.st_dev, st.st_ino);
    }
  }
  return inodes;
}

// Whether another process has one of the moving files open.
bool RepositoryInUse(const std::set<std::pair<dev_t, ino_t>>& inodes) {
  std::error_code ec;
  const std::string self = std::to_string(getpid());
  for (const auto& proc : fs::directory_iterator("/proc", ec)) {
    const std::string pid = proc.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
    std::error_code fd_ec;
    for (const auto& fd : fs::directory_iterator(proc.path() / "fd", fd_ec)) {
      struct stat st {};
      if (stat(fd.path().c_str(), &st) == 0 && inodes.count({st.st_dev, st.st_ino}) != 0) {
        return true;
      }
    }
  }
  return false;
}

int Quiesce(Journal& j, std::string& error) {
  KillPoint("quiesce");
  const auto inodes = MovingInodes(j);
  for (int waited = 0; RepositoryInUse(inodes); ++waited) {
    if (waited >= kQuiesceWaitS) {
      error = "files of the repository are still in use";
      return -1;
    }
    sleep(1);
  }
  return 0;
}

// The entries of @tidepool that move. Left out: what stays (above), what an
// earlier move set aside on this volume, and the shared-memory index of a
// database, which SQLite rebuilds and removes as it likes.
void ListMoving(Journal& j) {
  j.names.clear();
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(j.OldRepo(), ec)) {
    const std::string name = entry.path().filename();
    bool stays = name.rfind(".moved-aside-", 0) == 0 ||
                 (name.size() > 4 && name.compare(name.size() - 4, 4, "-shm") == 0);
    for (const char* kept : kStays) stays |= name == kept;
    if (!stays && name != kOffice) j.names.push_back(name);
  }
  struct stat st {};
  if (lstat(j.OldPath(kOffice).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    j.names.push_back(kOffice);
}

int Checkpoint(const Journal& j, std::string& error) {
  KillPoint("checkpoint");
  std::error_code ec;
  for (const std::string& name : j.names) {
    const fs::path top = j.OldPath(name);
    std::vector<fs::path> files;
    if (fs::is_directory(fs::symlink_status(top))) {
      for (const auto& entry : fs::recursive_directory_iterator(top, ec)) {
        if (entry.is_regular_file() && entry.path().extension() == ".sqlite") {
          files.push_back(entry.path());
        }
      }
    } else if (top.extension() == ".sqlite") {
      files.push_back(top);
    }
    for (const fs::path& file : files) {
      try {
        SQLite::Database db(file.string(), SQLite::OPEN_READWRITE, 10000);
        SQLite::Statement check(db, "PRAGMA wal_checkpoint(TRUNCATE)");
        if (check.executeStep() && check.getColumn(0).getInt() != 0) {
          error = file.string() + ": checkpoint blocked";
          return -1;
        }
      } catch (const SQLite::Exception& e) {
        error = file.string() + ": " + e.what();
        return -1;
      }
    }
  }
  return 0;
}

uint64_t TotalBytes(const Journal& j) {
  uint64_t total = 0;
  std::error_code ec;
  for (const std::string& name : j.names) {
    const fs::path top = j.OldPath(name);
    if (fs::is_regular_file(fs::symlink_status(top))) total += fs::file_size(top, ec);
    if (!fs::is_directory(fs::symlink_status(top))) continue;
    for (const auto& entry : fs::recursive_directory_iterator(top, ec)) {
      if (entry.is_regular_file() && !entry.is_symlink()) total += entry.file_size(ec);
    }
  }
  return total;
}

// Checks each copied file on a thread of its own while the next one is
// copied: its bytes against the digest taken while reading the original,
// and a database with PRAGMA quick_check. The first failure stops it.
class Verifier {
 public:
  explicit Verifier(std::string staging) : staging_(std::move(staging)) {
    thread_ = std::thread([this] { Run(); });
  }
  ~Verifier() {
    if (thread_.joinable()) Wait();
  }
  void Add(const std::string& rel, const mover::FileSum& sum) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.emplace_back(rel, sum);
    ready_.notify_one();
  }
  // Waits for every file added; 0, or -1 with the first failure.
  int Wait() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closed_ = true;
      ready_.notify_one();
    }
    thread_.join();
    return error_.empty() ? 0 : -1;
  }
  const std::string& error() const { return error_; }

 private:
  void Run() {
    // Opened at the first file: the folder is made once copying starts.
    int fd = -1;
    for (;;) {
      std::pair<std::string, mover::FileSum> item;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return closed_ || !queue_.empty(); });
        if (queue_.empty()) break;
        item = std::move(queue_.front());
        queue_.pop_front();
      }
      if (!error_.empty()) continue;  // drained, no longer checked
      if (fd < 0) fd = OpenDir(staging_);
      if (fd < 0) {
        error_ = "cannot open the staging folder";
      } else if (mover::VerifyFile(fd, item.first, item.second, error_) == 0) {
        CheckDatabase(item.first);
      }
    }
    if (fd >= 0) close(fd);
  }
  void CheckDatabase(const std::string& rel) {
    if (fs::path(rel).extension() != ".sqlite") return;
    try {
      SQLite::Database db(staging_ + "/" + rel, SQLite::OPEN_READONLY);
      SQLite::Statement check(db, "PRAGMA quick_check");
      if (!check.executeStep() || check.getColumn(0).getString() != "ok") {
        error_ = rel + ": the copied database is damaged";
      }
    } catch (const SQLite::Exception& e) {
      error_ = rel + ": " + e.what();
    }
  }

  std::string staging_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::pair<std::string, mover::FileSum>> queue_;
  bool closed_ = false;
  std::string error_;  // written by the thread only, read after Wait
};

int Copy(Journal& j, mover::Sums& sums, Verifier& verifier, std::string& error) {
  KillPoint("copy");
  j.phase = "copying";
  if (Save(j) < 0) return -1;
  std::error_code ec;
  fs::create_directories(j.NewRepo(), ec);
  struct stat old_st {};
  if (stat(j.OldRepo().c_str(), &old_st) == 0) {
    if (chown(j.NewRepo().c_str(), old_st.st_uid, old_st.st_gid) != 0 ||
        chmod(j.NewRepo().c_str(), old_st.st_mode & 07777) != 0) {
      error = j.NewRepo() + ": " + strerror(errno);
      return -1;
    }
  }
  const int new_fd = OpenDir(j.NewRepo());
  const int old_fd = OpenDir(j.OldRepo());
  const int old_volume_fd = OpenDir(j.old_volume);
  if (new_fd < 0 || old_fd < 0 || old_volume_fd < 0) {
    error = std::string("cannot open the repository folders: ") + strerror(errno);
    return -1;
  }
  // A staging folder left by an earlier failed move is ours alone.
  mover::RemoveTree(new_fd, kStaging);
  int rc = mkdirat(new_fd, kStaging, 0700) == 0 ? 0 : -errno;
  const int staging_fd =
      rc == 0 ? openat(new_fd, kStaging, O_RDONLY | O_DIRECTORY | O_NOFOLLOW) : -1;
  const uint64_t total = TotalBytes(j);
  uint64_t bytes = 0, reported = 0;
  const int progress_fd = open(kMoveProgressPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  auto report = [&](uint64_t done) {
    if (progress_fd < 0 || (done - reported < (64u << 20) && done < total)) return;
    reported = done;
    const std::string line = std::to_string(done) + " " + std::to_string(total) + "\n";
    if (ftruncate(progress_fd, 0) == 0) (void)!pwrite(progress_fd, line.data(), line.size(), 0);
  };
  report(0);
  if (staging_fd < 0) {
    error = std::string("cannot make the staging folder: ") + strerror(rc < 0 ? -rc : errno);
    rc = -1;
  }
  for (const std::string& name : j.names) {
    if (rc < 0) break;
    rc = mover::CopyTree(
        name == kOffice ? old_volume_fd : old_fd, staging_fd, name, sums, bytes, report,
        [&](const std::string& rel, const mover::FileSum& sum) { verifier.Add(rel, sum); }, error);
  }
  if (rc == 0 && syncfs(staging_fd) != 0) {
    error = std::string("cannot flush the copy: ") + strerror(errno);
    rc = -1;
  }
  reported = 0;
  report(bytes);
  for (int fd : {progress_fd, staging_fd, old_fd, old_volume_fd, new_fd}) {
    if (fd >= 0) close(fd);
  }
  return rc < 0 ? -1 : 0;
}

int Verify(Verifier& verifier, std::string& error) {
  KillPoint("verify");
  if (verifier.Wait() == 0) return 0;
  error = verifier.error();
  return -1;
}

int Switch(Journal& j, std::string& error) {
  KillPoint("switch");
  j.aside = ".moved-aside-" + std::to_string(time(nullptr));
  j.phase = "switching";
  if (Save(j) < 0) return -1;
  const std::string repo = j.NewRepo();
  for (const std::string& name : j.names) {
    const std::string there = j.NewPath(name);
    struct stat st {};
    if (lstat(there.c_str(), &st) == 0) {
      // A repository used on this volume before: kept, not deleted.
      mkdir((repo + "/" + j.aside).c_str(), 0700);
      if (rename(there.c_str(), (repo + "/" + j.aside + "/" + name).c_str()) != 0) {
        error = there + ": " + strerror(errno);
        return -1;
      }
    }
    KillPoint("switch-one");
    if (rename((repo + "/" + kStaging + "/" + name).c_str(), there.c_str()) != 0) {
      error = there + ": " + strerror(errno);
      return -1;
    }
  }
  j.phase = "switched";
  return Save(j);
}

int Commit(Journal& j) {
  KillPoint("commit");
  SyncConfigMgr config;
  if (!config.IsLoaded()) return -1;
  config.SetSysShareBin(j.new_volume);
  if (config.Save() < 0) return -1;
  KillPoint("committed");
  j.phase = "committed";
  return Save(j);
}

void Cleanup(const Journal& j) {
  KillPoint("cleanup");
  const int old_fd = OpenDir(j.OldRepo());
  const int old_volume_fd = OpenDir(j.old_volume);
  const int new_fd = OpenDir(j.NewRepo());
  if (old_fd >= 0 && old_volume_fd >= 0) {
    for (const std::string& name : j.names) {
      if (const int rc = mover::RemoveTree(name == kOffice ? old_volume_fd : old_fd, name);
          rc < 0) {
        Say("cannot remove the old ", j.OldRepo() + "/" + name + ": " + strerror(-rc));
      }
      unlinkat(old_fd, (name + "-shm").c_str(), 0);
    }
  }
  if (new_fd >= 0) {
    mover::RemoveTree(new_fd, kStaging);
    unlinkat(new_fd, j.aside.c_str(), AT_REMOVEDIR);  // only when nothing was set aside
  }
  for (int fd : {old_fd, old_volume_fd, new_fd}) {
    if (fd >= 0) close(fd);
  }
}

// Ends the move either way: the status as it was, the daemon running again
// when it ran before. `restart` is false when the daemon itself asked.
void Finish(const Journal& j, bool restart) {
  KillPoint("finish");
  ServiceStatusSet(j.prior_status);
  unlink(kMoveProgressPath);
  unlink(kMoveJournalPath);
  if (restart && j.daemon_was_running) driftway::StartDaemon();
}

// Before the commit: puts NEW back as it was, so that OLD alone holds.
void Undo(const Journal& j) {
  const std::string repo = j.NewRepo();
  const std::string staging = repo + "/" + kStaging;
  if (j.phase == "switching" || j.phase == "switched") {
    mkdir(staging.c_str(), 0700);
    for (const std::string& name : j.names) {
      const std::string there = j.NewPath(name);
      const std::string staged = staging + "/" + name;
      const std::string aside = repo + "/" + j.aside + "/" + name;
      struct stat st {};
      // Only a name whose staged copy is gone was switched in, so only that
      // one is ours to take back.
      if (lstat(staged.c_str(), &st) != 0 && lstat(there.c_str(), &st) == 0) {
        rename(there.c_str(), staged.c_str());
      }
      if (lstat(aside.c_str(), &st) == 0) rename(aside.c_str(), there.c_str());
    }
    if (!j.aside.empty()) rmdir((repo + "/" + j.aside).c_str());
  }
  const int fd = OpenDir(repo);
  if (fd >= 0) {
    mover::RemoveTree(fd, kStaging);
    close(fd);
  }
}

bool Committed(const Journal& j) {
  SyncConfigMgr config;
  return config.IsLoaded() && config.GetSysShareBin() == j.new_volume;
}

int Recover(bool restart) {
  const int lock = TakeLock();
  if (lock < 0) {
    Say("another mover is running", "");
    return 1;
  }
  Journal j;
  if (!Load(j)) {
    // No journal: nothing moved. A status left at "moving_db" is released.
    std::string status;
    if (ServiceStatusGet(status, false) == 0 && status == "moving_db") ServiceStatusSet("enabled");
    return 0;
  }
  if (Committed(j)) {
    Say("recovery: completing the move to ", j.new_volume);
    Cleanup(j);
    Finish(j, restart);
    WriteRecord(j.new_volume, j, "");
    return 0;
  }
  Say("recovery: undoing the move to ", j.new_volume);
  Undo(j);
  Finish(j, restart);
  WriteRecord(j.old_volume, j, "interrupted");
  return 0;
}

int Fail(Journal& j, const std::string& reason) {
  Say("move failed, the repository stays on " + j.old_volume + ": ", reason);
  Undo(j);
  Finish(j, true);
  WriteRecord(j.old_volume, j, reason);
  return 1;
}

// Seconds since the previous call, for the phase lines of a run by hand.
double Lap() {
  static struct timespec last {};
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const double seconds = static_cast<double>(now.tv_sec - last.tv_sec) +
                         static_cast<double>(now.tv_nsec - last.tv_nsec) / 1e9;
  last = now;
  return seconds;
}

int Move(const std::string& old_volume, const std::string& new_volume) {
  KillPoint("lock");
  const int lock = TakeLock();
  if (lock < 0) {
    Say("another mover is running", "");
    return 1;
  }
  Journal j;
  j.old_volume = old_volume;
  j.new_volume = new_volume;
  SyncConfigMgr config;
  // A move decided against another repository (a double submit, late) or
  // onto the volume that already holds it does nothing.
  if (!config.IsLoaded() || config.GetSysShareBin() != old_volume || old_volume == new_volume) {
    Say("the repository is not on ", old_volume + "; nothing moved");
    // The request that started this mover announced a move; with no journal
    // there is none to wait for.
    std::string status;
    if (access(kMoveJournalPath, F_OK) != 0 && ServiceStatusGet(status, false) == 0 &&
        status == "moving_db") {
      ServiceStatusSet("enabled");
    }
    return 1;
  }
  if (access(kMoveJournalPath, F_OK) == 0) {
    Say("a move cut short must be recovered first", "");
    return 1;
  }
  if (WriteJournal(j) < 0) {
    Say("cannot write the journal", "");
    return 1;
  }
  std::string error;
  // Each phase's time on standard error, for whoever runs the mover by hand.
  auto done = [](const char* phase) {
    fprintf(stderr, "DFTWVolChange: %s %.2f s\n", phase, Lap());
  };
  Lap();
  if (StopService(j) < 0) return Fail(j, "cannot stop the daemon");
  done("stop");
  ListMoving(j);
  if (Quiesce(j, error) < 0) return Fail(j, error);
  done("quiesce");
  if (Checkpoint(j, error) < 0) return Fail(j, error);
  done("checkpoint");
  // A checkpoint may remove a database's emptied write-ahead log.
  ListMoving(j);
  if (Save(j) < 0) return Fail(j, "cannot write the journal");
  mover::Sums sums;
  Verifier verifier(j.NewRepo() + "/" + kStaging);
  if (Copy(j, sums, verifier, error) < 0) {
    verifier.Wait();
    return Fail(j, error);
  }
  done("copy");
  if (Verify(verifier, error) < 0) return Fail(j, error);
  done("verify");
  if (Switch(j, error) < 0) return Fail(j, error);
  done("switch");
  if (Commit(j) < 0) return Fail(j, "cannot write the configuration");
  done("commit");
  Cleanup(j);
  done("cleanup");
  Finish(j, true);
  done("finish");
  WriteRecord(j.new_volume, j, "");
  return 0;
}

bool IsVolume(const std::string& path) {
  return path.size() > 7 && path.rfind("/volume", 0) == 0 &&
         path.find_first_not_of("0123456789", 7) == std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  // Started from a request, the mover has root as its real user only.
  if (geteuid() != 0 && setresuid(0, 0, 0) != 0) {
    fprintf(stderr, "DFTWVolChange: must run as root\n");
    return 1;
  }
  if (setresgid(0, 0, 0) != 0) return 1;
  // Nothing inherited from a request (its databases, its answer) is ours.
  closefrom(STDERR_FILENO + 1);
  umask(077);
  Logger::Initialize(0, "DFTWVolChange", kDebugSettings, 0, 0);
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "--recover") {
    return Recover(!(args.size() > 1 && args[1] == "--no-start"));
  }
  if (args.size() != 2 || !IsVolume(args[0]) || !IsVolume(args[1])) {
    fprintf(stderr, "usage: DFTWVolChange OLD NEW | --recover [--no-start]\n");
    return 2;
  }
  return Move(args[0], args[1]);
}
