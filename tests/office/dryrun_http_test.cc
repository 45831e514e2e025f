// Node.dry_run over HTTP: which selected nodes need a password before a
// restore or a download, as the scan recorded them from the documents'
// own header, and who may ask.
#include <gtest/gtest.h>

#include "office-format.h"
#include "office-world.h"
#include "process.h"
#include "sandbox.h"

using namespace rtest;
using namespace otest;

namespace {

// The header rule the scan applies to a document's first bytes.
TEST(OfficeHeader, OnlyTheProtectedAttributeOfTheHeaderCounts) {
  const struct {
    const char* head;
    bool is_protected;
  } rows[] = {
      {"KSTXOFFICE/1 protected\npassword: x\n", true},
      {"KSTXOFFICE/1 draft protected\r\nbody", true},
      {"KSTXOFFICE/1 protected", true},
      {"KSTXOFFICE/1\nprotected\n", false},
      {"KSTXOFFICE/1 unprotected\n", false},
      {"KSTXOFFICE/10 protected\n", false},
      {"kstxoffice/1 protected\n", false},
      {" KSTXOFFICE/1 protected\n", false},
      {"", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(office_format::HeaderSaysProtected(row.head), row.is_protected) << row.head;
  }
  EXPECT_TRUE(office_format::IsDocumentName("a.tslides"));
  EXPECT_FALSE(office_format::IsDocumentName("A.TDOC"));
  EXPECT_FALSE(office_format::IsDocumentName(".tdoc"));
}

class DryRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, OfficeHistory());
    alice_ = LoginAs("alice");
  }

  tptest::WebAnswer DryRun(const std::string& sid, const std::string& target,
                           const std::vector<Json::Value>& nodes, Params extra = {}) {
    Json::Value array(Json::arrayValue);
    for (const auto& node : nodes) array.append(node);
    extra.emplace_back("target", target);
    extra.emplace_back("nodes", array);
    return Call("KSTX.Tidepool.Node", "dry_run", extra, sid);
  }

  static std::vector<std::string> Paths(const tptest::WebAnswer& answer) {
    std::vector<std::string> paths;
    for (const Json::Value& entry : answer.json["data"]) paths.push_back(entry["path"].asString());
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  std::string alice_;
};

// Plain files and plain documents need nothing: an empty array, never
// null. A folder answers every protected document below it, with the
// details the client shows; one selected twice is listed twice.
TEST_F(DryRunTest, ListsTheProtectedDocumentsOfASelection) {
  const auto plain = DryRun(
      alice_, "mine",
      {Browse(alice_, "mine", "/docs/notes.txt"), Browse(alice_, "mine", "/docs/report.tdoc"),
       Browse(alice_, "mine", "/docs/SHOUT.TDOC")});
  ASSERT_TRUE(plain.success()) << plain.body;
  EXPECT_TRUE(plain.json["data"].isArray()) << plain.body;
  EXPECT_EQ(plain.json["data"].size(), 0u);
  EXPECT_NE(plain.body.find("\"data\":[]"), std::string::npos) << plain.body;

  const Json::Value docs = Browse(alice_, "mine", "/docs");
  const auto folder = DryRun(alice_, "mine", {docs});
  ASSERT_TRUE(folder.success()) << folder.body;
  EXPECT_EQ(Paths(folder),
            (std::vector<std::string>{"/docs/secret.tdoc", "/docs/sub/deep.tsheet"}));
  const Json::Value secret = Browse(alice_, "mine", "/docs/secret.tdoc");
  for (const Json::Value& entry : folder.json["data"]) {
    if (entry["name"].asString() != "secret.tdoc") continue;
    EXPECT_EQ(entry["node_id"], secret["node_id"]);
    EXPECT_EQ(entry["permanent_id"], secret["permanent_id"]);
    EXPECT_TRUE(entry["sync_id"].isString());
    EXPECT_EQ(entry["user_name"].asString(), "home");
    EXPECT_FALSE(entry["is_share"].asBool());
    EXPECT_EQ(entry["extension"].asString(), "tdoc");
  }

  // Removed nodes count when asked for; the folder as it stood at the
  // first moment still held the removed document.
  const auto removed = DryRun(alice_, "mine", {docs}, {{"include_removed", true}});
  EXPECT_EQ(Paths(removed), (std::vector<std::string>{"/docs/gone.tdoc", "/docs/secret.tdoc",
                                                      "/docs/sub/deep.tsheet"}));
  const auto then = DryRun(alice_, "mine", {Browse(alice_, "mine", "/docs", kT0)});
  EXPECT_EQ(Paths(then), (std::vector<std::string>{"/docs/gone.tdoc", "/docs/secret.tdoc",
                                                   "/docs/sub/deep.tsheet"}));

  // The name a client sends picks the kind of item, never the answer.
  Json::Value renamed = secret;
  renamed["name"] = "other.tslides";
  const auto named = DryRun(alice_, "mine", {renamed});
  ASSERT_EQ(named.json["data"].size(), 1u) << named.body;
  EXPECT_EQ(named.json["data"][0]["name"].asString(), "secret.tdoc");
  renamed["name"] = "secret.txt";
  EXPECT_EQ(DryRun(alice_, "mine", {renamed}).json["data"].size(), 0u);

  const auto twice = DryRun(alice_, "mine", {secret, secret});
  ASSERT_TRUE(twice.success()) << twice.body;
  EXPECT_EQ(Paths(twice), (std::vector<std::string>{"/docs/secret.tdoc", "/docs/secret.tdoc"}));
}

