// Reading a log search page by page, as the export does: the pages joined
// are the whole search in its order, records sharing a second included, and
// records written between pages neither repeat nor shift a page.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "db/log-manager.h"
#include "sandbox.h"

namespace {

constexpr const char* kDir = "/volume1/@tidepool";

void Put(uint32_t time, const std::string& path, uint64_t view_id = 1) {
  db::Log log;
  log.setType(13);
  log.setTime(time);
  log.setViewId(view_id);
  log.pushArg(path, true);
  ASSERT_EQ(db::LogManager::InsertLog(log), 0);
}

std::vector<std::string> Paths(const std::vector<db::Log>& logs) {
  std::vector<std::string> out;
  for (const auto& log : logs) out.push_back(log.getSArg().at(0));
  return out;
}

// Every page of `size` until an empty one; `between` runs after each page.
std::vector<std::string> ReadPaged(const db::LogFilter& filter, int size,
                                   const std::function<void()>& between = {}) {
  db::LogManager::LogCursor cursor;
  std::vector<std::string> all;
  std::vector<db::Log> page;
  for (int pages = 0; pages < 1000; ++pages) {
    EXPECT_GE(db::LogManager::SearchLogPage(filter, cursor, size, page), 0);
    EXPECT_LE(page.size(), static_cast<size_t>(size));
    if (page.empty()) break;
    for (const auto& p : Paths(page)) all.push_back(p);
    if (between) between();
  }
  return all;
}

class LogPageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    std::filesystem::create_directories(kDir);
    ASSERT_EQ(db::LogManager::Initialize(kDir, kDir, "sqlite", false), 0);
    ASSERT_GE(db::LogManager::DeleteLog(), 0);
  }
  void TearDown() override { db::LogManager::Destroy(); }
};

TEST_F(LogPageTest, PagesJoinedAreTheWholeSearchInItsOrder) {
  // Ten records over four seconds, three to a second, two views.
  for (int i = 0; i < 10; ++i) Put(1000 + i / 3, "/f" + std::to_string(i), 1 + i % 2);
  for (bool oldest_first : {false, true}) {
    for (uint64_t view : {0, 2}) {
      db::LogFilter filter;
      filter.is_admin = true;
      filter.oldest_first = oldest_first;
      filter.view_id = view;
      std::vector<db::Log> whole;
      ASSERT_GE(db::LogManager::SearchLog(filter, whole), 0);
      ASSERT_FALSE(whole.empty());
      for (int size : {1, 2, 3, 4, 10, 50}) {
        EXPECT_EQ(ReadPaged(filter, size), Paths(whole))
            << "size " << size << " oldest_first " << oldest_first << " view " << view;
      }
    }
  }
  db::LogManager::LogCursor cursor;
  std::vector<db::Log> page;
  EXPECT_LT(db::LogManager::SearchLogPage(db::LogFilter(), cursor, 0, page), 0);
}

TEST_F(LogPageTest, RecordsWrittenMeanwhileDoNotShiftThePages) {
  for (int i = 0; i < 6; ++i) Put(1000 + i, "/f" + std::to_string(i));
  db::LogFilter filter;
  filter.is_admin = true;
  int written = 0;
  // A newer record after every page, as the service logs while an export runs.
  const auto paged = ReadPaged(filter, 2, [&] { Put(2000 + written++, "/new"); });
  EXPECT_EQ(paged, (std::vector<std::string>{"/f5", "/f4", "/f3", "/f2", "/f1", "/f0"}));
}

}  // namespace
