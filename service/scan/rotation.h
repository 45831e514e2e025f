// Which versions of one file's history a rotation drops.
//
// Days: versions older than that many days go first. Then the count: a
// history longer than the count is shortened to it. "fifo" drops the oldest
// versions. "smart" keeps the history spread over time: it first drops the
// versions that a ladder of time slots marks as redundant, oldest first, and
// only then the oldest ones. The ladder, by a version's age at the pass:
//   - under a day: every version has a slot of its own;
//   - under 30 days: one slot per calendar day (UTC);
//   - older: one slot per week.
// In each slot the newest version is kept and the older ones are redundant.
// The newest version of the history always stays, whatever its age.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace scan {

struct RotateRule {
  int count = 32;               // versions to keep; 0 or less: any number
  std::string policy = "fifo";  // "smart", or anything else for "fifo"
  int days = 0;                 // maximum age in days; 0 or less: any age
};

inline constexpr uint32_t kSecondsPerDay = 86400;
inline constexpr uint32_t kSmartDailyDays = 30;

// The time before which the rule's age limit drops versions; 0 for none.
uint32_t RotateCutoff(const RotateRule& rule, uint32_t now);

// `ctimes` are the creation times of a history, oldest first, as the view
// lists them. The answer holds the indices of the versions to drop, rising.
std::vector<size_t> VersionsToDrop(const std::vector<uint32_t>& ctimes, const RotateRule& rule,
                                   uint32_t now);

}  // namespace scan
