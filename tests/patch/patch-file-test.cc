#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <sys/mount.h>
#include "content.h"

#include <filesystem>
#include <functional>
#include <random>
#include <sstream>

#include "db/errors.h"
#include "file-store.h"
#include "hv-file-utility.h"
#include "sandbox.h"

namespace fs = std::filesystem;

namespace {

const std::string kStore = "/volume1/@tidepool/@sync";
const std::string kWork = "/volume1/work";
const std::string kOut = "/volume1/out";

using Edit = std::function<std::string(std::string, uint32_t)>;

const std::vector<std::pair<const char*, Edit>>& Edits() {
  static const std::vector<std::pair<const char*, Edit>> edits = {
      {"insert",
       [](std::string s, uint32_t seed) {
         return s.insert(s.empty() ? 0 : seed % s.size(),
                         tptest::RandomBytes(1 + seed % 3000, seed));
       }},
      {"delete",
       [](std::string s, uint32_t seed) {
         if (s.empty()) return s;
         const size_t at = seed % s.size();
         return s.erase(at, std::min<size_t>(s.size() - at, 1 + seed % 5000));
       }},
      {"scattered",
       [](std::string s, uint32_t seed) {
         std::mt19937 rng(seed);
         for (int i = 0; i < 20 && !s.empty(); ++i) {
           const size_t at = rng() % s.size();
           const size_t len = std::min<size_t>(s.size() - at, 1 + rng() % 200);
           s.replace(at, len, tptest::RandomBytes(len, rng()));
         }
         return s;
       }},
      {"append",
       [](std::string s, uint32_t seed) { return s + tptest::RandomBytes(1 + seed % 9000, seed); }},
      {"truncate", [](std::string s, uint32_t) { return s.substr(0, s.size() * 2 / 3); }},
      {"empty", [](std::string, uint32_t) { return std::string(); }},
      {"refill",
       [](std::string s, uint32_t seed) { return tptest::RandomBytes(5000, seed) + s + s; }},
  };
  return edits;
}

// Share keys as HVOSService hands them out.
const std::string kKey(64, 'a');
const std::string kOtherKey = std::string(63, 'a') + "b";

// Patches the chain of `file_id` and gives the content, or "<failed>".
std::string PatchOf(filestore::FileStore& store, uint64_t file_id, size_t* chain = nullptr,
                    const std::string& key = "") {
  std::string origin, out;
  std::vector<std::string> patches;
  if (store.GetPatchFiles(file_id, origin, patches) < 0) return "<no chain>";
  if (chain) *chain = patches.size();
  if (HVFileUtility::PatchFile(origin, patches, key, kOut, out) != 0) return "<failed>";
  std::string content = tptest::ReadFile(out);
  fs::remove(out);
  return content;
}

class PatchFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    for (const auto& dir : {kStore, kWork, kOut}) fs::remove_all(dir);
    fs::create_directories(kWork);
    fs::create_directories(kOut);
    filestore::Options options;
    options.max_delta_chain = 64;
    options.min_delta_size = 0;
    ASSERT_EQ(filestore::FileStore::Open(kStore, true, options, store_), db::kOk);
  }

  // Stores `versions` as a chain; gives their file ids.
  std::vector<uint64_t> StoreChain(const std::vector<std::string>& versions) {
    std::vector<uint64_t> ids;
    for (size_t i = 0; i < versions.size(); ++i) {
      const std::string path = kWork + "/content";
      tptest::WriteFile(path, versions[i]);
      filestore::Stored stored;
      const int rc = i == 0 ? store_->StoreNewFile(path, stored)
                            : store_->StoreNewVersion(ids.back(), path, stored);
      EXPECT_GE(rc, 0);
      ids.push_back(stored.file_id);
    }
    return ids;
  }

  // The deltas of a small two-version chain, as written by the store.
  void SmallChain(std::string& origin, std::vector<std::string>& patches) {
    const std::string base = tptest::RandomBytes(20000, 3);
    const auto ids = StoreChain({base, Edits()[2].second(base, 4)});
    ASSERT_EQ(store_->GetPatchFiles(ids.back(), origin, patches), 0);
    ASSERT_EQ(patches.size(), 1u);
  }

  static bool OutIsEmpty() { return fs::is_empty(kOut); }

  std::unique_ptr<filestore::FileStore> store_;
};

