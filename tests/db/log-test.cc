// The log database: writing, searching with every filter member, who sees
// what, deleting and both rotation rules.
#include <gtest/gtest.h>

#include <ctime>

#include "db/log-manager.h"
#include "fixture.h"

namespace {

db::Log Record(uint32_t type, uint32_t time, uint32_t uid, const std::string& user, uint64_t view,
               std::vector<std::string> s_args) {
  db::Log log;
  log.setType(type);
  log.setTime(time);
  log.setUserId(uid);
  log.setUserName(user);
  log.setViewId(view);
  log.setShareName(view == 0 ? "" : "share" + std::to_string(view));
  log.setShareType(db::kShareTypeShare);
  log.pushArg(42ULL, false);
  for (const auto& s : s_args) log.pushArg(s, true);
  return log;
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(db::LogManager::Initialize(dbtest::kConnect, dbtest::kConnect, "sqlite", false), 0);
    ASSERT_GE(db::LogManager::DeleteLog(), 0);
    ASSERT_EQ(db::LogManager::SetLogDelCount(false, 1000000), 0);
    ASSERT_EQ(db::LogManager::SetLogDelSpan(false, 2592000), 0);
  }
  void TearDown() override { db::LogManager::Destroy(); }

  static std::vector<uint32_t> Times(const db::LogFilter& f) {
    std::vector<db::Log> logs;
    EXPECT_GE(db::LogManager::SearchLog(f, logs), 0);
    std::vector<uint32_t> out;
    for (const auto& l : logs) out.push_back(l.getTime());
    unsigned int count = 0;
    EXPECT_GE(db::LogManager::CountLog(f, count), 0);
    if (f.limit == 0 && f.offset == 0) {
      EXPECT_EQ(count, out.size());
    }
    return out;
  }
};

TEST_F(LogTest, RecordsComeBackWhole) {
  const uint32_t now = static_cast<uint32_t>(time(nullptr));
  db::Log log = Record(17, 0, 1026, "alice", 5, {"/new:path", "", "12:34"});
  log.setTarget(6, "team", db::kShareTypeShare);
  ASSERT_EQ(db::LogManager::InsertLog(log), 0);
  EXPECT_GE(log.getTime(), now);
  std::vector<db::Log> logs;
  ASSERT_EQ(db::LogManager::SearchLog(db::LogFilter(), logs), 1);
  const db::Log& got = logs[0];
  EXPECT_EQ(got.getType(), 17u);
  EXPECT_EQ(got.getTime(), log.getTime());
  EXPECT_EQ(got.getUserId(), 1026u);
  EXPECT_EQ(got.getUserName(), "alice");
  EXPECT_EQ(got.getViewId(), 5u);
  EXPECT_EQ(got.getShareName(), "share5");
  EXPECT_EQ(got.getShareType(), db::kShareTypeShare);
  EXPECT_EQ(got.getTargetViewId(), 6u);
  EXPECT_EQ(got.getTargetShareName(), "team");
  EXPECT_EQ(got.getPArg(), (std::vector<std::string>{"42"}));
  EXPECT_EQ(got.getSArg(), (std::vector<std::string>{"/new:path", "", "12:34"}));
}

