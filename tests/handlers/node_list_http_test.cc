// Node.list over HTTP: inside a home and a share (filters, sorts, paging,
// records), and the top of the tree (home and shares).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "natural-sort.h"
#include "node-world.h"
#include "user-manager.h"
#include "webapi-client.h"

namespace {

using tptest::kAdd;
using tptest::kModify;
using tptest::kRemove;

std::vector<std::string> Names(const tptest::WebAnswer& answer) {
  std::vector<std::string> names;
  for (const Json::Value& item : answer.json["data"]["items"])
    names.push_back(item["name"].asString());
  return names;
}

class NodeListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedWorld();
    home_ = tptest::HomeView("alice");
    tptest::Apply(home_, {{100, kAdd, "/docs/"},
                          {110, kAdd, "/docs/b.txt", 30},
                          {120, kAdd, "/docs/a10.txt", 10},
                          {130, kAdd, "/docs/a2.txt", 20},
                          {140, kAdd, "/docs/sub/"},
                          {150, kAdd, "/docs/sub/deep.md", 5},
                          {160, kAdd, "/docs/gone.txt", 1},
                          {170, kRemove, "/docs/gone.txt"},
                          {180, kModify, "/docs/b.txt", 40}});
    docs_ = std::to_string(tptest::NodeAt(home_, "/docs").getNodeId());
    alice_ = tptest::Login("alice", "alice-demo");
  }

  tptest::WebAnswer List(tptest::Params params) {
    params.insert(params.begin(),
                  {{"target", "mine"}, {"node_id", Json::UInt64(std::stoull(docs_))}});
    return tptest::CallNode("list", params, alice_);
  }

  uint64_t home_ = 0;
  std::string docs_;
  std::string alice_;
};

TEST_F(NodeListTest, FiltersSortsAndPagesAFolder) {
  using V = std::vector<std::string>;
  const Json::Value kExcludeMd = [] {
    Json::Value list(Json::arrayValue);
    list.append("md");
    return list;
  }();
  const struct {
    const char* what;
    tptest::Params params;
    V names;
    unsigned total;
  } kCases[] = {
      {"newest first by default",
       {{"list_removed", false}},
       {"b.txt", "sub", "a2.txt", "a10.txt"},
       4},
      {"name, folders first",
       {{"sort_by", "name"}, {"sort_direction", "ASC"}, {"list_removed", false}},
       {"sub", "a2.txt", "a10.txt", "b.txt"},
       4},
      {"name descending: files first, reversed",
       {{"sort_by", "name"}, {"sort_direction", "DESC"}, {"list_removed", false}},
       {"b.txt", "a10.txt", "a2.txt", "sub"},
       4},
      {"name page",
       {{"sort_by", "name"}, {"sort_direction", "ASC"}, {"offset", 1}, {"limit", 2}},
       {"a2.txt", "a10.txt"},
       5},
      {"name, offset at the end", {{"sort_by", "name"}, {"offset", 5}}, {}, 5},
      {"name, huge offset", {{"sort_by", "name"}, {"offset", 2147483647}}, {}, 5},
      {"name, negative offset reads as huge", {{"sort_by", "name"}, {"offset", -3}}, {}, 5},
      {"name, limit 0 gives nothing", {{"sort_by", "name"}, {"limit", 0}}, {}, 5},
      {"removed nodes listed by default",
       {{"sort_by", "name"}, {"sort_direction", "ASC"}},
       {"sub", "a2.txt", "a10.txt", "b.txt", "gone.txt"},
       5},
      {"mtime page", {{"list_removed", false}, {"offset", 1}, {"limit", 2}}, {"sub", "a2.txt"}, 4},
      {"files only",
       {{"list_file_type", "file"},
        {"sort_by", "name"},
        {"sort_direction", "ASC"},
        {"list_removed", false}},
       {"a2.txt", "a10.txt", "b.txt"},
       3},
      {"folders only", {{"list_file_type", "folder"}}, {"sub"}, 1},
      {"dir only beats file type",
       {{"list_dir_only", true}, {"list_file_type", "file"}},
       {"sub"},
       1},
      {"pattern",
       {{"pattern", "a*"}, {"sort_by", "name"}, {"sort_direction", "ASC"}},
       {"a2.txt", "a10.txt"},
       2},
      {"subtree",
       {{"recursive", true},
        {"sort_by", "name"},
        {"sort_direction", "ASC"},
        {"list_removed", false}},
       {"sub", "a2.txt", "a10.txt", "b.txt", "deep.md"},
       5},
      {"subtree without an extension",
       {{"recursive", true},
        {"exclude_extensions", kExcludeMd},
        {"list_removed", false},
        {"sort_by", "name"},
        {"sort_direction", "ASC"}},
       {"sub", "a2.txt", "a10.txt", "b.txt"},
       4},
      {"size order",
       {{"list_file_type", "file"},
        {"sort_by", "v_file_size"},
        {"sort_direction", "ASC"},
        {"list_removed", false}},
       {"a10.txt", "a2.txt", "b.txt"},
       3},
      {"size bound",
       {{"ver_file_size_lower_bound", 15},
        {"list_removed", false},
        {"sort_by", "name"},
        {"sort_direction", "ASC"}},
       {"a2.txt", "b.txt"},
       2},
      {"mtime bound", {{"ver_mtime_upper_bound", 125}, {"list_removed", false}}, {"a10.txt"}, 1},
      {"the folder as it was at 125",
       {{"ver_ctime_upper_bound", 125}, {"sort_by", "name"}, {"sort_direction", "ASC"}},
       {"a10.txt", "b.txt"},
       2},
  };
  for (const auto& c : kCases) {
    const auto answer = List(c.params);
    ASSERT_TRUE(answer.success()) << c.what << ": " << answer.body;
    EXPECT_EQ(Names(answer), c.names) << c.what;
    EXPECT_EQ(answer.json["data"]["total"].asUInt(), c.total) << c.what;
  }

  // One row comes back whatever the limit; two rows with limit 0 give none.
  auto answer = List({{"sort_by", "name"}, {"list_file_type", "folder"}, {"limit", 0}});
  EXPECT_EQ(Names(answer), V{"sub"});
  answer = List({{"sort_by", "name"}, {"pattern", "a*"}, {"limit", 0}});
  EXPECT_EQ(Names(answer), V{});
  EXPECT_EQ(answer.json["data"]["total"].asUInt(), 2u);
}

