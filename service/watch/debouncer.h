// When a changed view is due for versioning. A view is due once it has been
// quiet for `quiet` (a file being written is versioned once per burst, not
// once per write), but never later than `max_wait` after its first change
// still pending (a file written without pause is versioned anyway).
//
// A view that keeps changing while entries are added to it (a copy of many
// files) need not wait for its end: once `settle_count` added entries have
// been left alone for `settle` (at most `quiet`), it is "settled" and may be
// versioned in part, while it stays pending for the rest.
//
// The caller gives every time, so the daemon drives it from its loop and
// tests from a fake clock. Not thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace watch {

using TimePoint = std::chrono::steady_clock::time_point;

class Debouncer {
 public:
  // `settle_count` 0: never settled, always versioned whole.
  Debouncer(std::chrono::milliseconds quiet, std::chrono::milliseconds max_wait,
            size_t settle_count = 0, std::chrono::milliseconds settle = {});

  // A change in the view at `now`, with `added` entries created or moved
  // in; starts a burst when none is pending.
  void Touch(uint64_t view_id, TimePoint now, size_t added = 0);
  // The view is no longer watched: whatever was pending is dropped.
  void Forget(uint64_t view_id);
  // The views due at `now`, earliest due first; they leave the pending set,
  // so a later Touch starts a new burst.
  std::vector<uint64_t> TakeDue(TimePoint now);
  // The pending views settled at `now`, in ascending order. They stay
  // pending; the additions older than `settle` are counted as taken.
  std::vector<uint64_t> TakeSettled(TimePoint now);
  // The earliest moment a pending view becomes due or settled (possibly
  // already past), or nothing when none is pending: what the daemon's timer
  // is set to.
  std::optional<TimePoint> NextDue() const;
  size_t Pending() const { return pending_.size(); }
  // Pending views in ascending order, for the status display.
  std::vector<uint64_t> PendingViews() const;

 private:
  struct Burst {
    TimePoint first;
    TimePoint last;
    // Additions not yet taken, grouped by the moment they came (close
    // moments share one group, so a copy of many files stays small).
    std::vector<std::pair<TimePoint, size_t>> added;
  };
  TimePoint DueAt(const Burst& b) const;
  std::optional<TimePoint> SettledAt(const Burst& b) const;

  std::chrono::milliseconds quiet_;
  std::chrono::milliseconds max_wait_;
  size_t settle_count_;
  std::chrono::milliseconds settle_;
  std::map<uint64_t, Burst> pending_;
};

}  // namespace watch
