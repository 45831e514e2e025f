// driftway: the sync service daemon. It runs as root, holds the pidfile lock
// for its lifetime (one daemon at a time), serves the control socket and
// stops cleanly on SIGTERM or SIGINT.
#include <fcntl.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "control-server.h"
#include "db/log-manager.h"
#include "db/log-types.h"
#include "driftway-protocol.h"
#include "event-loop.h"
#include "hlibc.h"
#include "job-queue.h"
#include "job-worker.h"
#include "logger.h"
#include "private-files.h"
#include "purge-job.h"
#include "purge.h"
#include "requests.h"
#include "sync-service.h"
#include "unlink-job.h"
#include "user-manager.h"
#include "versioner.h"

namespace {

constexpr const char* kDebugSettings = "/var/packages/Tidepool/target/etc/syncfolder.debug";

// The pidfile, locked while the daemon lives: a second daemon fails to lock
// it, and the lock vanishes with the process however it ends.
class PidFile {
 public:
  int Acquire(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      fprintf(stderr, "driftway: cannot open %s: %s\n", path.c_str(), strerror(errno));
      return -1;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      fprintf(stderr, "driftway: already running\n");
      close(fd_);
      fd_ = -1;
      return -1;
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, pid.data(), pid.size(), 0) < 0) return -1;
    path_ = path;
    return 0;
  }
  ~PidFile() {
    if (fd_ < 0) return;
    unlink(path_.c_str());
    close(fd_);
  }

 private:
  int fd_ = -1;
  std::string path_;
};

uid_t ServiceUid() {
  const passwd* account = getpwnam(driftway::kServiceAccount);
  return account ? account->pw_uid : 0;
}

// Termination signals arrive as readable events on the loop.
int WatchSignals(driftway::EventLoop& loop) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGHUP);
  if (sigprocmask(SIG_BLOCK, &mask, nullptr) != 0) return -1;
  const int fd = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) return -1;
  return loop.Add(fd, EPOLLIN, [fd, &loop](uint32_t) {
    signalfd_siginfo info{};
    while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      // SIGHUP is reserved for reloading settings; today there is nothing to
      // reload.
      if (info.ssi_signo == SIGHUP) continue;
      LOG_INFO("signal %u, stopping\n", info.ssi_signo);
      loop.Stop();
    }
  });
}

// Every job the daemon knows, by name. A job of a name not listed here
// fails with "unknown job" until its tries run out.
void RegisterJobRunners(driftway::JobWorker& worker) {
  worker.Register(tidepool::core::job_queue::jobs::UnlinkJob::kName, driftway::RunUnlinkJob);
  worker.Register(tidepool::core::job_queue::jobs::DeleteNodeJob::kName,
                  driftway::RunDeleteNodeJob);
}

// For the daemon's tests, which run it as a process: failed jobs wait no
// time before their next try, and "test.throw" is a runner that throws.
void ApplyTestHooks(driftway::JobWorker& worker) {
  const char* hooks = getenv("DRIFTWAY_TEST_HOOKS");
  if (hooks == nullptr || strcmp(hooks, "1") != 0) return;
  LOG_WARNING("test hooks are on\n");
  worker.TEST_SetRetryDelay(0);
  // The daemon dies at a chosen moment of a purge, as a crash would.
  const char* kill_in_purge = getenv("DRIFTWAY_TEST_KILL_IN_PURGE");
  const std::string moment = kill_in_purge ? kill_in_purge : "";
  auto die = [] { raise(SIGKILL); };
  if (moment == "commit") purge::TEST_SetHooks(die, nullptr);
  if (moment == "unlink") purge::TEST_SetHooks(nullptr, die);
  worker.Register("test.throw", [](const auto&, std::string&) -> driftway::JobOutcome {
    throw std::runtime_error("thrown by the test runner");
  });
}

