// The package's on/off marker, and the removal of the sync service's
// repositories when an administrator deletes the service's database.
#include "sync-package.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "directory-read.h"
#include "hlibc.h"
#include "logger.h"
#include "sync-service.h"

namespace {

constexpr const char* kEnabledMarker = "/var/packages/Tidepool/enabled";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kRepositoryFolder = "/@tidepool";

// Only "/volumeN": a path from the directory or the settings that is
// anything else never gets a folder removed below it.
bool IsVolumePath(const std::string& path) {
  if (path.compare(0, 7, "/volume") != 0 || path.size() == 7) return false;
  return path.find_first_not_of("0123456789", 7) == std::string::npos;
}

std::set<std::string> Volumes() {
  std::set<std::string> volumes;
  hostaccounts::WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db, "SELECT path FROM volumes");
    while (query.executeStep()) volumes.insert(query.getColumn(0).getString());
    return 0;
  });
  // The repository's volume counts even when the directory cannot be read.
  SyncConfigMgr config;
  if (config.IsLoaded()) volumes.insert(config.GetSysShareBin());
  return volumes;
}

}  // namespace

bool SyncIsPkgEnable() {
  struct stat st {};
  return lstat(kEnabledMarker, &st) == 0 && S_ISREG(st.st_mode);
}

int RemoveDftwRepoInAllVolume() {
  // The daemon holds the databases open and its passes write into the
  // repository: it goes first, or it would leave a repository behind.
  if (HLIBCExec(kControl, "service", "--stop", nullptr) != 0) {
    LOG_ERROR("cannot stop the sync service; removing its repositories all the same\n");
  }
  int rc = 0;
  for (const std::string& volume : Volumes()) {
    if (!IsVolumePath(volume)) continue;
    const std::string repository = volume + kRepositoryFolder;
    struct stat st {};
    if (lstat(repository.c_str(), &st) != 0) continue;
    // remove_all never follows a link: a link in the repository only loses
    // the link, and a repository that is itself a link is only unlinked.
    std::error_code ec;
    std::filesystem::remove_all(repository, ec);
    if (ec) {
      LOG_ERROR("cannot remove %s: %s\n", repository.c_str(), ec.message().c_str());
      rc = -1;
    }
  }
  return rc;
}