TEST_F(PatchFileTest, ChainsRebuildAsTheStoreDoes) {
  const std::vector<size_t> sizes = {0, 1, 700, 70000, (3 << 20) + 17};
  const std::vector<size_t> lengths = {1, 3, 12};
  for (const std::string& key : {std::string(), kKey}) {
    for (size_t size : sizes) {
      for (size_t length : lengths) {
        SCOPED_TRACE("size " + std::to_string(size) + ", chain " + std::to_string(length) +
                     (key.empty() ? ", plain" : ", sealed"));
        ASSERT_EQ(store_->SetKey(key), db::kOk);
        std::vector<std::string> versions = {
            tptest::RandomBytes(size, static_cast<uint32_t>(size))};
        std::vector<std::string> names = {"origin"};
        for (size_t i = 1; i <= length; ++i) {
          const auto& [name, edit] = Edits()[(i + size) % Edits().size()];
          versions.push_back(edit(versions.back(), static_cast<uint32_t>(i * 7919 + size)));
          names.push_back(name);
        }
        const auto ids = StoreChain(versions);
        for (size_t v = 0; v < ids.size(); ++v) {
          SCOPED_TRACE("version " + std::to_string(v) + " (" + names[v] + ")");
          const std::string rebuilt = kWork + "/rebuilt";
          ASSERT_EQ(store_->Rebuild(ids[v], rebuilt), db::kOk);
          size_t chain = 0;
          const std::string patched = PatchOf(*store_, ids[v], &chain, key);
          EXPECT_EQ(tptest::Sha256Hex(patched), tptest::Sha256Hex(tptest::ReadFile(rebuilt)));
          EXPECT_EQ(tptest::Sha256Hex(patched), tptest::Sha256Hex(versions[v]))
              << patched.size() << " vs " << versions[v].size();
          EXPECT_EQ(chain, v);
          EXPECT_EQ(HVFileUtility::GetError(), 0);
        }
        EXPECT_TRUE(OutIsEmpty());
      }
    }
  }
}

// Sealed pieces show none of their content, and open only with their key
// and only whole.
TEST_F(PatchFileTest, SealedPiecesOpenOnlyWithTheirKeyAndUntouched) {
  ASSERT_EQ(store_->SetKey(kKey), db::kOk);
  std::string base;
  for (int i = 0; i < 300000; ++i) base += static_cast<char>('a' + i % 26);
  const auto ids = StoreChain({base, base + "tail", "head" + base});
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_EQ(store_->GetPatchFiles(ids.back(), origin, patches), 0);
  ASSERT_EQ(patches.size(), 2u);
  for (const std::string& piece : {origin, patches[0], patches[1]})
    EXPECT_EQ(tptest::ReadFile(piece).find("abcdefghijklmnop"), std::string::npos) << piece;
  for (const auto& entry : fs::recursive_directory_iterator(kStore + "/node_delta"))
    if (entry.is_regular_file()) {
      EXPECT_EQ(tptest::ReadFile(entry.path()).substr(0, 4), "TPX1");
    }
  EXPECT_EQ(PatchOf(*store_, ids.back(), nullptr, kKey), "head" + base);

  // Pieces damaged in the middle, cut short, or grown.
  const std::string bad = kWork + "/bad";
  auto damaged = [&](const std::string& piece, const std::function<void(std::string&)>& harm) {
    std::string bytes = tptest::ReadFile(piece);
    harm(bytes);
    tptest::WriteFile(bad, bytes);
    return bad;
  };
  struct Case {
    const char* name;
    std::string origin;
    std::vector<std::string> patches;
    std::string key;
  };
  const std::vector<Case> cases = {
      {"another key", origin, patches, kOtherKey},
      {"no key", origin, patches, ""},
      {"not a key", origin, patches, "0123"},
      {"flipped byte in a delta",
       origin,
       {patches[0], damaged(patches[1], [](std::string& b) { b[b.size() / 2] ^= 1; })},
       kKey},
      {"origin without its last chunk",
       damaged(origin, [](std::string& b) { b.resize(4 + 24 + (64 << 10) + 17); }),
       {},
       kKey},
      {"origin with bytes after its end",
       damaged(origin, [](std::string& b) { b += "x"; }),
       {},
       kKey},
      {"plain origin", damaged(origin, [&](std::string& b) { b = base; }), {}, kKey},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string out;
    EXPECT_EQ(HVFileUtility::PatchFile(c.origin, c.patches, c.key, kOut, out), -1);
    EXPECT_EQ(HVFileUtility::GetError(), -1);
    EXPECT_TRUE(out.empty());
  }
  EXPECT_TRUE(OutIsEmpty());
}

