// Filter profiles: written and listed over HTTP with the users they apply
// to, and applied by real scans: what a profile's rules leave out of a home
// is never versioned, what the view held of it before stays, and it is
// versioned once the rules no longer apply.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <set>

#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "user-manager.h"

using namespace rtest;

namespace {

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kAdmin = "/usr/kstx/bin/kstx-admin";
constexpr const char* kProfile = "KSTX.Tidepool.Profile";

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::Reader().parse(text, value);
  return value;
}

Json::Value Profile(int64_t id, const std::string& name, const std::string& desc,
                    const std::vector<std::string>& users) {
  Json::Value profile(Json::objectValue);
  profile["profile_id"] = static_cast<Json::Int64>(id);
  profile["profile_name"] = name;
  profile["profile_desc"] = Parse(desc);
  profile["profile_applied"] = Json::Value(Json::arrayValue);
  for (const std::string& user : users) {
    Json::Value entry(Json::objectValue);
    entry["user_name"] = user;
    profile["profile_applied"].append(entry);
  }
  return profile;
}

// What the list shows of one profile.
struct Shown {
  uint64_t id = 0;
  Json::Value desc;
  std::vector<std::string> users;
};

class ProfileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    admin_ = LoginAs("admin");
  }

  tptest::WebAnswer Set(const std::vector<Json::Value>& profiles) {
    Json::Value list(Json::arrayValue);
    for (const Json::Value& p : profiles) list.append(p);
    return Call(kProfile, "set", {{"profiles", list}}, admin_);
  }
  tptest::WebAnswer Delete(const std::vector<int64_t>& ids) {
    Json::Value list(Json::arrayValue);
    for (int64_t id : ids) list.append(static_cast<Json::Int64>(id));
    return Call(kProfile, "delete", {{"id", list}}, admin_);
  }
  // name -> profile, checking that `total` counts them.
  std::map<std::string, Shown> List() {
    const auto answer = Call(kProfile, "list", {}, admin_);
    EXPECT_TRUE(answer.success()) << answer.body;
    std::map<std::string, Shown> shown;
    for (const Json::Value& p : answer.json["data"]["profile_list"]) {
      Shown s{p["profile_id"].asUInt64(), p["profile_desc"], {}};
      for (const Json::Value& user : p["profile_applied"])
        s.users.push_back(user["user_name"].asString());
      shown[p["profile_name"].asString()] = s;
    }
    EXPECT_EQ(answer.json["data"]["total"].asUInt(), shown.size()) << answer.body;
    return shown;
  }

  std::string admin_;
};

TEST_F(ProfileTest, ProfilesAreStoredListedAndTheirUsersMove) {
  ASSERT_EQ(tptest::RunProcess({kControl, "service", "--start"}).exit_status, 0);
  // Only the hidden default profile exists: nothing is listed.
  EXPECT_TRUE(List().empty());

  const std::string media = R"({"filtered_max_upload_size":1000,"filtered_extensions":["iso"]})";
  const std::string docs = R"({"filtered_names":["tmp"],"user_defined_names":["*.bak"]})";
  ASSERT_TRUE(
      Set({Profile(0, "media", media, {"alice", "ghost"}), Profile(-1, "docs", docs, {"bob"})})
          .success());
  auto shown = List();
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown["media"].desc, Parse(media));
  EXPECT_EQ(shown["media"].users, std::vector<std::string>{"alice"});  // ghost is skipped
  EXPECT_EQ(shown["docs"].desc, Parse(docs));
  EXPECT_EQ(shown["docs"].users, std::vector<std::string>{"bob"});
  EXPECT_NE(shown["media"].id, shown["docs"].id);

  // An existing id replaces that profile; alice, assigned here, leaves media.
  const uint64_t docs_id = shown["docs"].id;
  ASSERT_TRUE(
      Set({Profile(static_cast<int64_t>(docs_id), "papers", "{}", {"BOB", "alice"})}).success());
  shown = List();
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_FALSE(shown.count("docs"));
  EXPECT_EQ(shown["papers"].id, docs_id);
  EXPECT_EQ(shown["papers"].users, (std::vector<std::string>{"bob", "alice"}));
  EXPECT_EQ(shown["papers"].desc, Json::Value(Json::objectValue));
  EXPECT_TRUE(shown["media"].users.empty());

  // Deleting an id that does not exist is no failure; an empty list is a
  // commit of nothing.
  ASSERT_TRUE(Delete({static_cast<int64_t>(shown["media"].id), 999, 1}).success());
  ASSERT_TRUE(Set({}).success());
  shown = List();
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_TRUE(shown.count("papers"));

  // A description that is not JSON is listed as an empty one; a user whose
  // account is gone is left out, and the profile stays.
  ASSERT_GE(UserManager::CommitProfiles({{0, "not json", "broken", {Uid("alice")}}}, {}), 0);
  ASSERT_EQ(tptest::RunProcess({kAdmin, "user", "del", "bob"}).exit_status, 0);
  shown = List();
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown["broken"].desc, Json::Value(Json::objectValue));
  EXPECT_EQ(shown["broken"].users, std::vector<std::string>{"alice"});
  EXPECT_TRUE(shown["papers"].users.empty());
  tptest::RunProcess({kControl, "service", "--stop"});
}