// Log record 0: the service started ("1") or stopped ("0").
void LogServiceEvent(bool started) {
  if (!db::LogManager::IsInitialized()) return;
  db::Log log;
  log.setType(db::kLogServiceStartStop);
  log.pushArg(started ? "1" : "0", false);
  if (db::LogManager::InsertLog(log) != 0) LOG_WARNING("cannot write the service's log record\n");
}

// A move of the repository cut short is finished or undone before the
// daemon opens any database, so that it opens the authoritative one.
bool SettleRepositoryMove() {
  std::string status;
  if (ServiceStatusGet(status, false) < 0 || status != "moving_db") return true;
  if (RepositoryMoverAlive()) {
    fprintf(stderr, "driftway: the repository is moving\n");
    return false;
  }
  LOG_ERROR("recovering a move of the repository cut short\n");
  return HLIBCExec(kMoverPath, "--recover", "--no-start", nullptr) == 0;
}

int Run() {
  if (!SettleRepositoryMove()) return 1;
  PidFile pidfile;
  if (pidfile.Acquire(driftway::kPidFile) < 0) return 1;

  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) {
    LOG_ERROR("cannot read the service configuration\n");
    fprintf(stderr, "driftway: cannot read the service configuration\n");
    return 1;
  }
  // Repositories made by older installs are narrowed once.
  tpsys::SecureRepository(config.GetSystemRepoLocation());
  if (UserManager::Initialize(config.GetDbConnectParam(), config.GetDBBackendString()) < 0) {
    fprintf(stderr, "driftway: cannot open the user database in %s\n",
            config.GetDbConnectParam().c_str());
    return 1;
  }

  driftway::EventLoop loop;
  if (!loop.ok() || WatchSignals(loop) < 0) {
    LOG_ERROR("cannot set up the event loop: %s\n", strerror(errno));
    return 1;
  }
  driftway::ControlServer server(loop, driftway::DispatchLine);
  if (server.Listen(driftway::kSocketPath, ServiceUid()) < 0) {
    fprintf(stderr, "driftway: cannot listen on %s\n", driftway::kSocketPath);
    return 1;
  }
  // The worker runs jobs on its own thread, so the socket never waits for
  // one; it stops (letting a running job finish) before the databases close.
  driftway::JobWorker worker;
  // Only the worker's thread uses them; a purge tried while they cannot
  // be opened waits for another try.
  driftway::OpenPurgeDatabases(config);
  RegisterJobRunners(worker);
  ApplyTestHooks(worker);
  // The worker's thread is not running yet, nor any more at the end: the
  // service's own records are written while nothing else uses the log.
  LogServiceEvent(true);
  if (worker.Start() < 0) {
    LOG_ERROR("cannot start the job worker\n");
    return 1;
  }
  driftway::Versioner versioner(loop, driftway::LoadVersionerOptions());
  if (versioner.Start() < 0) {
    LOG_ERROR("cannot start watching: %s\n", strerror(errno));
    return 1;
  }
  driftway::SetViewsChangedHook([&versioner] { versioner.Reload(); });
  driftway::SetStatusHook([&versioner] { return versioner.Status(); });
  driftway::SetUserChangedHook(
      [&versioner](uint64_t view_id, const std::string& root, bool enabled) {
        versioner.SetView(view_id, root, enabled);
      });
  driftway::SetProfilesChangedHook([&versioner] { versioner.RescanAll(); });
  LOG_INFO("driftway started, pid %d\n", static_cast<int>(getpid()));
  const int rc = loop.Run();
  driftway::SetViewsChangedHook(nullptr);
  driftway::SetStatusHook(nullptr);
  driftway::SetUserChangedHook(nullptr);
  driftway::SetProfilesChangedHook(nullptr);
  versioner.Stop();
  server.Shutdown();
  worker.Stop();
  LogServiceEvent(false);
  driftway::ClosePurgeDatabases();
  UserManager::Destroy();
  LOG_INFO("driftway stopped\n");
  return rc < 0 ? 1 : 0;
}

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  umask(022);
  Logger::Initialize(0, "driftway", kDebugSettings, 0, 0);
  return Run();
}
