// The activity log over HTTP as the front-end reads it: an administrator
// and a user listing with filters, pages and the oldest page, bad input,
// and the administrator emptying the log.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "db/log-manager.h"
#include "db/log-types.h"
#include "process.h"
#include "restore-world.h"

using namespace rtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.Log";
constexpr uint32_t kStart = kT0 + 10 * 86400;
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

// The sync service for the length of a scope: taking on another user's role
// asks it who that user is.
struct RunningService {
  RunningService() {
    started = tptest::RunProcess({kControl, "service", "--start"}).exit_status == 0;
  }
  ~RunningService() { tptest::RunProcess({kControl, "service", "--stop"}); }
  bool started = false;
};

class LogHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SeedRestoreWorld();
    if (HasFatalFailure()) return;
    // Real records first: one scan of each home gives alice and bob each an
    // added file in their own view.
    BuildHistory(kAliceHome, {{kT0, {Entry("alice.txt", "a\n")}, {}}});
    BuildHistory("/volume1/homes/bob/Tidepool",
                 {{kT1, {Entry("bob.txt", "b\n").Owner("bob", kUsersGid)}, {}}});
    admin_ = LoginAs("admin");
    alice_ = LoginAs("alice");
    ASSERT_FALSE(admin_.empty());
    ASSERT_FALSE(alice_.empty());
  }

  // A record of a file in the share "team" written by alice at `at`.
  void ShareRecord(uint32_t type, uint32_t at, const std::string& path) {
    db::Log log;
    log.setType(type);
    log.setTime(at);
    log.setUserId(Uid("alice"));
    log.setUserName("alice");
    log.setViewId(ShareViewOf("team"));
    log.setShareName("team");
    log.setShareType(db::kShareTypeShare);
    log.pushArg(5ULL, false);
    log.pushArg("0", false);
    log.pushArg(path, true);
    ASSERT_EQ(db::LogManager::InsertLog(log), 0);
  }

  static tptest::WebAnswer List(const std::string& sid, Params params) {
    auto has = [&](const char* key) {
      for (const auto& [k, v] : params)
        if (k == key) return true;
      return false;
    };
    if (!has("target")) params.push_back({"target", ""});
    if (!has("share_type")) params.push_back({"share_type", "all"});
    return Call(kApi, "list", params, sid);
  }

  // The times of the items of a successful answer, in the order shown.
  static std::vector<uint32_t> Times(const tptest::WebAnswer& a) {
    EXPECT_TRUE(a.success()) << a.body;
    std::vector<uint32_t> out;
    for (const auto& item : a.json["data"]["items"]) out.push_back(item["time"].asUInt());
    return out;
  }

  // newest, newest - 1, ..., oldest.
  static std::vector<uint32_t> Range(uint32_t newest, uint32_t oldest) {
    std::vector<uint32_t> out;
    for (uint32_t t = newest; t >= oldest && t <= newest; --t) out.push_back(t);
    return out;
  }

  std::string admin_, alice_;
};

