#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include "content.h"

#include <filesystem>
#include <random>

#include "appliance.h"
#include "control.h"
#include "db/errors.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "file-store.h"
#include "process.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

const std::string kHome = "/volume1/homes/alice/Tidepool";
const std::string kStore = "/volume1/@tidepool/@sync";

using scantest::Control;
using scantest::Scan;

struct Record {
  uint32_t type;
  uint32_t time;
  std::vector<std::string> p, s;
};

class ScanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    ASSERT_EQ(Control({"user", "--enable", "alice"}).exit_status, 0);
    ASSERT_EQ(Control({"share", "--enable", "Docs"}).exit_status, 0);
    fs::create_directories(kHome);
    fs::create_directories("/volume1/Docs");
    ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(db::Manager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(
        db::LogManager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite", true), 0);
    UserInfo alice, docs;
    ASSERT_GT(UserManager::GetUser("alice", alice, 0), 0);
    ASSERT_GE(UserManager::GetShareUser("Docs", docs), 0);
    alice_view_ = alice.view_id;
    docs_view_ = docs.view_id;
  }
  void TearDown() override {
    db::LogManager::Destroy();
    db::Manager::Destroy();
    UserManager::Destroy();
  }

  db::ViewDBInterface View(uint64_t view_id) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(view_id, view), 0);
    return view;
  }
  // The live node at a path; node id 0 when there is none.
  db::Node At(const std::string& path, uint64_t view_id = 0) {
    db::Node node;
    auto view = View(view_id ? view_id : alice_view_);
    if (view->QueryNode(path, node, db::ViewManager::kQueryAny) < 0 || node.isRemoved())
      return db::Node();
    return node;
  }
  std::vector<db::Version> Versions(uint64_t node_id) {
    std::vector<db::Version> out;
    EXPECT_GE(View(alice_view_)->ListVersion(node_id, out, db::ViewManager::kListVersionAll), 0);
    return out;
  }
  // Records of the given types, oldest first.
  std::vector<Record> Logs(std::list<int32_t> types, uint32_t since = 0) {
    db::LogFilter filter;
    filter.types = std::move(types);
    filter.oldest_first = true;
    filter.date_from = static_cast<int32_t>(since);
    std::vector<db::Log> logs;
    EXPECT_GE(db::LogManager::SearchLog(filter, logs), 0);
    std::vector<Record> out;
    for (const auto& l : logs) out.push_back({l.getType(), l.getTime(), l.getPArg(), l.getSArg()});
    return out;
  }
  std::string Content(const db::Version& v) {
    std::unique_ptr<filestore::FileStore> store;
    EXPECT_EQ(filestore::FileStore::Open(kStore, false, {}, store), 0);
    const std::string out = "/volume1/rebuilt";
    EXPECT_EQ(store->Rebuild(v.getFileId(), out), 0);
    return tptest::ReadFile(out);
  }

  uint64_t alice_view_ = 0;
  uint64_t docs_view_ = 0;
};

TEST_F(ScanTest, EnablingMakesTheViewsBeforeAnyScan) {
  EXPECT_NE(alice_view_, 0u);
  EXPECT_NE(docs_view_, 0u);
  EXPECT_TRUE(View(alice_view_));
  EXPECT_TRUE(View(docs_view_));
  EXPECT_EQ(Control({"scan", "--at"}).exit_status, 2);
  EXPECT_EQ(Control({"scan", "--at", "yesterday"}).exit_status, 2);
}

