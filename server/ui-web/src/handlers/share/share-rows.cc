#include "share-rows.h"

#include <algorithm>

namespace {

constexpr const char* kNone = "--";

bool NameLess(const ShareInfo& a, const ShareInfo& b) { return a.share_name < b.share_name; }

// Enabled rows stand first in both directions; among equals the count
// rises or falls.
bool CountOrder(const ShareInfo& a, const ShareInfo& b, bool ascending) {
  if (a.share_enable != b.share_enable) return a.share_enable;
  return ascending ? a.rotate_cnt < b.rotate_cnt : a.rotate_cnt > b.rotate_cnt;
}

// Enabled first; two rows that both rotate compare by policy, otherwise the
// row with the greater count stands first, whatever the direction.
bool PolicyOrder(const ShareInfo& a, const ShareInfo& b, bool ascending) {
  if (a.share_enable != b.share_enable) return a.share_enable;
  if (a.rotate_cnt != 0 && b.rotate_cnt != 0)
    return ascending ? a.rotate_policy < b.rotate_policy : a.rotate_policy > b.rotate_policy;
  return a.rotate_cnt > b.rotate_cnt;
}

}  // namespace

void SortShares(std::vector<ShareInfo>& rows, const std::string& sort_by,
                const std::string& sort_direction) {
  const bool ascending = sort_direction == "ASC" || sort_direction == "asc";
  if (sort_by == "share_status") {
    // By the enable flag, never by the status text.
    std::sort(rows.begin(), rows.end(), [ascending](const ShareInfo& a, const ShareInfo& b) {
      return ascending ? !a.share_enable && b.share_enable : a.share_enable && !b.share_enable;
    });
  } else if (sort_by == "rotate_cnt") {
    std::sort(rows.begin(), rows.end(), [ascending](const ShareInfo& a, const ShareInfo& b) {
      return CountOrder(a, b, ascending);
    });
  } else if (sort_by == "rotate_policy") {
    std::sort(rows.begin(), rows.end(), [ascending](const ShareInfo& a, const ShareInfo& b) {
      return PolicyOrder(a, b, ascending);
    });
  } else if (ascending) {
    std::sort(rows.begin(), rows.end(), NameLess);
  } else {
    std::sort(rows.begin(), rows.end(),
              [](const ShareInfo& a, const ShareInfo& b) { return NameLess(b, a); });
  }
}

SharePage PlanSharePage(bool with_homes, int offset, int limit, size_t rows) {
  if (with_homes) {
    if (offset == 0)
      --limit;
    else
      --offset;
  }
  SharePage page;
  page.homes_first = with_homes && offset == 0;
  // A negative place shows nothing rather than reaching before the rows.
  if (offset < 0 || limit <= 0 || static_cast<size_t>(offset) >= rows) return page;
  page.begin = static_cast<size_t>(offset);
  page.end = std::min(rows, page.begin + static_cast<size_t>(limit));
  return page;
}

Json::Value ShareRow(const ShareInfo& row) {
  Json::Value item(Json::objectValue);
  item["share_name"] = row.share_name;
  item["share_status"] = row.share_status;
  item["share_enable"] = row.share_enable;
  if (row.share_enable) {
    item["rotate_cnt"] = row.rotate_cnt;
    item["rotate_policy"] = row.rotate_cnt == 0 ? kNone : row.rotate_policy;
    item["rotate_days"] = row.rotate_days;
  } else {
    item["rotate_cnt"] = kNone;
    item["rotate_policy"] = kNone;
    item["rotate_days"] = 0;
  }
  return item;
}
