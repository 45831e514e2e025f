// Builds, in the home view of USER, one folder "/big" of 100,000 children
// (files and folders, names with digits and accents) and a file
// "/history.txt" with 32 versions, then prints the references the HTTP
// figures are compared with:
//
//   big_node_id=ID
//   floor_order_by_ms=T     SQLite's ORDER BY name for the page, in process
//   db_name_page_ms=T       the view library's name page, in process
//   naive_ms=T              literal collator per comparison over all rows,
//                           extrapolated from a sample of comparisons
//
// usage: bench_list_view USER
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "db/manager.h"
#include "natural-sort.h"
#include "user-manager.h"

namespace {

constexpr const char* kConnect = "/volume1/@tidepool";
constexpr int kChildren = 100000;
constexpr int kOffset = 50000;
constexpr int kLimit = 100;

using Clock = std::chrono::steady_clock;

double Millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

template <typename F>
double BestOf(int runs, F f) {
  double best = 1e30;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    f();
    best = std::min(best, Millis(Clock::now() - start));
  }
  return best;
}

std::string ChildName(int i, std::mt19937& random) {
  static const char* kWords[] = {"Rapport", "été", "photo", "Élan", "naïve", "zèbre",
                                 "Budget",  "IMG", "ça",    "data", "Über",  "file"};
  std::string name = kWords[random() % std::size(kWords)];
  name += random() % 2 ? " " : "_";
  name += std::to_string(random() % 100000);
  name += "-" + std::to_string(i);  // unique
  if (i % 10 != 0) name += random() % 2 ? ".txt" : ".jpg";
  return name;
}

int Build(uint64_t view_id, uint64_t& big) {
  if (db::Manager::CreateView(view_id) < 0) return -1;
  std::unique_ptr<db::ViewWriter> writer;
  if (db::Manager::GetViewWriter(view_id, writer) < 0) return -1;
  db::Node node;
  db::NewVersion folder;
  folder.path = "/big";
  folder.file_type = db::kFileTypeDir;
  folder.ctime = folder.mtime = 1000;
  if (writer->AddVersion(folder, node) < 0) return -1;
  big = node.getNodeId();
  std::mt19937 random(7);
  if (writer->Begin() < 0) return -1;
  for (int i = 0; i < kChildren; ++i) {
    db::NewVersion child;
    child.path = "/big/" + ChildName(i, random);
    child.file_type = i % 10 == 0 ? db::kFileTypeDir : db::kFileTypeFile;
    child.size = random() % 1000000;
    child.ctime = 2000 + i;
    child.mtime = 1000000 + random() % 1000000;
    if (writer->AddVersion(child, node) < 0) return -1;
  }
  for (uint32_t v = 0; v < 32; ++v) {
    db::NewVersion history;
    history.path = "/history.txt";
    history.size = 100 + v;
    history.hash = "h" + std::to_string(v);
    history.ctime = history.mtime = 300000 + v;
    history.client_id = "bench";
    if (writer->AddVersion(history, node) < 0) return -1;
  }
  return writer->Commit();
}

std::string ViewFile(uint64_t view_id) {
  return std::string(kConnect) + "/views/" + std::to_string(view_id) + ".sqlite";
}

