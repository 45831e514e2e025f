// The file utilities against real files: one-pass hash and copies, temporary
// files, clone fallback, symlink form, ACLs and renames across volumes.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "file-util.h"
#include "process.h"

namespace fs = std::filesystem;

namespace {

const std::string kDir = "/volume1/fileutil";

std::string Random(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

void Write(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary) << data;
}

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string Command(const std::vector<std::string>& argv, int* status = nullptr) {
  auto r = tptest::RunProcess(argv);
  if (status) *status = r.exit_status;
  return r.out;
}

// A small tmpfs of its own: another file system, and one that fills up.
std::string MountTmpfs(const std::string& name, const std::string& size) {
  std::string dir = kDir + "/" + name;
  fs::create_directories(dir);
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) < 0) return "";
  return dir;
}

class FileUtil : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(kDir);
    fs::create_directories(kDir);
  }
};

TEST_F(FileUtil, OnePassGivesTheHashAndExactCopies) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{1} << 20, (size_t{3} << 20) + 7}) {
    SCOPED_TRACE(size);
    std::string src = kDir + "/src", a = kDir + "/copy-a", b = kDir + "/copy-b";
    Write(src, Random(size, static_cast<uint32_t>(size)));
    Write(b, "old content longer than nothing");  // a copy target is truncated

    SimpleFileReader reader;
    std::string hash;
    reader.setFile(src);
    reader.pushCopyFile(a);
    reader.pushCopyFile(b);
    reader.setHashString(&hash);
    ASSERT_EQ(reader.readFile(), 0);

    EXPECT_EQ(hash, Command({"/usr/bin/sha256sum", src}).substr(0, 64));
    int status = -1;
    Command({"/usr/bin/cmp", src, a}, &status);
    EXPECT_EQ(status, 0);
    Command({"/usr/bin/cmp", src, b}, &status);
    EXPECT_EQ(status, 0);
  }
}

