// What each caller sees of each kind of log record: node ids blanked where
// they would lead into a view the caller may not open, folder links and
// link prefixes. One row per record and caller.
#include <gtest/gtest.h>
#include <json/writer.h>

#include <string>
#include <vector>

#include "db/log-types.h"
#include "db/log.h"
#include "handlers/log/list.h"

namespace {

// alice's home is view 1, bob's view 2, the share "team" view 3 and the
// administrator's home view 9.
constexpr uint64_t kAliceView = 1, kBobView = 2, kTeamView = 3, kAdminView = 9;

log_list::Viewer Admin() { return {true, kAdminView, true, true}; }
log_list::Viewer Alice() { return {false, kAliceView, true, true}; }
log_list::Viewer Bob() { return {false, kBobView, true, true}; }

// A record of a node in alice's home (or the share), file type "0" a file.
db::Log Node(uint32_t type, const std::string& file_type, bool in_share = false) {
  db::Log log;
  log.setType(type);
  log.setTime(1700000000);
  log.setUserName("alice");
  log.setViewId(in_share ? kTeamView : kAliceView);
  log.setShareName(in_share ? "team" : "alice");
  log.setShareType(in_share ? db::kShareTypeShare : db::kShareTypeLocalHome);
  log.pushArg(77ULL, false);
  log.pushArg(file_type, false);
  log.pushArg("/docs/a.txt", true);
  log.pushArg("laptop", true);
  return log;
}

// A move, copy or restore as a copy from `from` to `to` (paths in alice's
// home unless `target_view` names another view).
db::Log Between(uint32_t type, const std::string& file_type, const std::string& to,
                const std::string& from, uint64_t target_view = 0) {
  db::Log log;
  log.setType(type);
  log.setUserName("alice");
  log.setViewId(kAliceView);
  log.setShareName("alice");
  log.setShareType(db::kShareTypeLocalHome);
  if (target_view == kTeamView) log.setTarget(kTeamView, "team", db::kShareTypeShare);
  if (target_view == kAliceView) log.setTarget(kAliceView, "alice", db::kShareTypeLocalHome);
  log.pushArg(77ULL, false);
  log.pushArg(file_type, false);
  log.pushArg(66ULL, false);
  log.pushArg(to, true);
  log.pushArg(from, true);
  log.pushArg("laptop", true);
  return log;
}

db::Log Plain(uint32_t type) {
  db::Log log;
  log.setType(type);
  log.pushArg("1", false);
  log.pushArg("x", true);
  return log;
}

struct Row {
  const char* name;
  db::Log log;
  log_list::Viewer viewer;
  // Keys with their expected values (compared as JSON), and keys that must
  // be absent.
  std::vector<std::pair<std::string, Json::Value>> want;
  std::vector<std::string> absent;
};

std::string Text(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

TEST(LogRecordsTest, EachCallerSeesWhatTheRulesAllow) {
  const Json::Value E("");  // blanked
  const Json::Value Id("77"), Src("66");
  const std::vector<std::string> kLinkKeys = {"shelfview_link_prefix", "target_link_prefix",
                                              "accessable", "target_accessable"};
  std::vector<Row> rows = {
      // Records without nodes pass unchanged and carry no link keys.
      {"service start, admin",
       Plain(db::kLogServiceStartStop),
       Admin(),
       {{"p1", "1"}, {"s1", "x"}, {"target", "user"}},
       kLinkKeys},
      {"filter purge, owner", Plain(db::kLogFilterPurge), Alice(), {{"p1", "1"}}, kLinkKeys},

      // A file in alice's home: its id only for alice.
      {"add, owner",
       Node(db::kLogNodeAdd, "0"),
       Alice(),
       {{"p1", Id}, {"accessable", true}, {"shelfview_link_prefix", "/home/Tidepool"}},
       {"s4", "p4"}},
      {"add, admin",
       Node(db::kLogNodeAdd, "0"),
       Admin(),
       {{"p1", E}, {"accessable", false}, {"shelfview_link_prefix", "/homes/alice/Tidepool"}},
       {}},
      {"add, other", Node(db::kLogNodeAdd, "0"), Bob(), {{"p1", E}, {"accessable", false}}, {}},
      {"restore, owner", Node(db::kLogRestore, "0"), Alice(), {{"p1", Id}}, {}},
      {"restore, other", Node(db::kLogRestore, "0"), Bob(), {{"p1", E}}, {}},
      {"recycle restore, admin", Node(db::kLogRecycleRestore, "0"), Admin(), {{"p1", E}}, {}},
      // A folder's id is never passed on, not even to its owner.
      {"add folder, owner", Node(db::kLogNodeAdd, "1"), Alice(), {{"p1", E}}, {}},
      // Path purges never show an id.
      {"path purge, owner",
       Node(db::kLogPathPurge, "0"),
       Alice(),
       {{"p1", E}, {"accessable", true}},
       {}},

      // In a share: administrators get ids, users only the link.
      {"share add, admin",
       Node(db::kLogNodeAdd, "0", true),
       Admin(),
       {{"p1", Id}, {"accessable", true}, {"target", "@team"}, {"shelfview_link_prefix", "/team"}},
       {}},
      {"share add, user",
       Node(db::kLogNodeAdd, "0", true),
       Alice(),
       {{"p1", E}, {"accessable", true}, {"shelfview_link_prefix", "/team"}},
       {}},

      // Moves: inside one folder no folder links; across folders both.
      {"rename in a folder, owner",
       Between(db::kLogNodeMove, "0", "/d/b.txt", "/d/a.txt"),
       Alice(),
       {{"p1", Id}, {"p3", Src}},
       {"s4", "s5", "p4", "p5"}},
      {"move across folders, owner",
       Between(db::kLogNodeMove, "0", "/e/a.txt", "/d/a.txt"),
       Alice(),
       {{"s4", "/e"}, {"s5", "/d"}, {"p4", true}, {"p5", true}, {"p1", Id}, {"p3", Src}},
       {}},
      {"move to the top, other",
       Between(db::kLogNodeMove, "0", "/a.txt", "/d/a.txt"),
       Bob(),
       {{"s4", "/"}, {"s5", "/d"}, {"p4", false}, {"p5", false}, {"p1", E}, {"p3", E}},
       {}},
      {"move of a folder, owner",
       Between(db::kLogNodeMove, "1", "/e/f", "/d/f"),
       Alice(),
       {{"p1", E}, {"p3", E}},
       {}},
      {"move into a share, owner",
       Between(db::kLogNodeMove, "0", "/a.txt", "/a.txt", kTeamView),
       Alice(),
       {{"s4", "/"}, {"p1", E}, {"p3", Src}, {"target_link_prefix", "/team"}},
       {}},
      {"move into a share, admin",
       Between(db::kLogNodeMove, "0", "/a.txt", "/a.txt", kTeamView),
       Admin(),
       {{"p1", Id}, {"p3", E}, {"accessable", false}, {"target_accessable", true}},
       {}},

      // Copies and restores as a copy always show folders; p4 follows the
      // other view.
      {"copy in the home, owner",
       Between(db::kLogNodeCopy, "0", "/d/b.txt", "/d/a.txt"),
       Alice(),
       {{"s4", "/d"}, {"s5", "/d"}, {"p4", false}, {"p5", true}, {"p1", E}, {"p3", Src}},
       {}},
      {"restore as a copy to a share, admin",
       Between(db::kLogRestoreCopy, "0", "/x/a.txt", "/a.txt", kTeamView),
       Admin(),
       {{"s4", "/x"}, {"s5", "/"}, {"p4", true}, {"p5", false}, {"p1", Id}, {"p3", E}},
       {}},
      {"restore as a copy of a folder, admin",
       Between(db::kLogRestoreCopy, "1", "/x/f", "/f", kTeamView),
       Admin(),
       {{"p1", E}, {"p3", E}},
       {}},
  };
  for (const Row& row : rows) {
    const Json::Value got = log_list::BuildRecord(row.log, row.viewer);
    for (const auto& [key, value] : row.want) {
      EXPECT_EQ(Text(got[key]), Text(value)) << row.name << ": " << key << " in " << Text(got);
    }
    for (const std::string& key : row.absent) {
      EXPECT_FALSE(got.isMember(key)) << row.name << ": " << key << " in " << Text(got);
    }
  }
}

TEST(LogRecordsTest, HomesOfDirectoryUsersGetNoLinkWhenTheirServiceIsOff) {
  db::Log log = Node(db::kLogNodeAdd, "0");
  log.setShareType(db::kShareTypeLdapHome);
  log_list::Viewer viewer = Alice();
  viewer.ldap_homes = false;
  EXPECT_EQ(log_list::BuildRecord(log, viewer)["shelfview_link_prefix"].asString(), "");
  viewer.ldap_homes = true;
  EXPECT_EQ(log_list::BuildRecord(log, viewer)["shelfview_link_prefix"].asString(),
            "/home/Tidepool");
  log.setShareType(db::kShareTypeDomainHome);
  viewer.domain_homes = false;
  EXPECT_EQ(log_list::BuildRecord(log, viewer)["shelfview_link_prefix"].asString(), "");
  // An unknown directory user gives an empty prefix rather than a wrong one.
  EXPECT_EQ(log_list::LinkPrefix(true, db::kShareTypeLdapHome, "nobody-here"), "");
}

}  // namespace
