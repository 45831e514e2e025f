// Type codes of log records, shared by every writer and reader of the log.
// The argument layout of each code is fixed: readers index the P (numbers
// and flags) and S (names and paths) lists by position.
#pragma once

#include <cstdint>

namespace db {

// P: "1" started, else stopped.
inline constexpr uint32_t kLogServiceStartStop = 0;
// Written by the service; never exported, listed like any other.
inline constexpr uint32_t kLogHidden = 1;
// P: "1" enabled, "0" disabled. S: display name of the share.
inline constexpr uint32_t kLogShareEnable = 2;
// S: user, device name.
inline constexpr uint32_t kLogClientUnlink = 3;
// P: node id, file type. S: path.
inline constexpr uint32_t kLogRestore = 4;
// S: path whose versions were all deleted.
inline constexpr uint32_t kLogPathPurge = 5;
// S: filter text (optional) whose matching versions were all deleted.
inline constexpr uint32_t kLogFilterPurge = 6;
// P: the count. S: share name, or "homes" for all homes.
inline constexpr uint32_t kLogRotateCountSet = 7;
// P: old location, new location.
inline constexpr uint32_t kLogDbVolumeChange = 8;
// P: "1" enabled, else disabled; the count.
inline constexpr uint32_t kLogDelCountSet = 9;
// P: "1" enabled, else disabled; the span in seconds.
inline constexpr uint32_t kLogDelSpanSet = 10;
// No arguments: the log was emptied (the first record after it).
inline constexpr uint32_t kLogDeleteAll = 11;
// S: device name.
inline constexpr uint32_t kLogClientLink = 12;
// P: node id, file type. S: path, device name.
inline constexpr uint32_t kLogNodeAdd = 13;
// P: node id, file type. S: path, device name.
inline constexpr uint32_t kLogNodeRemove = 14;
// P: node id, file type. S: path, device name.
inline constexpr uint32_t kLogNodeModify = 15;
// P: node id, file type. S: path.
inline constexpr uint32_t kLogVersionRotate = 16;
// P: node id at the destination, file type, node id at the source.
// S: new path, old path, device name.
inline constexpr uint32_t kLogNodeMove = 17;
// As a move. S: destination path, source path, device name.
inline constexpr uint32_t kLogNodeCopy = 18;
// As a move: a version restored as a copy elsewhere.
inline constexpr uint32_t kLogRestoreCopy = 19;
// P: node id, file type. S: path.
inline constexpr uint32_t kLogRecycleDelete = 20;
// P: node id, file type. S: path.
inline constexpr uint32_t kLogRecycleRestore = 21;
// No arguments.
inline constexpr uint32_t kLogExport = 22;

// File type "0" in the P arguments is a file; anything else a folder.
inline constexpr char kLogFileTypeFile[] = "0";

}  // namespace db
