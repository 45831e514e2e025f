// KSTX.Tidepool.Share over HTTP: the administrator's table and what a user
// sees, enabling and disabling shares through the running sync service,
// encrypted ones too, rotation of a share and of all homes reaching the
// views and the next pass, their log records, and every refusal.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "db/log-types.h"
#include "db/manager.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "user-manager.h"

using namespace rtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.Share";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kAdminTool = "/usr/kstx/bin/kstx-admin";
constexpr const char* kSettings = "/var/packages/Tidepool/etc/setting.conf";

struct RunningService {
  RunningService() {
    started = tptest::RunProcess({kControl, "service", "--start"}).exit_status == 0;
  }
  ~RunningService() { tptest::RunProcess({kControl, "service", "--stop"}); }
  bool started = false;
};

Json::Value Element(const std::string& name, int count, const std::string& policy, int days) {
  Json::Value e(Json::objectValue);
  e["share_name"] = name;
  e["rotate_cnt"] = count;
  e["rotate_policy"] = policy;
  e["rotate_days"] = days;
  return e;
}

Json::Value Enable(const std::string& name, bool enable, int count = 32,
                   const std::string& policy = "fifo", int days = 0) {
  Json::Value e = Element(name, count, policy, days);
  e["share_enable"] = enable;
  return e;
}

Json::Value Shares(std::vector<Json::Value> elements) {
  Json::Value list(Json::arrayValue);
  for (Json::Value& e : elements) list.append(std::move(e));
  return list;
}

class ShareHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SeedRestoreWorld();
    if (HasFatalFailure()) return;
    admin_ = LoginAs("admin");
    alice_ = LoginAs("alice");
    bob_ = LoginAs("bob");
    ASSERT_FALSE(admin_.empty());
    ASSERT_FALSE(alice_.empty());
  }

  tptest::WebAnswer List(Params params, const std::string& sid = "") {
    return Call(kApi, "list", params, sid.empty() ? admin_ : sid);
  }
  tptest::WebAnswer Set(std::vector<Json::Value> elements, const std::string& sid = "") {
    return Call(kApi, "set", {{"share", Shares(std::move(elements))}}, sid.empty() ? admin_ : sid);
  }
  // The row of `name` in the whole table.
  Json::Value RowOf(const std::string& name) {
    const auto answer = List({{"limit", 1000}});
    EXPECT_TRUE(answer.success()) << answer.body;
    for (const Json::Value& row : answer.json["data"]["items"])
      if (row["share_name"].asString() == name) return row;
    return Json::Value();
  }
  static std::vector<std::string> Names(const tptest::WebAnswer& a, const char* key) {
    EXPECT_TRUE(a.success()) << a.body;
    std::vector<std::string> out;
    for (const Json::Value& item : a.json["data"]["items"]) out.push_back(item[key].asString());
    return out;
  }
  int ViewRotateCount(uint64_t view_id) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    int count = -1;
    if (view) view->GetRotateCount(count);
    return count;
  }

  std::string admin_, alice_, bob_;
};

