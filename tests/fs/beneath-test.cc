// Resolution beneath an open folder, as the restore uses it on users'
// folders: links and ways out are refused wherever they appear, also when a
// folder is swapped for a link between the look and the make.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "fs-beneath.h"
#include "sandbox.h"

namespace {

namespace stdfs = std::filesystem;

const std::string kRoot = "/tmp/beneath/root";
const std::string kOutside = "/tmp/beneath/outside";

class BeneathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    stdfs::remove_all("/tmp/beneath");
    stdfs::create_directories(kRoot + "/a/b");
    stdfs::create_directories(kOutside);
    stdfs::create_symlink(kOutside, kRoot + "/out");
    stdfs::create_symlink("../../outside", kRoot + "/a/up");
    stdfs::create_symlink("b", kRoot + "/a/inner");
    root_.reset(fsb::OpenNoSymlinks(kRoot, O_DIRECTORY | O_RDONLY));
    ASSERT_TRUE(root_.valid());
  }
  void TearDown() override { fsb::TEST_SetMakeDirsHook(nullptr); }

  fsb::UniqueFd root_;
};

TEST_F(BeneathTest, LinksAndWaysOutAreRefusedEverywhere) {
  struct Case {
    const char* rel;
    bool opens;
  } cases[] = {
      {"", true},           {"a/b", true},
      {"//a///b/", true},   {"out", false},
      {"out/x", false},     {"a/up", false},
      {"a/inner", false},   {"../root", false},
      {"a/../../x", false}, {"/etc", true /* the root's own "etc" is missing: ENOENT */},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rel);
    const fsb::UniqueFd fd(fsb::OpenBeneath(root_.get(), c.rel, O_DIRECTORY | O_RDONLY));
    if (std::string(c.rel) == "/etc") {
      // Absolute paths are taken below the root, never from "/".
      EXPECT_FALSE(fd.valid());
      EXPECT_EQ(errno, ENOENT);
      continue;
    }
    EXPECT_EQ(fd.valid(), c.opens);
  }
  // Making folders stops at the first link and makes nothing beyond it.
  EXPECT_LT(fsb::MakeDirsBeneath(root_.get(), "out/made", 0, 0, 0755), 0);
  EXPECT_LT(fsb::MakeDirsBeneath(root_.get(), "a/up/made", 0, 0, 0755), 0);
  EXPECT_TRUE(stdfs::is_empty(kOutside));
  // A path with no link is made, owned as asked.
  const fsb::UniqueFd made(fsb::MakeDirsBeneath(root_.get(), "a/new/deeper", 1234, 100, 0750));
  ASSERT_TRUE(made.valid());
  struct stat st {};
  ASSERT_EQ(lstat((kRoot + "/a/new/deeper").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 1234u);
  EXPECT_EQ(st.st_gid, 100u);
  EXPECT_EQ(st.st_mode & 0777, 0750u);
  // An absolute path must be reached with no link on the way either.
  EXPECT_FALSE(fsb::UniqueFd(fsb::OpenNoSymlinks(kRoot + "/out", O_DIRECTORY)).valid());
  EXPECT_TRUE(fsb::UniqueFd(fsb::OpenNoSymlinks(kRoot + "/a", O_DIRECTORY)).valid());
}

// The folder about to be made is replaced by a link to the outside after it
// was found missing: the make must not go through the link.
TEST_F(BeneathTest, AFolderSwappedForALinkMidWayIsRefused) {
  fsb::TEST_SetMakeDirsHook([](int dir_fd, const std::string& name) {
    if (name == "x") {
      ASSERT_EQ(symlinkat(kOutside.c_str(), dir_fd, "x"), 0);
    }
  });
  EXPECT_LT(fsb::MakeDirsBeneath(root_.get(), "a/x/y", 0, 0, 0755), 0);
  EXPECT_TRUE(stdfs::is_empty(kOutside));
  EXPECT_TRUE(stdfs::is_symlink(kRoot + "/a/x"));
}

// Removal of a whole tree from its parent: what links point at survives,
// and a link on the way to the tree refuses the removal.
TEST_F(BeneathTest, RemovalNeverLeavesTheTree) {
  const std::string tree = "/tmp/beneath/tree";
  stdfs::create_directories(tree + "/deep/er/still");
  tptest::WriteFile(tree + "/deep/er/still/file", "x");
  tptest::WriteFile(kOutside + "/keep", "outside");
  stdfs::create_symlink(kOutside, tree + "/deep/to-dir");
  stdfs::create_symlink(kOutside + "/keep", tree + "/to-file");
  ASSERT_EQ(fsb::RemovePathNoSymlinks(tree), 0) << strerror(errno);
  EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(tree)));
  EXPECT_EQ(tptest::ReadFile(kOutside + "/keep"), "outside");

  // The link itself is an entry like any other and goes as a link.
  stdfs::create_symlink(kOutside, "/tmp/beneath/link");
  ASSERT_EQ(fsb::RemovePathNoSymlinks("/tmp/beneath/link"), 0);
  EXPECT_EQ(tptest::ReadFile(kOutside + "/keep"), "outside");

  // Through a linked parent nothing happens.
  EXPECT_EQ(fsb::RemovePathNoSymlinks(kRoot + "/out/keep"), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(tptest::ReadFile(kOutside + "/keep"), "outside");

  EXPECT_EQ(fsb::RemovePathNoSymlinks("/tmp/beneath/missing"), -1);
  EXPECT_EQ(errno, ENOENT);
  for (const char* bad : {"relative/x", "/tmp/beneath/", "/tmp/beneath/.."}) {
    EXPECT_EQ(fsb::RemovePathNoSymlinks(bad), -1) << bad;
  }
  EXPECT_TRUE(stdfs::exists(kRoot));
}

}  // namespace
