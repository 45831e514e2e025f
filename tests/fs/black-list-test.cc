#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <filesystem>
#include <string>
#include <vector>

#include "file-util.h"
#include "fs.h"
#include "sandbox.h"

namespace {

const std::string kList = "/tmp/black-list/filter";

constexpr const char* kFullList = R"(# the service's list
[common]
max_name_length = 255
max_path_length = "4096"
character = "\\:*"
name = ".DS_Store", "Thumbs.db"
prefix = "~$"
suffix = ".tmp", ".part"
dir_prefix = "@eaDir"

[file]
max_size = 1099511627776
character = "?"
name = "desktop.ini"
glob = "*.swp", "~*"
ext = "lock"
prefix =

; folders
[dir]
name = "#recycle", "say \"hi\""
suffix = ".app"

[ea]
name = "com.apple.quarantine"
name = "com.apple.lastuseddate#PS"
)";

class BlackListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    std::filesystem::remove_all("/tmp/black-list");
    std::filesystem::remove(BlackList2::kDefaultPath);
  }
};

TEST_F(BlackListTest, ReadsEverySection) {
  tptest::WriteFile(kList, kFullList);
  BlackList2 list;
  ASSERT_EQ(list.Load(kList), 0);
  const BlackListFilter* f = list.GetFilter();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->common.max_name_length, 255u);
  EXPECT_EQ(f->common.max_path_length, 4096u);
  EXPECT_EQ(f->common.character, "\\:*");
  EXPECT_EQ(f->common.name, (std::vector<std::string>{".DS_Store", "Thumbs.db"}));
  EXPECT_EQ(f->common.prefix, (std::vector<std::string>{"~$"}));
  EXPECT_EQ(f->common.suffix, (std::vector<std::string>{".tmp", ".part"}));
  EXPECT_EQ(f->common.dir_prefix, (std::vector<std::string>{"@eaDir"}));
  EXPECT_EQ(f->file.max_size, 1099511627776u);
  EXPECT_EQ(f->file.character, "?");
  EXPECT_EQ(f->file.name, (std::vector<std::string>{"desktop.ini"}));
  EXPECT_EQ(f->file.glob, (std::vector<std::string>{"*.swp", "~*"}));
  EXPECT_EQ(f->file.ext, (std::vector<std::string>{"lock"}));
  EXPECT_TRUE(f->file.prefix.empty());
  EXPECT_EQ(f->dir.name, (std::vector<std::string>{"#recycle", "say \"hi\""}));
  EXPECT_EQ(f->dir.suffix, (std::vector<std::string>{".app"}));
  EXPECT_TRUE(f->dir.character.empty());
  EXPECT_EQ(f->ea.name,
            (std::set<std::string>{"com.apple.quarantine", "com.apple.lastuseddate#PS"}));
  list.ReturnFilter();
}

TEST_F(BlackListTest, MalformedFilesAreRefusedWhole) {
  const char* const bad[] = {
      "[common]\nname = \"open\n",                  // unterminated text
      "[common]\nname = \"a\",\n",                  // trailing comma
      "[common]\nname = \"a\" \"b\"\n",             // missing comma
      "[folders]\nname = \"a\"\n",                  // unknown section
      "[file]\nsize_limit = 10\n",                  // unknown key
      "name = \"a\"\n[file]\n",                     // outside any section
      "[file]\nmax_size = \"big\"\n",               // not a number
      "[file]\nmax_size = 1, 2\n",                  // one number only
      "[file]\nname \"a\"\n",                       // no '='
      "[common\nname = \"a\"\n",                    // unclosed section
      "[file]\nmax_size = 99999999999999999999\n",  // out of range
  };
  tptest::WriteFile(kList, kFullList);
  for (const char* text : bad) {
    BlackList2 list;
    ASSERT_EQ(list.Load(kList), 0);
    tptest::WriteFile(kList + ".bad", text);
    EXPECT_EQ(list.Load(kList + ".bad"), -1) << text;
    // The good filter loaded before is gone, and there is no service list.
    EXPECT_EQ(list.GetFilter(), nullptr) << text;
  }
  BlackList2 list;
  EXPECT_EQ(list.Load("/tmp/black-list/missing"), -1);
}

TEST_F(BlackListTest, FallsBackToTheServiceList) {
  BlackList2 none;
  EXPECT_EQ(none.GetFilter(), nullptr);  // the service has no list

  tptest::WriteFile(BlackList2::kDefaultPath, "[file]\nname = \"core\"\n");
  BlackList2 list;
  const BlackListFilter* f = list.GetFilter();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->file.name, (std::vector<std::string>{"core"}));
  list.ReturnFilter();
  std::filesystem::remove(BlackList2::kDefaultPath);
}

TEST_F(BlackListTest, MacAttributesOnTheListAreNotRestored) {
  const std::string source = "/tmp/black-list/source", packed = "/tmp/black-list/packed";
  const std::string target = "/tmp/black-list/target";
  tptest::WriteFile(source, "s");
  tptest::WriteFile(target, "t");
  for (const char* name : {"user.com.apple.quarantine", "user.com.apple.metadata"}) {
    ASSERT_EQ(setxattr(source.c_str(), name, "v", 1, 0), 0) << name;
  }
  ASSERT_EQ(MacAttributePack(source, packed), 0);
  tptest::WriteFile(kList, "[ea]\nname = \"com.apple.quarantine\"\n");
  BlackList2 list;
  ASSERT_EQ(list.Load(kList), 0);

  ASSERT_EQ(MacAttributeUnpack(packed, target, list.GetFilter()), 0);
  char value[8];
  EXPECT_EQ(getxattr(target.c_str(), "user.com.apple.metadata", value, sizeof value), 1);
  EXPECT_EQ(getxattr(target.c_str(), "user.com.apple.quarantine", value, sizeof value), -1);

  // Without a filter every attribute comes back.
  const BlackListFilter* none = nullptr;
  ASSERT_EQ(MacAttributeUnpack(packed, target, none), 0);
  EXPECT_EQ(getxattr(target.c_str(), "user.com.apple.quarantine", value, sizeof value), 1);
}

}  // namespace
