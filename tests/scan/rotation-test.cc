// Which versions remain of a history after each rotation policy, on built
// histories, and the service trimming existing histories at its next pass
// once the settings were lowered.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "appliance.h"
#include "content.h"
#include "control.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "rotation.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

using scan::RotateRule;
using scan::VersionsToDrop;

constexpr uint32_t kDay = 86400;
constexpr uint32_t kHour = 3600;
// The start of a UTC week, so that the slots below are not cut by one.
constexpr uint32_t kWeek = 2800u * 7 * kDay;
constexpr uint32_t kNow = kWeek + 60 * kDay;

// Indices that remain of a history of `n` versions after `drop`.
std::vector<size_t> Remaining(size_t n, const std::vector<size_t>& drop) {
  std::vector<size_t> left;
  for (size_t i = 0, d = 0; i < n; ++i) {
    if (d < drop.size() && drop[d] == i) {
      ++d;
      continue;
    }
    left.push_back(i);
  }
  return left;
}

struct PolicyCase {
  const char* what;
  std::vector<uint32_t> history;  // creation times, oldest first
  RotateRule rule;
  std::vector<size_t> remaining;
};

// Two versions in one week two months ago, two in one day ten days ago,
// three in the last hours.
const std::vector<uint32_t> kSpread = {kWeek + 1000,
                                       kWeek + 5000,
                                       kWeek + 50 * kDay + 1000,
                                       kWeek + 50 * kDay + 5000,
                                       kNow - 3 * kHour,
                                       kNow - 2 * kHour,
                                       kNow - kHour};

TEST(RotationPolicyTest, VersionsThatRemainOfBuiltHistories) {
  const std::vector<PolicyCase> cases = {
      {"fifo keeps the newest", kSpread, {5, "fifo", 0}, {2, 3, 4, 5, 6}},
      {"fifo within its count keeps all", kSpread, {7, "fifo", 0}, {0, 1, 2, 3, 4, 5, 6}},
      {"no count keeps all", kSpread, {0, "fifo", 0}, {0, 1, 2, 3, 4, 5, 6}},
      // Smart drops the older version of each shared slot first.
      {"smart thins the old slots", kSpread, {5, "smart", 0}, {1, 3, 4, 5, 6}},
      {"smart then drops the oldest", kSpread, {3, "smart", 0}, {4, 5, 6}},
      {"smart within its count keeps all", kSpread, {10, "smart", 0}, {0, 1, 2, 3, 4, 5, 6}},
      // Every version of the last day has a slot of its own.
      {"smart keeps the last day dense",
       {kNow - 5 * kHour, kNow - 4 * kHour, kNow - 3 * kHour, kNow - 2 * kHour},
       {3, "smart", 0},
       {1, 2, 3}},
      // Days drop by age, before the count.
      {"days drop old versions", kSpread, {32, "fifo", 20}, {2, 3, 4, 5, 6}},
      {"days and count together", kSpread, {2, "fifo", 20}, {5, 6}},
      {"the newest stays whatever its age",
       {kNow - 90 * kDay, kNow - 80 * kDay, kNow - 70 * kDay},
       {32, "fifo", 30},
       {2}},
      {"the newest stays with a count of one", kSpread, {1, "smart", 1}, {6}},
      {"one version is never dropped", {kNow - 90 * kDay}, {1, "fifo", 1}, {0}},
  };
  for (const PolicyCase& c : cases) {
    EXPECT_EQ(Remaining(c.history.size(), VersionsToDrop(c.history, c.rule, kNow)), c.remaining)
        << c.what;
  }
}

