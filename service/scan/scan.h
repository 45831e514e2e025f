// One pass of versioning over every enabled home and share: the tree on
// disk is compared with each owner's view and every difference becomes a
// version (new, changed, removed, moved or renamed files, folders and
// symlinks), with its log record and the view's rotation applied.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "upload-filter.h"

class SyncConfigMgr;

namespace scan {

struct ScanOptions {
  uint32_t at = 0;  // when the versions are made; 0: now
  std::string client_id = "scan";
  std::vector<uint64_t> views;  // only these views; empty: every enabled one
  // Views of which only these folders ("/a/b", each with all below it)
  // changed; a view not named here is scanned whole.
  std::map<uint64_t, std::vector<std::string>> folders;
  // Folders still being written to: what lies in them is left as it is in
  // the view, neither versioned nor removed, until a later pass. With
  // `settle_ms` 0 or more, only the files in them changed (by ctime) within
  // the last `settle_ms` are left, and the rest is versioned.
  std::map<uint64_t, std::vector<std::string>> busy;
  int64_t settle_ms = -1;
  // 0 or more: a file that someone holds open for writing, changed within
  // the last `open_wait_ms`, is left for a later pass (its close brings it
  // back); one left open longer is taken as it stands.
  int64_t open_wait_ms = -1;
};

// In a busy folder, a new file that no one has open for writing is settled
// this soon (or at the settle time, if shorter): a copy of many files is
// versioned as it goes, while a file rewritten in place still waits the
// whole settle time.
constexpr int64_t kClosedSettleMs = 250;

struct ScanSummary {
  unsigned views = 0;
  unsigned added = 0;
  unsigned modified = 0;
  unsigned removed = 0;
  unsigned moved = 0;
  unsigned rotated = 0;
  unsigned failed = 0;    // entries that could not be recorded
  unsigned skipped = 0;   // views of locked encrypted shares, left alone
  unsigned deferred = 0;  // entries that changed kind while read: the next pass takes them
  unsigned filtered = 0;  // entries a profile's rules left alone
};

// The owner of one view and where its tree lies.
struct ScanTarget {
  uint64_t view_id = 0;
  std::string owner;        // user or share name
  uint32_t owner_type = 0;  // db::kShareType*
  uint32_t uid = 0;
  std::string root_path;
  bool encrypted = false;  // stored sealed under the share's key
  UploadFilter filter;     // a home's: the rules of its owner's profile
};

// The enabled owners that have a view and a folder, homes first. The caller
// has UserManager initialised. 0, or negative when it cannot be read.
int EnabledTargets(std::vector<ScanTarget>& out);

// Every enabled owner. Opens and closes the user, sync and log databases of
// `config` itself. 0, or negative when the databases cannot be opened; a
// view that fails is counted and the others go on.
int ScanAll(const SyncConfigMgr& config, const ScanOptions& options, ScanSummary& summary);

}  // namespace scan
