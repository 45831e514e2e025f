// The sync service's state as plain files of the package, so that the web
// module, the daemon and the tools all see the same thing without a daemon
// being up: setting.conf (configuration), enable_status (status word) and
// freeze (full volumes; its presence means frozen).
#include "sync-service.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "hlibc.h"
#include "keyvalue-file.h"

namespace {

constexpr const char* kStatusPath = "/var/packages/Tidepool/etc/enable_status";
constexpr const char* kFreezePath = "/var/packages/Tidepool/etc/freeze";

std::string Trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  const auto end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

bool ParseInt(const std::string& text, long& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  out = strtol(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

}  // namespace

SyncConfigMgr::SyncConfigMgr() { loaded_ = Load(); }

std::string SyncConfigMgr::GetSystemRepoLocation() const { return repo_volume_ + "/@tidepool"; }

std::string SyncConfigMgr::GetWorkingDirPath() const { return GetSystemRepoLocation() + "/@tmp"; }

bool SyncConfigMgr::Load() {
  std::map<std::string, std::string> values;
  if (!tpsys::ReadKeyValues(kPath, values)) return false;
  const std::string volume = values["repo_volume"];
  // Without the repository's volume no database can be found: not loaded.
  if (volume.empty() || volume[0] != '/') return false;
  repo_volume_ = volume;
  if (!values["db_backend"].empty()) backend_ = values["db_backend"];
  job_queue_ = values["job_queue"];
  enable_vmtouch = values["enable_vmtouch"] == "yes";
  enable_mlock = values["enable_mlock"] == "yes";
  long reserve = 0;
  if (ParseInt(values["vmtouch_reserve_mem"], reserve)) {
    vmtouch_reserve_mem = static_cast<int>(std::min(90L, std::max(10L, reserve)));
  }
  return true;
}

int SyncConfigMgr::Save() const {
  if (repo_volume_.empty()) return -1;
  return tpsys::SetKeyValues(kPath,
                             {
                                 {"repo_volume", repo_volume_},
                                 {"db_backend", backend_},
                                 {"enable_vmtouch", enable_vmtouch ? "yes" : "no"},
                                 {"enable_mlock", enable_mlock ? "yes" : "no"},
                                 {"vmtouch_reserve_mem", std::to_string(vmtouch_reserve_mem)},
                             });
}

// This host runs no page-cache (vmtouch) daemon: the sync service reads the
// vmtouch settings from setting.conf itself when it starts, so once Save() has
// stored them there is nothing left to reload.
bool SyncConfigMgr::ReloadVMTouchDaemon() const { return true; }

int SyncGetConf(SyncConfigMgr& config) {
  config.loaded_ = config.Load();
  return config.loaded_ ? 0 : -1;
}

int ServiceStatusGet(std::string& status, bool /*from_cache*/) {
  // The file is one short word: reading it is as cheap as any cache.
  std::string content;
  if (!tpsys::ReadWholeFile(kStatusPath, content)) {
    if (errno != ENOENT) return -1;
    status = "disabled";
    return 0;
  }
  content = Trim(content);
  status = content.empty() ? "disabled" : content;
  return 0;
}

int ServiceStatusSet(const std::string& status) {
  if (status.empty() || status.find_first_of(" \t\r\n") != std::string::npos) return -1;
  return tpsys::WriteFileAtomically(kStatusPath, status + "\n");
}

// One repository serves every view, so a full volume freezes them all.
bool IsViewIdFreeze(unsigned long long /*view_id*/) { return access(kFreezePath, F_OK) == 0; }

// The freeze state is a plain file: there is no database to open or close.
int SyncDBInit() { return 0; }
void SyncDBDestroy() {}

int SyncFullVolGet(std::list<int>& volume_ids) {
  std::string content;
  if (!tpsys::ReadWholeFile(kFreezePath, content)) {
    if (errno != ENOENT) return -1;
    volume_ids.clear();
    return 0;
  }
  std::list<int> ids;
  std::istringstream in(content);
  std::string line;
  long id = 0;
  while (std::getline(in, line)) {
    // Anything but a volume number is ignored rather than trusted.
    if (ParseInt(Trim(line), id) && id > 0 && id < 100000) ids.push_back(static_cast<int>(id));
  }
  volume_ids.swap(ids);
  return 0;
}

int SyncFreezeSet(const std::list<int>& full_volume_ids) {
  std::string content;
  for (int id : full_volume_ids) content += std::to_string(id) + "\n";
  return tpsys::WriteFileAtomically(kFreezePath, content);
}

int SyncFreezeClear() {
  if (unlink(kFreezePath) != 0 && errno != ENOENT) return -1;
  return 0;
}

bool RepositoryMoverAlive() {
  const int fd = open(kMoveLockPath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  // The mover holds the lock exclusively: a shared lock that cannot be had
  // means it lives.
  const bool alive = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return alive;
}

int RecoverInterruptedMove() {
  std::string status;
  if (ServiceStatusGet(status, false) < 0) return -1;
  if (status != "moving_db" || RepositoryMoverAlive()) return 0;
  return HLIBCBackgroundExec(kMoverPath, "--recover", nullptr) == 0 ? 1 : -1;
}

bool ServiceSupportAppPrivilege() { return true; }
bool ServiceSupportMovingRepository() { return true; }
bool ServiceSupportSharing() { return true; }

// Only local homes: this host has no LDAP or domain directory service. The
// administrator turns the home service off with local_home_service="no".
bool ServiceIsHomeServiceEnabled(int user_type) {
  if (user_type != 0) return false;
  std::map<std::string, std::string> values;
  return !tpsys::ReadKeyValues(SyncConfigMgr::kPath, values) ||
         values["local_home_service"] != "no";
}

int KSTXTidepoolGetNSPath(const std::string& name, std::string& path) {
  path.clear();
  if (name.empty() || name.size() > 32 ||
      name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") != std::string::npos) {
    return 0;
  }
  SyncConfigMgr config;
  if (!config.IsLoaded()) return 0;
  const std::string folder = config.GetSysShareBin() + "/@tidepool-" + name;
  // A link there is not the service's folder: whoever reads it would be led
  // elsewhere.
  struct stat st {};
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return 0;
  path = folder;
  return 1;
}