// One transaction of 100,000 rows leaves a write-ahead log of that size, which
// every later first reader would replay; the service's steady state is a
// checkpointed log, so start from there.
int Checkpoint(uint64_t view_id) {
  sqlite3* handle = nullptr;
  int rc = sqlite3_open(ViewFile(view_id).c_str(), &handle);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(handle, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
  sqlite3_close(handle);
  return rc == SQLITE_OK ? 0 : -1;
}

double FloorOrderBy(uint64_t view_id, uint64_t big) {
  const std::string file = ViewFile(view_id);
  sqlite3* handle = nullptr;
  if (sqlite3_open_v2(file.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return -1;
  const std::string sql =
      "SELECT node_id, parent_id, name, path, permanent_link, file_type, size, mtime, "
      "sync_id, ver_cnt, removed FROM nodes WHERE parent_id = " +
      std::to_string(big) + " ORDER BY name LIMIT " + std::to_string(kLimit) + " OFFSET " +
      std::to_string(kOffset);
  const double ms = BestOf(5, [&] {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement, nullptr);
    while (sqlite3_step(statement) == SQLITE_ROW) {
    }
    sqlite3_finalize(statement);
  });
  sqlite3_close(handle);
  return ms;
}

// The literal algorithm's cost: every row read, then a partial sort up to
// offset + limit with a fresh collator per comparison. The comparisons are
// counted with the fast comparator (the same order), and priced at the
// literal comparator's cost measured on a sample.
double NaiveEstimate(const std::vector<db::Node>& rows, double& per_comparison_us,
                     unsigned long long& comparisons) {
  comparisons = 0;
  std::vector<const db::Node*> order;
  for (const db::Node& row : rows) order.push_back(&row);
  std::partial_sort(order.begin(), order.begin() + kOffset + kLimit, order.end(),
                    [&](const db::Node* a, const db::Node* b) {
                      ++comparisons;
                      if (a->isDir() != b->isDir()) return a->isDir();
                      return natsort::Less(a->getName(), b->getName());
                    });
  const int kSample = 3000;
  volatile bool sink = false;
  const auto start = Clock::now();
  for (int i = 0; i < kSample; ++i) {
    sink = sink ^ natsort::LiteralLess(rows[(i * 7919) % rows.size()].getName(),
                                       rows[(i * 104729 + 1) % rows.size()].getName());
  }
  per_comparison_us = Millis(Clock::now() - start) * 1000.0 / kSample;
  return per_comparison_us * static_cast<double>(comparisons) / 1000.0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s USER\n", argv[0]);
    return 2;
  }
  UserInfo info;
  if (UserManager::Initialize(kConnect, "sqlite") < 0 ||
      UserManager::GetUser(argv[1], info, UserManager::kQueryStored) <= 0 || info.view_id == 0) {
    std::fprintf(stderr, "no home view for %s\n", argv[1]);
    return 1;
  }
  if (db::Manager::Initialize(kConnect, kConnect, "sqlite") < 0) return 1;
  uint64_t big = 0;
  const auto start = Clock::now();
  if (Build(info.view_id, big) < 0 || Checkpoint(info.view_id) < 0) {
    std::fprintf(stderr, "cannot build the view\n");
    return 1;
  }
  std::printf("built_ms=%.0f\nbig_node_id=%llu\n", Millis(Clock::now() - start),
              static_cast<unsigned long long>(big));

  db::ViewDBInterface view;
  if (db::Manager::GetViewDB(info.view_id, view) < 0) return 1;
  db::SearchNodeFilter filter;
  filter.node_id = big;
  filter.sort_by = "name";
  filter.sort_direction = 1;
  filter.removed_mode = 3;
  filter.list_mode = 1;
  filter.for_listing = true;
  filter.offset = kOffset;
  filter.limit = kLimit;
  std::vector<db::Node> page;
  std::printf("db_name_page_ms=%.2f\n", BestOf(5, [&] {
                page.clear();
                view->SearchNode(filter, page);
              }));
  std::printf("floor_order_by_ms=%.2f\n", FloorOrderBy(info.view_id, big));

  filter.offset = filter.limit = 0;
  std::vector<db::Node> rows;
  double read_all_ms = BestOf(1, [&] { view->SearchNode(filter, rows); });
  if (rows.size() < static_cast<size_t>(kOffset + kLimit)) return 1;
  double per_comparison_us = 0;
  unsigned long long comparisons = 0;
  const double naive = NaiveEstimate(rows, per_comparison_us, comparisons);
  std::printf("naive_read_all_ms=%.1f\nnaive_comparisons=%llu\nnaive_us_per_comparison=%.2f\n",
              read_all_ms, comparisons, per_comparison_us);
  std::printf("naive_ms=%.0f\n", read_all_ms + naive);
  return 0;
}
