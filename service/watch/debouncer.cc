#include "debouncer.h"

#include <algorithm>
#include <utility>

namespace watch {

Debouncer::Debouncer(std::chrono::milliseconds quiet, std::chrono::milliseconds max_wait)
    : quiet_(quiet), max_wait_(max_wait) {}

TimePoint Debouncer::DueAt(const Burst& b) const {
  return std::min(b.last + quiet_, b.first + max_wait_);
}

void Debouncer::Touch(uint64_t view_id, TimePoint now) {
  auto [it, fresh] = pending_.try_emplace(view_id, Burst{now, now});
  if (!fresh) it->second.last = std::max(it->second.last, now);
}

void Debouncer::Forget(uint64_t view_id) { pending_.erase(view_id); }

std::vector<uint64_t> Debouncer::TakeDue(TimePoint now) {
  std::vector<std::pair<TimePoint, uint64_t>> due;
  for (auto it = pending_.begin(); it != pending_.end();) {
    const TimePoint at = DueAt(it->second);
    if (at <= now) {
      due.emplace_back(at, it->first);
      it = pending_.erase(it);
    } else {
      ++it;
    }
  }
  std::sort(due.begin(), due.end());
  std::vector<uint64_t> out;
  out.reserve(due.size());
  for (const auto& d : due) out.push_back(d.second);
  return out;
}

std::optional<TimePoint> Debouncer::NextDue() const {
  std::optional<TimePoint> next;
  for (const auto& [id, burst] : pending_) {
    const TimePoint at = DueAt(burst);
    if (!next || at < *next) next = at;
  }
  return next;
}

std::vector<uint64_t> Debouncer::PendingViews() const {
  std::vector<uint64_t> out;
  out.reserve(pending_.size());
  for (const auto& entry : pending_) out.push_back(entry.first);
  return out;
}

}  // namespace watch
