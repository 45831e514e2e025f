// The rules the extension gets from the black list, the client link's query
// and answer, and the settings file as the update client reads it.
#include <gtest/gtest.h>

#include <filesystem>

#include "fs.h"
#include "handlers/get-client-link.h"
#include "handlers/get-extension.h"
#include "sandbox.h"
#include "util/config-file.h"

namespace {

std::vector<std::string> Texts(const Json::Value& list) {
  std::vector<std::string> texts;
  for (const Json::Value& item : list) texts.push_back(item.asString());
  return texts;
}

bool Has(const Json::Value& list, const std::string& text) {
  for (const Json::Value& item : list) {
    if (item.asString() == text) return true;
  }
  return false;
}

// The installed list is what every extension gets: it must load and hold
// what a user expects to stay out of sync.
TEST(ExtensionRules, TheInstalledListKeepsOutEditorFilesAndSystemFolders) {
  BlackList2 list;
  ASSERT_EQ(list.Load(BlackList2::kDefaultPath), 0) << "the installed black list does not parse";
  const BlackListFilter* filter = list.GetFilter();
  ASSERT_NE(filter, nullptr);
  const Json::Value rules = GetExtensionHandler::RulesToJson(*filter);

  EXPECT_TRUE(Has(rules["file"]["name"], ".DS_Store"));
  EXPECT_TRUE(Has(rules["file"]["name"], "Thumbs.db"));
  EXPECT_TRUE(Has(rules["file"]["prefix"], "~$"));
  EXPECT_TRUE(Has(rules["file"]["prefix"], ".~lock."));
  EXPECT_TRUE(Has(rules["file"]["suffix"], "~"));
  EXPECT_TRUE(Has(rules["file"]["glob"], ".*.sw[a-p]"));
  EXPECT_TRUE(Has(rules["file"]["ext"], "tmp"));
  EXPECT_TRUE(Has(rules["common"]["name"], "@eaDir"));
  EXPECT_TRUE(Has(rules["common"]["name"], "#recycle"));
  EXPECT_TRUE(Has(rules["dir"]["name"], ".Trashes"));
  EXPECT_TRUE(Has(rules["dir"]["name"], "$RECYCLE.BIN"));
  EXPECT_EQ(rules["common"]["max_name_length"].asUInt64(), 255u);
  // No rule may be an empty text: it would match every name.
  for (const char* object : {"common", "file", "dir"}) {
    for (const char* key : {"name", "prefix", "suffix"}) {
      EXPECT_FALSE(Has(rules[object][key], "")) << object << "." << key;
    }
  }
  EXPECT_EQ(rules["file"]["max_size"].asUInt64(), 0u) << "large files are synced";
  EXPECT_EQ(rules["ea"]["name"].size(), 0u) << "attributes are carried";
}

// The keys are what extensions read: each object has all of its own, lists
// are arrays even when empty, and sizes keep their 64 bits.
TEST(ExtensionRules, EveryObjectHasItsKeys) {
  BlackListFilter filter;
  filter.common.max_path_length = 1ull << 40;
  filter.file.max_size = 5ull << 32;
  filter.file.ext = {"tmp", "log"};
  filter.ea.name = {"com.apple.quarantine", "com.apple.FinderInfo"};
  const Json::Value rules = GetExtensionHandler::RulesToJson(filter);

  EXPECT_EQ(rules.getMemberNames(), (std::vector<std::string>{"common", "dir", "ea", "file"}));
  EXPECT_EQ(rules["common"].getMemberNames(),
            (std::vector<std::string>{"character", "dir_prefix", "max_name_length",
                                      "max_path_length", "name", "prefix", "suffix"}));
  EXPECT_EQ(rules["file"].getMemberNames(),
            (std::vector<std::string>{"character", "ext", "glob", "max_size", "name", "prefix",
                                      "suffix"}));
  EXPECT_EQ(rules["dir"].getMemberNames(),
            (std::vector<std::string>{"character", "name", "prefix", "suffix"}));
  EXPECT_EQ(rules["ea"].getMemberNames(), (std::vector<std::string>{"name"}));

  EXPECT_EQ(rules["common"]["max_path_length"].asUInt64(), 1ull << 40);
  EXPECT_EQ(rules["file"]["max_size"].asUInt64(), 5ull << 32);
  EXPECT_EQ(Texts(rules["file"]["ext"]), (std::vector<std::string>{"tmp", "log"}));
  EXPECT_EQ(Texts(rules["ea"]["name"]),
            (std::vector<std::string>{"com.apple.FinderInfo", "com.apple.quarantine"}));
  EXPECT_EQ(rules["file"]["glob"], Json::Value(Json::arrayValue));
  EXPECT_EQ(rules["dir"]["character"], Json::Value(""));
}

TEST(ClientLink, ArchitectureFollowsTheSystemCaseSensitively) {
  struct Case {
    const char* os_type;
    const char* platform;
    const char* arch;
  } cases[] = {
      {"Linux", "x86_64", "x86_64"},
      {"Linux", "i386", "i686"},
      {"Ubuntu Linux", "amd64", "x86_64"},
      {"linux", "x86_64", "i686"},
      {"Windows", "x64", "i686"},
      {"Mac", "arm64", "i686"},
      {"", "", "i686"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(GetClientLinkHandler::ClientArch(c.os_type, c.platform), c.arch)
        << c.os_type << " / " << c.platform;
  }
}

TEST(ClientLink, QueryNamesTheProductAndTheBuild) {
  EXPECT_EQ(GetClientLinkHandler::BuildNumber("1.2.3-456"), "456");
  EXPECT_EQ(GetClientLinkHandler::BuildNumber("456"), "456");
  EXPECT_EQ(GetClientLinkHandler::BuildNumber("1.0-2-3"), "2-3");

  std::string query;
  ASSERT_TRUE(GetClientLinkHandler::UpdateQuery("tidepool", "456", "linux", "x86_64", query));
  EXPECT_EQ(query, "identify=TidepoolClient&type=installer&server=456&os=linux&arch=x86_64");
  ASSERT_TRUE(GetClientLinkHandler::UpdateQuery("backup", "0001", "windows", "i686", query));
  EXPECT_EQ(query, "identify=DriftwayBackup&type=installer&server=0001&os=windows&arch=i686");
  // A client's system text cannot add parameters of its own.
  ASSERT_TRUE(
      GetClientLinkHandler::UpdateQuery("tidepool", "1", "mac os&arch=evil", "i686", query));
  EXPECT_EQ(query,
            "identify=TidepoolClient&type=installer&server=1&os=mac%20os%26arch%3Devil"
            "&arch=i686");

  query = "untouched";
  EXPECT_FALSE(GetClientLinkHandler::UpdateQuery("Tidepool", "1", "linux", "i686", query));
  EXPECT_FALSE(GetClientLinkHandler::UpdateQuery("", "1", "linux", "i686", query));
}

TEST(ClientLink, TheLinkIsReadOnlyFromAnInstallerObject) {
  GetClientLinkHandler handler;
  struct Case {
    const char* text;
    int result;
    const char* link;
  } cases[] = {
      {R"({"installer":{"url":"https://dl/client.deb","version":"2"}})", 0,
       "https://dl/client.deb"},
      {R"({"installer":{"version":"2"}})", 0, ""},
      {R"({"installer":{}})", 0, ""},
      {R"({"other":1})", -1, nullptr},
      {R"({"installer":null})", -1, nullptr},
      {R"({"installer":"https://dl/client.deb"})", -1, nullptr},
      {R"({"installer":["https://dl/client.deb"]})", -1, nullptr},
      {R"({"installer":42})", -1, nullptr},
      {R"({"installer":{"url":{"href":"x"}}})", -1, nullptr},
      {R"({"installer":{"url":17}})", -1, nullptr},
      {R"([{"installer":{"url":"x"}}])", -1, nullptr},
      {R"("installer")", -1, nullptr},
      {"<html><body>502 Bad Gateway</body></html>", -1, nullptr},
      {"", -1, nullptr},
      {"{}", -1, nullptr},
  };
  for (const Case& c : cases) {
    std::string link = "before";
    EXPECT_EQ(handler.GetDownloadLinkFromJSON(c.text, link), c.result) << c.text;
    if (c.link != nullptr) {
      EXPECT_EQ(link, c.link) << c.text;
    }
  }
}

class ConfigFileTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& content) {
    tptest::WriteFile(path_, content);
    return path_;
  }
  const std::string path_ = "/tmp/config-test/setting.conf";
};

TEST_F(ConfigFileTest, ReadsValuesCommentsAndQuotes) {
  Config config;
  ASSERT_EQ(config.read(Write("# settings\n"
                              "\n"
                              "   \t\n"
                              "repo_volume=\"/volume1\"\n"
                              "  update_server = 'http://127.0.0.1:8080/u?a=1' # the demo\n"
                              "plain=value#note\n"
                              "spaced = \"two words\"\n"
                              "lonely\n"
                              "ignored#key=value\n"
                              "repo_volume=\"/volume2\"\n")),
            0);
  EXPECT_EQ(config.values(), (std::map<std::string, std::string>{
                                 {"repo_volume", "/volume2"},
                                 {"update_server", "http://127.0.0.1:8080/u?a=1"},
                                 {"plain", "value#note"},
                                 {"spaced", "two words"},
                             }));
  Config quoted;
  quoted.set_keep_quotes(true);
  ASSERT_EQ(quoted.read(path_), 0);
  EXPECT_EQ(quoted.Get("spaced"), "\"two words\"");
  EXPECT_EQ(quoted.Get("update_server"), "'http://127.0.0.1:8080/u?a=1'");
  EXPECT_EQ(quoted.Get("plain"), "value#note");
  EXPECT_EQ(quoted.Get("missing"), "");
}

TEST_F(ConfigFileTest, OneBadLineLosesTheWholeFile) {
  const char* bad_lines[] = {
      "key value\n",             // no "="
      "key =\n",                 // no value
      "key = \"open\n",          // no closing quote
      "key = 'open\n",           //
      "key = one two\n",         // more after the value
      "key = \"quoted\"tail\n",  //
      "key: value\n",            // not a key character
      "key-name = value\n",      // a hyphen ends the key
      "key \n",                  // white space, then nothing
  };
  for (const char* bad : bad_lines) {
    Config config;
    EXPECT_EQ(config.read(Write(std::string("update_server=\"http://a/\"\n") + bad +
                                "repo_volume=\"/volume1\"\n")),
              -1)
        << bad;
    EXPECT_TRUE(config.values().empty()) << bad;
  }
  // A line without a key is no error: its value is kept under "".
  Config config;
  EXPECT_EQ(config.read(Write("= value\n")), 0);
  EXPECT_EQ(config.Get(""), "value");
  EXPECT_EQ(config.read(""), -1);
  EXPECT_EQ(config.read("/tmp/config-test/none"), -1);
}

}  // namespace
