// When views become due, driven by a fake clock: the times are what the
// daemon would set its timer to and the views it would then version.
#include "debouncer.h"

#include <gtest/gtest.h>

#include <vector>

namespace watch {
namespace {

using namespace std::chrono_literals;
using Ids = std::vector<uint64_t>;

const TimePoint t0{};

TEST(DebouncerTest, BurstOfWritesIsDueOnceQuietAfterTheLast) {
  Debouncer d(500ms, 10s);
  for (int i = 0; i < 10; ++i) d.Touch(7, t0 + i * 100ms);  // the last at 900 ms
  EXPECT_EQ(d.NextDue(), t0 + 1400ms);
  EXPECT_EQ(d.TakeDue(t0 + 1399ms), Ids{});
  EXPECT_EQ(d.Pending(), 1u);
  EXPECT_EQ(d.TakeDue(t0 + 1400ms), Ids{7});
  // Once taken it is not due again, and nothing is left to wait for.
  EXPECT_EQ(d.TakeDue(t0 + 5s), Ids{});
  EXPECT_EQ(d.Pending(), 0u);
  EXPECT_FALSE(d.NextDue().has_value());

  // A change after the versioning starts a burst of its own.
  d.Touch(7, t0 + 6s);
  d.Touch(7, t0 + 6200ms);
  EXPECT_EQ(d.NextDue(), t0 + 6700ms);
  EXPECT_EQ(d.TakeDue(t0 + 6700ms), Ids{7});
}

TEST(DebouncerTest, FileWrittenWithoutPauseIsVersionedAtMaxWait) {
  Debouncer d(500ms, 3s);
  std::vector<TimePoint> versioned;
  // A writer touching the view every 100 ms for ten seconds, the daemon
  // checking right after each write.
  for (TimePoint t = t0; t <= t0 + 10s; t += 100ms) {
    d.Touch(1, t);
    EXPECT_LE(*d.NextDue(), t + 500ms);
    if (!d.TakeDue(t).empty()) versioned.push_back(t);
  }
  // Each burst restarts with the first write after a versioning.
  EXPECT_EQ(versioned, (std::vector<TimePoint>{t0 + 3s, t0 + 6100ms, t0 + 9200ms}));
}

TEST(DebouncerTest, ViewsAreIndependentAndForgottenOnesDropOut) {
  Debouncer d(1s, 5s);
  d.Touch(1, t0);
  d.Touch(2, t0 + 300ms);
  d.Touch(3, t0 + 600ms);
  EXPECT_EQ(d.PendingViews(), (Ids{1, 2, 3}));
  EXPECT_EQ(d.NextDue(), t0 + 1s);

  d.Touch(1, t0 + 900ms);  // view 1 now due at 1.9 s
  EXPECT_EQ(d.NextDue(), t0 + 1300ms);
  d.Forget(2);
  d.Forget(42);  // never pending: nothing happens
  EXPECT_EQ(d.PendingViews(), (Ids{1, 3}));
  EXPECT_EQ(d.NextDue(), t0 + 1600ms);

  EXPECT_EQ(d.TakeDue(t0 + 1700ms), Ids{3});
  EXPECT_EQ(d.PendingViews(), Ids{1});
  d.Touch(3, t0 + 1800ms);
  // Earliest due first.
  EXPECT_EQ(d.TakeDue(t0 + 3s), (Ids{1, 3}));
  EXPECT_EQ(d.Pending(), 0u);
}

// A folder being copied into is settled as soon as enough of what was added
// has been left alone, again and again while the copy goes on, and is still
// due once quiet; a folder only written to is never settled.
TEST(DebouncerTest, FolderWithManyAdditionsSettlesWhileStillChanging) {
  Debouncer d(2s, 60s, 10, 250ms);
  // Folder 1: five entries added every 100 ms for 3 s. Folder 2: one file
  // written every 100 ms, nothing added.
  std::vector<TimePoint> settled;
  for (TimePoint t = t0; t <= t0 + 3s; t += 100ms) {
    d.Touch(1, t, 5);
    d.Touch(2, t);
    if (t >= t0 + 100ms) {
      ASSERT_LE(*d.NextDue(), t + 250ms);
    }
    for (uint64_t id : d.TakeSettled(t)) {
      EXPECT_EQ(id, 1u);
      settled.push_back(t);
    }
    EXPECT_EQ(d.TakeDue(t), Ids{});
  }
  // The first ten additions (at 0 and 100 ms) settle at 350 ms; each take
  // counts what was older than 250 ms, so the next ten are 200 ms later.
  ASSERT_GE(settled.size(), 10u);
  EXPECT_EQ(settled[0], t0 + 400ms);  // the check after 350 ms
  for (size_t i = 1; i < settled.size(); ++i) EXPECT_LE(settled[i] - settled[i - 1], 200ms);
  EXPECT_EQ(d.PendingViews(), (Ids{1, 2}));
  // The copy's end: both are due once quiet, and the last additions settle
  // before that.
  size_t after_end = 0;
  for (TimePoint t = t0 + 3100ms; t < t0 + 5s; t += 100ms) after_end += d.TakeSettled(t).size();
  EXPECT_GE(after_end, 1u);
  EXPECT_LE(after_end, 2u);
  EXPECT_EQ(d.NextDue(), t0 + 5s);
  EXPECT_EQ(d.TakeDue(t0 + 5s), (Ids{1, 2}));

  // Without a count, nothing ever settles.
  Debouncer plain(2s, 60s);
  plain.Touch(3, t0, 1000);
  EXPECT_EQ(plain.TakeSettled(t0 + 10s), Ids{});
  EXPECT_EQ(plain.NextDue(), t0 + 2s);
}

}  // namespace
}  // namespace watch