TEST_F(ScanTest, NewFilesFoldersAndLinksBecomeNodesWithTheirContent) {
  tptest::WriteFile(kHome + "/a.txt", "hello");
  tptest::WriteFile(kHome + "/dir/sub/deep.bin", tptest::RandomBytes(300 << 10, 1));
  fs::create_symlink("a.txt", kHome + "/link");
  tptest::WriteFile("/volume1/Docs/report.txt", "quarterly");
  // The system's own folders (a restore's staging place) are no content.
  tptest::WriteFile(kHome + "/@eaDir/@tmp/Tidepool.x1/staged.txt", "half-built");
  tptest::WriteFile(kHome + "/dir/@eaDir/meta", "system");
  Scan(1700000000);
  EXPECT_EQ(At("/@eaDir").getNodeId(), 0u);
  EXPECT_EQ(At("/dir/@eaDir").getNodeId(), 0u);

  const db::Node a = At("/a.txt");
  ASSERT_NE(a.getNodeId(), 0u);
  const auto versions = Versions(a.getNodeId());
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(versions[0].getHash(),
            "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824");
  EXPECT_EQ(versions[0].getVerCreatedTime(), 1700000000u);
  EXPECT_EQ(versions[0].getSize(), 5u);
  EXPECT_EQ(Content(versions[0]), "hello");
  EXPECT_TRUE(At("/dir").isDir());
  EXPECT_TRUE(At("/dir/sub").isDir());
  EXPECT_EQ(Content(Versions(At("/dir/sub/deep.bin").getNodeId()).back()),
            tptest::RandomBytes(300 << 10, 1));
  const auto link = Versions(At("/link").getNodeId());
  ASSERT_EQ(link.size(), 1u);
  EXPECT_TRUE(link[0].isSymlink());
  EXPECT_EQ(Content(link[0]), "a.txt");
  EXPECT_NE(At("/report.txt", docs_view_).getNodeId(), 0u);

  const auto added = Logs({13});
  ASSERT_EQ(added.size(), 6u);  // five in the home, one in the share
  for (const auto& r : added) {
    EXPECT_EQ(r.time, 1700000000u);
    ASSERT_EQ(r.s.size(), 2u);
    EXPECT_EQ(r.s[1], "scan");
  }
  EXPECT_EQ(added[0].s[0], "/a.txt");
  EXPECT_EQ(added[0].p, (std::vector<std::string>{std::to_string(a.getNodeId()), "0"}));

  // Nothing changed: a second scan records nothing.
  Scan(1700000100);
  EXPECT_EQ(Logs({}, 1700000050).size(), 0u);
  EXPECT_EQ(Versions(a.getNodeId()).size(), 1u);
}

// Access to everything in a view starts at its root: the root folder's owner
// and mode are versioned too, once per change.
TEST_F(ScanTest, TheRootsOwnerAndModeAreRecorded) {
  ASSERT_EQ(chown("/volume1/Docs", 1027, 100), 0);
  ASSERT_EQ(chmod("/volume1/Docs", 0750), 0);
  Scan(1700000000);
  auto view = View(docs_view_);
  const uint64_t root = view->getRootNodeId();
  std::vector<db::Version> versions;
  ASSERT_GE(view->ListVersion(root, versions, db::ViewManager::kListVersionAll), 0);
  ASSERT_FALSE(versions.empty());
  EXPECT_EQ(versions.back().getUserId(), 1027u);
  EXPECT_EQ(versions.back().getGroupId(), 100u);
  EXPECT_EQ(versions.back().getUnixMode(), 0750u);
  const size_t before = versions.size();

  Scan(1700000100);
  ASSERT_GE(view->ListVersion(root, versions, db::ViewManager::kListVersionAll), 0);
  EXPECT_EQ(versions.size(), before);

  ASSERT_EQ(chmod("/volume1/Docs", 0755), 0);
  Scan(1700000200);
  ASSERT_GE(view->ListVersion(root, versions, db::ViewManager::kListVersionAll), 0);
  ASSERT_EQ(versions.size(), before + 1);
  EXPECT_EQ(versions.back().getUnixMode(), 0755u);
  EXPECT_EQ(versions.back().getVerCreatedTime(), 1700000200u);
}

