// driftway-control: runs the sync service, enables its users and shares, and
// versions or checks the repository.
// User and share changes are written to the user database directly, so they
// work whether or not the daemon runs.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "daemon-control.h"
#include "db/errors.h"
#include "job-queue.h"
#include "job-store.h"
#include "job-text.h"
#include "scan.h"
#include "service-ops.h"
#include "sync-service.h"
#include "user-manager.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

int Usage() {
  fprintf(stderr,
          "usage: driftway-control service --start | --stop | --restart | --status\n"
          "       driftway-control user --enable NAME [NAME...] | --disable NAME [NAME...]\n"
          "       driftway-control share --enable NAME | --disable NAME\n"
          "       driftway-control scan [--at TIMESTAMP] [--view ID]... [--folder ID:/PATH]...\n"
          "                             [--busy ID:/PATH]... [--settle MS] [--open-wait MS]\n"
          "                             [--client NAME]\n"
          "       driftway-control check [--view ID]\n"
          "       driftway-control jobs\n");
  return kExitUsage;
}

// Opens the user database of the configured repository for this process.
class UserDatabase {
 public:
  int Open() {
    if (SyncGetConf(config_) < 0) {
      fprintf(stderr, "driftway-control: cannot read %s\n", SyncConfigMgr::kPath);
      return -1;
    }
    if (UserManager::Initialize(config_.GetDbConnectParam(), config_.GetDBBackendString()) < 0) {
      fprintf(stderr, "driftway-control: cannot open the user database in %s\n",
              config_.GetDbConnectParam().c_str());
      return -1;
    }
    return 0;
  }
  ~UserDatabase() { UserManager::Destroy(); }
  const SyncConfigMgr& config() const { return config_; }

 private:
  SyncConfigMgr config_;
};

bool Report(const driftway::OpResult& result, const char* done, const std::string& name) {
  if (!result.ok()) {
    fprintf(stderr, "driftway-control: %s\n", result.message.c_str());
    return false;
  }
  printf("%s %s\n", done, name.c_str());
  return true;
}

// tidepool-webapi, where it serves the web API, starts again and takes up the
// new build of the modules; a CGI-only setup has nothing to restart. The pid
// is believed only from root's folder, and only for that program.
void RestartWebApi() {
  constexpr const char* kFolder = "/tmp/tidepool-webapi";
  struct stat st {};
  if (lstat(kFolder, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != 0) return;
  FILE* f = fopen((std::string(kFolder) + "/webapi.pid").c_str(), "re");
  if (f == nullptr) return;
  int pid = 0;
  const bool read = fscanf(f, "%d", &pid) == 1;
  fclose(f);
  if (!read || pid <= 1) return;
  char exe[4096];
  const ssize_t n =
      readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), exe, sizeof exe - 1);
  if (n <= 0 ||
      std::string(exe, static_cast<size_t>(n)).find("/tidepool-webapi") == std::string::npos) {
    return;
  }
  if (kill(pid, SIGHUP) == 0) printf("restarted tidepool-webapi\n");
}

int ServiceCommand(const std::vector<std::string>& args) {
  if (args.size() != 1) return Usage();
  const std::string& action = args[0];
  if (action == "--start") return driftway::StartDaemon();
  if (action == "--stop") return driftway::StopDaemon();
  if (action == "--status") return driftway::PrintStatus();
  if (action == "--restart") {
    RestartWebApi();
    const int rc = driftway::StopDaemon();
    return rc != 0 ? rc : driftway::StartDaemon();
  }
  return Usage();
}

// Every name is tried; one failure makes the exit status 1.
int UserCommand(const std::vector<std::string>& args) {
  if (args.size() < 2 || (args[0] != "--enable" && args[0] != "--disable")) return Usage();
  const bool enable = args[0] == "--enable";
  UserDatabase db;
  if (db.Open() < 0) return kExitFailed;
  bool all_ok = true;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& name = args[i];
    const auto result =
        enable ? driftway::EnableUser(db.config(), name, 0) : driftway::DisableUser(name);
    all_ok &= Report(result, enable ? "enabled user" : "disabled user", name);
  }
  return all_ok ? 0 : kExitFailed;
}

int ShareCommand(const std::vector<std::string>& args) {
  if (args.size() != 2 || (args[0] != "--enable" && args[0] != "--disable")) return Usage();
  const bool enable = args[0] == "--enable";
  UserDatabase db;
  if (db.Open() < 0) return kExitFailed;
  const std::string& name = args[1];
  const auto result =
      enable ? driftway::EnableShare(name, driftway::Rotation{}) : driftway::DisableShare(name);
  return Report(result, enable ? "enabled share" : "disabled share", name) ? 0 : kExitFailed;
}

