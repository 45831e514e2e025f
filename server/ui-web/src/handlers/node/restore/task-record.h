#pragma once

#include "bridge/bridge-request.h"
#include "hvos-task.h"

// The one restore task record of the system.
inline constexpr const char* kRestoreTaskOwner = "admin";
inline constexpr const char* kRestoreTaskName = "dftw_restore_progress";
// A record whose progress is older than this is a dead task's.
inline constexpr long kRestoreStaleSeconds = 11;

// Whether `auth` may read or finish the restore record `task`: only the user
// who started the task, or an administrator. Everyone else is answered as if
// there were no record.
inline bool MayUseRestoreRecord(const RequestAuthentication& auth, const HVOS::Task& task) {
  if (auth.is_admin || auth.is_root) return true;
  const Json::Value owner = task.getProperty("owner");
  return owner.isObject() && owner["uid"].isUInt() && owner["uid"].asUInt() == auth.uid;
}