TEST_F(ScanTest, ChangesRenamesMovesAndRemovalsKeepTheirNodes) {
  tptest::WriteFile(kHome + "/a.txt", "hello");
  tptest::WriteFile(kHome + "/dir/b.bin", tptest::RandomBytes(200 << 10, 2));
  fs::create_directories(kHome + "/other");
  fs::create_symlink("a.txt", kHome + "/link");
  Scan(1000000);
  const uint64_t a = At("/a.txt").getNodeId();
  const uint64_t b = At("/dir/b.bin").getNodeId();
  const uint64_t dir = At("/dir").getNodeId();
  const uint64_t link = At("/link").getNodeId();

  // Content change, rename, and a folder moved into another.
  tptest::WriteFile(kHome + "/a.txt", "hello, world");
  fs::rename(kHome + "/dir/b.bin", kHome + "/dir/c.bin");
  fs::rename(kHome + "/dir", kHome + "/other/dir");
  Scan(1000100);
  EXPECT_EQ(At("/a.txt").getNodeId(), a);
  const auto a_versions = Versions(a);
  ASSERT_EQ(a_versions.size(), 2u);
  EXPECT_EQ(Content(a_versions[0]), "hello");
  EXPECT_EQ(Content(a_versions[1]), "hello, world");
  EXPECT_EQ(At("/other/dir").getNodeId(), dir);
  EXPECT_EQ(At("/other/dir/c.bin").getNodeId(), b);
  EXPECT_EQ(At("/dir/b.bin").getNodeId(), 0u);
  EXPECT_EQ(Content(Versions(b).back()), tptest::RandomBytes(200 << 10, 2));
  const auto modified = Logs({15}, 1000100);
  ASSERT_EQ(modified.size(), 1u);
  EXPECT_EQ(modified[0].s, (std::vector<std::string>{"/a.txt", "scan"}));
  const auto moved = Logs({17}, 1000100);
  ASSERT_EQ(moved.size(), 2u);
  EXPECT_EQ(moved[0].s, (std::vector<std::string>{"/other/dir", "/dir", "scan"}));
  EXPECT_EQ(moved[0].p, (std::vector<std::string>{std::to_string(dir), "1", std::to_string(dir)}));
  EXPECT_EQ(moved[1].s, (std::vector<std::string>{"/other/dir/c.bin", "/other/dir/b.bin", "scan"}));

  // Attributes only, and a removal.
  chmod((kHome + "/a.txt").c_str(), 0600);
  acl_t acl = acl_from_text("u::rw-,u:4321:r--,g::---,m::r--,o::---");
  ASSERT_NE(acl, nullptr);
  ASSERT_EQ(acl_set_file((kHome + "/other/dir/c.bin").c_str(), ACL_TYPE_ACCESS, acl), 0);
  acl_free(acl);
  fs::remove(kHome + "/link");
  Scan(1000200);
  EXPECT_EQ(Versions(a).back().getUnixMode(), 0600u);
  EXPECT_EQ(Versions(a).back().getHash(), a_versions[1].getHash());
  EXPECT_NE(Versions(b).back().getAcl().find("user:4321:r--"), std::string::npos);
  EXPECT_EQ(Versions(a).back().getAcl(), "");
  EXPECT_EQ(At("/link").getNodeId(), 0u);
  const auto link_versions = Versions(link);
  ASSERT_EQ(link_versions.size(), 2u);
  EXPECT_TRUE(link_versions.back().isRemoved());
  const auto removed = Logs({14}, 1000200);
  ASSERT_EQ(removed.size(), 1u);
  EXPECT_EQ(removed[0].p, (std::vector<std::string>{std::to_string(link), "2"}));
  EXPECT_EQ(removed[0].s, (std::vector<std::string>{"/link", "scan"}));
  EXPECT_EQ(Logs({15}, 1000200).size(), 2u);

  // A folder removed with its content: one record, every node marked.
  fs::remove_all(kHome + "/other");
  Scan(1000300);
  EXPECT_EQ(Logs({14}, 1000300).size(), 1u);
  EXPECT_TRUE(Versions(b).back().isRemoved());
}

TEST_F(ScanTest, SwappedNamesAndAFileTurnedFolderAreAllRecorded) {
  tptest::WriteFile(kHome + "/one", tptest::RandomBytes(40 << 10, 3));
  tptest::WriteFile(kHome + "/two", tptest::RandomBytes(50 << 10, 4));
  tptest::WriteFile(kHome + "/thing", "a file for now");
  Scan(3000000);
  const uint64_t thing = At("/thing").getNodeId();

  fs::rename(kHome + "/one", kHome + "/tmp");
  fs::rename(kHome + "/two", kHome + "/one");
  fs::rename(kHome + "/tmp", kHome + "/two");
  fs::remove(kHome + "/thing");
  tptest::WriteFile(kHome + "/thing/inside.txt", "now a folder");
  Scan(3000100);
  // Whatever identities survive, the tree as it stands is what the view shows.
  EXPECT_EQ(Content(Versions(At("/one").getNodeId()).back()), tptest::RandomBytes(50 << 10, 4));
  EXPECT_EQ(Content(Versions(At("/two").getNodeId()).back()), tptest::RandomBytes(40 << 10, 3));
  EXPECT_TRUE(At("/thing").isDir());
  EXPECT_NE(At("/thing").getNodeId(), thing);
  EXPECT_TRUE(Versions(thing).back().isRemoved());
  EXPECT_EQ(Content(Versions(At("/thing/inside.txt").getNodeId()).back()), "now a folder");
}

