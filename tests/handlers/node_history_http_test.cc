// The parent chain, the version list and the activity of a node over HTTP,
// and the answers to bad input: errors, never a crash, never a change.
#include <gtest/gtest.h>

#include <filesystem>

#include "host-accounts.h"
#include "node-world.h"
#include "sandbox.h"
#include "webapi-client.h"

namespace {

using tptest::kAdd;
using tptest::kModify;
using tptest::kMove;
using tptest::kRemove;

class NodeHistoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedWorld();
    home_ = tptest::HomeView("alice");
    tptest::Apply(home_, {{100, kAdd, "/act/"},
                          {1000, kAdd, "/act/x.txt", 1},
                          {1500, kAdd, "/act/y.txt", 2},
                          {5000, kModify, "/act/x.txt", 3},
                          {6000, kModify, "/act/x.txt", 4},
                          {7000, kModify, "/act/x.txt", 5},
                          {7100, kRemove, "/act/y.txt"},
                          {7200, kAdd, "/act/deep/"},
                          {7300, kAdd, "/act/deep/z.txt", 6}});
    alice_ = tptest::Login("alice", "alice-demo");
    admin_ = tptest::Login("admin", "admin-demo");
  }

  std::string Id(const std::string& path) {
    return std::to_string(tptest::NodeAt(home_, path).getNodeId());
  }

  uint64_t home_ = 0;
  std::string alice_;
  std::string admin_;
};

