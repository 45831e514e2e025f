#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include "content.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "db/errors.h"
#include "file-store.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using filestore::FileStore;
using filestore::Options;
using filestore::Stored;

namespace {

const std::string kStore = "/volume1/@tidepool/@sync";
const std::string kWork = "/volume1/work";

std::string Repetitive(size_t n) {
  std::string s;
  while (s.size() < n) s += "the tide comes in, the tide goes out; ";
  s.resize(n);
  return s;
}

// The next version of a content: a few scattered overwrites, and every
// third version grows or shrinks so deltas see length changes too.
std::string Edit(std::string s, int round) {
  std::mt19937 rng(round);
  for (int i = 0; i < 3 && !s.empty(); ++i) {
    const size_t at = rng() % s.size();
    const size_t len = std::min<size_t>(s.size() - at, 1 + rng() % 64);
    s.replace(at, len, tptest::RandomBytes(len, rng()));
  }
  if (round % 3 == 1) s += tptest::RandomBytes(100 + round, round);
  if (round % 3 == 2 && s.size() > 50) s.resize(s.size() - 50);
  if (s.empty()) s = "x";
  return s;
}

std::string Put(const std::string& name, const std::string& content) {
  const std::string path = kWork + "/" + name;
  tptest::WriteFile(path, content);
  return path;
}

class FileStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    fs::remove_all(kStore);
    fs::remove_all(kWork);
    fs::create_directories(kWork);
  }
  std::unique_ptr<FileStore> OpenStore(Options options = {}) {
    std::unique_ptr<FileStore> store;
    EXPECT_EQ(FileStore::Open(kStore, true, options, store), db::kOk);
    return store;
  }
  std::string Rebuilt(FileStore& store, uint64_t file_id, int* rc = nullptr) {
    const std::string out = kWork + "/rebuilt";
    const int r = store.Rebuild(file_id, out);
    if (rc) *rc = r;
    return r == 0 ? tptest::ReadFile(out) : std::string();
  }
};

struct Content {
  const char* name;
  std::string data;
};

TEST_F(FileStoreTest, EveryVersionOfAChainRebuildsWithItsHash) {
  const std::vector<Content> contents = {
      {"empty", ""},
      {"one byte", "a"},
      {"4 KiB", tptest::RandomBytes(4096, 1)},
      {"1 MiB + odd, random", tptest::RandomBytes((1 << 20) + 13, 2)},
      {"1 MiB + odd, repetitive", Repetitive((1 << 20) + 13)},
      {"9 MiB, random", tptest::RandomBytes(9 << 20, 3)},  // large enough for the two-thread pass
  };
  constexpr int kVersions = 12;
  for (const auto& c : contents) {
    SCOPED_TRACE(c.name);
    Options options;             // max_delta_chain 8
    options.min_delta_size = 0;  // deltas even for the smallest files
    auto store = OpenStore(options);
    ASSERT_TRUE(store);
    std::vector<std::string> expected = {c.data};
    std::vector<Stored> stored(1);
    ASSERT_EQ(store->StoreNewFile(Put("f", c.data), stored[0]), 0);
    for (int v = 1; v < kVersions; ++v) {
      expected.push_back(Edit(expected.back(), v));
      Stored next;
      ASSERT_EQ(store->StoreNewVersion(stored.back().file_id, Put("f", expected.back()), next), 0);
      stored.push_back(next);
    }
    for (int v = 0; v < kVersions; ++v) {
      SCOPED_TRACE("version " + std::to_string(v));
      EXPECT_EQ(stored[v].hash, tptest::Sha256Hex(expected[v]));
      EXPECT_EQ(stored[v].size, expected[v].size());
      EXPECT_EQ(stored[v].ver_type, db::kVerTypeStored);
      const std::string back = Rebuilt(*store, stored[v].file_id);
      EXPECT_EQ(tptest::Sha256Hex(back), tptest::Sha256Hex(expected[v]));
      // Eight deltas after an origin, then the ninth change starts afresh.
      std::string origin;
      std::vector<std::string> patches;
      ASSERT_EQ(store->GetPatchFiles(stored[v].file_id, origin, patches), 0);
      EXPECT_EQ(patches.size(), static_cast<size_t>(v <= 8 ? v : v - 9));
      EXPECT_TRUE(fs::exists(origin));
    }
    fs::remove_all(kStore);
  }
}