TEST_F(LogHttpTest, AdministratorPagesFiltersAndReadsTheOldestPage) {
  ASSERT_GE(db::LogManager::DeleteLog(), 0);
  for (uint32_t i = 0; i < 25; ++i) {
    ShareRecord(db::kLogNodeAdd, kStart + i, "/f" + std::to_string(i) + ".txt");
  }
  // First page: ten shown, and the read-ahead finds all 25.
  auto first = List(admin_, {{"limit", 10}, {"offset", 0}});
  EXPECT_EQ(Times(first), Range(kStart + 24, kStart + 15));
  EXPECT_EQ(first.json["data"]["total"].asUInt(), 25u);
  // The last page is short and total still counts from the offset.
  auto last = List(admin_, {{"limit", 10}, {"offset", 20}});
  EXPECT_EQ(Times(last), Range(kStart + 4, kStart));
  EXPECT_EQ(last.json["data"]["total"].asUInt(), 25u);
  // get_all: the five oldest, newest first, and the true count.
  auto oldest = List(admin_, {{"limit", 10}, {"get_all", true}});
  EXPECT_EQ(Times(oldest), Range(kStart + 4, kStart));
  EXPECT_EQ(oldest.json["data"]["total"].asUInt(), 25u);
  for (uint32_t i = 25; i < 30; ++i) ShareRecord(db::kLogNodeAdd, kStart + i, "/g.txt");
  EXPECT_EQ(Times(List(admin_, {{"limit", 10}, {"get_all", true}})), Range(kStart + 9, kStart));
  // The read-ahead of the largest page does not wrap around.
  EXPECT_EQ(Times(List(admin_, {{"limit", 2147483647}})).size(), 30u);
  // A limit of 0 shows nothing rather than dividing by it.
  auto none = List(admin_, {{"limit", 0}, {"get_all", true}});
  EXPECT_TRUE(Times(none).empty());
  EXPECT_EQ(none.json["data"]["total"].asUInt(), 30u);

  // Types: asking for deletions finds every kind, and for restores too.
  ShareRecord(db::kLogPathPurge, kStart + 100, "/p");
  ShareRecord(db::kLogFilterPurge, kStart + 101, "*.tmp");
  ShareRecord(db::kLogRecycleDelete, kStart + 102, "/r");
  ShareRecord(db::kLogRestoreCopy, kStart + 103, "/c");
  ShareRecord(db::kLogRecycleRestore, kStart + 104, "/u");
  ShareRecord(db::kLogRestore, kStart + 105, "/i");
  Json::Value deletions(Json::arrayValue), restores(Json::arrayValue);
  deletions.append(5);
  restores.append(4);
  EXPECT_EQ(Times(List(admin_, {{"log_type", deletions}})),
            (std::vector<uint32_t>{kStart + 102, kStart + 101, kStart + 100}));
  EXPECT_EQ(Times(List(admin_, {{"log_type", restores}})),
            (std::vector<uint32_t>{kStart + 105, kStart + 104, kStart + 103}));
  // Dates, and the view of a share target.
  EXPECT_EQ(Times(List(admin_, {{"datefrom", kStart + 101}, {"dateto", kStart + 102}})),
            (std::vector<uint32_t>{kStart + 102, kStart + 101}));
  EXPECT_EQ(Times(List(admin_, {{"target", "@team"}, {"share_type", "share"}, {"limit", 2}})),
            (std::vector<uint32_t>{kStart + 105, kStart + 104}));
  // An administrator sees a share's node ids; the path purge never shows one.
  auto items = List(admin_, {{"limit", 1}}).json["data"]["items"];
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]["p1"].asString(), "5");
  EXPECT_EQ(items[0]["target"].asString(), "@team");
  EXPECT_EQ(items[0]["shelfview_link_prefix"].asString(), "/team");
  auto purge = List(admin_, {{"log_type", deletions}, {"limit", 1}, {"offset", 2}});
  EXPECT_EQ(purge.json["data"]["items"][0]["p1"].asString(), "");
}

TEST_F(LogHttpTest, KeywordsAreLiteralText) {
  ShareRecord(db::kLogNodeAdd, kStart, "/100%_off.txt");
  ShareRecord(db::kLogNodeAdd, kStart + 1, "/1000 offers.txt");
  ShareRecord(db::kLogNodeAdd, kStart + 2, "/it's.txt");
  ShareRecord(db::kLogNodeAdd, kStart + 3, "/its.txt");
  EXPECT_EQ(Times(List(admin_, {{"keyword", "100%_"}})), (std::vector<uint32_t>{kStart}));
  EXPECT_EQ(Times(List(admin_, {{"keyword", "0_o"}})), (std::vector<uint32_t>{}));
  EXPECT_EQ(Times(List(admin_, {{"keyword", "%"}})), (std::vector<uint32_t>{kStart}));
  EXPECT_EQ(Times(List(admin_, {{"keyword", "it's"}})), (std::vector<uint32_t>{kStart + 2}));
  EXPECT_EQ(Times(List(admin_, {{"keyword", "' OR 1=1 --"}})), (std::vector<uint32_t>{}));
}