TEST_F(NodeListTest, RecordsAndPaths) {
  tptest::SetRotateCount(home_, 5);
  auto answer = List({{"path", "/docs"}, {"sort_by", "name"}, {"sort_direction", "ASC"}});
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value& items = answer.json["data"]["items"];
  ASSERT_EQ(items.size(), 5u);
  const Json::Value& b = items[3];
  const db::Node stored = tptest::NodeAt(home_, "/docs/b.txt");
  const std::vector<std::string> kKeys = {
      "view_id",      "node_id",        "sync_id",       "name",   "path",
      "permanent_id", "permanent_link", "absolute_path", "mtime",  "v_file_size",
      "file_type",    "is_removed",     "is_encrypted",  "ver_cnt"};
  EXPECT_EQ(b.getMemberNames().size(), kKeys.size());
  for (const auto& key : kKeys) EXPECT_TRUE(b.isMember(key)) << key;
  EXPECT_EQ(b["view_id"], Json::Value(std::to_string(home_)));
  EXPECT_EQ(b["node_id"], Json::Value(std::to_string(stored.getNodeId())));
  EXPECT_EQ(b["sync_id"], Json::Value(std::to_string(stored.getSyncId())));
  EXPECT_EQ(b["permanent_id"], Json::Value(stored.getPermanentStringId()));
  EXPECT_EQ(b["permanent_link"], Json::Value(stored.getPermanentLink()));
  EXPECT_FALSE(stored.getPermanentLink().empty());
  EXPECT_EQ(b["name"].asString(), "b.txt");
  EXPECT_EQ(b["path"].asString(), "/docs/b.txt");
  EXPECT_EQ(b["absolute_path"].asString(), "/Tidepool/docs/b.txt");
  EXPECT_EQ(b["mtime"].asUInt(), 180u);
  EXPECT_EQ(b["v_file_size"].asUInt(), 40u);
  EXPECT_EQ(b["file_type"].asInt(), 0);
  EXPECT_FALSE(b["is_removed"].asBool());
  EXPECT_FALSE(b["is_encrypted"].asBool());
  EXPECT_EQ(b["ver_cnt"].asInt(), 2);
  // A removed file does not count its deletion marker; a folder is type 1.
  EXPECT_TRUE(items[4]["is_removed"].asBool());
  EXPECT_EQ(items[4]["ver_cnt"].asInt(), 1);
  EXPECT_EQ(items[0]["file_type"].asInt(), 1);

  // The rotate count caps the count shown, and 0 shows 0.
  tptest::SetRotateCount(home_, 1);
  EXPECT_EQ(List({{"pattern", "b.txt"}}).json["data"]["items"][0]["ver_cnt"].asInt(), 1);
  tptest::SetRotateCount(home_, 0);
  EXPECT_EQ(List({{"pattern", "b.txt"}}).json["data"]["items"][0]["ver_cnt"].asInt(), 0);

  // The request's path only shapes the paths shown.
  const struct {
    const char* path;
    const char* shown;
  } kPaths[] = {{"", "/b.txt"}, {"/", "/b.txt"}, {"/a", "/a/b.txt"}, {"/docs/", "/docs/b.txt"}};
  for (const auto& c : kPaths) {
    answer = List({{"path", c.path}, {"pattern", "b.txt"}});
    ASSERT_EQ(answer.json["data"]["items"].size(), 1u) << answer.body;
    EXPECT_EQ(answer.json["data"]["items"][0]["path"].asString(), c.shown) << c.path;
    EXPECT_EQ(answer.json["data"]["items"][0]["absolute_path"].asString(),
              std::string("/Tidepool") + c.shown);
  }

  // A file removed for good is left out but still counted; a folder is shown.
  tptest::MarkPermanentlyRemoved(home_, "/docs/a2.txt");
  tptest::MarkPermanentlyRemoved(home_, "/docs/sub");
  answer = List({{"sort_by", "name"}, {"sort_direction", "ASC"}, {"list_removed", false}});
  EXPECT_EQ(Names(answer), (std::vector<std::string>{"sub", "a10.txt", "b.txt"}));
  EXPECT_EQ(answer.json["data"]["total"].asUInt(), 4u);
}

