// The administrator's share table: the order of each column in both
// directions and the pages around the row of all homes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "handlers/share/share-rows.h"

namespace {

// name, enabled, count, policy
ShareInfo Row(const std::string& name, bool enabled, int count = 0,
              const std::string& policy = "fifo") {
  ShareInfo row;
  row.share_name = name;
  row.share_enable = enabled;
  row.rotate_cnt = count;
  row.rotate_policy = policy;
  return row;
}

std::vector<std::string> Names(const std::vector<ShareInfo>& rows) {
  std::vector<std::string> out;
  for (const ShareInfo& r : rows) out.push_back(r.share_name);
  return out;
}

// Keys are chosen distinct wherever the order is defined, since equal keys
// have none.
std::vector<ShareInfo> Table() {
  return {Row("b", true, 8, "smart"), Row("Zed", false), Row("a", true, 32, "fifo"),
          Row("ab", false), Row("c", true, 0, "smart")};
}

struct SortCase {
  std::string sort_by;
  std::string direction;
  std::vector<std::string> expected;
};

TEST(ShareRowsTest, EachColumnSortsAsTheTableShowsIt) {
  const std::vector<SortCase> cases = {
      // Byte-wise: capitals before small letters, a prefix before its longer names.
      {"share_name", "ASC", {"Zed", "a", "ab", "b", "c"}},
      {"share_name", "asc", {"Zed", "a", "ab", "b", "c"}},
      {"share_name", "DESC", {"c", "b", "ab", "a", "Zed"}},
      // Any other word than ASC/asc is descending.
      {"share_name", "down", {"c", "b", "ab", "a", "Zed"}},
      // An unknown column sorts by name.
      {"size", "ASC", {"Zed", "a", "ab", "b", "c"}},
      // Enabled rows first in both directions, the count rising or falling.
      {"rotate_cnt", "ASC", {"c", "b", "a"}},
      {"rotate_cnt", "DESC", {"a", "b", "c"}},
      // Two rotating rows compare by policy; a row without a count goes
      // after the one with a count, in both directions.
      {"rotate_policy", "ASC", {"a", "b", "c"}},
      {"rotate_policy", "DESC", {"b", "a", "c"}},
  };
  for (const SortCase& c : cases) {
    std::vector<ShareInfo> rows = Table();
    SortShares(rows, c.sort_by, c.direction);
    std::vector<std::string> names = Names(rows);
    names.resize(c.expected.size());  // the disabled tail has no set order among equals
    EXPECT_EQ(names, c.expected) << c.sort_by << " " << c.direction;
    if (c.sort_by.rfind("rotate_", 0) == 0) {
      for (size_t i = 3; i < rows.size(); ++i) EXPECT_FALSE(rows[i].share_enable);
    }
  }
}

TEST(ShareRowsTest, StatusColumnSortsByTheEnableFlag) {
  std::vector<ShareInfo> rows = Table();
  rows[0].share_status = "zzz";  // the text never counts
  SortShares(rows, "share_status", "ASC");
  EXPECT_FALSE(rows[0].share_enable);
  EXPECT_FALSE(rows[1].share_enable);
  EXPECT_TRUE(rows[4].share_enable);
  SortShares(rows, "share_status", "DESC");
  EXPECT_TRUE(rows[0].share_enable);
  EXPECT_TRUE(rows[2].share_enable);
  EXPECT_FALSE(rows[3].share_enable);
}

struct PageCase {
  bool with_homes;
  int offset, limit;
  size_t rows;
  bool homes_first;
  size_t begin, end;
};

TEST(ShareRowsTest, HomesTakesOnePlaceOfTheFirstPage) {
  const std::vector<PageCase> cases = {
      // No parameters: only the row of all homes.
      {true, 0, 0, 10, true, 0, 0},
      {true, 0, 3, 10, true, 0, 2},
      {true, 3, 3, 10, false, 2, 5},
      // Offset 1 shows the same start as offset 0, by design.
      {true, 1, 3, 10, true, 0, 3},
      // The last page is short.
      {true, 8, 5, 10, false, 7, 10},
      {true, 20, 5, 10, false, 0, 0},
      // A search has no row of homes, and limit 0 shows nothing.
      {false, 0, 0, 10, false, 0, 0},
      {false, 0, 3, 10, false, 0, 3},
      {false, 9, 3, 10, false, 9, 10},
      // A negative offset shows nothing rather than rows before the first.
      {false, -2, 3, 10, false, 0, 0},
  };
  for (const PageCase& c : cases) {
    const SharePage page = PlanSharePage(c.with_homes, c.offset, c.limit, c.rows);
    EXPECT_EQ(page.homes_first, c.homes_first) << c.offset << "/" << c.limit;
    EXPECT_EQ(page.end - page.begin, c.end - c.begin) << c.offset << "/" << c.limit;
    if (c.end > c.begin) {
      EXPECT_EQ(page.begin, c.begin) << c.offset << "/" << c.limit;
    }
  }
}

TEST(ShareRowsTest, RotationShowsOnlyForEnabledRows) {
  Json::Value on = ShareRow(Row("a", true, 8, "smart"));
  EXPECT_EQ(on["rotate_cnt"].asInt(), 8);
  EXPECT_EQ(on["rotate_policy"].asString(), "smart");
  Json::Value zero = ShareRow(Row("a", true, 0, "smart"));
  EXPECT_TRUE(zero["rotate_cnt"].isInt());
  EXPECT_EQ(zero["rotate_policy"].asString(), "--");
  Json::Value off = ShareRow(Row("a", false, 8, "smart"));
  EXPECT_EQ(off["rotate_cnt"].asString(), "--");
  EXPECT_EQ(off["rotate_policy"].asString(), "--");
  EXPECT_EQ(off["rotate_days"].asInt(), 0);
  EXPECT_FALSE(off["share_enable"].asBool());
}

}  // namespace
