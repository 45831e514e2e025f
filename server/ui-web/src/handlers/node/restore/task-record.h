#pragma once

// The one restore task record of the system.
inline constexpr const char* kRestoreTaskOwner = "admin";
inline constexpr const char* kRestoreTaskName = "dftw_restore_progress";
// A record whose progress is older than this is a dead task's.
inline constexpr long kRestoreStaleSeconds = 11;
