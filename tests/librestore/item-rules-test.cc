// The rules every restored node goes through before any byte is written:
// the name it gets at the destination, whether its path is acceptable, and
// whether the destination lies inside a synced folder.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "util/librestore/restore-item.h"

namespace {

using tidepool::restore::Item;
using tidepool::restore::NameCount;

TEST(RestoreNames, IndexGoesBeforeTheLastExtension) {
  struct Case {
    const char* name;
    int index;
    const char* expected;
  };
  const Case cases[] = {
      {"report.txt", 2, "report (2).txt"}, {".profile", 2, ".profile (2)"},
      {"trailing.", 3, "trailing. (3)"},   {"report.tar.gz", 2, "report.tar (2).gz"},
      {"README", 4, "README (4)"},         {"", 2, " (2)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Item::AppendNameIndex(c.name, c.index), c.expected) << c.name;
  }
}

TEST(RestoreNames, CollisionsIgnoreCaseAndKeepEachOwnCase) {
  NameCount seen;
  std::vector<std::string> got;
  for (const char* name : {"x", "X", "x", "a.txt", "A.TXT", "b"}) {
    got.push_back(Item::CalcAppendedName(name, seen));
  }
  EXPECT_EQ(got, (std::vector<std::string>{"x", "X (2)", "x (3)", "a.txt", "A (2).TXT", "b"}));
}

TEST(RestorePaths, UnsafeComponentsAreRefused) {
  for (const char* path : {"/a/../b", "/a/b\\c", "..", "/a/./b", "/volume1/x/..", "a\\"}) {
    EXPECT_FALSE(Item::IsPathSafe(path)) << path;
  }
  for (const char* path : {"//a///b", "", "/", "/a/..b/c", "/a/b.", "/volume1/x/...",
                           "/volume1/homes/alice/Tidepool/report (2).txt"}) {
    EXPECT_TRUE(Item::IsPathSafe(path)) << path;
  }
}

TEST(RestorePaths, TokensSkipRepeatedSlashes) {
  std::string token;
  int pos = Item::FindToken("//volume1///team/a", 0, token);
  EXPECT_EQ(token, "volume1");
  pos = Item::FindToken("//volume1///team/a", pos, token);
  EXPECT_EQ(token, "team");
  pos = Item::FindToken("//volume1///team/a", pos, token);
  EXPECT_EQ(token, "a");
  EXPECT_EQ(Item::FindToken("//volume1///team/a", pos, token), 18);
  EXPECT_EQ(token, "");
}

TEST(RestoreExtensions, OfficeDocumentsAreKnownByExactExtension) {
  EXPECT_EQ(Item::GetExtension("report.tdoc"), "tdoc");
  EXPECT_EQ(Item::GetExtension(".tdoc"), "");
  EXPECT_EQ(Item::GetExtension("noext"), "");
  EXPECT_TRUE(Item::IsOfficeItemByExtension(Item::GetExtension("report.tdoc")));
  EXPECT_FALSE(Item::IsOfficeItemByExtension(Item::GetExtension("REPORT.TDOC")));
  EXPECT_EQ(Item::TransformExtension("plan.tsheet"), "plan.xlsx");
  EXPECT_EQ(Item::TransformExtension("deck.v2.tslides"), "deck.v2.pptx");
  EXPECT_EQ(Item::TransformExtension("notes.txt"), "notes.txt");
}

TEST(RestoreDestinations, SyncedFoldersByRootPrefix) {
  UserInfo team;
  team.root_path = "/volume1/team";
  UserInfo empty;
  const std::list<UserInfo> users = {empty, team};
  EXPECT_EQ(Item::IsDestUnderTidepoolByUIList("/volume1/team/a", users), 0);
  // A plain prefix: a sibling share whose name extends the root counts too.
  EXPECT_EQ(Item::IsDestUnderTidepoolByUIList("/volume1/teamwork", users), 0);
  EXPECT_EQ(Item::IsDestUnderTidepoolByUIList("/volume1/tea", users), -1);
  EXPECT_EQ(Item::IsDestUnderTidepoolByUIList("/volume2/team", users), -1);
  EXPECT_EQ(Item::IsDestUnderTidepoolByUIList("/volume1/team", {}), -1);
  // A home's Tidepool folder is known by its path alone.
  EXPECT_EQ(Item::IsDestUnderTidepool("/volume1/homes/alice/Tidepool/x"), 0);
  // No directory service keeps homes here: the rest of a home is outside.
  EXPECT_EQ(Item::IsDestUnderTidepool("/volume1/homes/alice/Documents/x"), -1);
}

}  // namespace