// EncryptFile writes the store's format: what it seals, PatchFile opens as
// an origin, and its own opening gives the bytes back at chunk edges too.
TEST_F(PatchFileTest, EncryptFileRoundTrips) {
  const std::string plain = kWork + "/plain", sealed = kWork + "/sealed", back = kWork + "/back";
  for (size_t size :
       {size_t{0}, size_t{1}, size_t{64 << 10}, size_t{(64 << 10) + 1}, size_t{200000}}) {
    SCOPED_TRACE(size);
    const std::string content = tptest::RandomBytes(size, static_cast<uint32_t>(size));
    tptest::WriteFile(plain, content);
    ASSERT_EQ(HVFileUtility::EncryptFile(plain, sealed, kKey, true), 0);
    EXPECT_NE(tptest::ReadFile(sealed), content);
    ASSERT_EQ(HVFileUtility::EncryptFile(sealed, back, kKey, false), 0);
    EXPECT_EQ(tptest::ReadFile(back), content);
    std::string out;
    ASSERT_EQ(HVFileUtility::PatchFile(sealed, {}, kKey, kOut, out), 0);
    EXPECT_EQ(tptest::ReadFile(out), content);
    fs::remove(out);

    fs::remove(back);
    EXPECT_EQ(HVFileUtility::EncryptFile(sealed, back, kOtherKey, false), -1);
    EXPECT_EQ(HVFileUtility::GetError(), -1);
    EXPECT_FALSE(fs::exists(back));
  }
  EXPECT_EQ(HVFileUtility::EncryptFile(kWork + "/nothing", back, kKey, true), -1);
  EXPECT_EQ(HVFileUtility::EncryptFile(plain, back, "short", true), -1);

  // A plain rename, and one that keeps attributes.
  tptest::WriteFile(plain, "moved");
  ASSERT_EQ(HVFileUtility::FSRenameWithEA(plain, back, false), 0);
  ASSERT_EQ(HVFileUtility::FSRenameWithEA(back, plain, true), 0);
  EXPECT_EQ(tptest::ReadFile(plain), "moved");
  EXPECT_FALSE(fs::exists(back));
}

// Deltas written by hand, covering every parameter width of the format.
TEST_F(PatchFileTest, HandWrittenDeltas) {
  const std::string origin = kWork + "/origin";
  std::string base;
  for (int i = 0; i < 70000; ++i) base += static_cast<char>('a' + i % 26);
  tptest::WriteFile(origin, base);
  const std::string magic = "rs\x02\x36";
  const std::string end(1, '\0');
  struct Case {
    const char* name;
    std::string delta;
    std::string expected;  // "" with ok false: must fail
    bool ok;
  };
  const std::vector<Case> cases = {
      {"end only", magic + end, "", true},
      {"inline literal", magic + "\x03xyz" + end, "xyz", true},
      {"literal n1", magic + "\x41\x02hi" + end, "hi", true},
      {"literal n2", magic + std::string("\x42\x00\x01", 3) + "!" + end, "!", true},
      {"literal n8", magic + std::string("\x44\0\0\0\0\0\0\0\x01", 9) + "?" + end, "?", true},
      {"copy n1 n1", magic + "\x45\x02\x03" + end, "cde", true},
      {"copy n2 n2", magic + std::string("\x4a\x00\x1a\x00\x02", 5) + end, "ab", true},
      {"copy n4 n2", magic + std::string("\x4e\x00\x01\x00\x00\x00\x03", 7) + end,
       base.substr(65536, 3), true},
      {"copy n8 n8",
       magic + std::string("\x54\0\0\0\0\0\0\0\x19\0\0\0\0\0\0\0\x02", 17) + "\x01Z" + end, "zaZ",
       true},
      {"copy of all", magic + std::string("\x4f\0\0\0\0\0\x01\x11\x70", 9) + end, base, true},
      {"bad magic", "rs\x01\x36" + end, "", false},
      {"short magic", "rs", "", false},
      {"empty file", "", "", false},
      {"no end", magic + "\x01x", "", false},
      {"unknown command", magic + "\x55" + end, "", false},
      {"copy past the end", magic + std::string("\x4f\0\0\0\0\0\x01\x11\x71", 9) + end, "", false},
      {"copy starting past the end", magic + std::string("\x4d\0\x01\x11\x71\0\0", 7) + end, "",
       false},
      {"copy with huge numbers",
       magic + "\x54" + std::string(8, '\xff') + std::string(8, '\xff') + end, "", false},
      {"copy cut short", magic + std::string("\x4a\x00", 2), "", false},
      {"literal past the end", magic + "\x41\x09" + "abc" + end, "", false},
      {"literal with huge length", magic + "\x44" + std::string(8, '\xff') + end, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string delta = kWork + "/delta";
    tptest::WriteFile(delta, c.delta);
    std::string out;
    const int rc = HVFileUtility::PatchFile(origin, {delta}, "", kOut, out);
    if (c.ok) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(tptest::ReadFile(out), c.expected);
      fs::remove(out);
    } else {
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(HVFileUtility::GetError(), -1);
      EXPECT_TRUE(out.empty());
    }
    EXPECT_TRUE(OutIsEmpty());
  }
}

