// DBUsage start, in order: take root, refuse while a run is alive (a
// record not finished whose process lives; any other record is dropped),
// write the record and fork.
//
// The child answers for the run. It forks a worker that sums the parts one
// by one, writing each running sum to the record and reading the record
// for a cancel after each; at the end the worker writes the figure with its
// local time and caches it. Meanwhile the child reads the record every
// 100 ms, and on a cancel kills the worker at once, so a stop does not wait
// for a slow part to finish. A cancelled run keeps the cached figure of the
// last complete one; a failed run clears it, so no stale figure outlives a
// run that could not measure. Either way the record gets an error.
#include "start.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "bridge/run-as.h"
#include "db/manager.h"
#include "hvos-task.h"
#include "logger.h"
#include "task-record.h"
#include "usage-sum.h"

namespace {

constexpr int kWatchIntervalMs = 100;

// How the worker ends.
constexpr int kWorkerDone = 0;
constexpr int kWorkerFailed = 1;
constexpr int kWorkerStopped = 2;

void (*g_after_each_sum_hook)(unsigned long long) = nullptr;

Json::Value Data(unsigned long long usage, bool finish) {
  Json::Value data(Json::objectValue);
  data["usage"] = Json::UInt64(usage);
  data["finish"] = finish;
  return data;
}

bool WriteData(HVOS::Task& task, const Json::Value& data) {
  task.beginUpdate();
  task.setProperty("data", data);
  if (task.endUpdate() == 0) {
    LOG_ERROR("Failed to update property\n");
    return false;
  }
  return true;
}

// True when the run must end: a stop asked for it, or the record is gone.
bool CancelAsked() {
  Json::Value properties;
  return !HVOS::TaskUtil::peekTask(kDBUsageTaskOwner, kDBUsageTaskName, properties) ||
         properties.isMember("cancel");
}

std::string LocalTimeNow() {
  const time_t now = time(nullptr);
  struct tm local {};
  char text[64] = "";
  if (localtime_r(&now, &local) != nullptr) strftime(text, sizeof text, "%F %X", &local);
  return text;
}

// The worker's whole life: one of kWorker*.
int Measure(HVOS::Task& task) {
  unsigned long long usage = 0;
  const int rc = dbusage::SumDatabaseUsage(
      [&task](unsigned long long sum) {
        task.reload();
        if (task.hasProperty("cancel")) return false;
        WriteData(task, Data(sum, false));
        if (g_after_each_sum_hook != nullptr) g_after_each_sum_hook(sum);
        return true;
      },
      usage);
  if (rc == dbusage::kSumStopped) return kWorkerStopped;
  if (rc != dbusage::kSumDone) return kWorkerFailed;
  const std::string now = LocalTimeNow();
  Json::Value data = Data(usage, true);
  data["time"] = now;
  WriteData(task, data);
  if (db::Manager::SetDBUsage(usage, now) < 0) {
    LOG_ERROR("Failed to cache DB Usage for size: %llu\n", usage);
    return kWorkerFailed;
  }
  return kWorkerDone;
}

}  // namespace

void DBUsageStartHandler::TEST_SetAfterEachSumHook(void (*hook)(unsigned long long)) {
  g_after_each_sum_hook = hook;
}

DBUsageStartHandler::DBUsageStartHandler() {
  SetRequiredDatabase(kUserDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.DBUsage", "start", 0, 0);
}

int DBUsageStartHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& /*request*/,
                                BridgeResponse& response) {
  IF_RUN_AS(0, 0) {
    {
      // Checked and claimed under the record's lock: of two starts at once,
      // one makes the record and the other finds it alive.
      HVOS::Task task(kDBUsageTaskOwner, kDBUsageTaskName);
      task.beginUpdate();
      const pid_t pid = task.getCreatePid();
      if (pid != getpid() && !task.isFinished() && pid > 0 && kill(pid, 0) == 0) {
        task.endUpdate();
        LOG_ERROR("Another DB Usage Calculate Task exists.\n");
        return RESPONSE_FAIL(response, 410, "another db usage calculate task exists");
      }
      task.remove();
      // This process answers for the run until the child takes it over.
      task.setCreatePid(getpid());
      task.setProperty("data", Data(0, false));
      if (task.endUpdate() == 0) {
        LOG_ERROR("Failed to update property\n");
        return RESPONSE_FAIL(response, 401, "failed to update property");
      }
    }
    const int pid = Fork(0);
    if (pid < 0) {
      HVOS::Task(kDBUsageTaskOwner, kDBUsageTaskName).remove();
      LOG_ERROR("Failed to fork\n");
      return RESPONSE_FAIL(response, 401, "failed to fork");
    }
    if (pid == 0) {
      RunTask();
      _exit(0);
    }
    Json::Value answer(Json::objectValue);
    answer["task_id"] = pid;
    response.SetJsonResponse(answer);
    return 0;
  }
  LOG_ERROR("Failed to run as root\n");
  return RESPONSE_FAIL(response, 401, "failed to switch to root");
}

void DBUsageStartHandler::RunTask() {
  setsid();
  HVOS::Task task(kDBUsageTaskOwner, kDBUsageTaskName);
  // Nothing here brings back a record that was removed under the run.
  task.keepRemoved();
  task.setCreatePid(getpid());
  // The worker opens the databases for itself; this process needs them
  // again only to clear the cache.
  DestroyDatabase();
  const pid_t supervisor = getpid();
  const pid_t worker = fork();
  if (worker == 0) {
    // The worker must not outlive the process that answers for the run.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != supervisor) _exit(kWorkerFailed);
    if (InitializeDatabase() < 0) _exit(kWorkerFailed);
    _exit(Measure(task));
  }
  int status = 0;
  bool completed = false;
  if (worker > 0) {
    // The worker's end wakes this process at once; the record is read
    // between.
    const int exited = static_cast<int>(syscall(SYS_pidfd_open, worker, 0));
    for (;;) {
      const pid_t done = waitpid(worker, &status, WNOHANG);
      if (done == worker) {
        completed = WIFEXITED(status) && WEXITSTATUS(status) == kWorkerDone;
        break;
      }
      if (done < 0 && errno != EINTR) break;
      if (CancelAsked()) {
        kill(worker, SIGKILL);
        while (waitpid(worker, &status, 0) < 0 && errno == EINTR) {
        }
        break;
      }
      if (exited >= 0) {
        struct pollfd wait_for = {exited, POLLIN, 0};
        poll(&wait_for, 1, kWatchIntervalMs);
      } else {
        usleep(kWatchIntervalMs * 1000);
      }
    }
    if (exited >= 0) close(exited);
  }
  // A record removed under the run counts as a cancel: nobody waits for
  // this figure.
  const bool cancelled = CancelAsked();
  task.beginUpdate();
  if (!completed) {
    if (!cancelled && !task.hasProperty("cancel")) {
      if (InitializeDatabase() < 0 || db::Manager::SetDBUsage(0, "") < 0) {
        LOG_ERROR("Failed to set empty usage\n");
      }
    }
    Json::Value error(Json::objectValue);
    error["code"] = 401;
    task.setProperty("error", error);
  }
  task.finish(false);
  task.endUpdate();
}
