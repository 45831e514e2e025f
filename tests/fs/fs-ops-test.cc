#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "fs.h"
#include "sandbox.h"

namespace {

namespace stdfs = std::filesystem;

class FsOpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    dir_ = "/tmp/fs-ops";
    stdfs::remove_all(dir_);
    stdfs::create_directories(dir_);
  }
  std::string P(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

TEST_F(FsOpsTest, StatTellsTypesAndLinksWithoutFollowing) {
  tptest::WriteFile(P("file"), "12345");
  ASSERT_EQ(mkdir(P("dir").c_str(), 0750), 0);
  ASSERT_EQ(FSCreateSymbolicLink("file", P("link")), 0);
  ASSERT_EQ(FSCreateSymbolicLink("nowhere", P("dangling")), 0);

  FSInfo info;
  ASSERT_EQ(FSStat(P("file"), info, true), 0);
  EXPECT_TRUE(info.exists);
  EXPECT_EQ(info.type, kFSTypeFile);
  EXPECT_EQ(info.size, 5u);
  ASSERT_EQ(FSStat(P("dir"), info, false), 0);
  EXPECT_EQ(info.type, kFSTypeDir);
  EXPECT_EQ(info.mode, 0750u);
  ASSERT_EQ(FSStat(P("link"), info, true), 0);
  EXPECT_EQ(info.type, kFSTypeSymlink);
  ASSERT_EQ(FSStat(P("link"), info, false), 0);
  EXPECT_EQ(info.type, kFSTypeFile);
  EXPECT_EQ(info.size, 5u);

  // A dangling link is there itself, its target is not; neither is a failure.
  ASSERT_EQ(FSStat(P("dangling"), info, true), 0);
  EXPECT_TRUE(info.exists);
  EXPECT_EQ(info.type, kFSTypeSymlink);
  ASSERT_EQ(FSStat(P("dangling"), info, false), 0);
  EXPECT_FALSE(info.exists);
  EXPECT_TRUE(IsFileExist(P("dangling"), true));
  EXPECT_FALSE(IsFileExist(P("dangling"), false));

  for (const std::string& missing : {P("missing"), P("file/below")}) {
    info.exists = true;
    EXPECT_EQ(FSStat(missing, info, true), 0) << missing;
    EXPECT_FALSE(info.exists) << missing;
    EXPECT_FALSE(IsFileExist(missing, false)) << missing;
  }
}

TEST_F(FsOpsTest, MakesFoldersOnlyBelowTheRoot) {
  ASSERT_EQ(FSMKDirFromRoot(P("a/b/c"), dir_), 0);
  EXPECT_TRUE(stdfs::is_directory(P("a/b/c")));
  EXPECT_EQ(FSMKDirFromRoot(P("a/b/c"), dir_ + "/"), 0);  // there already

  // A root that is not a whole-component prefix of the path is refused.
  errno = 0;
  EXPECT_EQ(FSMKDirFromRoot(P("ab/x"), P("a")), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(FSMKDirFromRoot(P("a"), P("a")), 0);
  // A missing root is not made.
  EXPECT_EQ(FSMKDirFromRoot(P("gone/x/y"), P("gone")), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(stdfs::exists(P("gone")));

  tptest::WriteFile(P("plain"), "x");
  EXPECT_EQ(FSMKDirFromRoot(P("plain/x"), dir_), -1);
  EXPECT_EQ(errno, EEXIST);

  EXPECT_EQ(FSMKDir(P("p/q"), false), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(FSMKDir(P("p/q"), true), 0);
  EXPECT_TRUE(stdfs::is_directory(P("p/q")));
  EXPECT_EQ(FSMKDir(P("p"), false), 0);
  EXPECT_EQ(FSMKDir(P("plain"), false), -1);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(FsOpsTest, OwnerAndTimesChangeOnTheLinkItself) {
  tptest::WriteFile(P("target"), "t");
  ASSERT_EQ(FSCreateSymbolicLink("target", P("link")), 0);
  ASSERT_EQ(FSChown(P("link"), 1234, 2345), 0);
  ASSERT_EQ(FSUTime(P("link"), 1000000000, 1200000000), 0);

  struct stat link {
  }, target{};
  ASSERT_EQ(lstat(P("link").c_str(), &link), 0);
  ASSERT_EQ(stat(P("target").c_str(), &target), 0);
  EXPECT_EQ(link.st_uid, 1234u);
  EXPECT_EQ(link.st_gid, 2345u);
  EXPECT_EQ(link.st_mtim.tv_sec, 1200000000);
  EXPECT_EQ(link.st_atim.tv_sec, 1000000000);
  EXPECT_EQ(target.st_uid, 0u);
  EXPECT_NE(target.st_mtim.tv_sec, 1200000000);

  EXPECT_EQ(FSChown(P("missing"), 1, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(FSUTime(P("missing"), 1, 1), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FsOpsTest, TempFilesAndLinks) {
  std::string first, second;
  ASSERT_EQ(FSMktemp(dir_, first), 0);
  ASSERT_EQ(FSMktemp(dir_, second), 0);
  EXPECT_NE(first, second);
  EXPECT_EQ(first.rfind(dir_ + "/", 0), 0u);
  struct stat st {};
  ASSERT_EQ(stat(first.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 0);
  std::string none = "untouched";
  EXPECT_EQ(FSMktemp(P("missing"), none), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(none, "untouched");

  ASSERT_EQ(FSCreateSymbolicLink("../some where", P("l")), 0);
  EXPECT_EQ(stdfs::read_symlink(P("l")), "../some where");
  EXPECT_EQ(FSCreateSymbolicLink("other", P("l")), -1);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(FsOpsTest, RemoveNeverFollowsLinks) {
  const std::string outside = "/tmp/fs-ops-outside";
  stdfs::remove_all(outside);
  tptest::WriteFile(outside + "/keep.txt", "keep");
  tptest::WriteFile(P("tree/a/b.txt"), "b");
  ASSERT_EQ(FSCreateSymbolicLink(outside, P("tree/a/out")), 0);
  ASSERT_EQ(FSCreateSymbolicLink(outside, P("dirlink")), 0);

  EXPECT_EQ(FSRemove(P("tree"), false), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(FSRemove(P("dirlink"), false), 0);  // the link, not the folder
  EXPECT_FALSE(IsFileExist(P("dirlink"), true));
  EXPECT_EQ(FSRemove(P("tree"), true), 0);
  EXPECT_FALSE(IsFileExist(P("tree"), true));
  EXPECT_EQ(tptest::ReadFile(outside + "/keep.txt"), "keep");

  ASSERT_EQ(mkdir(P("empty").c_str(), 0755), 0);
  EXPECT_EQ(FSRemove(P("empty"), false), 0);
  EXPECT_EQ(FSRemove(P("empty"), false), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(FSRemove(P("empty"), true), -1);
  EXPECT_EQ(errno, ENOENT);
  stdfs::remove_all(outside);
}

}  // namespace
