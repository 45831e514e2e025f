// The sync service's status, configuration and capabilities, as the module
// and the service's tools see them.
#pragma once

#include <list>
#include <string>

// /var/packages/Tidepool/etc/setting.conf: key="value" lines.
//   repo_volume       the volume that holds the repository ("/volume1")
//   db_backend        "sqlite"
//   enable_vmtouch, enable_mlock ("yes"/"no"), vmtouch_reserve_mem (10..90)
class SyncConfigMgr {
 public:
  static constexpr const char* kPath = "/var/packages/Tidepool/etc/setting.conf";

  SyncConfigMgr();  // reads the file; IsLoaded() tells whether it could
  bool IsLoaded() const { return loaded_; }

  std::string GetSysShareBin() const { return repo_volume_; }  // "/volume1"
  std::string GetSystemRepoLocation() const;                   // "/volume1/@tidepool"
  std::string GetDbConnectParam() const { return GetSystemRepoLocation(); }
  std::string GetDBBackendString() const { return backend_; }  // "sqlite"
  std::string GetWorkingDirPath() const;                       // "/volume1/@tidepool/@tmp"
  // The `job_queue` value: "redis://..." or a SQLite file; empty means the
  // SQLite file in the repository.
  std::string GetJobQueueLocation() const { return job_queue_; }

  bool enable_vmtouch = false;
  bool enable_mlock = false;
  int vmtouch_reserve_mem = 30;

  void SetSysShareBin(const std::string& volume) { repo_volume_ = volume; }
  int Save() const;  // negative on failure
  bool ReloadVMTouchDaemon() const;

 private:
  friend int SyncGetConf(SyncConfigMgr& config);
  bool Load();
  bool loaded_ = false;
  std::string repo_volume_;
  std::string backend_ = "sqlite";
  std::string job_queue_;
};

int SyncGetConf(SyncConfigMgr& config);

// The service status word from /var/packages/Tidepool/etc/enable_status:
// "enabled", "disabled", "moving_db", ... A missing file reads "disabled".
// 0 on success, negative when the file cannot be read.
int ServiceStatusGet(std::string& status, bool from_cache);
int ServiceStatusSet(const std::string& status);

// The repository mover (DFTWVolChange) holds kMoveLockPath locked while it
// runs and keeps its journal in kMoveJournalPath from its first step until
// the move is finished or undone. A journal with no live mover is a move
// cut short: `DFTWVolChange --recover` finishes or undoes it.
inline constexpr const char* kMoveLockPath = "/var/packages/Tidepool/etc/move.lock";
inline constexpr const char* kMoveJournalPath = "/var/packages/Tidepool/etc/move.journal";
// The mover's bytes copied and bytes to copy, "DONE TOTAL", while it copies.
inline constexpr const char* kMoveProgressPath = "/var/packages/Tidepool/etc/move.progress";
inline constexpr const char* kMoverPath = "/var/packages/Tidepool/target/ui/DFTWVolChange";
bool RepositoryMoverAlive();
// Starts `DFTWVolChange --recover` detached when the status is "moving_db"
// and no mover is alive; 1 when it started one, 0 when there was nothing
// to do, negative on failure.
int RecoverInterruptedMove();

// Freeze mode: the service stops taking changes while volumes are full. The
// state is /var/packages/Tidepool/etc/freeze, one full volume's number a line;
// the file's presence means frozen.
bool IsViewIdFreeze(unsigned long long view_id);
int SyncDBInit();
void SyncDBDestroy();
int SyncFullVolGet(std::list<int>& volume_ids);
int SyncFreezeSet(const std::list<int>& full_volume_ids);  // write side
int SyncFreezeClear();

bool ServiceSupportAppPrivilege();
bool ServiceSupportMovingRepository();
bool ServiceSupportSharing();
// 0 local, 2 LDAP, 3 domain.
bool ServiceIsHomeServiceEnabled(int user_type);

// The folder of a namespace that another package of the service keeps beside
// the repository: "<repository volume>/@tidepool-<name>" ("office" for the
// office service's documents). Nonzero with `path` when that folder exists
// (a real folder, not a link); 0 when it does not, when `name` is not a
// plain lower-case word or when no repository volume is configured.
int KSTXTidepoolGetNSPath(const std::string& name, std::string& path);
