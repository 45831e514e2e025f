// driftway-control check: proves, reading only, that every version the
// repository keeps can still be rebuilt. For each view of every owner
// (enabled or not) that has a view database, or for one view:
//   1. every stored content a version names is read back through its
//      origin and deltas (opened with the share's key when sealed) and must
//      have its recorded size and SHA-256; each file id is read once;
//   2. Mac attribute pieces likewise, against the version's recorded hash;
//   3. a locked encrypted share cannot be opened: its view is reported
//      skipped and only the presence of its pieces is checked;
//   4. with every view checked, each store's rows and files are swept:
//      pieces a live row needs must exist; rows and files nothing refers to
//      are only noted, as a purge in progress leaves some for a moment.
// Nothing is written: databases are opened read-only where this process
// opens them, and content is hashed as it is read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace check {

struct CheckOptions {
  uint64_t view_id = 0;  // 0: every view
  // Where the databases are; empty: as setting.conf says.
  std::string connect_param;
  std::string backend = "sqlite";
};

struct CheckReport {
  unsigned views = 0;               // views checked, locked ones included
  unsigned long long versions = 0;  // versions whose stored pieces were looked at
  unsigned locked = 0;              // views of locked encrypted shares
  // One line per problem: "view 12 node 34 version 56: /a/b.txt: what".
  std::vector<std::string> problems;
  // Findings that are no fault (locked views, unreferenced rows and files).
  std::vector<std::string> notes;
  bool ok() const { return problems.empty(); }
};

// Checks the repository. 0 when the check ran, whatever it found (see
// `report`); kErrNotFound when `view_id` is no owner's view; another
// negative db::Result when the databases cannot be opened. Databases
// that the caller has open already are used as they are and left open.
int CheckRepository(const CheckOptions& options, CheckReport& report);

// The last line of the command: "checked N versions of V views: K problems".
std::string SummaryLine(const CheckReport& report);

}  // namespace check