TEST_F(LogTest, SearchFiltersAndVisibility) {
  // alice (1026) owns view 1; bob (1027) owns view 2; view 3 is a share.
  db::Log logs[] = {Record(13, 1000, 1026, "alice", 1, {"/Report.txt", "laptop"}),
                    Record(14, 2000, 1027, "bob", 2, {"/photo.jpg", "phone"}),
                    Record(15, 3000, 1026, "alice", 3, {"/team/plan.md", "laptop"}),
                    Record(4, 4000, 1027, "bob", 1, {"/restored.txt"}),
                    Record(0, 5000, 0, "", 0, {}),
                    Record(13, 6000, 0, "", 3, {"/100%_o'k.txt"})};
  for (auto& l : logs) ASSERT_EQ(db::LogManager::InsertLog(l), 0);
  struct Case {
    const char* name;
    db::LogFilter f;
    std::vector<uint32_t> want;
  };
  std::vector<Case> cases;
  auto add = [&](const char* name, auto change, std::vector<uint32_t> want) {
    db::LogFilter f;
    change(f);
    cases.push_back({name, f, std::move(want)});
  };
  add("all, newest first", [](auto&) {}, {6000, 5000, 4000, 3000, 2000, 1000});
  add("oldest first", [](auto& f) { f.oldest_first = true; }, {1000, 2000, 3000, 4000, 5000, 6000});
  add("view", [](auto& f) { f.view_id = 1; }, {4000, 1000});
  add("types", [](auto& f) { f.types = {13, 15}; }, {6000, 3000, 1000});
  add("date range", [](auto& f) { f.date_from = 2000, f.date_to = 4000; }, {4000, 3000, 2000});
  add("keyword in a path, any case", [](auto& f) { f.keyword = "REPORT"; }, {1000});
  add("keyword in a device", [](auto& f) { f.keyword = "lapt"; }, {3000, 1000});
  add("keyword in the user name", [](auto& f) { f.keyword = "bob"; }, {4000, 2000});
  add("keyword in the share name", [](auto& f) { f.keyword = "share3"; }, {6000, 3000});
  add("keyword not found", [](auto& f) { f.keyword = "nowhere"; }, {});
  add("keyword % _ ' as plain text", [](auto& f) { f.keyword = "100%_o'k"; }, {6000});
  add("keyword _ is no wildcard", [](auto& f) { f.keyword = "100_"; }, {});
  add("limit and offset", [](auto& f) { f.limit = 2, f.offset = 1; }, {5000, 4000});
  add("alice sees her view and her own records",
      [](auto& f) { f.user_id = 1026, f.user_view_id = 1; }, {4000, 3000, 1000});
  add("bob likewise", [](auto& f) { f.user_id = 1027, f.user_view_id = 2; }, {4000, 2000});
  add("without a user, everything", [](auto& f) { f.is_admin = true; },
      {6000, 5000, 4000, 3000, 2000, 1000});
  add("an administrator limited to a user stays limited",
      [](auto& f) { f.user_id = 1027, f.user_view_id = 2, f.is_admin = true; }, {4000, 2000});
  add("restriction and filter together",
      [](auto& f) { f.user_id = 1027, f.user_view_id = 2, f.types = {14}; }, {2000});
  for (const auto& c : cases) EXPECT_EQ(Times(c.f), c.want) << c.name;

  for (auto bad : {std::pair{-1, 0}, std::pair{0, -1}}) {
    db::LogFilter f;
    f.limit = bad.first;
    f.offset = bad.second;
    std::vector<db::Log> out;
    unsigned int count = 0;
    EXPECT_LT(db::LogManager::SearchLog(f, out), 0) << bad.first << "," << bad.second;
    EXPECT_LT(db::LogManager::CountLog(f, count), 0) << bad.first << "," << bad.second;
  }

  ASSERT_GE(db::LogManager::DeleteLog(), 0);
  EXPECT_TRUE(Times(db::LogFilter()).empty());
}