TEST_F(ProfileTest, RulesDecideWhatOfAHomeIsVersioned) {
  auto names = [](const std::string& sid, const std::string& target, const std::string& path) {
    tptest::Params params = {{"target", target}};
    if (path != "/") {
      const std::string id = Browse(sid, target, path)["node_id"].asString();
      params.push_back({"node_id", Json::UInt64(std::stoull(id))});
    }
    const auto answer = Call("KSTX.Tidepool.Node", "list", params, sid);
    EXPECT_TRUE(answer.success()) << answer.body;
    std::set<std::string> found;
    for (const Json::Value& item : answer.json["data"]["items"])
      if (!item["is_removed"].asBool()) found.insert(item["name"].asString());
    return found;
  };
  auto versions = [](const std::string& sid, const std::string& path) {
    const auto answer =
        Call("KSTX.Tidepool.Node", "list_version", {{"target", "mine"}, {"path", path}}, sid);
    return answer.success() ? answer.json["data"]["items"].size() : 0u;
  };
  const std::string big(2000, 'b');
  BuildHistory(kAliceHome, {{kT0, {Entry("old.iso", "before the profile")}, {}}});
  const std::string rules =
      R"({"filtered_max_upload_size":1000,"filtered_extensions":["iso",".TMP","tar.gz"],)"
      R"("filtered_names":["node_modules"],"user_defined_names":["*.bak","Thumbs.db"]})";
  ASSERT_GE(UserManager::CommitProfiles({{0, rules, "lean", {Uid("alice")}}}, {}), 0);
  std::vector<ProfileInfo> stored;
  ASSERT_GE(UserManager::GetAllProfiles(stored), 0);
  const uint64_t lean = stored.back().id;

  BuildHistory(kTeam, {{kT1 - 60, {Entry("big.bin", big)}, {}}});
  BuildHistory(
      kAliceHome,
      {{kT1,
        {Entry("a.txt", "small"), Entry("big.bin", big), Entry("disk.ISO", "image"),
         Entry("x.tmp", "scratch"), Entry("src.tar.gz", "archive"), Entry("notes.bak", "copy"),
         Entry("node_modules/"), Entry("node_modules/lib.js", "code"), Entry("Thumbs.db", "thumbs"),
         Entry("keep/"), Entry("keep/b.txt", "kept"), Entry("old.iso", "changed since")},
        {}}});
  const std::string alice = LoginAs("alice");
  EXPECT_EQ(names(alice, "mine", "/"), (std::set<std::string>{"a.txt", "keep", "old.iso"}));
  EXPECT_EQ(names(alice, "mine", "/keep"), std::set<std::string>{"b.txt"});
  // What the view held before stays as it was: neither removed nor changed.
  EXPECT_EQ(versions(alice, "/old.iso"), 1u);
  // A share is no one's home: its files are all versioned.
  EXPECT_EQ(names(admin_, "@team", "/").count("big.bin"), 1u);

  // Without the profile, the next pass versions everything.
  ASSERT_GE(UserManager::CommitProfiles({}, {lean}), 0);
  BuildHistory(kAliceHome, {{kT2, {}, {}}});
  EXPECT_EQ(names(alice, "mine", "/"),
            (std::set<std::string>{"a.txt", "big.bin", "disk.ISO", "x.tmp", "src.tar.gz",
                                   "notes.bak", "node_modules", "Thumbs.db", "keep", "old.iso"}));
  EXPECT_EQ(names(alice, "mine", "/node_modules"), std::set<std::string>{"lib.js"});
  EXPECT_EQ(versions(alice, "/old.iso"), 2u);
}

}  // namespace