TEST_F(LogHttpTest, AUserSeesTheirOwnHomeAndDoingsOnly) {
  ShareRecord(db::kLogNodeAdd, kStart, "/team-file.txt");
  auto names = [](const tptest::WebAnswer& a) {
    std::set<std::string> out;
    EXPECT_TRUE(a.success()) << a.body;
    for (const auto& item : a.json["data"]["items"]) out.insert(item["s1"].asString());
    return out;
  };
  // alice: her home's scan record and what she did in the share, not bob's.
  auto mine = names(List(alice_, {}));
  EXPECT_TRUE(mine.count("/alice.txt")) << List(alice_, {}).body;
  EXPECT_TRUE(mine.count("/team-file.txt"));
  EXPECT_FALSE(mine.count("/bob.txt"));
  // Her own file's id is hers to see; the share's is not.
  for (const auto& item : List(alice_, {}).json["data"]["items"]) {
    const std::string path = item["s1"].asString(), id = item["p1"].asString();
    if (path == "/alice.txt") {
      EXPECT_NE(id, "");
    } else if (path == "/team-file.txt") {
      EXPECT_EQ(id, "");
    }
  }
  // Her home view alone.
  EXPECT_EQ(names(List(alice_, {{"share_type", "home"}})), std::set<std::string>{"/alice.txt"});
  // Without a role an administrator sees everything; naming a role, even an
  // empty one, limits the list to that user.
  auto all = names(List(admin_, {}));
  EXPECT_TRUE(all.count("/bob.txt") && all.count("/alice.txt"));
  RunningService service;
  ASSERT_TRUE(service.started);
  auto as_bob = names(List(admin_, {{"view_role", "bob"}}));
  EXPECT_TRUE(as_bob.count("/bob.txt"));
  EXPECT_FALSE(as_bob.count("/alice.txt"));
  auto as_self = names(List(admin_, {{"view_role", ""}}));
  EXPECT_FALSE(as_self.count("/bob.txt") || as_self.count("/alice.txt"));
  // Only an administrator may take on a role.
  EXPECT_EQ(List(alice_, {{"view_role", "bob"}}).code(), 402);
}

TEST_F(LogHttpTest, BadInputIsRefused) {
  auto negative = List(admin_, {{"limit", -1}});
  EXPECT_EQ(negative.code(), 401);
  EXPECT_EQ(negative.message(), "failed to get logs");
  EXPECT_EQ(List(alice_, {{"offset", -5}}).message(), "failed to get logs");
  Json::Value bad_types(Json::arrayValue);
  bad_types.append("x");
  EXPECT_EQ(List(admin_, {{"log_type", bad_types}}).code(), 120);
  EXPECT_EQ(List(admin_, {{"limit", "ten"}}).code(), 120);
  EXPECT_EQ(List(admin_, {{"share_type", "x"}}).code(), 120);
  EXPECT_EQ(Call(kApi, "list", {{"share_type", "all"}}, admin_).code(), 120);
}

TEST_F(LogHttpTest, DeleteLeavesOneRecordOfWhoEmptiedTheLog) {
  ShareRecord(db::kLogNodeAdd, kStart, "/x.txt");
  // Not for users: nothing is deleted.
  EXPECT_FALSE(Call(kApi, "delete", {}, alice_).success());
  EXPECT_GE(Times(List(admin_, {})).size(), 3u);

  auto done = Call(kApi, "delete", {}, admin_);
  ASSERT_TRUE(done.success()) << done.body;
  auto left = List(admin_, {});
  ASSERT_EQ(Times(left).size(), 1u) << left.body;
  const Json::Value& record = left.json["data"]["items"][0];
  EXPECT_EQ(record["type"].asUInt(), db::kLogDeleteAll);
  EXPECT_EQ(record["username"].asString(), "admin");
  EXPECT_TRUE(Logs(db::kLogDeleteAll).size() == 1 &&
              Logs(db::kLogDeleteAll)[0].uid == Uid("admin"));
  // alice, who did not empty it, no longer sees her records.
  EXPECT_TRUE(Times(List(alice_, {})).empty());
}

}  // namespace