TEST_F(PatchFileTest, DamagedStoredDeltasFailCleanly) {
  std::string origin;
  std::vector<std::string> patches;
  SmallChain(origin, patches);
  const std::string delta = tptest::ReadFile(patches[0]);
  ASSERT_GT(delta.size(), 10u);
  const std::string cut = kWork + "/cut";
  // Every proper prefix lacks the end command, wherever the cut falls.
  for (size_t len = 0; len < delta.size(); len += 1 + len / 64) {
    SCOPED_TRACE("cut at " + std::to_string(len));
    tptest::WriteFile(cut, delta.substr(0, len));
    std::string out;
    EXPECT_EQ(HVFileUtility::PatchFile(origin, {cut}, "", kOut, out), -1);
    EXPECT_EQ(HVFileUtility::GetError(), -1);
  }
  // A delta later in a chain checks its copies against the shorter content
  // built so far, not against the origin.
  const std::string shrink = kWork + "/shrink";
  tptest::WriteFile(shrink, std::string("rs\x02\x36\x45\x00\x0a", 7) + std::string(1, '\0'));
  std::string out;
  EXPECT_EQ(HVFileUtility::PatchFile(origin, {shrink, patches[0]}, "", kOut, out), -1);
  EXPECT_TRUE(OutIsEmpty());
}

TEST_F(PatchFileTest, MissingPiecesKeysAndFullDisks) {
  std::string origin;
  std::vector<std::string> patches;
  SmallChain(origin, patches);
  struct Case {
    const char* name;
    std::string origin;
    std::vector<std::string> patches;
    std::string key;
    std::string work_dir;
  };
  const std::vector<Case> cases = {
      {"missing origin", kWork + "/nothing", patches, "", kOut},
      {"origin is a folder", kWork, {}, "", kOut},
      {"missing delta", origin, {patches[0], kWork + "/nothing"}, "", kOut},
      {"encrypted share", origin, patches, "secret", kOut},
      {"missing work folder", origin, patches, "", kWork + "/nowhere"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string out;
    EXPECT_EQ(HVFileUtility::PatchFile(c.origin, c.patches, c.key, c.work_dir, out), -1);
    EXPECT_EQ(HVFileUtility::GetError(), -1);
    EXPECT_TRUE(out.empty());
  }
  EXPECT_TRUE(OutIsEmpty());

  // A work folder too small for the result: -2, and no partial file.
  const std::string tiny = kWork + "/tiny";
  fs::create_directories(tiny);
  if (mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=8k") != 0) {
    GTEST_SKIP() << "cannot mount a small file system here";
  }
  std::string out;
  EXPECT_EQ(HVFileUtility::PatchFile(origin, patches, "", tiny, out), -1);
  EXPECT_EQ(HVFileUtility::GetError(), -2);
  EXPECT_TRUE(fs::is_empty(tiny));
  umount(tiny.c_str());
}

}  // namespace