TEST_F(LogTest, RotationByCountAndBySpan) {
  bool enabled = true;
  int value = 0;
  ASSERT_EQ(db::LogManager::GetLogDelCount(enabled, value), 0);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(value, 1000000);
  ASSERT_EQ(db::LogManager::GetLogDelSpan(enabled, value), 0);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(value, 2592000);

  ASSERT_EQ(db::LogManager::SetLogDelCount(true, 3), 0);
  ASSERT_EQ(db::LogManager::GetLogDelCount(enabled, value), 0);
  EXPECT_TRUE(enabled);
  EXPECT_EQ(value, 3);
  const uint32_t now = static_cast<uint32_t>(time(nullptr));
  for (uint32_t i = 1; i <= 5; ++i) {
    db::Log log = Record(13, now - 100 + i, 1026, "alice", 1, {});
    ASSERT_EQ(db::LogManager::InsertLog(log), 0);
  }
  EXPECT_EQ(Times(db::LogFilter()), (std::vector<uint32_t>{now - 95, now - 96, now - 97}));

  ASSERT_EQ(db::LogManager::SetLogDelCount(false, 3), 0);
  ASSERT_EQ(db::LogManager::SetLogDelSpan(true, 3600), 0);
  db::Log old = Record(13, now - 7200, 1026, "alice", 1, {});
  db::Log fresh = Record(13, 0, 1026, "alice", 1, {});
  ASSERT_EQ(db::LogManager::InsertLog(old), 0);
  ASSERT_EQ(db::LogManager::InsertLog(fresh), 0);
  auto left = Times(db::LogFilter());
  ASSERT_EQ(left.size(), 4u);
  EXPECT_GE(left[0], now);
  EXPECT_EQ(db::LogManager::SetLogDelSpan(true, -1), db::kErrInvalid);
}

// A keyword is a literal substring however many records hold it: a rare one
// and one found in thousands of records give the same pages as a plain
// match, also after rotation and deletion removed records.
TEST_F(LogTest, KeywordsRareAndCommonMatchTheSameRecords) {
  constexpr uint32_t kRecords = 7000;
  ASSERT_EQ(db::LogManager::SetLogDelCount(true, 6500), 0);
  for (uint32_t i = 0; i < kRecords; ++i) {
    // Every record holds "part-", one in seven "part-3/", and one "100%".
    const std::string path = "/Part-" + std::to_string(i % 7) + "/file-" + std::to_string(i) +
                             (i == 4321 ? "-100%.txt" : ".txt");
    db::Log log = Record(13, 1000 + i, 1026, "alice", 1, {path});
    ASSERT_EQ(db::LogManager::InsertLog(log), 0);
  }
  // Rotation kept the newest 6,500: records 500 to 6,999.
  auto expect = [](const std::string& needle, uint32_t offset, uint32_t limit) {
    std::vector<uint32_t> want;
    for (uint32_t i = kRecords; i-- > 500;) {
      const std::string path = "/part-" + std::to_string(i % 7) + "/file-" + std::to_string(i) +
                               (i == 4321 ? "-100%.txt" : ".txt");
      if (path.find(needle) != std::string::npos) want.push_back(1000 + i);
    }
    if (offset >= want.size()) return std::vector<uint32_t>{};
    want.erase(want.begin(), want.begin() + offset);
    if (limit > 0 && want.size() > limit) want.resize(limit);
    return want;
  };
  struct Case {
    const char* keyword;
    const char* needle;
    int32_t offset, limit;
  };
  for (const Case& c : {Case{"PART-", "part-", 0, 0}, Case{"part-", "part-", 3000, 50},
                        Case{"part-3/", "part-3/", 0, 0}, Case{"part-3/", "part-3/", 900, 10},
                        Case{"file-4321-", "file-4321-", 0, 0}, Case{"100%", "100%", 0, 0},
                        Case{"file-123.", "file-123.", 0, 5}, Case{"file-12.", "file-12.", 0, 0},
                        Case{"e-6", "e-6", 0, 0}, Case{"e-", "e-", 6000, 0}}) {
    db::LogFilter f;
    f.keyword = c.keyword;
    f.offset = c.offset;
    f.limit = c.limit;
    EXPECT_EQ(Times(f), expect(c.needle, c.offset, c.limit)) << c.keyword << " at " << c.offset;
  }

  // Emptied and written again, the log finds only the new records.
  ASSERT_GE(db::LogManager::DeleteLog(), 0);
  db::Log again = Record(13, 50, 1026, "alice", 1, {"/part-3/again.txt"});
  ASSERT_EQ(db::LogManager::InsertLog(again), 0);
  db::LogFilter f;
  f.keyword = "part-3/";
  EXPECT_EQ(Times(f), std::vector<uint32_t>{50});
}

}  // namespace
