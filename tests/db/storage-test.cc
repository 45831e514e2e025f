// The files behind the databases: missing, damaged or newer files give
// errors, never crashes; the volume table, the usage record and file sizes.
#include <SQLiteCpp/Database.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "db/log-manager.h"
#include "fixture.h"

namespace {

namespace fs = std::filesystem;

const std::string kViews = std::string(dbtest::kConnect) + "/views/";

void WriteGarbage(const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  for (int i = 0; i < 4096; ++i) out.put(static_cast<char>((i * 7919) & 0xff));
}

TEST(Storage, MissingDamagedAndNewerViews) {
  dbtest::OpenDatabases();
  db::ViewDBInterface view;
  std::unique_ptr<db::ViewWriter> writer;
  EXPECT_EQ(db::Manager::GetViewDB(777, view), db::kErrCannotOpen);
  EXPECT_FALSE(view);
  EXPECT_EQ(db::Manager::GetViewWriter(777, writer), db::kErrCannotOpen);
  EXPECT_EQ(db::Manager::GetViewDB(0, view), db::kErrCannotOpen);
  EXPECT_FALSE(fs::exists(kViews + "777.sqlite"));  // looking does not create

  fs::create_directories(kViews);
  WriteGarbage(kViews + "778.sqlite");
  EXPECT_EQ(db::Manager::GetViewDB(778, view), db::kErrCorrupt);
  EXPECT_EQ(db::Manager::GetViewWriter(778, writer), db::kErrCorrupt);

  // A database that is not a view of ours.
  {
    SQLite::Database other(kViews + "779.sqlite", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    other.exec("CREATE TABLE something(x)");
  }
  EXPECT_EQ(db::Manager::GetViewDB(779, view), db::kErrCorrupt);

  // Written by a newer service.
  ASSERT_EQ(db::Manager::CreateView(780), 0);
  {
    SQLite::Database newer(kViews + "780.sqlite", SQLite::OPEN_READWRITE);
    newer.exec("UPDATE meta SET value = '99' WHERE key = 'schema_version'");
  }
  EXPECT_EQ(db::Manager::GetViewDB(780, view), db::kErrNewerSchema);
  EXPECT_STRNE(db::GetErrMsg(db::kErrNewerSchema), db::GetErrMsg(db::kErrCorrupt));

  // Damaged rows: a node with an impossible type is refused when read.
  dbtest::Tree t({{100, dbtest::Add, "/x.txt", 1}}, 781);
  {
    SQLite::Database raw(kViews + "781.sqlite", SQLite::OPEN_READWRITE);
    raw.exec("UPDATE nodes SET file_type = 9 WHERE name = 'x.txt'");
  }
  db::Node node;
  EXPECT_EQ(t.View().QueryNode("/x.txt", node, 0), db::kErrCorrupt);
  std::vector<db::Node> nodes;
  EXPECT_EQ(t.View().SearchNode(db::SearchNodeFilter(), nodes), db::kErrCorrupt);
}

TEST(Storage, CollationChangeRekeysOnWrite) {
  dbtest::Tree t({{100, dbtest::Add, "/b.txt", 1}, {100, dbtest::Add, "/a.txt", 1}}, 782);
  {
    SQLite::Database raw(kViews + "782.sqlite", SQLite::OPEN_READWRITE);
    raw.exec("UPDATE nodes SET sort_key = x'00' WHERE name = 'b.txt'");
    raw.exec("UPDATE meta SET value = 'old' WHERE key = 'collation_version'");
  }
  std::unique_ptr<db::ViewWriter> writer;
  ASSERT_EQ(db::Manager::GetViewWriter(782, writer), 0);
  db::SearchNodeFilter f;
  f.sort_by = "name";
  f.sort_direction = 1;
  std::vector<db::Node> nodes;
  ASSERT_EQ(writer->Reader().SearchNode(f, nodes), 0);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].getName(), "a.txt");
}

