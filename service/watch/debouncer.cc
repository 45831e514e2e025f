#include "debouncer.h"

#include <algorithm>
#include <utility>

namespace watch {

namespace {
// Additions this close to each other are counted as one moment.
constexpr auto kGroup = std::chrono::milliseconds(100);
}  // namespace

Debouncer::Debouncer(std::chrono::milliseconds quiet, std::chrono::milliseconds max_wait,
                     size_t settle_count, std::chrono::milliseconds settle)
    : quiet_(quiet),
      max_wait_(max_wait),
      settle_count_(settle_count),
      settle_(settle.count() > 0 ? std::min(settle, quiet) : quiet) {}

TimePoint Debouncer::DueAt(const Burst& b) const {
  return std::min(b.last + quiet_, b.first + max_wait_);
}

std::optional<TimePoint> Debouncer::SettledAt(const Burst& b) const {
  if (settle_count_ == 0) return std::nullopt;
  size_t count = 0;
  for (const auto& [at, n] : b.added) {
    count += n;
    if (count >= settle_count_) return at + settle_;
  }
  return std::nullopt;
}

void Debouncer::Touch(uint64_t view_id, TimePoint now, size_t added) {
  auto [it, fresh] = pending_.try_emplace(view_id, Burst{now, now, {}});
  Burst& b = it->second;
  if (!fresh) b.last = std::max(b.last, now);
  if (added == 0 || settle_count_ == 0) return;
  if (!b.added.empty() && now < b.added.back().first + kGroup) {
    b.added.back().second += added;
  } else {
    b.added.emplace_back(now, added);
  }
}

std::vector<uint64_t> Debouncer::TakeSettled(TimePoint now) {
  std::vector<uint64_t> out;
  for (auto& [id, burst] : pending_) {
    const auto at = SettledAt(burst);
    if (!at || *at > now) continue;
    out.push_back(id);
    // What was added before `now - settle` has been left alone since; the
    // rest waits for the next time or the end of the burst.
    auto& added = burst.added;
    added.erase(added.begin(), std::find_if(added.begin(), added.end(), [&](const auto& group) {
                  return group.first + settle_ > now;
                }));
  }
  return out;
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
    TimePoint at = DueAt(burst);
    if (const auto settled = SettledAt(burst)) at = std::min(at, *settled);
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