TEST_F(ShareHttpTest, AdministratorTableAndWhatUsersSee) {
  // No parameters: the row of all homes alone, and every share counted.
  auto bare = List({});
  ASSERT_TRUE(bare.success()) << bare.body;
  ASSERT_EQ(bare.json["data"]["items"].size(), 1u);
  const Json::Value homes = bare.json["data"]["items"][0];
  EXPECT_EQ(homes["share_name"].asString(), "homes");
  EXPECT_EQ(homes["share_status"].asString(), "normal");
  EXPECT_TRUE(homes["share_enable"].asBool());
  EXPECT_EQ(bare.json["data"]["total"].asInt(), 4);

  // A page: homes first, then the shares by name; only "team" is enabled.
  auto page = List({{"offset", 0}, {"limit", 10}});
  EXPECT_EQ(Names(page, "share_name"),
            (std::vector<std::string>{"homes", "drop", "team", "vault"}));
  const Json::Value team = RowOf("team");
  EXPECT_TRUE(team["share_enable"].asBool());
  EXPECT_EQ(team["rotate_cnt"].asInt(), 32);
  EXPECT_EQ(team["rotate_policy"].asString(), "fifo");
  const Json::Value drop = RowOf("drop");
  EXPECT_FALSE(drop["share_enable"].asBool());
  EXPECT_EQ(drop["rotate_cnt"].asString(), "--");
  EXPECT_EQ(drop["share_status"].asString(), "normal");
  // Offsets 0 and 1 start alike; offset 2 is the second share.
  EXPECT_EQ(Names(List({{"offset", 1}, {"limit", 2}}), "share_name"),
            (std::vector<std::string>{"homes", "drop", "team"}));
  EXPECT_EQ(Names(List({{"offset", 2}, {"limit", 2}}), "share_name"),
            (std::vector<std::string>{"team", "vault"}));
  // Enabled rows first when sorting by count, in both directions.
  EXPECT_EQ(Names(List({{"limit", 2}, {"sort_by", "rotate_cnt"}, {"sort_direction", "DESC"}}),
                  "share_name"),
            (std::vector<std::string>{"homes", "team"}));
  EXPECT_EQ(Names(List({{"limit", 2}, {"sort_by", "rotate_cnt"}, {"sort_direction", "ASC"}}),
                  "share_name"),
            (std::vector<std::string>{"homes", "team"}));
  // A search ignores case and has no row of homes, even when it matches.
  auto found = List({{"query", "EA"}, {"limit", 10}});
  EXPECT_EQ(Names(found, "share_name"), (std::vector<std::string>{"team"}));
  EXPECT_EQ(found.json["data"]["total"].asInt(), 1);
  auto homes_search = List({{"query", "home"}, {"limit", 10}});
  EXPECT_TRUE(Names(homes_search, "share_name").empty());
  EXPECT_EQ(homes_search.json["data"]["total"].asInt(), 0);

  // The home service turned off: "homes" shows so, with no rotation, and
  // users are offered no home.
  const std::string settings = tptest::ReadFile(kSettings);
  tptest::WriteFile(kSettings, settings + "local_home_service=\"no\"\n");
  const Json::Value off = List({}).json["data"]["items"][0];
  EXPECT_EQ(off["share_status"].asString(), "home_disabled");
  EXPECT_FALSE(off["share_enable"].asBool());
  EXPECT_EQ(off["rotate_cnt"].asString(), "--");
  EXPECT_EQ(Names(Call(kApi, "list_active", {}, alice_), "type"),
            (std::vector<std::string>{"share"}));
  tptest::WriteFile(kSettings, settings);

  // Not an administrator: no table.
  auto refused = List({}, alice_);
  EXPECT_FALSE(refused.success());
  EXPECT_EQ(refused.code(), 105) << refused.body;

  // A user sees the home and the enabled shares they may read.
  auto mine = Call(kApi, "list_active", {}, alice_);
  EXPECT_EQ(Names(mine, "name"), (std::vector<std::string>{"MyTidepool", "team"}));
  EXPECT_EQ(Names(mine, "type"), (std::vector<std::string>{"home", "share"}));
  EXPECT_EQ(mine.json["data"]["total"].asInt(), 1);
  // Values of a kind the methods do not take are no failure.
  EXPECT_TRUE(List({{"query", Json::Value(Json::arrayValue)}}).success());
  EXPECT_EQ(Names(Call(kApi, "list_active", {{"exclude_home", "yes"}}, alice_), "type"),
            (std::vector<std::string>{"home", "share"}));
  auto bobs = Call(kApi, "list_active", {{"exclude_home", true}}, bob_);
  EXPECT_EQ(Names(bobs, "name"), (std::vector<std::string>{"team"}));
  EXPECT_EQ(bobs.json["data"]["total"].asInt(), 1);
}