TEST_F(FileStoreTest, DeltasOfSmallChangesAreSmallAndTheReaderSeesTheSameChain) {
  auto store = OpenStore();
  const std::string base = tptest::RandomBytes(4 << 20, 7);
  Stored v0, v1;
  ASSERT_EQ(store->StoreNewFile(Put("big", base), v0), 0);
  std::string changed = base;
  changed[1000] ^= 1;
  changed[3 << 20] ^= 1;
  ASSERT_EQ(store->StoreNewVersion(v0.file_id, Put("big", changed), v1), 0);
  unsigned long long whole = 0, deltas = 0;
  ASSERT_EQ(store->GetFileSizeSum(whole), 0);
  ASSERT_EQ(store->GetDeltaSizeSum(deltas), 0);
  EXPECT_EQ(whole, base.size());
  EXPECT_GT(deltas, 0u);
  EXPECT_LT(deltas, 256u << 10);

  // The request side opens the same store through the db interface.
  std::unique_ptr<db::FileManager> reader;
  ASSERT_EQ(db::OpenFileManager(kStore, false, reader), 0);
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_EQ(reader->GetPatchFiles(v1.file_id, origin, patches), 0);
  EXPECT_EQ(tptest::ReadFile(origin), base);
  ASSERT_EQ(patches.size(), 1u);
  EXPECT_EQ(reader->GetPatchFiles(999, origin, patches), db::kErrNotFound);
}

TEST_F(FileStoreTest, SmallFilesAreStoredWholeEachTime) {
  auto store = OpenStore();
  ASSERT_TRUE(store);
  Stored v0, v1;
  ASSERT_EQ(store->StoreNewFile(Put("small", "first words"), v0), 0);
  ASSERT_EQ(store->StoreNewVersion(v0.file_id, Put("small", "second words"), v1), 0);
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_EQ(store->GetPatchFiles(v1.file_id, origin, patches), 0);
  EXPECT_TRUE(patches.empty());
  EXPECT_EQ(tptest::ReadFile(origin), "second words");
  EXPECT_EQ(Rebuilt(*store, v0.file_id), "first words");
}

TEST_F(FileStoreTest, ReleasedVersionsFreeTheirContentOnceNothingBuildsOnThem) {
  auto store = OpenStore();
  std::vector<Stored> v(4);
  std::string content = tptest::RandomBytes(64 << 10, 9);
  ASSERT_EQ(store->StoreNewFile(Put("f", content), v[0]), 0);
  for (int i = 1; i < 4; ++i) {
    content = Edit(content, i);
    ASSERT_EQ(store->StoreNewVersion(v[i - 1].file_id, Put("f", content), v[i]), 0);
  }
  ASSERT_EQ(store->Release(v[0].file_id), 0);
  ASSERT_EQ(store->Release(v[1].file_id), 0);
  int rc = 0;
  Rebuilt(*store, v[0].file_id, &rc);
  EXPECT_EQ(rc, db::kErrNotFound);
  EXPECT_EQ(tptest::Sha256Hex(Rebuilt(*store, v[3].file_id)),
            tptest::Sha256Hex(content));  // still built on them
  unsigned long long whole = 0;
  ASSERT_EQ(store->GetFileSizeSum(whole), 0);
  EXPECT_EQ(whole, 64u << 10);

  ASSERT_EQ(store->Release(v[3].file_id), 0);
  ASSERT_EQ(store->Release(v[2].file_id), 0);
  unsigned long long deltas = 1;
  ASSERT_EQ(store->GetFileSizeSum(whole), 0);
  ASSERT_EQ(store->GetDeltaSizeSum(deltas), 0);
  EXPECT_EQ(whole + deltas, 0u);
  size_t files = 0;
  for (const auto& e : fs::recursive_directory_iterator(kStore))
    if (e.is_regular_file() && e.path().string().find("file-db.sqlite") == std::string::npos)
      ++files;
  EXPECT_EQ(files, 0u);
  EXPECT_EQ(store->Release(12345), db::kErrNotFound);
}

