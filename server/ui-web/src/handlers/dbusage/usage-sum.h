// The measurement behind KSTX.Tidepool.DBUsage: the bytes the service's
// databases and store take, summed in a fixed order (the log database;
// per view its node deltas, signatures, Mac attributes and database file;
// per volume its stored files, deltas and database file; the office
// folder when there is one, walked by a process of its own beside the
// database sums and added last).
#pragma once

#include <functional>

namespace dbusage {

// Called after every addition with the running sum; false stops the sum.
using AfterEachSum = std::function<bool(unsigned long long usage)>;

inline constexpr int kSumDone = 0;
inline constexpr int kSumStopped = 1;

// kSumDone with `usage`, kSumStopped when `after_each` said so, or -1 after
// logging what failed. Needs the user and data databases open.
int SumDatabaseUsage(const AfterEachSum& after_each, unsigned long long& usage);

}  // namespace dbusage
