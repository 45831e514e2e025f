// Mac attributes: pack and unpack through real extended attributes, files
// laid out as a Mac writes them, and damaged files.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "file-util.h"

namespace fs = std::filesystem;

namespace {

const std::string kDir = "/volume1/macattr";

using XattrMap = std::map<std::string, std::string>;

void Write(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary) << data;
}

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

XattrMap Xattrs(const std::string& path) {
  XattrMap out;
  char names[65536];
  ssize_t n = llistxattr(path.c_str(), names, sizeof names);
  for (ssize_t pos = 0; pos < n;) {
    std::string name = names + pos;
    pos += static_cast<ssize_t>(name.size()) + 1;
    std::string value(70000, '\0');
    ssize_t len = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    value.resize(static_cast<size_t>(len));
    out[name] = value;
  }
  return out;
}

std::string Fresh(const std::string& name) {
  std::string path = kDir + "/" + name;
  fs::remove(path);
  Write(path, "data");
  return path;
}

// Big-endian pieces of a hand-made AppleDouble file.
std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}
std::string Be16(uint16_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }

// A file as a Mac writes it: Finder info with one attribute "com.apple.x"
// = "hi", followed by a resource fork.
std::string MacMade(const std::string& finder_info, const std::string& fork) {
  std::string d = Be32(0x00051607) + Be32(0x00020000) + std::string(16, '\0') + Be16(2);
  // header 50, finder info 32 + 2, ATTR header 36, entry 11 + 12 = 23 -> 143,
  // aligned data at 144, 2 bytes, fork at 146
  d += Be32(9) + Be32(50) + Be32(146 - 50);
  d += Be32(2) + Be32(146) + Be32(static_cast<uint32_t>(fork.size()));
  d += finder_info + std::string(2, '\0');
  d += "ATTR" + Be32(0) + Be32(146) + Be32(144) + Be32(2) + std::string(12, '\0') + Be16(0) +
       Be16(1);
  d += Be32(144) + Be32(2) + Be16(0) + std::string(1, 12) + std::string("com.apple.x") + '\0';
  d += '\0';  // alignment of the data
  d += "hi" + fork;
  return d;
}

class MacAttr : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(kDir);
    fs::create_directories(kDir);
  }
};

TEST_F(MacAttr, PackThenUnpackRestoresTheMacAttributesOnly) {
  std::string src = Fresh("src");
  XattrMap mac = {
      {"user.com.apple.FinderInfo", std::string("TEXTttxt") + std::string(24, '\0')},
      {"user.com.apple.metadata:kMDItemWhereFroms", std::string("bplist00\0\x01\xff", 11)},
      {"user.com.apple.ResourceFork", std::string(3000, 'r')},
      {"user.com.apple.e", ""},
  };
  for (const auto& [name, value] : mac)
    ASSERT_EQ(setxattr(src.c_str(), name.c_str(), value.data(), value.size(), 0), 0) << name;
  ASSERT_EQ(setxattr(src.c_str(), "user.other", "o", 1, 0), 0);

  std::string packed = kDir + "/._src";
  ASSERT_EQ(MacAttributePack(src, packed), 0);
  std::string dst = Fresh("dst");
  ASSERT_EQ(MacAttributeUnpack(packed, dst), 0);
  EXPECT_EQ(Xattrs(dst), mac);

  std::set<std::string> skip = {"com.apple.ResourceFork"};
  std::string filtered = Fresh("filtered");
  ASSERT_EQ(MacAttributeUnpack(packed, filtered, &skip), 0);
  mac.erase("user.com.apple.ResourceFork");
  EXPECT_EQ(Xattrs(filtered), mac);

  std::string plain = Fresh("plain");
  ASSERT_EQ(MacAttributePack(plain, packed), 0);
  EXPECT_EQ(MacAttributeUnpack(packed, dst = Fresh("dst")), 0);
  EXPECT_TRUE(Xattrs(dst).empty());
}

TEST_F(MacAttr, ReadsFilesLaidOutByAMac) {
  std::string finder = "APPLmacs" + std::string(24, '\0');
  Write(kDir + "/._mac", MacMade(finder, "FORK"));
  std::string dst = Fresh("dst");
  ASSERT_EQ(MacAttributeUnpack(kDir + "/._mac", dst), 0);
  EXPECT_EQ(Xattrs(dst), (XattrMap{{"user.com.apple.x", "hi"},
                                   {"user.com.apple.FinderInfo", finder},
                                   {"user.com.apple.ResourceFork", "FORK"}}));

  // Blank Finder info and an empty fork are not attributes.
  Write(kDir + "/._mac", MacMade(std::string(32, '\0'), ""));
  ASSERT_EQ(MacAttributeUnpack(kDir + "/._mac", dst = Fresh("dst")), 0);
  EXPECT_EQ(Xattrs(dst), (XattrMap{{"user.com.apple.x", "hi"}}));
}

TEST_F(MacAttr, DamagedFilesAreRefusedBeforeAnythingIsSet) {
  std::string good = MacMade(std::string(32, '\0'), "FORK");
  auto with = [&](size_t at, const std::string& bytes) {
    std::string d = good;
    d.replace(at, bytes.size(), bytes);
    return d;
  };
  struct Case {
    const char* what;
    std::string data;
  } cases[] = {
      {"empty", ""},
      {"not AppleDouble", std::string(200, 'x')},
      {"wrong version", with(4, Be32(0x00010000))},
      {"entry table past the end", with(24, Be16(400))},
      {"entry past the end", with(26 + 4, Be32(5000))},
      {"fork longer than the file", with(38 + 8, Be32(50))},
      {"finder info too short", with(26 + 8, Be32(10))},
      {"no ATTR magic", with(84, "ATTX")},
      {"attribute count past the end", with(118, Be16(9))},
      {"attribute data past the end", with(120 + 4, Be32(1000))},
      {"name without terminator", with(142, "y")},
      {"zero-length name", with(130, std::string(1, '\0'))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Write(kDir + "/._bad", c.data);
    std::string dst = Fresh("dst");
    EXPECT_EQ(MacAttributeUnpack(kDir + "/._bad", dst), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(Xattrs(dst).empty());
  }

  // Any cut of a packed file is caught: its last entry ends at the end.
  std::string src = Fresh("src");
  ASSERT_EQ(setxattr(src.c_str(), "user.com.apple.a", "value", 5, 0), 0);
  ASSERT_EQ(MacAttributePack(src, kDir + "/._src"), 0);
  std::string packed = Read(kDir + "/._src");
  for (size_t len = 0; len < packed.size(); ++len) {
    Write(kDir + "/._cut", packed.substr(0, len));
    std::string dst = Fresh("dst");
    EXPECT_EQ(MacAttributeUnpack(kDir + "/._cut", dst), -1) << len;
    EXPECT_TRUE(Xattrs(dst).empty()) << len;
  }
  EXPECT_EQ(MacAttributeUnpack(kDir + "/._missing", Fresh("dst")), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