TEST_F(FileStoreTest, LargeFilesAboveTheLimitKeepOnlyTheirHash) {
  Options options;
  options.live_version_min_size = 1000;
  auto store = OpenStore(options);
  ASSERT_TRUE(store);
  Stored small, large, next;
  ASSERT_EQ(store->StoreNewFile(Put("small", "tiny"), small), 0);
  ASSERT_EQ(store->StoreNewFile(Put("large", tptest::RandomBytes(2000, 4)), large), 0);
  EXPECT_EQ(small.ver_type, db::kVerTypeStored);
  EXPECT_NE(small.file_id, 0u);
  EXPECT_EQ(large.ver_type, db::kVerTypeLive);
  EXPECT_EQ(large.file_id, 0u);
  EXPECT_EQ(large.hash, tptest::Sha256Hex(tptest::RandomBytes(2000, 4)));
  // Growing past the limit turns a stored file into a live one.
  ASSERT_EQ(store->StoreNewVersion(small.file_id, Put("small", tptest::RandomBytes(5000, 5)), next),
            0);
  EXPECT_EQ(next.ver_type, db::kVerTypeLive);
  EXPECT_EQ(next.size, 5000u);
  Stored link;
  ASSERT_EQ(store->StoreBytes("../target/of/a link", link), 0);
  EXPECT_EQ(Rebuilt(*store, link.file_id), "../target/of/a link");
}

TEST_F(FileStoreTest, DamagedPiecesAndDatabasesGiveErrors) {
  auto store = OpenStore();
  std::string content = tptest::RandomBytes(200 << 10, 11);
  std::vector<Stored> v(3);
  ASSERT_EQ(store->StoreNewFile(Put("f", content), v[0]), 0);
  for (int i = 1; i < 3; ++i) {
    content = Edit(content, i);
    ASSERT_EQ(store->StoreNewVersion(v[i - 1].file_id, Put("f", content), v[i]), 0);
  }
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_EQ(store->GetPatchFiles(v[2].file_id, origin, patches), 0);
  ASSERT_EQ(patches.size(), 2u);
  const std::string saved = tptest::ReadFile(patches[1]);

  struct Damage {
    const char* what;
    std::function<void()> apply;
  };
  const std::vector<Damage> damages = {
      {"missing delta", [&] { fs::remove(patches[1]); }},
      {"truncated delta", [&] { fs::resize_file(patches[1], saved.size() / 2); }},
      {"delta cut to nothing", [&] { fs::resize_file(patches[1], 0); }},
  };
  for (const auto& d : damages) {
    SCOPED_TRACE(d.what);
    tptest::WriteFile(patches[1], saved);
    d.apply();
    int rc = 0;
    Rebuilt(*store, v[2].file_id, &rc);
    EXPECT_EQ(rc, db::kErrCorrupt);
    EXPECT_FALSE(fs::exists(kWork + "/rebuilt"));
  }
  tptest::WriteFile(patches[1], saved);
  EXPECT_EQ(tptest::Sha256Hex(Rebuilt(*store, v[2].file_id)), tptest::Sha256Hex(content));

  // A flipped bit in the origin is caught by the hash.
  std::string bytes = tptest::ReadFile(origin);
  bytes[100] ^= 1;
  tptest::WriteFile(origin, bytes);
  int rc = 0;
  Rebuilt(*store, v[0].file_id, &rc);
  EXPECT_EQ(rc, db::kErrCorrupt);
  store.reset();

  std::unique_ptr<FileStore> reopened;
  std::unique_ptr<db::FileManager> reader;
  EXPECT_EQ(FileStore::Open("/volume2/@tidepool/@sync", false, {}, reopened), db::kErrCannotOpen);
  EXPECT_EQ(db::OpenFileManager("/volume2/@tidepool/@sync", false, reader), db::kErrCannotOpen);
  fs::remove(kStore + "/file-db.sqlite-wal");
  fs::remove(kStore + "/file-db.sqlite-shm");
  tptest::WriteFile(kStore + "/file-db.sqlite", std::string(8192, 'Z'));
  EXPECT_EQ(FileStore::Open(kStore, false, {}, reopened), db::kErrCorrupt);
  EXPECT_EQ(db::OpenFileManager(kStore, false, reader), db::kErrCorrupt);
}