TEST_F(ScanTest, OldVersionsRotateAwayAndTheirContentIsReleased) {
  ASSERT_GE(View(alice_view_)->SetRotateCount(2), 0);
  std::vector<std::string> contents;
  for (int i = 0; i < 5; ++i) {
    contents.push_back(tptest::RandomBytes(150 << 10, 10 + i));
    tptest::WriteFile(kHome + "/grow.bin", contents.back());
    Scan(2000000 + 100 * i);
  }
  const uint64_t node = At("/grow.bin").getNodeId();
  const auto versions = Versions(node);
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_EQ(At("/grow.bin").getVersionCount(), 2u);
  EXPECT_EQ(Content(versions[0]), contents[3]);
  EXPECT_EQ(Content(versions[1]), contents[4]);
  EXPECT_EQ(Logs({16}).size(), 3u);

  // The three rotated versions' content went with them once nothing built
  // on it: at most the kept chain remains.
  db::FileDBInterface files;
  ASSERT_GE(db::Manager::GetFileDB(versions[0].getFileUuid(), files, false, ""), 0);
  unsigned long long whole = 0, deltas = 0;
  ASSERT_GE(files->GetFileSizeSum(whole), 0);
  ASSERT_GE(files->GetDeltaSizeSum(deltas), 0);
  EXPECT_LE(whole, 150u << 10);
}

}  // namespace

namespace {

// Every folder under `root` that is not 0700 and every file that is not
// 0600, or not root's; and how many files were looked at.
std::vector<std::string> WiderThanPrivate(const std::string& root, size_t& files) {
  std::vector<std::string> wide;
  files = 0;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    struct stat st {};
    if (lstat(e.path().c_str(), &st) != 0) continue;
    const bool dir = S_ISDIR(st.st_mode);
    files += dir ? 0 : 1;
    if ((st.st_mode & 07777) != (dir ? 0700u : 0600u) || st.st_uid != 0)
      wide.push_back(e.path().string());
  }
  return wide;
}

// Whether an unprivileged account can open `path` for reading.
bool NobodyCanRead(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0)
      _exit(2);
    _exit(open(path.c_str(), O_RDONLY) >= 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

// The repository holds everyone's history: its databases (and their -wal
// and -shm files), pieces and folders are root's alone, also when an older
// install left them open.
TEST_F(ScanTest, TheRepositoryIsClosedToEveryoneButRoot) {
  tptest::WriteFile(kHome + "/big.bin", tptest::RandomBytes(64 << 10, 7));
  tptest::WriteFile(kHome + "/small.txt", "small");
  const std::string mac = "finder bytes";
  ASSERT_EQ(setxattr((kHome + "/small.txt").c_str(), "user.com.apple.FinderInfo", mac.data(),
                     mac.size(), 0),
            0);
  tptest::WriteFile("/volume1/Docs/shared.txt", "shared");
  Scan(1700000000);
  tptest::WriteFile(kHome + "/big.bin", tptest::RandomBytes(64 << 10, 8));  // a delta
  Scan(1700000100);
  ASSERT_TRUE(View(alice_view_));  // the module's way in

  const std::string view_db = "/volume1/@tidepool/views/" + std::to_string(alice_view_) + ".sqlite";
  size_t files = 0;
  EXPECT_EQ(WiderThanPrivate("/volume1/@tidepool", files), std::vector<std::string>{});
  EXPECT_GT(files, 10u);
  ASSERT_TRUE(fs::exists(view_db));
  ASSERT_TRUE(fs::exists(view_db + "-wal"));
  ASSERT_TRUE(fs::exists("/volume1/@tidepool/@sync/delta"));
  EXPECT_FALSE(NobodyCanRead(view_db));
  EXPECT_FALSE(NobodyCanRead("/volume1/@tidepool/@sync/file-db.sqlite"));

  // A repository an older install made world-readable is closed by the next
  // run.
  for (const auto& e : fs::recursive_directory_iterator("/volume1/@tidepool"))
    chmod(e.path().c_str(), e.is_directory() ? 0755 : 0644);
  chmod("/volume1/@tidepool", 0755);
  fs::remove("/volume1/@tidepool/.private");  // as before this version
  ASSERT_TRUE(NobodyCanRead(view_db));
  Scan(1700000200);
  EXPECT_EQ(WiderThanPrivate("/volume1/@tidepool", files), std::vector<std::string>{});
  EXPECT_FALSE(NobodyCanRead(view_db));
}
