// Tree walks that count sizes, over trees with the things a user can plant:
// links to big files and folders elsewhere, hard links, a mount, a root
// reached through a link.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sandbox.h"
#include "traverse-dir.h"

namespace {

namespace stdfs = std::filesystem;

const std::string kBase = "/tmp/traverse";
const std::string kRoot = kBase + "/root";
const std::string kOutside = kBase + "/outside";

void Write(const std::string& path, size_t bytes) {
  stdfs::create_directories(stdfs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
}

// What a walk visited: "name@depth", in order.
class Recorder : public TraverseHandler {
 public:
  using TraverseHandler::TraverseHandler;
  std::vector<std::string> seen;
  std::string skip;  // a folder not to enter
  std::string stop;  // an entry that stops the walk
  int Visit(const TraverseEntry& entry) override {
    seen.push_back(std::string(entry.name) + "@" + std::to_string(entry.depth));
    if (entry.name == stop) return -1;
    return entry.name == skip ? kTraverseSkip : kTraverseContinue;
  }
};

unsigned long long Count(const std::string& root, const std::vector<std::string>& except = {},
                         int* rc = nullptr) {
  FolderSizeCounter counter(root);
  for (const std::string& path : except) counter.AddException(path);
  const int result = TraverseDir(counter, 0);
  if (rc != nullptr) *rc = result;
  return counter.GetTotal();
}

class TraverseDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    stdfs::remove_all(kBase);
    // 1000 + 200 + 30 + 4 + 0 bytes in the tree, and a megabyte outside it.
    Write(kRoot + "/a.db", 1000);
    Write(kRoot + "/@sync/repo/1/origin", 200);
    Write(kRoot + "/@sync/delta/d1", 30);
    Write(kRoot + "/deep/er/still/f", 4);
    Write(kRoot + "/empty-file", 0);
    stdfs::create_directories(kRoot + "/empty-folder");
    Write(kOutside + "/big", 1 << 20);
    stdfs::create_symlink(kOutside + "/big", kRoot + "/link-to-big");
    stdfs::create_symlink(kOutside, kRoot + "/link-to-folder");
    // A second name of a file is the same bytes on disk.
    stdfs::create_hard_link(kRoot + "/a.db", kRoot + "/deep/a-again.db");
  }
};

TEST_F(TraverseDirTest, CountsFileBytesOnceWithoutFollowingLinks) {
  int rc = -1;
  EXPECT_EQ(Count(kRoot, {}, &rc), 1234u);
  EXPECT_EQ(rc, 0);

  // Left-out paths, however they are written; missing ones leave out nothing.
  EXPECT_EQ(Count(kRoot, {"/@sync/repo", "@sync/delta/", "/no/such"}, &rc), 1004u);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(Count(kRoot, {"/deep/er/still/f"}), 1230u);
  // A link named as an exception is no way out of the counted tree either.
  EXPECT_EQ(Count(kRoot, {"/link-to-folder/big"}, &rc), 1234u);
  EXPECT_EQ(rc, 0);
  // An exception that leaves the root is a caller's mistake: the walk fails.
  Count(kRoot, {"../outside"}, &rc);
  EXPECT_EQ(rc, -1);

  // A subfolder can be a root of its own.
  EXPECT_EQ(Count(kRoot + "/@sync"), 230u);
}

TEST_F(TraverseDirTest, RootsThroughLinksAndBadArgumentsAreRefused) {
  stdfs::create_symlink(kRoot, kBase + "/root-link");
  struct Case {
    std::string root;
    int error;
  } cases[] = {
      {kBase + "/root-link", ELOOP},       // the root itself is a link
      {kBase + "/root-link/deep", ELOOP},  // a link on the way to it
      {kBase + "/missing", ENOENT},        //
      {kRoot + "/a.db", ENOTDIR},          // not a folder
      {"relative/path", EINVAL},           //
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.root);
    FolderSizeCounter counter(c.root);
    EXPECT_EQ(TraverseDir(counter, 0), -1);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(counter.GetTotal(), 0u);
  }
  FolderSizeCounter counter(kRoot);
  EXPECT_EQ(TraverseDir(counter, 1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(TraverseDirTest, HandlersSeeFoldersFirstAndCanSkipOrStop) {
  stdfs::remove_all(kRoot);
  Write(kRoot + "/d/e/f", 1);
  Write(kRoot + "/g", 1);
  Recorder all(kRoot);
  ASSERT_EQ(TraverseDir(all, 0), 0);
  const auto at = [&](const std::string& s) {
    return std::find(all.seen.begin(), all.seen.end(), s) - all.seen.begin();
  };
  // Folders come before what they hold.
  EXPECT_LT(at("d@1"), at("e@2"));
  EXPECT_LT(at("e@2"), at("f@3"));
  std::sort(all.seen.begin(), all.seen.end());
  EXPECT_EQ(all.seen, (std::vector<std::string>{"d@1", "e@2", "f@3", "g@1"}));

  Recorder skipping(kRoot);
  skipping.skip = "e";
  ASSERT_EQ(TraverseDir(skipping, 0), 0);
  EXPECT_EQ(std::count(skipping.seen.begin(), skipping.seen.end(), "f@3"), 0);

  Recorder stopping(kRoot);
  stopping.stop = "e";
  EXPECT_EQ(TraverseDir(stopping, 0), -1);
  EXPECT_EQ(std::count(stopping.seen.begin(), stopping.seen.end(), "f@3"), 0);
}

TEST_F(TraverseDirTest, DeepTreesAndMountsBeneathTheRoot) {
  // Deeper than any folder of the service, well within the descriptors.
  std::string deep = kRoot + "/deep";
  for (int i = 0; i < 200; ++i) deep += "/d";
  Write(deep + "/leaf", 7);
  EXPECT_EQ(Count(kRoot), 1241u);

  // Another file system mounted beneath the root is not counted.
  const std::string mnt = kRoot + "/mnt";
  stdfs::create_directories(mnt);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=4m") != 0) {
    GTEST_SKIP() << "cannot mount here: " << strerror(errno);
  }
  Write(mnt + "/inside", 500);
  EXPECT_EQ(Count(kRoot), 1241u);
  EXPECT_EQ(Count(mnt), 500u);
  umount(mnt.c_str());
}

}  // namespace
