// The rows of the administrator's share table: their order and the page of
// them an answer shows. Pure functions, shared by Share.list and its tests.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

struct ShareInfo {
  std::string share_name;
  std::string share_status;  // "normal", "decrypt", "encrypt", "not_available", "home_disabled"
  bool share_enable = false;
  // A view's own defaults, kept when the rotation table has no row.
  int rotate_cnt = 32;
  std::string rotate_policy = "fifo";
  int rotate_days = 0;
};

// "ASC" or "asc" is ascending, any other text descending; an unknown
// `sort_by` sorts as "share_name". Rows with equal keys keep no set order.
void SortShares(std::vector<ShareInfo>& rows, const std::string& sort_by,
                const std::string& sort_direction);

// The page of a listing. Without a search the row "homes" takes the first
// place of the first page, so offset and limit shift by one.
struct SharePage {
  bool homes_first = false;  // the row "homes" opens `items`
  size_t begin = 0;          // rows [begin, end) follow it
  size_t end = 0;
};
SharePage PlanSharePage(bool with_homes, int offset, int limit, size_t rows);

// A row as the answer shows it: the rotation only for an enabled row.
Json::Value ShareRow(const ShareInfo& row);
