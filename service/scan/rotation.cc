#include "rotation.h"

#include <algorithm>
#include <set>
#include <utility>

namespace scan {
namespace {

constexpr uint32_t kSecondsPerWeek = 7 * kSecondsPerDay;

// The ladder's slot of a version: its tier and the slot within the tier.
std::pair<int, uint64_t> SlotOf(uint32_t ctime, size_t index, uint32_t now) {
  const uint32_t age = ctime < now ? now - ctime : 0;
  if (age < kSecondsPerDay) return {0, index};
  if (age < kSmartDailyDays * kSecondsPerDay) return {1, ctime / kSecondsPerDay};
  return {2, ctime / kSecondsPerWeek};
}

}  // namespace

uint32_t RotateCutoff(const RotateRule& rule, uint32_t now) {
  if (rule.days <= 0) return 0;
  const uint64_t span = static_cast<uint64_t>(rule.days) * kSecondsPerDay;
  return span >= now ? 0 : static_cast<uint32_t>(now - span);
}

std::vector<size_t> VersionsToDrop(const std::vector<uint32_t>& ctimes, const RotateRule& rule,
                                   uint32_t now) {
  const size_t n = ctimes.size();
  if (n <= 1) return {};
  std::vector<bool> drop(n, false);
  size_t left = n;
  // Age first; the newest (index n - 1) is never a candidate.
  const uint32_t cutoff = RotateCutoff(rule, now);
  for (size_t i = 0; i + 1 < n; ++i) {
    if (cutoff != 0 && ctimes[i] < cutoff) {
      drop[i] = true;
      --left;
    }
  }
  const size_t keep = rule.count > 0 ? static_cast<size_t>(rule.count) : n;
  if (left > keep && rule.policy == "smart") {
    // Newest to oldest: a slot already taken by a newer version makes this
    // one redundant.
    std::set<std::pair<int, uint64_t>> taken;
    std::vector<size_t> redundant;
    for (size_t i = n; i-- > 0;) {
      if (drop[i]) continue;
      if (!taken.insert(SlotOf(ctimes[i], i, now)).second) redundant.push_back(i);
    }
    // Oldest redundant versions go first.
    for (auto it = redundant.rbegin(); it != redundant.rend() && left > keep; ++it) {
      drop[*it] = true;
      --left;
    }
  }
  for (size_t i = 0; i + 1 < n && left > keep; ++i) {
    if (drop[i]) continue;
    drop[i] = true;
    --left;
  }
  std::vector<size_t> out;
  for (size_t i = 0; i < n; ++i)
    if (drop[i]) out.push_back(i);
  return out;
}

}  // namespace scan
