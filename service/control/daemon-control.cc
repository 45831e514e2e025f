// The daemon is started twice-forked in a session of its own with its
// standard streams on /dev/null, so that it never holds the caller's output
// (a caller reading our stdout to its end would otherwise wait for it).
#include "daemon-control.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "driftway-client.h"
#include "driftway-protocol.h"
#include "keyvalue-file.h"
#include "sync-service.h"

namespace driftway {
namespace {

constexpr int kPollMs = 100;
constexpr int kStartWaitMs = 5000;
constexpr int kStopWaitMs = 10000;
constexpr int kKillWaitMs = 2000;

void SleepMs(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

bool DaemonAnswers() {
  Driftway client;
  client.SetTimeout(1);
  Json::Value status;
  return client.QueryStatus(status) == 0;
}

int SpawnDetached() {
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    setsid();
    if (fork() != 0) _exit(0);
    if (chdir("/") != 0) _exit(127);
    const int null_fd = open("/dev/null", O_RDWR);
    if (null_fd < 0) _exit(127);
    dup2(null_fd, STDIN_FILENO);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    closefrom(STDERR_FILENO + 1);
    execl(kDaemonPath, "driftway", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return 0;
}

bool WaitUntilStopped(int limit_ms) {
  for (int waited = 0; waited < limit_ms; waited += kPollMs) {
    if (RunningDaemonPid() == 0) return true;
    SleepMs(kPollMs);
  }
  return RunningDaemonPid() == 0;
}

// A move of the repository: its volumes and phase from the journal, the
// bytes copied so far from the mover's progress file ("DONE TOTAL").
void PrintMove() {
  std::map<std::string, std::string> journal;
  if (!tpsys::ReadKeyValues(kMoveJournalPath, journal)) return;
  printf("moving repository: %s -> %s, phase %s\n", journal["old"].c_str(), journal["new"].c_str(),
         journal["phase"].c_str());
  std::string progress;
  unsigned long long done = 0, total = 0;
  if (tpsys::ReadWholeFile(kMoveProgressPath, progress) &&
      sscanf(progress.c_str(), "%llu %llu", &done, &total) == 2) {
    printf("copied: %llu of %llu bytes\n", done, total);
  }
  printf(RepositoryMoverAlive() ? "mover: running\n"
                                : "mover: not running (the daemon's start recovers the move)\n");
}

}  // namespace

pid_t RunningDaemonPid() {
  const int fd = open(kPidFile, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  pid_t pid = 0;
  // Locked means a live daemon holds it; a stale file without lock is not one.
  if (flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    char buffer[32] = {};
    if (pread(fd, buffer, sizeof buffer - 1, 0) > 0) pid = static_cast<pid_t>(atoi(buffer));
  }
  close(fd);
  return pid > 0 ? pid : 0;
}

int StartDaemon() {
  if (const pid_t pid = RunningDaemonPid(); pid != 0) {
    printf("driftway is already running (pid %d)\n", static_cast<int>(pid));
    ServiceStatusSet("enabled");
    return 0;
  }
  if (access(kDaemonPath, X_OK) != 0 || SpawnDetached() < 0) {
    fprintf(stderr, "driftway-control: cannot start %s: %s\n", kDaemonPath, strerror(errno));
    return 1;
  }
  for (int waited = 0; !DaemonAnswers(); waited += kPollMs) {
    if (waited >= kStartWaitMs) {
      fprintf(stderr, "driftway-control: driftway did not start\n");
      return 1;
    }
    SleepMs(kPollMs);
  }
  if (ServiceStatusSet("enabled") < 0) {
    fprintf(stderr, "driftway-control: cannot write the service status\n");
    return 1;
  }
  printf("driftway started (pid %d)\n", static_cast<int>(RunningDaemonPid()));
  return 0;
}

int StopDaemon() {
  const pid_t pid = RunningDaemonPid();
  if (pid != 0) {
    kill(pid, SIGTERM);
    if (!WaitUntilStopped(kStopWaitMs)) {
      fprintf(stderr, "driftway-control: driftway (pid %d) ignores SIGTERM, killing it\n",
              static_cast<int>(pid));
      kill(pid, SIGKILL);
      if (!WaitUntilStopped(kKillWaitMs)) {
        fprintf(stderr, "driftway-control: cannot stop driftway\n");
        return 1;
      }
      // A killed daemon leaves its files behind.
      RemoveSocketFile(kSocketPath);
      unlink(kPidFile);
    }
  }
  if (ServiceStatusSet("disabled") < 0) {
    fprintf(stderr, "driftway-control: cannot write the service status\n");
    return 1;
  }
  printf(pid != 0 ? "driftway stopped\n" : "driftway is not running\n");
  return 0;
}

int PrintStatus() {
  std::string status;
  if (ServiceStatusGet(status, false) < 0) status = "unknown";
  printf("status: %s\n", status.c_str());
  PrintMove();
  const pid_t pid = RunningDaemonPid();
  if (pid == 0) {
    printf("driftway: not running\n");
    return 3;
  }
  printf("driftway: running (pid %d)\n", static_cast<int>(pid));
  Driftway client;
  client.SetTimeout(5);
  Json::Value answer;
  if (client.QueryStatus(answer) < 0 || !answer["watch"].isObject()) return 0;
  const Json::Value& watch = answer["watch"];
  if (watch["frozen"].asBool()) printf("frozen: a volume is short of space; no new versions\n");
  for (const Json::Value& view : watch["views"]) {
    printf("watching view %llu: %s, %llu folders%s\n",
           static_cast<unsigned long long>(view["view_id"].asUInt64()),
           view["root"].asString().c_str(),
           static_cast<unsigned long long>(view["folders"].asUInt64()),
           view["partial"].asBool() ? " (partly: watch limit reached)" : "");
  }
  const auto ids = [](const Json::Value& list) {
    std::string text;
    for (const Json::Value& id : list) text += (text.empty() ? "" : " ") + id.asString();
    return text.empty() ? std::string("none") : text;
  };
  printf("waiting: %s\nversioning: %s\npasses: %llu\n", ids(watch["pending"]).c_str(),
         ids(watch["running"]).c_str(),
         static_cast<unsigned long long>(watch["passes"].asUInt64()));
  return 0;
}

}  // namespace driftway
