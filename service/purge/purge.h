// Purging: nodes leave a view with every version, and the stored content
// that no remaining version of any view names is released. The caller has
// UserManager, db::Manager and db::LogManager initialised (the daemon's job
// worker, tests). A purge holds the view's writer lock, so it never runs
// interleaved with a scan of the same view.
//
// Crash safety: the nodes, their versions and a journal of the content they
// named leave and enter the view database in one transaction; the content
// is released from that journal afterwards, and the store marks pieces
// before it removes them. A purge cut short is finished by the next purge of
// the view, or by the same job run again: nothing is lost track of, and no
// piece goes while a version still names it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace purge {

struct Request {
  std::optional<uint64_t> view_id;  // none: every view
  std::optional<uint64_t> node_id;  // none: the removed nodes of the view(s)
  std::string user;                 // in whose name (log records)
  uint32_t uid = 0;
};

struct Summary {
  unsigned views = 0;   // views purged
  unsigned nodes = 0;   // nodes removed
  unsigned pieces = 0;  // stored pieces removed from disk
};

// 0; db::kErrNotFound when the view or the node is not there (nothing to
// do); another negative result when a database or store failed (worth
// another try).
int Run(const std::string& connect, const Request& request, Summary& summary);

// A delete-node job's payload: {}, {"view_id":N} or {"node_id":M,"view_id":N}
// with unsigned numbers. False when it is anything else.
bool ParsePayload(const std::string& payload, Request& out);

// Test seams at the two moments a crash must survive: after a view's
// transaction committed (its content not yet released), and after pieces
// were removed from disk but before their rows went.
void TEST_SetHooks(std::function<void()> after_commit, std::function<void()> after_unlink);

}  // namespace purge
