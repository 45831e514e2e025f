// The zip a user downloads, from both writers: what unzip and 7z make of it,
// what a hostile folder cannot get into it, and how it ends when the reader
// goes away. Each case runs once per writer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "archive-writer.h"
#include "content.h"
#include "logger.h"
#include "process.h"
#include "sandbox.h"
#include "zip-reader.h"

namespace tparchive {
namespace {

namespace fs = std::filesystem;
using tptest::ReadZipDirectory;
using tptest::ZipDirectory;

constexpr time_t kMtime = 1577934246;  // 2020-01-02 03:04:06 UTC, even seconds for DOS time

// One node of a tree: a file with its bytes, a folder, or a link and its target.
struct Node {
  enum Kind { kFile, kFolder, kLink } kind;
  std::string path;
  std::string data;  // a file's bytes or a link's target
  mode_t mode = 0;   // 0: the default
};

Node File(const std::string& path, const std::string& data, mode_t mode = 0644) {
  return {Node::kFile, path, data, mode};
}
Node Folder(const std::string& path, mode_t mode = 0755) { return {Node::kFolder, path, "", mode}; }
Node Link(const std::string& path, const std::string& target) {
  return {Node::kLink, path, target, 0};
}

void Build(const std::string& root, const std::vector<Node>& nodes) {
  fs::create_directories(root);
  for (const Node& n : nodes) {
    const std::string path = root + "/" + n.path;
    fs::create_directories(fs::path(path).parent_path());
    if (n.kind == Node::kFolder) {
      fs::create_directories(path);
    } else if (n.kind == Node::kLink) {
      ASSERT_EQ(symlink(n.data.c_str(), path.c_str()), 0) << path;
      continue;
    } else {
      std::ofstream(path, std::ios::binary) << n.data;
    }
    ASSERT_EQ(chmod(path.c_str(), n.mode), 0);
    const timeval times[2] = {{kMtime, 0}, {kMtime, 0}};
    ASSERT_EQ(utimes(path.c_str(), times), 0);
  }
}

// What a user sees of an extracted tree: per path, the kind, the SHA-256 of a
// file or a link's target, and the permission bits.
std::map<std::string, std::string> Snapshot(const std::string& root) {
  std::map<std::string, std::string> seen;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const std::string rel = it->path().lexically_relative(root).string();
    struct stat st;
    lstat(it->path().c_str(), &st);
    char mode[8];
    snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
    if (S_ISLNK(st.st_mode)) {
      seen[rel] = "link -> " + fs::read_symlink(it->path()).string();
    } else if (S_ISDIR(st.st_mode)) {
      seen[rel] = std::string("folder ") + mode;
    } else {
      seen[rel] = std::string("file ") + mode + " " +
                  tptest::Sha256Hex(tptest::ReadFile(it->path().string()));
      if (st.st_mtime != kMtime) seen[rel] += " mtime " + std::to_string(st.st_mtime);
    }
  }
  return seen;
}

std::map<std::string, std::string> Expected(const std::vector<Node>& nodes) {
  std::map<std::string, std::string> want;
  for (const Node& n : nodes) {
    char mode[8];
    snprintf(mode, sizeof(mode), "%o", n.mode);
    if (n.kind == Node::kLink) {
      want[n.path] = "link -> " + n.data;
    } else if (n.kind == Node::kFolder) {
      want[n.path] = std::string("folder ") + mode;
    } else {
      want[n.path] = std::string("file ") + mode + " " + tptest::Sha256Hex(n.data);
    }
    for (fs::path p = fs::path(n.path).parent_path(); !p.empty(); p = p.parent_path()) {
      want.emplace(p.string(), "folder 755");
    }
  }
  return want;
}

struct StreamResult {
  int rc = -1;
  int error = 0;
};

// Streams the archive of `folder` into a pipe; a thread copies it into `zip`.
StreamResult StreamToFile(ArchiveWriter& writer, const std::string& folder,
                          const std::string& zip) {
  StreamResult result;
  if (writer.Start(folder) != 0) {
    result.error = errno;
    return result;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return result;
  std::thread reader([&] {
    std::ofstream out(zip, std::ios::binary);
    char buffer[1 << 16];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof(buffer))) > 0) out.write(buffer, n);
    close(fds[0]);
  });
  result.rc = writer.Stream(fds[1]);
  result.error = errno;
  close(fds[1]);
  reader.join();
  return result;
}

