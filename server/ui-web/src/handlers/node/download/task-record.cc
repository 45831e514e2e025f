#include "task-record.h"

#include <cerrno>
#include <cstring>

#include "bridge/run-as.h"
#include "fs-beneath.h"
#include "logger.h"
#include "sync-service.h"

bool IsDownloadFolder(const std::string& path) {
  if (path.empty()) return false;
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) return false;
  const std::string base = config.GetSysShareBin() + "/@tmp/";
  if (path.compare(0, base.size(), base) != 0) return false;
  const std::string name = path.substr(base.size());
  return fsb::IsPlainName(name) && name.starts_with("Tidepool.");
}

void RemoveDownloadFolder(const std::string& path) {
  if (!IsDownloadFolder(path)) return;
  IF_RUN_AS(0, 0) {
    if (fsb::RemovePathNoSymlinks(path) < 0 && errno != ENOENT) {
      LOG_ERROR("cannot remove %s: %s\n", path.c_str(), strerror(errno));
    }
  }
  else {
    LOG_ERROR("Failed to run as root\n");
  }
}