TEST_F(NodeListTest, SharesAreForAdministrators) {
  const uint64_t team = tptest::AddEnabledShare("team");
  tptest::Apply(team, {{100, kAdd, "/plans/"}, {110, kAdd, "/plans/q1.txt", 7}});
  const std::string admin = tptest::Login("admin", "admin-demo");
  auto answer = tptest::CallNode("list", {{"target", "@team"}, {"path", "/"}}, admin);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(Names(answer), std::vector<std::string>{"plans"});
  EXPECT_EQ(answer.json["data"]["items"][0]["absolute_path"].asString(), "/@team/plans");
  EXPECT_EQ(answer.json["data"]["items"][0]["view_id"].asString(), std::to_string(team));

  const Json::Value plans(Json::UInt64(tptest::NodeAt(team, "/plans").getNodeId()));
  answer = tptest::CallNode("list", {{"target", "@team"}, {"node_id", plans}, {"path", "/plans"}},
                            admin);
  ASSERT_EQ(Names(answer), std::vector<std::string>{"q1.txt"});
  EXPECT_EQ(answer.json["data"]["items"][0]["absolute_path"].asString(), "/@team/plans/q1.txt");

  // Refusals: a non-administrator, a share the service does not know, one
  // that does not exist or is not active.
  tptest::AddHostShare("plain");
  tptest::AddHostShare("inactive", false);
  const struct {
    std::string sid, target;
    int code;
    const char* message;
  } kRefusals[] = {
      {alice_, "@team", 402, "admin-only operation"},
      {admin, "@plain", 501, "share plain is not enabled"},
      {admin, "@nosuch", 603, "share is not mounted"},
      {admin, "@inactive", 603, "share is not mounted"},
  };
  for (const auto& c : kRefusals) {
    answer = tptest::CallNode("list", {{"target", c.target}}, c.sid);
    EXPECT_FALSE(answer.success()) << c.target;
    EXPECT_EQ(answer.code(), c.code) << c.target;
    EXPECT_EQ(answer.message(), c.message) << c.target;
  }
}

