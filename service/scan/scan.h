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
  // the view, neither versioned nor removed, until a later pass.
  std::map<uint64_t, std::vector<std::string>> busy;
};

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