TEST_F(ShareHttpTest, EnablingRotationAndTheirRecordsReachTheService) {
  RunningService service;
  ASSERT_TRUE(service.started);

  // Enabled with its rotation; enabling again leaves that rotation alone.
  auto enabled = Set({Enable("drop", true, 5, "smart", 7)});
  ASSERT_TRUE(enabled.success()) << enabled.body;
  EXPECT_TRUE(Set({Enable("drop", true, 9, "fifo", 0)}).success());
  Json::Value drop = RowOf("drop");
  EXPECT_TRUE(drop["share_enable"].asBool());
  EXPECT_EQ(drop["rotate_cnt"].asInt(), 5);
  EXPECT_EQ(drop["rotate_policy"].asString(), "smart");
  EXPECT_EQ(drop["rotate_days"].asInt(), 7);
  auto records = Logs(db::kLogShareEnable);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].user, "admin");
  EXPECT_EQ(records[0].p, (std::vector<std::string>{"1"}));
  EXPECT_EQ(records[0].s, (std::vector<std::string>{"drop"}));

  // Rotation of a share: the table, the view and a record.
  ASSERT_TRUE(Set({Element("drop", 3, "fifo", 10)}).success());
  drop = RowOf("drop");
  EXPECT_EQ(drop["rotate_cnt"].asInt(), 3);
  EXPECT_EQ(drop["rotate_days"].asInt(), 10);
  EXPECT_EQ(ViewRotateCount(ShareViewOf("drop")), 3);
  // A count of 0 shows no policy.
  ASSERT_TRUE(Set({Element("drop", 0, "fifo", 0)}).success());
  EXPECT_EQ(RowOf("drop")["rotate_policy"].asString(), "--");

  // All homes: the row and every person's view.
  ASSERT_TRUE(Set({Element("homes", 4, "smart", 0)}).success());
  Json::Value homes = RowOf("homes");
  EXPECT_EQ(homes["rotate_cnt"].asInt(), 4);
  EXPECT_EQ(homes["rotate_policy"].asString(), "smart");
  EXPECT_EQ(ViewRotateCount(HomeViewOf("alice")), 4);
  EXPECT_EQ(ViewRotateCount(HomeViewOf("bob")), 4);
  EXPECT_EQ(ViewRotateCount(ShareViewOf("team")), 32);
  // A home enabled later follows the rotation of all homes.
  ASSERT_EQ(tptest::RunProcess({kAdminTool, "user", "add", "carol", "--password", "carol-pw"})
                .exit_status,
            0);
  ASSERT_EQ(tptest::RunProcess({kControl, "user", "--enable", "carol"}).exit_status, 0);
  EXPECT_EQ(ViewRotateCount(HomeViewOf("carol")), 4);
  auto rotations = Logs(db::kLogRotateCountSet);
  ASSERT_EQ(rotations.size(), 3u);
  EXPECT_EQ(rotations[0].p, (std::vector<std::string>{"3"}));
  EXPECT_EQ(rotations[0].s, (std::vector<std::string>{"drop"}));
  EXPECT_EQ(rotations[2].p, (std::vector<std::string>{"4"}));
  EXPECT_EQ(rotations[2].s, (std::vector<std::string>{"homes"}));

  // A share never enabled has no share user: it fails without touching the
  // row of all homes, and the other elements are still done.
  auto never = Set({Element("vault", 1, "fifo", 0), Element("team", 6, "fifo", 0),
                    Element("surveillance", 1, "fifo", 0)});
  EXPECT_FALSE(never.success());
  EXPECT_EQ(never.code(), 401);
  EXPECT_EQ(never.message(), "failed to update share setting");
  EXPECT_EQ(RowOf("homes")["rotate_cnt"].asInt(), 4);
  EXPECT_EQ(RowOf("team")["rotate_cnt"].asInt(), 6);
  EXPECT_EQ(Logs(db::kLogRotateCountSet).size(), 4u);

  // Disabled: no rotation shown, and a record with "0".
  ASSERT_TRUE(Set({Enable("drop", false)}).success());
  drop = RowOf("drop");
  EXPECT_FALSE(drop["share_enable"].asBool());
  EXPECT_EQ(drop["rotate_cnt"].asString(), "--");
  records = Logs(db::kLogShareEnable);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].p, (std::vector<std::string>{"0"}));
  EXPECT_EQ(Names(Call(kApi, "list_active", {{"exclude_home", true}}, alice_), "name"),
            (std::vector<std::string>{"team"}));

  // A lowered count trims the existing history at the service's next pass.
  for (uint32_t i = 0; i < 4; ++i)
    BuildHistory(kTeam, {{kT0 + i * 60, {Entry("plan.txt", "v" + std::to_string(i))}, {}}});
  ASSERT_TRUE(Set({Element("team", 2, "fifo", 0)}).success());
  const size_t rotated_before = Logs(db::kLogVersionRotate).size();
  Scan(kT2);
  db::ViewDBInterface view;
  ASSERT_GE(db::Manager::GetViewDB(ShareViewOf("team"), view), 0);
  db::Node plan;
  ASSERT_GE(view->QueryNode("/plan.txt", plan, db::ViewManager::kQueryAny), 0);
  std::vector<db::Version> versions;
  ASSERT_GE(view->ListVersion(plan.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
  EXPECT_EQ(versions.size(), 2u);
  EXPECT_EQ(Logs(db::kLogVersionRotate).size(), rotated_before + 2);
}

TEST_F(ShareHttpTest, EncryptedSharesEnableWhileUnlocked) {
  RunningService service;
  ASSERT_TRUE(service.started);
  ASSERT_EQ(tptest::RunProcess({kAdminTool, "share", "add", "sealed", "--volume", "/volume1",
                                "--encrypted", "--passphrase", "correct horse"})
                .exit_status,
            0);
  EXPECT_EQ(RowOf("sealed")["share_status"].asString(), "decrypt");
  ASSERT_TRUE(Set({Enable("sealed", true, 8, "fifo", 0)}).success());
  EXPECT_TRUE(RowOf("sealed")["share_enable"].asBool());
  UserInfo info;
  ASSERT_GE(UserManager::GetShareUser("sealed", info), 0);
  EXPECT_TRUE(info.isEncryptionShare());
  ASSERT_TRUE(Set({Enable("sealed", false)}).success());
  EXPECT_FALSE(RowOf("sealed")["share_enable"].asBool());

  // Locked, it cannot be versioned: the element is passed over.
  ASSERT_EQ(tptest::RunProcess({kAdminTool, "share", "lock", "sealed"}).exit_status, 0);
  EXPECT_EQ(RowOf("sealed")["share_status"].asString(), "encrypt");
  EXPECT_TRUE(Set({Enable("sealed", true, 8, "fifo", 0)}).success());
  EXPECT_FALSE(RowOf("sealed")["share_enable"].asBool());
}

TEST_F(ShareHttpTest, Refusals) {
  struct Case {
    const char* what;
    std::vector<Json::Value> elements;
    int code;
    const char* message;
  };
  Json::Value nameless = Enable("", true);
  Json::Value no_name(Json::objectValue);
  no_name["rotate_cnt"] = 3;
  const std::vector<Case> cases = {
      {"empty name", {nameless}, 114, "share name empty"},
      {"no name", {no_name}, 114, "share name empty"},
      {"policy", {Enable("drop", true, 3, "lifo", 0)}, 114, "rotate policy error"},
      {"days", {Enable("drop", true, 3, "fifo", 121)}, 114, "rotate days error"},
      {"negative days", {Enable("drop", true, 3, "fifo", -1)}, 114, "rotate days error"},
      // Checked before anything is applied: the first element stays undone.
      {"late fault",
       {Enable("drop", true), Enable("vault", true, 3, "fifo", 500)},
       114,
       "rotate days error"},
      {"count beyond the schema", {Enable("drop", true, 33, "fifo", 0)}, 120, nullptr},
  };
  for (const Case& c : cases) {
    auto answer = Set(c.elements);
    EXPECT_FALSE(answer.success()) << c.what;
    EXPECT_EQ(answer.code(), c.code) << c.what << ": " << answer.body;
    if (c.message) {
      EXPECT_EQ(answer.message(), c.message) << c.what;
    }
  }
  EXPECT_FALSE(RowOf("drop")["share_enable"].asBool());
  // Rotation alone has no limits and an unknown policy passes when disabling.
  EXPECT_TRUE(Set({Enable("drop", false, 3, "lifo", 0)}).success());
  EXPECT_TRUE(Set({Element("team", 3, "anything", 500)}).success());
  EXPECT_EQ(RowOf("team")["rotate_days"].asInt(), 500);
  // "homes" with share_enable does nothing at all.
  EXPECT_TRUE(Set({Enable("homes", true, 1, "fifo", 0)}).success());
  EXPECT_EQ(RowOf("homes")["rotate_cnt"].asInt(), 32);
  // Not an administrator, or a GET of the writing method.
  auto user = Set({Element("team", 1, "fifo", 0)}, alice_);
  EXPECT_EQ(user.code(), 105) << user.body;
  auto get = tptest::Get("api=KSTX.Tidepool.Share&method=set&version=1&share=[]", admin_);
  EXPECT_EQ(get.code(), 105) << get.body;
  EXPECT_EQ(RowOf("team")["rotate_cnt"].asInt(), 3);
  // An enable with no service running fails quietly per element.
  EXPECT_TRUE(Set({Enable("vault", true)}).success());
  EXPECT_FALSE(RowOf("vault")["share_enable"].asBool());
}

}  // namespace