// Versions every enabled home and share once (with --view, those views;
// with --folder, of a view only that folder's subtree), as
// at --at (seconds since the epoch) when given; --client names the device
// in the log records.
int ScanCommand(const std::vector<std::string>& args) {
  scan::ScanOptions options;
  for (size_t i = 0; i < args.size(); i += 2) {
    if (i + 1 >= args.size()) return Usage();
    const std::string& value = args[i + 1];
    char* end = nullptr;
    const unsigned long long number = strtoull(value.c_str(), &end, 10);
    const bool numeric = !value.empty() && value[0] != '-' && *end == '\0' && number != 0;
    if (args[i] == "--at" && numeric && number <= UINT32_MAX) {
      options.at = static_cast<uint32_t>(number);
    } else if (args[i] == "--settle" && !value.empty() && value[0] != '-' && *end == '\0' &&
               number <= INT32_MAX) {
      options.settle_ms = static_cast<int64_t>(number);
    } else if (args[i] == "--open-wait" && !value.empty() && value[0] != '-' && *end == '\0' &&
               number <= INT32_MAX) {
      options.open_wait_ms = static_cast<int64_t>(number);
    } else if (args[i] == "--view" && numeric) {
      options.views.push_back(number);
    } else if ((args[i] == "--folder" || args[i] == "--busy") &&
               value.find(":/") != std::string::npos) {
      // "VIEW:/a/b": of that view, only that folder and what lies below it
      // (--folder), or still being written (--busy): what lies in it is
      // left for later, or with --settle MS only the files changed within
      // the last MS milliseconds.
      const size_t colon = value.find(":/");
      const std::string view = value.substr(0, colon);
      char* view_end = nullptr;
      const unsigned long long view_id = strtoull(view.c_str(), &view_end, 10);
      if (view.empty() || *view_end != '\0' || view_id == 0) return Usage();
      if (args[i] == "--busy") {
        options.busy[view_id].push_back(value.substr(colon + 1));
        continue;
      }
      options.views.push_back(view_id);
      options.folders[view_id].push_back(value.substr(colon + 1));
    } else if (args[i] == "--client" && !value.empty()) {
      options.client_id = value;
    } else {
      return Usage();
    }
  }
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) {
    fprintf(stderr, "driftway-control: cannot read %s\n", SyncConfigMgr::kPath);
    return kExitFailed;
  }
  scan::ScanSummary s;
  if (scan::ScanAll(config, options, s) < 0) {
    fprintf(stderr, "driftway-control: cannot open the sync databases\n");
    return kExitFailed;
  }
  printf("scanned %u views: %u added, %u modified, %u moved, %u removed, %u rotated, %u failed\n",
         s.views, s.added, s.modified, s.moved, s.removed, s.rotated, s.failed);
  if (s.filtered > 0) printf("left %u entries alone by their profiles' rules\n", s.filtered);
  return s.failed == 0 ? 0 : kExitFailed;
}

// Proves that every stored version (of one view with --view) can be
// rebuilt, changing nothing. Exit 0 when sound, 1 on any problem.
int CheckCommand(const std::vector<std::string>& args) {
  check::CheckOptions options;
  if (args.size() == 2 && args[0] == "--view") {
    char* end = nullptr;
    const unsigned long long id = strtoull(args[1].c_str(), &end, 10);
    if (*end != '\0' || id == 0 || args[1][0] == '-') return Usage();
    options.view_id = id;
  } else if (!args.empty()) {
    return Usage();
  }
  check::CheckReport report;
  const int rc = check::CheckRepository(options, report);
  if (rc == db::kErrNotFound) {
    fprintf(stderr, "driftway-control: there is no view %llu\n",
            static_cast<unsigned long long>(options.view_id));
    return kExitUsage;
  }
  if (rc < 0) {
    fprintf(stderr, "driftway-control: cannot open the sync databases: %s\n", db::GetErrMsg(rc));
    return kExitFailed;
  }
  for (const std::string& line : report.problems) printf("%s\n", line.c_str());
  for (const std::string& line : report.notes) printf("%s\n", line.c_str());
  printf("%s\n", check::SummaryLine(report).c_str());
  return report.ok() ? 0 : kExitFailed;
}

// Lists every job of the queue, waiting, running and failed, one line each;
// the store is read directly, so this works without the daemon.
int JobsCommand(const std::vector<std::string>& args) {
  namespace jq = tidepool::core::job_queue;
  if (!args.empty()) return Usage();
  const std::string location = jq::ConfiguredQueueLocation();
  std::unique_ptr<jq::JobStore> store;
  if (location.empty() || jq::OpenJobStore(location, store) < 0 || !store) {
    fprintf(stderr, "driftway-control: cannot open the job queue '%s'\n",
            driftway::Printable(location).c_str());
    return kExitFailed;
  }
  std::vector<jq::JobRecord> jobs;
  if (store->List(jobs) < 0) {
    fprintf(stderr, "driftway-control: cannot read the job queue\n");
    return kExitFailed;
  }
  for (const auto& job : jobs) printf("%s\n", driftway::JobListLine(job).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string command = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "service") return ServiceCommand(args);
  if (command == "user") return UserCommand(args);
  if (command == "share") return ShareCommand(args);
  if (command == "scan") return ScanCommand(args);
  if (command == "check") return CheckCommand(args);
  if (command == "jobs") return JobsCommand(args);
  return Usage();
}