TEST(FileStoreOptions, ReadFromTheSettingFile) {
  const std::string conf = "/volume1/work-setting.conf";
  struct Case {
    std::string text;
    int chain;
    uint64_t live;
  };
  const std::vector<Case> cases = {
      {"", 8, 0},
      {"max_delta_chain=\"3\"\nlive_version_min_size=\"1048576\"\n", 3, 1048576},
      {"max_delta_chain=\"many\"\nlive_version_min_size=\"-5\"\n", 8, 0},
      {"max_delta_chain=\"0\"\n", 0, 0},
  };
  for (const auto& c : cases) {
    tptest::WriteFile(conf, c.text);
    const Options o = filestore::LoadOptions(conf);
    EXPECT_EQ(o.max_delta_chain, c.chain) << c.text;
    EXPECT_EQ(o.live_version_min_size, c.live) << c.text;
  }
  EXPECT_EQ(filestore::LoadOptions("/nonexistent").max_delta_chain, 8);
}

}  // namespace

namespace {

// Content comes from an open descriptor, read from its start whatever its
// position; anything but a regular file is refused at once, and the path
// forms never follow a link to somewhere else.
TEST_F(FileStoreTest, ContentFromADescriptorIsExactlyWhatWasOpened) {
  auto store = OpenStore();
  const std::string first = tptest::RandomBytes(40 << 10, 11);
  const std::string second = Edit(first, 1);
  int fd = open(Put("f", first).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 100, SEEK_SET), 100);
  Stored v0, v1;
  ASSERT_EQ(store->StoreNewFileFd(fd, v0), db::kOk);
  close(fd);
  EXPECT_EQ(Rebuilt(*store, v0.file_id), first);
  // The path now names other content; the descriptor still holds its own.
  fd = open(Put("g", second).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  fs::remove(kWork + "/g");
  Put("g", "made after the open");
  ASSERT_EQ(store->StoreNewVersionFd(v0.file_id, fd, v1), db::kOk);
  close(fd);
  EXPECT_EQ(Rebuilt(*store, v1.file_id), second);
  EXPECT_EQ(v1.hash, tptest::Sha256Hex(second));

  // A pipe or a folder: refused without a read that would block.
  ASSERT_EQ(mkfifo((kWork + "/pipe").c_str(), 0600), 0);
  const int pipe_fd = open((kWork + "/pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const int dir_fd = open(kWork.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Stored none;
  EXPECT_EQ(store->StoreNewFileFd(pipe_fd, none), db::kErrInvalid);
  EXPECT_EQ(store->StoreWholeFd(dir_fd, none), db::kErrInvalid);
  EXPECT_EQ(store->StoreNewVersionFd(v1.file_id, pipe_fd, none), db::kErrInvalid);
  close(pipe_fd);
  close(dir_fd);
  ASSERT_EQ(symlink((kWork + "/f").c_str(), (kWork + "/link").c_str()), 0);
  EXPECT_LT(store->StoreNewFile(kWork + "/link", none), 0);
  EXPECT_LT(store->StoreNewFile(kWork + "/pipe", none), 0);
  EXPECT_EQ(none.file_id, 0u);
}

}  // namespace