TEST_F(NodeListTest, RootShowsHomeAndShares) {
  tptest::HomeView("admin");
  for (const char* share : {"zeta", "team", "alpha"}) tptest::AddEnabledShare(share);
  tptest::AddEnabledShare("locked", /*encrypted=*/true, /*mounted=*/false);
  tptest::AddEnabledShare("off");
  ASSERT_GE(UserManager::DisableShare("off"), 0);
  const std::string admin = tptest::Login("admin", "admin-demo");
  using V = std::vector<std::string>;
  const struct {
    const char* what;
    tptest::Params params;
    V names;
    unsigned total;
  } kCases[] = {
      {"everything, ordered by name", {}, {"alpha", "My Tidepool", "team", "zeta"}, 4},
      {"offset 1 hides the home but counts it", {{"offset", 1}}, {"alpha", "team", "zeta"}, 4},
      {"limit 1 holds the home alone", {{"limit", 1}}, {"My Tidepool"}, 4},
      {"limit 0 still shows the home", {{"limit", 0}}, {"My Tidepool"}, 4},
      {"a middle page", {{"offset", 2}, {"limit", 1}}, {"team"}, 4},
      {"without the home", {{"exclude_home", true}, {"limit", 2}}, {"alpha", "team"}, 3},
      {"descending picks the page, not its order",
       {{"sort_direction", "DESC"}, {"limit", 2}},
       {"My Tidepool", "zeta"},
       4},
  };
  for (const auto& c : kCases) {
    const auto answer = tptest::CallNode("list", c.params, admin);
    ASSERT_TRUE(answer.success()) << c.what << ": " << answer.body;
    EXPECT_EQ(Names(answer), c.names) << c.what;
    EXPECT_EQ(answer.json["data"]["total"].asUInt(), c.total) << c.what;
  }

  // A non-administrator sees the home only, whatever shares exist.
  auto answer = tptest::CallNode("list", {}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  ASSERT_EQ(answer.json["data"]["items"].size(), 1u);
  EXPECT_EQ(answer.json["data"]["total"].asUInt(), 1u);
  const Json::Value& home = answer.json["data"]["items"][0];
  EXPECT_EQ(home["view_id"].asString(), std::to_string(home_));
  EXPECT_EQ(home["node_id"].asString(), std::to_string(tptest::NodeAt(home_, "/").getNodeId()));
  EXPECT_EQ(home["name"].asString(), "My Tidepool");
  EXPECT_EQ(home["path"].asString(), "/");
  EXPECT_EQ(home["absolute_path"].asString(), "/Tidepool");
  EXPECT_EQ(home["mtime"].asString(), "-");
  EXPECT_EQ(home["ver_cnt"].asString(), "-");
  EXPECT_EQ(home["file_type"].asInt(), 1);
  EXPECT_FALSE(home["is_removed"].asBool());
  EXPECT_FALSE(home["is_share"].asBool());

  answer = tptest::CallNode("list", {{"offset", 3}, {"limit", 1}}, admin);
  ASSERT_EQ(answer.json["data"]["items"].size(), 1u);
  EXPECT_EQ(answer.json["data"]["items"][0]["absolute_path"].asString(), "/@zeta");
  EXPECT_TRUE(answer.json["data"]["items"][0]["is_share"].asBool());
}

// The name page must be exactly what sorting every row with the literal
// comparators and cutting the page gives.
TEST_F(NodeListTest, NamePageEqualsTheLiteralSort) {
  const char* kParts[] = {"a", "B", "é", "É", "z", "ü", "file", "Report ", "x-", "10", "9", "007"};
  std::mt19937 random(20240611);
  std::set<std::string> seen;
  std::vector<tptest::Step> steps{{100, kAdd, "/many/"}};
  while (steps.size() < 301) {
    std::string name;
    const int parts = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < parts; ++i) name += kParts[random() % std::size(kParts)];
    name += std::to_string(random() % 1000);
    // Names equal in natural order would make both orders arbitrary: keep
    // one of each (ASCII case and leading zeros do not count).
    std::string folded;
    for (char c : name) folded += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (folded.find("00") != std::string::npos || !seen.insert(folded).second) continue;
    steps.push_back({static_cast<uint32_t>(200 + steps.size()), kAdd,
                     "/many/" + name + (random() % 4 == 0 ? "/" : "")});
  }
  tptest::Apply(home_, steps);
  const uint64_t many = tptest::NodeAt(home_, "/many").getNodeId();

  struct Row {
    std::string name;
    bool dir;
  };
  std::vector<Row> rows;
  auto all =
      tptest::CallNode("list", {{"target", "mine"}, {"node_id", Json::UInt64(many)}}, alice_);
  ASSERT_TRUE(all.success()) << all.body;
  for (const Json::Value& item : all.json["data"]["items"]) {
    rows.push_back({item["name"].asString(), item["file_type"].asInt() == 1});
  }
  ASSERT_EQ(rows.size(), 300u);
  auto ascending = [](const Row& a, const Row& b) {
    if (a.dir != b.dir) return a.dir;
    return natsort::LiteralLess(a.name, b.name);
  };
  const struct {
    int64_t offset;
    int64_t limit;  // -1: not sent
  } kPages[] = {{0, 10}, {0, -1}, {37, 25}, {150, -1}, {290, 50}, {299, 1}, {1, 0}};
  for (const bool descending : {false, true}) {
    for (const auto& page : kPages) {
      std::vector<Row> sorted = rows;
      const uint64_t n = sorted.size();
      const uint64_t limit = page.limit < 0 ? n : page.limit;
      const uint64_t end = std::min<uint64_t>(page.offset + limit, n);
      std::vector<std::string> expected;
      if (static_cast<uint64_t>(page.offset) < end) {
        if (descending) {
          std::partial_sort(sorted.begin(), sorted.begin() + end, sorted.end(),
                            [&](const Row& a, const Row& b) { return !ascending(a, b); });
        } else {
          std::partial_sort(sorted.begin(), sorted.begin() + end, sorted.end(), ascending);
        }
        for (uint64_t i = page.offset; i < end; ++i) expected.push_back(sorted[i].name);
      }
      tptest::Params params{{"target", "mine"},
                            {"node_id", Json::UInt64(many)},
                            {"sort_by", "name"},
                            {"sort_direction", descending ? "DESC" : "ASC"},
                            {"offset", Json::Int64(page.offset)}};
      if (page.limit >= 0) params.push_back({"limit", Json::Int64(page.limit)});
      const auto answer = tptest::CallNode("list", params, alice_);
      ASSERT_TRUE(answer.success()) << answer.body;
      EXPECT_EQ(Names(answer), expected)
          << (descending ? "DESC" : "ASC") << " offset " << page.offset << " limit " << page.limit;
      EXPECT_EQ(answer.json["data"]["total"].asUInt(), 300u);
    }
  }
}

}  // namespace