tptest::ProcessResult RunTool(const std::vector<std::string>& argv) {
  return tptest::RunProcess(argv, {{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C.UTF-8"}});
}

// The zip processes that are children of this test.
int ZipChildren() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string stat = tptest::ReadFile(entry.path().string() + "/stat");
    const size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos || stat.find("(zip)") == std::string::npos) continue;
    int ppid = 0;
    char state = 0;
    if (sscanf(stat.c_str() + close_paren + 1, " %c %d", &state, &ppid) == 2 && ppid == getpid()) {
      ++count;
    }
  }
  return count;
}

class ArchiveWriterTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    char pattern[] = "/tmp/archive-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    folder_ = dir_ + "/folder";
    zip_ = dir_ + "/out.zip";
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  bool libarchive() const { return GetParam() == "libarchive"; }

  std::unique_ptr<ArchiveWriter> Writer(const std::string& codepage = "unicode") {
    ArchiveOptions options;
    options.codepage = codepage;
    return libarchive() ? MakeLibarchiveZipWriter(options) : MakeZipProgramWriter(options);
  }

  // Streams the archive of folder_ into zip_ and expects success.
  void Zip(const std::string& codepage = "unicode") {
    auto writer = Writer(codepage);
    const StreamResult r = StreamToFile(*writer, folder_, zip_);
    ASSERT_EQ(r.rc, 0) << strerror(r.error);
  }

  std::map<std::string, std::string> ExtractWith(const std::string& tool) {
    const std::string out = dir_ + "/" + tool;
    fs::remove_all(out);
    fs::create_directories(out);
    const tptest::ProcessResult r = tool == "unzip"
                                        ? RunTool({"/usr/bin/unzip", "-q", zip_, "-d", out})
                                        : RunTool({"/usr/bin/7z", "x", "-o" + out, zip_});
    EXPECT_EQ(r.exit_status, 0) << tool << ": " << r.out << r.err;
    return Snapshot(out);
  }

  std::string LogSince(size_t offset) {
    const std::string log = tptest::ReadFile(Logger::LogFilePath());
    return log.size() > offset ? log.substr(offset) : "";
  }
  size_t LogSize() { return tptest::ReadFile(Logger::LogFilePath()).size(); }

  std::string dir_, folder_, zip_;
};