TEST_F(FileUtil, ReadFailuresKeepTheirCause) {
  std::string hash = "untouched";
  SimpleFileReader missing;
  missing.setFile(kDir + "/missing");
  missing.setHashString(&hash);
  EXPECT_EQ(missing.readFile(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(hash, "untouched");

  Write(kDir + "/src", Random(2 << 20, 7));
  SimpleFileReader bad_target;
  bad_target.setFile(kDir + "/src");
  bad_target.pushCopyFile(kDir + "/no-such-dir/copy");
  EXPECT_EQ(bad_target.readFile(), -1);
  EXPECT_EQ(errno, ENOENT);

  std::string tiny = MountTmpfs("tiny", "64k");
  if (tiny.empty()) GTEST_SKIP() << "cannot mount tmpfs: " << strerror(errno);
  SimpleFileReader full;
  full.setFile(kDir + "/src");
  full.pushCopyFile(tiny + "/copy");
  full.setHashString(&hash);
  EXPECT_EQ(full.readFile(), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(hash, "untouched");
  umount(tiny.c_str());
}

TEST_F(FileUtil, TempFileLivesWithItsObjectUnlessMadePermanent) {
  std::string gone, kept;
  {
    TempFile temp(kDir);
    EXPECT_TRUE(temp.getPath().empty());
    ASSERT_EQ(temp.create(), 0);
    gone = temp.getPath();
    EXPECT_EQ(fs::path(gone).parent_path(), kDir);
    EXPECT_TRUE(fs::is_regular_file(gone));
    EXPECT_EQ(temp.create(), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(temp.getPath(), gone);
  }
  EXPECT_FALSE(fs::exists(gone));
  {
    TempFile temp(kDir);
    ASSERT_EQ(temp.create(), 0);
    kept = temp.getPath();
    Write(kept, "content");
    temp.convert_permanent();
  }
  EXPECT_EQ(Read(kept), "content");

  TempFile nowhere(kDir + "/missing");
  EXPECT_EQ(nowhere.create(), -1);
  EXPECT_TRUE(nowhere.getPath().empty());
}

TEST_F(FileUtil, CloneFailsOnVolumesWithoutCopyOnWriteAndCopyingTakesOver) {
  std::string tmpfs = MountTmpfs("cow", "8m");
  for (const std::string& dir : {kDir, std::string("/tmp"), tmpfs}) {
    if (dir.empty()) continue;
    SCOPED_TRACE(dir);
    std::string src = dir + "/clone-src", dst = dir + "/clone-dst";
    Write(src, Random(100000, 3));
    EXPECT_FALSE(SDK::IsPathSupportSnapShot(dir, false));
    EXPECT_FALSE(SDK::IsPathSupportSnapShot(src, false));
    EXPECT_EQ(CloneFile(src, dst), -1);

    unlink(dst.c_str());
    SimpleFileReader reader;
    reader.setFile(src);
    reader.pushCopyFile(dst);
    ASSERT_EQ(reader.readFile(), 0);
    EXPECT_EQ(Read(dst), Read(src));
  }
  EXPECT_FALSE(SDK::IsPathSupportSnapShot(kDir + "/missing/path", false));
  EXPECT_EQ(CloneFile(kDir + "/missing", kDir + "/dst"), -1);
  EXPECT_EQ(errno, ENOENT);
  if (!tmpfs.empty()) umount(tmpfs.c_str());
}

// A btrfs volume on a loop device, mounted in the test's own namespace.
std::string MountBtrfs(std::string* why) {
  std::string image = kDir + "/btrfs.img", dir = kDir + "/btrfs";
  fs::create_directories(dir);
  for (const auto& argv :
       std::vector<std::vector<std::string>>{{"/usr/bin/truncate", "-s", "128M", image},
                                             {"/usr/sbin/mkfs.btrfs", "-q", image},
                                             {"/usr/bin/mount", "-o", "loop", image, dir}}) {
    auto r = tptest::RunProcess(argv);
    if (r.exit_status != 0) {
      *why = argv[0] + ": " + r.err;
      return "";
    }
  }
  return dir;
}

TEST_F(FileUtil, CloneSharesDataWhereTheVolumeCan) {
  std::string why;
  std::string dir = MountBtrfs(&why);
  if (dir.empty()) GTEST_SKIP() << "no btrfs volume: " << why;
  EXPECT_TRUE(SDK::IsPathSupportSnapShot(dir, false));
  std::string src = dir + "/src", dst = dir + "/dst";
  std::string data = Random((size_t{2} << 20) + 5, 11);
  Write(src, data);
  Write(dst, "previous content");
  ASSERT_EQ(CloneFile(src, dst), 0);
  EXPECT_EQ(Read(dst), data);

  // A clone is a separate file: writing it leaves the source alone.
  Write(dst, "changed");
  EXPECT_EQ(Read(src), data);
  EXPECT_EQ(CloneFile(src, kDir + "/other-volume"), -1);  // clones stay on one volume
  EXPECT_EQ(errno, EXDEV);
  Command({"/usr/bin/umount", dir});
}

TEST_F(FileUtil, SymlinkRoundTripsThroughItsPlainFileForm) {
  for (std::string target : {"plain.txt", "../up/dir/", "/abs/path with space", "ünï\ncode"}) {
    SCOPED_TRACE(target);
    std::string link = kDir + "/link", form = kDir + "/form";
    fs::remove(link);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    ASSERT_EQ(getFileFromSymlink(link, form), 0);
    EXPECT_EQ(Read(form), target);  // exactly the bytes the store hashes

    std::string back;
    ASSERT_EQ(getSymlinkFromFile(form, back), 0);
    EXPECT_EQ(back, target);
  }

  Write(kDir + "/regular", "x");
  EXPECT_EQ(getFileFromSymlink(kDir + "/regular", kDir + "/form"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(getFileFromSymlink(kDir + "/missing", kDir + "/form"), -1);

  for (std::string bad : {std::string(), std::string("a\0b", 3), std::string(5000, 'a')}) {
    Write(kDir + "/bad", bad);
    std::string target = "untouched";
    EXPECT_EQ(getSymlinkFromFile(kDir + "/bad", target), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(target, "untouched");
  }
}

TEST_F(FileUtil, AclTextWrittenShowsInGetfacl) {
  struct Case {
    std::string text;
    std::string shown;  // a line getfacl must print
  } cases[] = {
      {"user::rw-\nuser:1026:r--\t#effective:r--\ngroup::r--\nmask::r--\nother::---\n",
       "user:1026:r--"},
      {"u::rw-,g::r--,g:1027:rw-,m::rw-,o::---", "group:1027:rw-"},
  };
  std::string file = kDir + "/acl";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Write(file, "x");
    SDK::ACL acl;
    ASSERT_EQ(acl.set(c.text), 0);
    ASSERT_EQ(acl.write(file), 0);
    std::string shown = Command({"/usr/bin/getfacl", "--numeric", "--omit-header", file});
    EXPECT_NE(shown.find(c.shown + "\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("other::---"), std::string::npos) << shown;
  }

  fs::remove(file);
  Write(file, "x");
  SDK::ACL none;
  ASSERT_EQ(none.set(""), 0);
  EXPECT_EQ(none.write(file), 0);
  std::string shown = Command({"/usr/bin/getfacl", "--numeric", "--omit-header", file});
  EXPECT_EQ(shown.find("user:1"), std::string::npos) << shown;

  SDK::ACL bad;
  EXPECT_EQ(bad.write(file), -1);  // nothing set yet
  EXPECT_EQ(bad.set("user:no-such-user-anywhere:rwx"), -1);
  EXPECT_EQ(bad.write(file), -1);
  EXPECT_EQ(bad.set("user::rw-,user:1026:r--,group::r--,other::---"), -1);  // no mask
  SDK::ACL good;
  ASSERT_EQ(good.set("u::rw-,g::r--,o::r--"), 0);
  EXPECT_EQ(good.write(kDir + "/missing"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileUtil, RenameKeepsAttributesWithinAndAcrossFileSystems) {
  std::string other = MountTmpfs("other", "8m");
  for (const std::string& to_dir : {kDir, other}) {
    if (to_dir.empty()) continue;
    SCOPED_TRACE(to_dir);
    std::string src = kDir + "/move-src", dst = to_dir + "/move-dst";
    Write(src, Random(300000, 9));
    Write(dst, "replaced");
    ASSERT_EQ(setxattr(src.c_str(), "user.com.apple.tag", "v1", 2, 0), 0);
    ASSERT_EQ(chmod(src.c_str(), 0640), 0);
    struct timespec times[2] = {{1000000, 0}, {1234567, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, src.c_str(), times, 0), 0);
    std::string data = Read(src);

    ASSERT_EQ(FSRenameWithEA(src, dst), 0);
    EXPECT_FALSE(fs::exists(src));
    EXPECT_EQ(Read(dst), data);
    char value[16] = {};
    EXPECT_EQ(getxattr(dst.c_str(), "user.com.apple.tag", value, sizeof value), 2);
    EXPECT_STREQ(value, "v1");
    struct stat st {};
    ASSERT_EQ(stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1234567);
  }
  if (other.empty()) GTEST_SKIP() << "cannot mount tmpfs";

  ASSERT_EQ(symlink("some/target", (kDir + "/link").c_str()), 0);
  ASSERT_EQ(FSRenameWithEA(kDir + "/link", other + "/link"), 0);
  EXPECT_EQ(fs::read_symlink(other + "/link"), "some/target");
  EXPECT_FALSE(fs::is_symlink(kDir + "/link"));

  fs::create_directories(kDir + "/folder");
  EXPECT_EQ(FSRenameWithEA(kDir + "/folder", other + "/folder"), -1);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_TRUE(fs::is_directory(kDir + "/folder"));
  EXPECT_EQ(FSRenameWithEA(kDir + "/missing", other + "/x"), -1);
  umount(other.c_str());
}

}  // namespace