namespace {

// A node id that is not plain digits is an error, never the root or some
// other node: the methods whose schema takes a number refuse a text (120),
// the others read the text strictly (401).
TEST_F(NodeListTest, MalformedNodeIdsAreRefused) {
  const struct {
    const char* method;
    int code;
  } kMethods[] = {{"list", 120}, {"list_parent", 120}, {"list_version", 401}, {"activity", 401}};
  for (const auto& m : kMethods) {
    for (const char* id : {"", "abc", "-1", "+5", " 7", "7x", "99999999999999999999999"}) {
      SCOPED_TRACE(std::string(m.method) + " node_id=\"" + id + "\"");
      tptest::Params params = {{"target", "mine"}, {"node_id", id}, {"path", "/docs"}};
      if (std::string(m.method) == "activity") {
        params.insert(
            params.end(),
            {{"start_date", 0}, {"end_date", 1000}, {"interval", 3600}, {"tz_offset", 0}});
      }
      const auto answer = tptest::CallNode(m.method, params, alice_);
      EXPECT_FALSE(answer.success()) << answer.body;
      EXPECT_EQ(answer.code(), m.code) << answer.body;
    }
  }
  // The same id as digits is read.
  const auto good = tptest::CallNode(
      "list_version", {{"target", "mine"}, {"node_id", docs_}, {"path", "/docs"}}, alice_);
  EXPECT_TRUE(good.success()) << good.body;
}

}  // namespace