TEST_P(ArchiveWriterTest, UnzipAnd7zGiveBackTheTree) {
  const std::vector<Node> tree = {
      File("empty.txt", ""),
      File("one.txt", "1"),
      File("private.bin", tptest::RandomBytes(100 << 10, 1), 0600),
      File("big.bin", tptest::RandomBytes((3 << 20) / 2 + 7, 2), 0640),
      File("a/b/c/deep.txt", "deep"),
      Folder("a/empty"),
      Folder("locked", 0750),
      File("héllo 世界.txt", "unicode"),
      File("new\nline", "newline"),
      File("quo\"te's", "quotes"),
      File("back\\slash", "backslash"),
      File("-dash", "leading dash"),
      Link("a/to-deep", "b/c/deep.txt"),
      Link("dangling", "no-such-file"),
  };
  Build(folder_, tree);
  Zip();
  const auto want = Expected(tree);

  // 7z keeps every name as it is.
  EXPECT_EQ(ExtractWith("7z"), want);
  // unzip drops control characters from names: the newline goes.
  auto unzip_want = want;
  unzip_want.erase("new\nline");
  unzip_want["newline"] = "file 644 " + tptest::Sha256Hex("newline");
  EXPECT_EQ(ExtractWith("unzip"), unzip_want);

  const ZipDirectory zip = ReadZipDirectory(zip_);
  ASSERT_TRUE(zip.ok);
  std::vector<std::string> names;
  for (const auto& e : zip.entries) {
    names.push_back(e.name);
    EXPECT_EQ(e.method, 0) << e.name << " is compressed";
    // Debian's zip stores UTF-8 names without saying so; libarchive flags them.
    const bool ascii = std::all_of(e.name.begin(), e.name.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (libarchive() && !ascii) {
      EXPECT_TRUE(e.flags & tptest::kZipUtf8Flag) << e.name;
    }
  }
  if (libarchive()) {
    // Sorted within each folder, folders before their contents.
    const std::vector<std::string> want_names = {
        "-dash",     "a/",          "a/b/",    "a/b/c/",      "a/b/c/deep.txt", "a/empty/",
        "a/to-deep", "back\\slash", "big.bin", "dangling",    "empty.txt",      "héllo 世界.txt",
        "locked/",   "new\nline",   "one.txt", "private.bin", "quo\"te's"};
    EXPECT_EQ(names, want_names);
  }
}

TEST_P(ArchiveWriterTest, HostileFolderGivesLinksNeverTargets) {
  const std::string secret = "root:secret-hash-that-must-not-leak:0:0";
  Build(dir_ + "/outside", {File("shadow", secret), File("inner/also", secret)});
  Build(folder_, {File("plain.txt", "plain"), Link("shadow", dir_ + "/outside/shadow"),
                  Link("escape", dir_ + "/outside/inner"), Link("up", "../outside/shadow")});
  ASSERT_EQ(mkfifo((folder_ + "/fifo").c_str(), 0644), 0);
  const size_t log_offset = LogSize();

  Zip();  // a FIFO with no writer would block an open without O_NONBLOCK

  EXPECT_EQ(tptest::ReadFile(zip_).find(secret), std::string::npos);
  const ZipDirectory zip = ReadZipDirectory(zip_);
  ASSERT_TRUE(zip.ok);
  std::map<std::string, uint32_t> kinds;
  for (const auto& e : zip.entries) kinds[e.name] = e.unix_mode & S_IFMT;
  const std::map<std::string, uint32_t> want = {
      {"escape", S_IFLNK}, {"plain.txt", S_IFREG}, {"shadow", S_IFLNK}, {"up", S_IFLNK}};
  EXPECT_EQ(kinds, want);

  const auto extracted = ExtractWith("unzip");
  EXPECT_EQ(extracted.at("shadow"), "link -> " + dir_ + "/outside/shadow");
  EXPECT_EQ(extracted.at("escape"), "link -> " + dir_ + "/outside/inner");
  EXPECT_EQ(extracted.at("up"), "link -> ../outside/shadow");
  // Debian's zip skips FIFOs silently; libarchive says what it left out.
  if (libarchive()) {
    EXPECT_NE(LogSince(log_offset).find("\"fifo\""), std::string::npos);
  }
}

TEST_P(ArchiveWriterTest, FolderWithNothingGivesAnEmptyZip) {
  fs::create_directories(folder_);
  Zip();
  EXPECT_EQ(fs::file_size(zip_), 22u);
  const ZipDirectory zip = ReadZipDirectory(zip_);
  EXPECT_TRUE(zip.ok);
  EXPECT_EQ(zip.count, 0u);
  const auto listed = RunTool({"/usr/bin/unzip", "-l", zip_});
  EXPECT_NE((listed.out + listed.err).find("zipfile is empty"), std::string::npos)
      << listed.out << listed.err;
  EXPECT_EQ(RunTool({"/usr/bin/7z", "t", zip_}).exit_status, 0);
}

TEST_P(ArchiveWriterTest, RefusesWhatIsNotAnOpenableFolder) {
  Build(folder_, {File("f.txt", "x")});
  Build(dir_, {Link("link-to-folder", folder_)});
  auto writer = Writer();
  const std::vector<std::pair<std::string, int>> cases = {
      {"relative/path", EINVAL},
      {dir_ + "/no-such-folder", ENOENT},
      {folder_ + "/f.txt", ENOTDIR},
      {dir_ + "/link-to-folder", ENOTDIR},  // a link is not a folder
      {dir_ + "/link-to-folder/f.txt", ELOOP},
  };
  for (const auto& [path, error] : cases) {
    errno = 0;
    EXPECT_EQ(writer->Start(path), -1) << path;
    EXPECT_EQ(errno, error) << path;
  }
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(writer->Stream(fds[1]), -1);
  EXPECT_EQ(errno, EINVAL);
  close(fds[0]);
  close(fds[1]);
}

TEST_P(ArchiveWriterTest, ReaderThatGoesAwayEndsTheStream) {
  Build(folder_, {File("a.bin", tptest::RandomBytes(24 << 20, 3)), File("b.txt", "after")});
  auto writer = Writer();
  ASSERT_EQ(writer->Start(folder_), 0);
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  std::thread reader([&] {
    char buffer[1 << 16];
    size_t total = 0;
    while (total < (1 << 20)) {
      const ssize_t n = read(fds[0], buffer, sizeof(buffer));
      if (n <= 0) break;
      total += static_cast<size_t>(n);
    }
    close(fds[0]);
  });
  errno = 0;
  EXPECT_EQ(writer->Stream(fds[1]), -1);
  EXPECT_EQ(errno, EPIPE);
  close(fds[1]);
  reader.join();
  EXPECT_EQ(ZipChildren(), 0);
}

TEST_P(ArchiveWriterTest, UserCodepageNamesOrUtf8Fallback) {
  Build(folder_, {File("中文.txt", "big5 name")});
  const std::string utf8 = "中文.txt";
  const std::string big5 = "\xa4\xa4\xa4\xe5.txt";

  size_t log_offset = LogSize();
  Zip("big5");
  ZipDirectory zip = ReadZipDirectory(zip_);
  ASSERT_EQ(zip.entries.size(), 1u);
  if (libarchive()) {
    EXPECT_EQ(zip.entries[0].name, big5);
    EXPECT_FALSE(zip.entries[0].flags & tptest::kZipUtf8Flag);
  } else {
    // Debian's zip cannot transcode names.
    EXPECT_EQ(zip.entries[0].name, utf8);
    EXPECT_NE(LogSince(log_offset).find("big5"), std::string::npos);
  }

  log_offset = LogSize();
  Zip("no-such-cp");
  zip = ReadZipDirectory(zip_);
  ASSERT_EQ(zip.entries.size(), 1u);
  EXPECT_EQ(zip.entries[0].name, utf8);
  if (libarchive()) {
    EXPECT_TRUE(zip.entries[0].flags & tptest::kZipUtf8Flag);
  }
  EXPECT_NE(LogSince(log_offset).find("no-such-cp"), std::string::npos);
}

// More than 65,535 entries need the zip64 end records; tiny files keep it
// cheap. (A total past 4 GiB is checked by bench_archive_writers --zip64-check,
// which reads 4.5 GiB per writer.)
TEST_P(ArchiveWriterTest, MoreThan65535EntriesMakeAValidZip64) {
  constexpr int kFolders = 2;
  constexpr int kFilesPerFolder = 33000;
  for (int d = 0; d < kFolders; ++d) {
    const std::string sub = folder_ + "/d" + std::to_string(d);
    fs::create_directories(sub);
    for (int i = 0; i < kFilesPerFolder; ++i) {
      const int fd = open((sub + "/" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT, 0644);
      ASSERT_GE(fd, 0);
      if (i % 1000 == 0) {
        ASSERT_EQ(write(fd, "x", 1), 1);
      }
      close(fd);
    }
  }
  Zip();
  const ZipDirectory zip = ReadZipDirectory(zip_);
  ASSERT_TRUE(zip.ok);
  EXPECT_TRUE(zip.zip64);
  EXPECT_EQ(zip.count, static_cast<uint64_t>(kFolders * (kFilesPerFolder + 1)));
  const auto unzip = RunTool({"/usr/bin/unzip", "-tq", zip_});
  EXPECT_EQ(unzip.exit_status, 0) << unzip.out << unzip.err;
  const auto sevenzip = RunTool({"/usr/bin/7z", "t", zip_});
  EXPECT_EQ(sevenzip.exit_status, 0) << sevenzip.out.substr(0, 2000);
}

INSTANTIATE_TEST_SUITE_P(Writers, ArchiveWriterTest, ::testing::Values("libarchive", "zip"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace tparchive