TEST_F(NodeHistoryTest, ParentChainEndsAtTheViewsName) {
  auto answer = tptest::CallNode(
      "list_parent",
      {{"target", "mine"},
       {"node_id", Json::UInt64(tptest::NodeAt(home_, "/act/deep/z.txt").getNodeId())}},
      alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value& items = answer.json["data"]["items"];
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(answer.json["data"].getMemberNames(), std::vector<std::string>{"items"});
  const char* kNames[] = {"Tidepool", "act", "deep", "z.txt"};
  const char* kPaths[] = {"/", "/act", "/act/deep", "/act/deep/z.txt"};
  for (unsigned i = 0; i < 4; ++i) {
    EXPECT_EQ(items[i]["name"].asString(), kNames[i]);
    EXPECT_EQ(items[i]["path"].asString(), kPaths[i]);
  }
  EXPECT_EQ(items[3]["node_id"].asString(), Id("/act/deep/z.txt"));
  EXPECT_EQ(items[3]["mtime"].asUInt(), 7300u);
  EXPECT_EQ(items[3]["file_type"].asInt(), 0);
  EXPECT_EQ(items[2]["file_type"].asInt(), 1);
  EXPECT_EQ(items[3]["ver_cnt"].asUInt(), 1u);
  EXPECT_FALSE(items[3]["is_removed"].asBool());

  // In a share the root carries the share's name, without its "@".
  const uint64_t team = tptest::AddEnabledShare("team");
  tptest::Apply(team, {{100, kAdd, "/plans/"}});
  answer = tptest::CallNode(
      "list_parent",
      {{"target", "@team"}, {"node_id", Json::UInt64(tptest::NodeAt(team, "/plans").getNodeId())}},
      admin_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["items"][0]["name"].asString(), "team");

  // A removed node, node 0 and a node of no view are not found: 402.
  for (const Json::Value& node : {Json::Value(Json::UInt64(std::stoull(Id("/act/y.txt")))),
                                  Json::Value(0), Json::Value(987654321)}) {
    answer = tptest::CallNode("list_parent", {{"target", "mine"}, {"node_id", node}}, alice_);
    EXPECT_EQ(answer.code(), 402) << node.toStyledString();
    EXPECT_EQ(answer.message(), "failed to query node");
  }
  answer = tptest::CallNode("list_parent", {{"target", ""}, {"node_id", 1}}, alice_);
  EXPECT_EQ(answer.code(), 603);
}

TEST_F(NodeHistoryTest, VersionsNewestFirstWithinRotation) {
  auto versions = [&](tptest::Params params, const std::string& sid) {
    params.insert(params.begin(), {"target", "mine"});
    return tptest::CallNode("list_version", params, sid);
  };
  auto answer = versions({{"path", "/act/x.txt"}}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value& data = answer.json["data"];
  const db::Node x = tptest::NodeAt(home_, "/act/x.txt");
  ASSERT_EQ(data["items"].size(), 4u);
  EXPECT_EQ(data["items"][0]["create_time"].asUInt(), 7000u);
  EXPECT_EQ(data["items"][0]["modify_time"].asUInt(), 7000u);
  EXPECT_EQ(data["items"][0]["size"].asUInt64(), 5u);
  EXPECT_EQ(data["items"][0]["version_updater"].asString(), "client-7000");
  EXPECT_EQ(data["items"][0]["path"].asString(), "/act/x.txt");
  EXPECT_EQ(data["items"][0]["node_id"].asUInt64(), x.getNodeId());
  EXPECT_TRUE(data["items"][0]["sync_id"].isIntegral());
  EXPECT_EQ(data["items"][3]["create_time"].asUInt(), 1000u);
  EXPECT_EQ(data["permanent_id"].asString(), x.getPermanentStringId());
  EXPECT_EQ(data["permanent_link"].asString(), x.getPermanentLink());
  EXPECT_FALSE(data["is_removed"].asBool());

  // Rotation keeps the newest; by id, the link is not looked up.
  tptest::SetRotateCount(home_, 2);
  answer = versions({{"path", "act/x.txt"}, {"node_id", std::to_string(x.getNodeId())}}, alice_);
  ASSERT_EQ(answer.json["data"]["items"].size(), 2u) << answer.body;
  EXPECT_EQ(answer.json["data"]["items"][1]["create_time"].asUInt(), 6000u);
  EXPECT_EQ(answer.json["data"]["items"][0]["path"].asString(), "/act/x.txt");
  EXPECT_EQ(answer.json["data"]["permanent_link"].asString(), "");
  EXPECT_EQ(answer.json["data"]["permanent_id"].asString(), x.getPermanentStringId());

  // A deletion marker takes a place of the rotation and is not shown.
  answer = versions({{"path", "/act/y.txt"}}, alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_TRUE(answer.json["data"]["is_removed"].asBool());
  ASSERT_EQ(answer.json["data"]["items"].size(), 1u);
  EXPECT_EQ(answer.json["data"]["items"][0]["create_time"].asUInt(), 1500u);
  tptest::SetRotateCount(home_, 0);

  // Refusals.
  const struct {
    tptest::Params params;
    int code;
    const char* message;
  } kRefusals[] = {
      {{{"node_id", Id("/act/x.txt")}}, 114, "invalid parameter"},
      {{{"path", "/act/none.txt"}}, 401, "failed to query node"},
      {{{"path", "/act/../../etc/passwd"}}, 401, "failed to query node"},
      {{{"path", "/act/x.txt"}, {"view_role", "nobody-here"}}, 402, "Failed to switch auth"},
  };
  for (const auto& c : kRefusals) {
    answer = versions(c.params, alice_);
    EXPECT_EQ(answer.code(), c.code) << answer.body;
    EXPECT_EQ(answer.message(), c.message) << answer.body;
  }
  answer = tptest::CallNode("list_version", {{"target", "@nosuch"}, {"path", "/a"}}, alice_);
  EXPECT_EQ(answer.code(), 603);
}

TEST_F(NodeHistoryTest, SharePrivilegeDecidesForNonAdministrators) {
  const uint64_t team = tptest::AddEnabledShare("team");
  tptest::Apply(team, {{100, kAdd, "/open/", 0, 0755},
                       {110, kAdd, "/open/a.txt", 3, 0644},
                       {120, kAdd, "/secret/", 0, 0700},
                       {130, kAdd, "/secret/b.txt", 3, 0644}});
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  ASSERT_GE(accounts->SetSharePermission("team", "alice", hostaccounts::SharePermission::kReadOnly),
            0);
  const std::string bob = tptest::Login("bob", "bob-demo");
  const struct {
    std::string sid;
    const char* path;
    int code;  // 0: allowed
  } kCases[] = {
      {alice_, "/open/a.txt", 0},
      {alice_, "/secret/b.txt", 403},
      {alice_, "/secret", 403},
      {admin_, "/secret/b.txt", 0},
      // Without any permission on the share its history stays closed, even
      // where the stored modes would let everyone read.
      {bob, "/open/a.txt", 403},
  };
  for (const auto& c : kCases) {
    auto answer = tptest::CallNode("list_version", {{"target", "@team"}, {"path", c.path}}, c.sid);
    if (c.code == 0) {
      EXPECT_TRUE(answer.success()) << c.path << answer.body;
    } else {
      EXPECT_EQ(answer.code(), c.code) << c.path << answer.body;
      EXPECT_EQ(answer.message(), "no privilege");
    }
  }
  // The owner of a home passes even where its stored modes let nobody in.
  tptest::Apply(home_, {{8000, kAdd, "/act/closed.txt", 1, 0}});
  EXPECT_TRUE(
      tptest::CallNode("list_version", {{"target", "mine"}, {"path", "/act/closed.txt"}}, alice_)
          .success());
}

TEST_F(NodeHistoryTest, ActivityBuckets) {
  auto activity = [&](tptest::Params params) {
    tptest::Params base{{"target", "mine"},
                        {"start_date", 0},
                        {"end_date", 10000},
                        {"interval", 3600},
                        {"tz_offset", 0}};
    base.insert(base.end(), params.begin(), params.end());
    return tptest::CallNode("activity", base, alice_);
  };
  auto answer = activity({{"path", "/act"}});
  ASSERT_TRUE(answer.success()) << answer.body;
  // 100, 1000, 1500 | 5000, 6000, 7000, 7100 | 7200, 7300
  const Json::Value& items = answer.json["data"]["items"];
  ASSERT_EQ(items.size(), 3u) << answer.body;
  const int kBuckets[][2] = {{0, 3}, {3600, 4}, {7200, 2}};
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(items[i]["timestamp"].asInt(), kBuckets[i][0]);
    EXPECT_EQ(items[i]["activity_count"].asInt(), kBuckets[i][1]);
  }
  EXPECT_EQ(answer.json["data"]["total"].asUInt(), 3u);

  // By id; nothing in the range gives nothing.
  answer = activity({{"node_id", Id("/act/deep")}});
  ASSERT_EQ(answer.json["data"]["items"].size(), 1u) << answer.body;
  EXPECT_EQ(answer.json["data"]["items"][0]["activity_count"].asInt(), 2);
  answer = activity({{"path", "/act"}, {"start_date", 20000}, {"end_date", 30000}});
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["items"].size(), 0u);
  EXPECT_EQ(answer.json["data"]["total"].asUInt(), 0u);

  // No path means the root; a missing path is no error of its own.
  const auto root = activity({});
  ASSERT_TRUE(root.success()) << root.body;
  EXPECT_EQ(activity({{"path", "/"}}).json, root.json);
  EXPECT_EQ(activity({{"path", "/nope"}}).body, activity({{"path", "/also/nope"}}).body);

  answer = tptest::CallNode(
      "activity",
      {{"target", ""}, {"start_date", 0}, {"end_date", 1}, {"interval", 1}, {"tz_offset", 0}},
      alice_);
  EXPECT_EQ(answer.code(), 401);
  EXPECT_EQ(answer.message(), "no target specified");
}

TEST_F(NodeHistoryTest, BadInputAnswersWithoutChanges) {
  const std::string x = Id("/act/x.txt");
  const std::string before = tptest::DatabaseChecksums();
  const struct {
    const char* method;
    tptest::Params params;
  } kCalls[] = {
      {"list", {{"target", "mine"}, {"node_id", 987654321}}},
      {"list", {{"target", "mine"}, {"offset", -1}, {"limit", -1}}},
      {"list", {{"target", "mine"}, {"offset", 2147483647}, {"limit", 2147483647}}},
      {"list", {{"target", "mine"}, {"sort_by", "name"}, {"limit", -7}}},
      {"list", {{"target", "mine"}, {"path", "/../../etc"}, {"pattern", "*../*"}}},
      {"list", {{"offset", -5}, {"limit", -5}}},
      {"list_parent", {{"target", "mine"}, {"node_id", Json::UInt64(18446744073709551615ull)}}},
      {"list_version", {{"target", "mine"}, {"path", "/x"}, {"node_id", "987654321"}}},
      {"list_version", {{"target", "mine"}, {"path", "/act/x.txt"}, {"node_id", "-1"}}},
      {"activity",
       {{"target", "mine"},
        {"node_id", "abc"},
        {"start_date", 0},
        {"end_date", 0},
        {"interval", 0},
        {"tz_offset", -99999}}},
  };
  for (const auto& call : kCalls) {
    const auto answer = tptest::CallNode(call.method, call.params, alice_);
    EXPECT_EQ(answer.exit_status, 0) << call.method << answer.stderr_text;
    ASSERT_TRUE(answer.json.isObject()) << call.method << ": " << answer.body;
    if (answer.success() && answer.json["data"].isMember("total")) {
      EXPECT_LE(answer.json["data"]["items"].size(), answer.json["data"]["total"].asUInt64());
    }
    if (!answer.success()) {
      EXPECT_NE(answer.code(), 100) << call.method << answer.body;
    }
  }
  EXPECT_EQ(tptest::DatabaseChecksums(), before);

  // A damaged or missing view database is an error of the handler.
  tptest::WriteFile(tptest::ViewFile(home_), std::string(8192, 'x'));
  const Json::Value number(Json::UInt64(std::stoull(x)));
  const struct {
    const char* method;
    tptest::Params params;
  } kDamaged[] = {
      {"list", {{"target", "mine"}, {"node_id", number}}},
      {"list_parent", {{"target", "mine"}, {"node_id", number}}},
      {"list_version", {{"target", "mine"}, {"node_id", x}, {"path", "/act/x.txt"}}},
      {"activity",
       {{"target", "mine"},
        {"node_id", x},
        {"start_date", 0},
        {"end_date", 1},
        {"interval", 1},
        {"tz_offset", 0}}},
  };
  for (const auto& call : kDamaged) {
    const auto answer = tptest::CallNode(call.method, call.params, alice_);
    EXPECT_FALSE(answer.success()) << call.method << ": " << answer.body;
    EXPECT_EQ(answer.code(), 401) << call.method << ": " << answer.body;
  }
  std::filesystem::remove(tptest::ViewFile(home_));
  const auto answer = tptest::CallNode("list", {{"target", "mine"}}, alice_);
  EXPECT_EQ(answer.code(), 401);
  EXPECT_EQ(answer.message(), "failed to open view db");
}

}  // namespace