// In a share, the caller must be able to read what is selected (403), and
// of a folder's documents those the caller may not read are not told.
TEST_F(DryRunTest, CallersLearnOnlyOfWhatTheyMayRead) {
  BuildHistory(kTeam,
               {{kT2,
                 {Entry("shelf/", "", 0755), Entry("shelf/open.tdoc", Doc("open\n", true), 0644),
                  Entry("shelf/private/", "", 0700),
                  Entry("shelf/private/locked.tdoc", Doc("locked\n", true), 0600)},
                 {}}});
  const std::string bob = LoginAs("bob");
  // Only an administrator browses a share's tree; users name its nodes.
  const std::string admin = LoginAs("admin");
  const auto shelf = DryRun(bob, "@team", {Browse(admin, "@team", "/shelf")});
  ASSERT_TRUE(shelf.success()) << shelf.body;
  EXPECT_EQ(Paths(shelf), (std::vector<std::string>{"/shelf/open.tdoc"}));

  const Json::Value locked = Browse(admin, "@team", "/shelf/private/locked.tdoc");
  const auto refused = DryRun(bob, "@team", {locked});
  EXPECT_FALSE(refused.success()) << refused.body;
  EXPECT_EQ(refused.code(), 403);

  const auto everything = DryRun(alice_, "@team", {Browse(admin, "@team", "/shelf")});
  EXPECT_EQ(Paths(everything),
            (std::vector<std::string>{"/shelf/open.tdoc", "/shelf/private/locked.tdoc"}));
  EXPECT_EQ(everything.json["data"][0]["user_name"].asString(), "team");
  EXPECT_TRUE(everything.json["data"][0]["is_share"].asBool());
}

// Each refusal in its order: a request wrong in several ways gets the
// first one that applies.
TEST_F(DryRunTest, RefusesInOrder) {
  const Json::Value notes = Browse(alice_, "mine", "/docs/notes.txt");
  Json::Value forged = notes;
  forged["node_id"] = "1x";
  Json::Value stranger = notes;
  stranger["node_id"] = "999999";
  const struct {
    const char* what;
    Params extra;
    std::string target;
    Json::Value node;
    int code;
  } rows[] = {
      {"another's view, unmounted share, forged id",
       {{"view_role", "bob"}},
       "@nosuch",
       forged,
       402},
      {"unmounted share, forged id", {}, "@nosuch", forged, 603},
      {"a share the service does not keep", {}, "@vault", forged, 501},
      {"forged id", {}, "mine", forged, 401},
      {"an id that names another node", {}, "mine", stranger, 403},
  };
  for (const auto& row : rows) {
    const auto answer = DryRun(alice_, row.target, {row.node}, row.extra);
    EXPECT_FALSE(answer.success()) << row.what << ": " << answer.body;
    EXPECT_EQ(answer.code(), row.code) << row.what << ": " << answer.body;
  }
}

// A share whose content is stored sealed is not a reason to ask for
// passwords: its documents need one only when they say so themselves.
TEST_F(DryRunTest, AnEncryptedShareNeedsNoPasswordsOfItsOwn) {
  const std::string vault = "/volume1/sealed";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"/usr/kstx/bin/kstx-admin", "share", "add", "sealed", "--volume",
                                 "/volume1", "--encrypted", "--passphrase", "slack water"},
        {"/usr/kstx/bin/kstx-admin", "share", "perm", "sealed", "alice", "rw"}}) {
    const auto run = tptest::RunProcess(args);
    ASSERT_EQ(run.exit_status, 0) << run.out << run.err;
  }
  MakeDir(vault, "alice", 0775);
  const auto enabled = tptest::RunProcess(
      {"/var/packages/Tidepool/target/bin/driftway-control", "share", "--enable", "sealed"});
  ASSERT_EQ(enabled.exit_status, 0) << enabled.out << enabled.err;
  BuildHistory(
      vault, {{kT2,
               {Entry("papers/", "", 0775), Entry("papers/plain.tdoc", Doc("plain\n", false), 0644),
                Entry("papers/notes.txt", "notes\n", 0644),
                Entry("papers/locked.tdoc", Doc("locked\n", true), 0644)},
               {}}});
  const std::string admin = LoginAs("admin");
  const auto answer = DryRun(admin, "@sealed", {Browse(admin, "@sealed", "/papers")});
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(Paths(answer), (std::vector<std::string>{"/papers/locked.tdoc"}));
}

}  // namespace