// Views written while `encrypted` meant "stored sealed" lose that mark
// when the service opens them: it now marks protected office documents.
TEST(Storage, OldEncryptedMarksAreDropped) {
  dbtest::Tree t({{100, dbtest::Add, "/sealed.tdoc", 1}}, 783);
  {
    SQLite::Database raw(kViews + "783.sqlite", SQLite::OPEN_READWRITE);
    raw.exec("UPDATE versions SET encrypted = 1");
    raw.exec("UPDATE nodes SET encrypted = 1");
    raw.exec("UPDATE meta SET value = '2' WHERE key = 'schema_version'");
  }
  std::unique_ptr<db::ViewWriter> writer;
  ASSERT_EQ(db::Manager::GetViewWriter(783, writer), 0);
  db::Node node;
  ASSERT_EQ(writer->Reader().QueryNode("/sealed.tdoc", node, 0), 0);
  EXPECT_FALSE(node.isEncrypted());
  db::SearchNodeFilter f;
  f.encrypted_only = true;
  std::vector<db::Node> nodes;
  ASSERT_EQ(writer->Reader().SearchNode(f, nodes), 0);
  EXPECT_TRUE(nodes.empty());
}

TEST(Storage, DamagedLogFile) {
  const std::string dir = "/tmp/damaged-log";
  fs::create_directories(dir);
  WriteGarbage(dir + "/log-db.sqlite");
  EXPECT_EQ(db::LogManager::Initialize(dir, dir, "sqlite", false), db::kErrCorrupt);
  EXPECT_FALSE(db::LogManager::IsInitialized());
  db::Log log;
  EXPECT_LT(db::LogManager::InsertLog(log), 0);
  EXPECT_LT(db::LogManager::Initialize(dir, dir, "postgresql", false), 0);
}

TEST(Storage, VolumesUsageAndSizes) {
  dbtest::OpenDatabases();
  ASSERT_EQ(db::Manager::RegisterVolume("/volume1", "uuid-1", "/volume1/@tidepool/@sync"), 0);
  ASSERT_EQ(db::Manager::RegisterVolume("/volume2", "uuid-2", "/volume2/@tidepool/@sync"), 0);
  ASSERT_EQ(db::Manager::RegisterVolume("/volume2", "uuid-3", "/volume2/@tidepool/@sync"), 0);
  EXPECT_EQ(db::Manager::RegisterVolume("/volume3", "uuid-4", "relative"), db::kErrInvalid);
  std::map<std::string, std::string> volumes;
  ASSERT_GE(db::Manager::EnumVolumeTable(volumes), 0);
  EXPECT_EQ(volumes,
            (std::map<std::string, std::string>{{"/volume1", "/volume1/@tidepool/@sync"},
                                                {"/volume2", "/volume2/@tidepool/@sync"}}));
  // The same table by store: a volume whose store was replaced names the new one.
  ASSERT_EQ(db::Manager::EnumFileDBTable(volumes), 2);
  EXPECT_EQ(volumes,
            (std::map<std::string, std::string>{{"uuid-1", "/volume1"}, {"uuid-3", "/volume2"}}));
  db::FileDBInterface files;
  EXPECT_EQ(db::Manager::GetFileDB("no-such-uuid", files, false, ""), db::kErrCannotOpen);
  EXPECT_EQ(db::Manager::GetFilePath("no-such-uuid", 1), "");

  unsigned long long size = 1;
  std::string detail = "x";
  ASSERT_EQ(db::Manager::GetDBUsage(size, detail), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(detail, "");
  ASSERT_EQ(db::Manager::SetDBUsage(12345, "{\"views\":1}"), 0);
  ASSERT_EQ(db::Manager::GetDBUsage(size, detail), 0);
  EXPECT_EQ(size, 12345u);
  EXPECT_EQ(detail, "{\"views\":1}");

  dbtest::Tree t({{100, dbtest::Add, "/s.txt", 1}}, 783);
  ASSERT_EQ(db::Manager::GetViewDBFileSize(783, size), 0);
  EXPECT_GT(size, 0u);
  EXPECT_LT(db::Manager::GetViewDBFileSize(784, size), 0);
  ASSERT_EQ(db::LogManager::Initialize(dbtest::kConnect, dbtest::kConnect, "sqlite", false), 0);
  ASSERT_EQ(db::Manager::GetLogDBFileSize(size), 0);
  EXPECT_GT(size, 0u);
  db::LogManager::Destroy();
}

}  // namespace