// A real home versioned by driftway-control scan, its rotation lowered the
// way Share.set writes it into the view.
class RotationScanTest : public ::testing::Test {
 protected:
  const std::string kHome = "/volume1/homes/alice/Tidepool";

  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    ASSERT_EQ(scantest::Control({"user", "--enable", "alice"}).exit_status, 0);
    fs::create_directories(kHome);
    ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(db::Manager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(
        db::LogManager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite", true), 0);
    UserInfo alice;
    ASSERT_GT(UserManager::GetUser("alice", alice, 0), 0);
    view_id_ = alice.view_id;
  }
  void TearDown() override {
    db::LogManager::Destroy();
    db::Manager::Destroy();
    UserManager::Destroy();
  }

  db::ViewDBInterface View() {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id_, view), 0);
    return view;
  }
  // Creation times of the versions of the live node at `path`.
  std::vector<uint32_t> History(const std::string& path) {
    auto view = View();
    db::Node node;
    EXPECT_GE(view->QueryNode(path, node, db::ViewManager::kQueryAny), 0) << path;
    std::vector<db::Version> versions;
    EXPECT_GE(view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
    std::vector<uint32_t> out;
    for (const db::Version& v : versions) out.push_back(v.getVerCreatedTime());
    return out;
  }
  // Records of rotated versions of the two files.
  size_t RotateRecords() {
    db::LogFilter filter;
    filter.types = {16};
    std::vector<db::Log> logs;
    EXPECT_GE(db::LogManager::SearchLog(filter, logs), 0);
    size_t n = 0;
    for (const db::Log& log : logs) {
      const auto& s = log.getSArg();
      n += !s.empty() && (s[0] == "/plan.txt" || s[0] == "/notes.txt");
    }
    return n;
  }

  uint64_t view_id_ = 0;
};

TEST_F(RotationScanTest, LoweredSettingsTrimEveryHistoryAtTheNextPass) {
  const uint32_t t0 = 1700000000;
  for (uint32_t i = 0; i < 5; ++i) {
    tptest::WriteFile(kHome + "/plan.txt", "plan " + std::to_string(i));
    tptest::WriteFile(kHome + "/notes.txt", "notes " + std::to_string(i));
    scantest::Scan(t0 + i * kDay);
  }
  ASSERT_EQ(History("/plan.txt").size(), 5u);
  EXPECT_EQ(RotateRecords(), 0u);

  // A lower count, and a pass in which nothing changed on disk.
  ASSERT_GE(View()->SetRotateCount(2), 0);
  scantest::Scan(t0 + 5 * kDay);
  EXPECT_EQ(History("/plan.txt"), (std::vector<uint32_t>{t0 + 3 * kDay, t0 + 4 * kDay}));
  EXPECT_EQ(History("/notes.txt"), (std::vector<uint32_t>{t0 + 3 * kDay, t0 + 4 * kDay}));
  EXPECT_EQ(RotateRecords(), 6u);
  // Trimmed once: the next pass finds nothing more to drop.
  scantest::Scan(t0 + 6 * kDay);
  EXPECT_EQ(RotateRecords(), 6u);

  // An age limit: at a pass 30 days on, only the newest version of each
  // file remains, whatever the count.
  ASSERT_GE(View()->SetRotateCount(32), 0);
  ASSERT_GE(View()->SetRotateDays(10), 0);
  scantest::Scan(t0 + 40 * kDay);
  EXPECT_EQ(History("/plan.txt"), (std::vector<uint32_t>{t0 + 4 * kDay}));
  EXPECT_EQ(RotateRecords(), 8u);

  // The rule applies at a file's next version too: with a count of 3 the
  // fourth version pushes out the oldest, which shares no slot with another.
  ASSERT_GE(View()->SetRotateDays(0), 0);
  ASSERT_GE(View()->SetRotatePolicy("smart"), 0);
  ASSERT_GE(View()->SetRotateCount(3), 0);
  const uint32_t later = t0 + 41 * kDay;
  for (uint32_t i = 0; i < 3; ++i) {
    tptest::WriteFile(kHome + "/plan.txt", "later " + std::to_string(i));
    scantest::Scan(later + i * 60);
  }
  EXPECT_EQ(History("/plan.txt"), (std::vector<uint32_t>{later, later + 60, later + 120}));
}

}  // namespace
