// The service endpoints over HTTP as a front-end or a client calls them:
// get_extension with what it can and cannot gather, get_client_link against
// update servers that answer well or badly, and the directory services.
#include <gtest/gtest.h>
#include <json/writer.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "fs.h"
#include "handlers/get-client-link.h"
#include "host-accounts.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "seed.h"
#include "sync-service.h"
#include "update-server.h"

namespace fs = std::filesystem;
using namespace rtest;
using svctest::UpdateServer;

namespace {

constexpr const char* kTidepool = "KSTX.Tidepool";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kPackageMarker = "/var/packages/Tidepool/enabled";
constexpr const char* kInfo = "/var/packages/Tidepool/INFO";

void RunOk(const std::vector<std::string>& argv) {
  const auto run = tptest::RunProcess(argv);
  ASSERT_EQ(run.exit_status, 0) << argv[0] << ": " << run.err;
}

std::vector<std::string> Names(const Json::Value& list) {
  std::vector<std::string> names;
  for (const Json::Value& entry : list) names.push_back(entry["name"].asString());
  return names;
}

// ---- get_extension ----

class ExtensionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    // "vault" was synced once and switched off again: it keeps its record.
    RunOk({kControl, "share", "--enable", "vault"});
    RunOk({kControl, "share", "--disable", "vault"});
    alice_ = LoginAs("alice");
  }

  Json::Value Extension(const std::string& sid) {
    const auto answer = Call(kTidepool, "get_extension", {}, sid);
    EXPECT_TRUE(answer.success()) << answer.body;
    return answer.json["data"]["service_config"];
  }

  // Nothing gathered: the answer a client gets from a service it cannot use.
  static void ExpectNothingGathered(const Json::Value& config) {
    EXPECT_FALSE(config["home_enabled"].asBool());
    EXPECT_FALSE(config["user_enabled"].asBool());
    EXPECT_EQ(config["share_list"], Json::Value(Json::arrayValue));
    EXPECT_FALSE(config.isMember("rules"));
  }

  std::string alice_;
};

TEST_F(ExtensionTest, AnEnabledUserGetsRulesAndTheSyncedShares) {
  const Json::Value config = Extension(alice_);
  EXPECT_TRUE(config["home_enabled"].asBool());
  EXPECT_TRUE(config["user_enabled"].asBool());
  EXPECT_EQ(Names(config["share_list"]), std::vector<std::string>{"team"});
  // The installed black list.
  ASSERT_TRUE(config["rules"].isObject()) << config;
  bool ds_store = false;
  for (const Json::Value& name : config["rules"]["file"]["name"]) {
    ds_store |= name.asString() == ".DS_Store";
  }
  EXPECT_TRUE(ds_store) << config["rules"];
  EXPECT_EQ(config["rules"]["common"]["max_name_length"].asUInt64(), 255u);

  // Someone the service does not know, and nobody at all: told so, with the
  // service's rules.
  tptest::AddHostUser("carol", "carol-pw");
  const Json::Value carol = Extension(tptest::Login("carol", "carol-pw"));
  EXPECT_FALSE(carol["user_enabled"].asBool());
  EXPECT_TRUE(carol["rules"].isObject());
  const Json::Value anonymous = Extension("");
  EXPECT_FALSE(anonymous["user_enabled"].asBool());
  EXPECT_TRUE(anonymous["rules"].isObject());
  EXPECT_EQ(Names(anonymous["share_list"]), std::vector<std::string>{"team"});
}

TEST_F(ExtensionTest, AServiceThatCannotBeUsedAnswersWithDefaults) {
  // The package switched off.
  fs::remove(kPackageMarker);
  ExpectNothingGathered(Extension(alice_));
  tptest::WriteFile(kPackageMarker, "");

  // The service not running, or its repository moving.
  for (const char* status : {"disabled", "moving_db"}) {
    tptest::SetServiceStatus(status);
    ExpectNothingGathered(Extension(alice_));
  }
  tptest::SetServiceStatus("enabled");

  // Frozen: the user is told, nothing else.
  ASSERT_GE(SyncFreezeSet({1}), 0);
  Json::Value config = Extension(alice_);
  EXPECT_TRUE(config["user_enabled"].asBool());
  EXPECT_FALSE(config["home_enabled"].asBool());
  EXPECT_FALSE(config.isMember("rules"));
  EXPECT_EQ(config["share_list"], Json::Value(Json::arrayValue));
  ASSERT_GE(SyncFreezeClear(), 0);

  // Without a black list, or with one that does not parse: the flags, no
  // rules, no shares; the call still succeeds.
  for (const char* content :
       {static_cast<const char*>(nullptr), "[file]\nname = \"open\n", "[nosuchsection]\n"}) {
    if (content == nullptr) {
      fs::remove(BlackList2::kDefaultPath);
    } else {
      tptest::WriteFile(BlackList2::kDefaultPath, content);
    }
    config = Extension(alice_);
    EXPECT_TRUE(config["user_enabled"].asBool());
    EXPECT_TRUE(config["home_enabled"].asBool());
    EXPECT_FALSE(config.isMember("rules"));
    EXPECT_EQ(config["share_list"], Json::Value(Json::arrayValue));
  }

  // A user database that cannot be opened: both flags false, still success.
  tptest::WriteFile(BlackList2::kDefaultPath, "[file]\nname = \"core\"\n");
  tptest::WriteFile("/volume2/@tidepool", "not a folder");
  tptest::WriteFile(SyncConfigMgr::kPath, "repo_volume=\"/volume2\"\n");
  ExpectNothingGathered(Extension(alice_));
}

// ---- get_client_link ----

constexpr const char* kGoodDocument =
    R"({"installer":{"url":"http://127.0.0.1/client/TidepoolClient-456-x86_64.deb","version":"2.0"}})";

std::optional<std::string> Document(const std::string&) {
  return UpdateServer::Reply(200, "application/json", kGoodDocument);
}

class ClientLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedDemoSystem();
    tptest::WriteFile(kInfo, "package=\"Tidepool\"\nversion=\"1.2.3-456\"\n");
    MapBuiltInServerToLoopback();
  }

  // The built-in server's name is made to lead here, in this sandbox only,
  // so that a test that falls back on it never asks the network.
  static void MapBuiltInServerToLoopback() {
    static bool mapped = false;
    if (mapped) return;
    const std::string url = GetClientLinkHandler::kDefaultUpdateServer;
    const size_t start = url.find("://") + 3;
    const std::string host = url.substr(start, url.find('/', start) - start);
    const std::string hosts = "/tmp/svc-test-hosts";
    std::ofstream(hosts) << tptest::ReadFile("/etc/hosts") << "\n127.0.0.1 " << host << "\n";
    ASSERT_EQ(mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr), 0);
    fs::remove(hosts);  // the mount keeps it
    mapped = true;
  }

  static void UseServer(const std::string& url) {
    tptest::WriteFile(SyncConfigMgr::kPath,
                      "repo_volume=\"/volume1\"\ndb_backend=\"sqlite\"\n"
                      "update_server=\"" +
                          url + "\"\n");
  }

  static tptest::WebAnswer Link(const std::string& app = "tidepool",
                                const std::string& os_type = "Linux",
                                const std::string& platform = "x86_64") {
    return Call(kTidepool, "get_client_link",
                {{"app", app}, {"os_type", os_type}, {"platform", platform}}, "");
  }
};

TEST_F(ClientLinkTest, AsksTheUpdateServerForTheClientOfThisBuild) {
  UpdateServer server(Document);
  UseServer(server.url("/getUpdate"));
  auto answer = Link();
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["download_link"].asString(),
            "http://127.0.0.1/client/TidepoolClient-456-x86_64.deb");
  answer = Link("backup", "Windows 10", "x64");
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(server.targets(),
            (std::vector<std::string>{
                "/getUpdate?identify=TidepoolClient&type=installer&server=456&os=linux&arch=x86_64",
                "/getUpdate?identify=DriftwayBackup&type=installer&server=456&os=windows%2010"
                "&arch=i686"}));

  // A version without a build part is the build; a redirect is followed.
  tptest::WriteFile(kInfo, "version=\"789\"\n");
  UpdateServer moved([&](const std::string& target) -> std::optional<std::string> {
    return UpdateServer::Reply(
        302, "text/plain", "",
        "Location: " + server.url(target.substr(0, target.find('?'))) + "?moved=1\r\n");
  });
  UseServer(moved.url("/old"));
  answer = Link("tidepool", "linux", "x86_64");
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(moved.targets().at(0),
            "/old?identify=TidepoolClient&type=installer&server=789&os=linux&arch=i686");
  EXPECT_EQ(server.targets().back(), "/old?moved=1");

  // An installer without a link: success with an empty one.
  UpdateServer linkless([](const std::string&) {
    return UpdateServer::Reply(200, "application/json", R"({"installer":{"version":"2.0"}})");
  });
  UseServer(linkless.url("/getUpdate"));
  answer = Link();
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["download_link"], Json::Value(""));
}

TEST_F(ClientLinkTest, ServersThatFailAnswer404) {
  struct Case {
    const char* what;
    UpdateServer::Answer answer;
    const char* message;
  } cases[] = {
      {"an HTML error page",
       [](const std::string&) {
         return UpdateServer::Reply(500, "text/html",
                                    "<html><body><h1>500 Internal Server Error</h1></body></html>");
       },
       "failed to get download link"},
      {"JSON without installer",
       [](const std::string&) {
         return UpdateServer::Reply(200, "application/json", R"({"error":"no such build"})");
       },
       "failed to get download link"},
      {"an installer that is a text",
       [](const std::string&) {
         return UpdateServer::Reply(200, "application/json", R"({"installer":"http://x/"})");
       },
       "failed to get download link"},
      {"an empty answer",
       [](const std::string&) { return UpdateServer::Reply(204, "text/plain", ""); },
       "failed to get download link"},
      {"a redirect loop",
       [](const std::string& target) {
         return UpdateServer::Reply(302, "text/plain", "", "Location: " + target + "\r\n");
       },
       "failed to reach update server"},
      {"a server that never answers",
       [](const std::string&) -> std::optional<std::string> { return std::nullopt; },
       "failed to reach update server"},
  };
  for (const Case& c : cases) {
    UpdateServer server(c.answer);
    UseServer(server.url("/getUpdate"));
    const auto answer = Link();
    EXPECT_EQ(answer.code(), 404) << c.what << ": " << answer.body;
    EXPECT_EQ(answer.message(), c.message) << c.what;
    EXPECT_FALSE(server.targets().empty()) << c.what;
  }

  // Nothing listens.
  UseServer("http://127.0.0.1:" + std::to_string(svctest::RefusingPort()) + "/getUpdate");
  auto answer = Link();
  EXPECT_EQ(answer.code(), 404) << answer.body;
  EXPECT_EQ(answer.message(), "failed to reach update server");
  // Not a web address at all.
  UseServer("file:///etc/passwd");
  answer = Link();
  EXPECT_EQ(answer.message(), "failed to reach update server") << answer.body;
}

TEST_F(ClientLinkTest, BadRequestsAndSettings) {
  UpdateServer server(Document);
  UseServer(server.url("/getUpdate"));

  // An app the update server does not know is never asked for.
  tptest::EnableDebugLog();
  auto answer = Link("office");
  EXPECT_EQ(answer.code(), 404) << answer.body;
  EXPECT_EQ(answer.message(), "failed to reach update server");
  EXPECT_NE(tptest::ReadPackageLog().find("unknown app type office"), std::string::npos);
  EXPECT_TRUE(server.targets().empty());

  // A parameter missing.
  answer = Call(kTidepool, "get_client_link", {{"app", "tidepool"}, {"os_type", "Linux"}}, "");
  EXPECT_EQ(answer.code(), 120) << answer.body;

  // No version to tell.
  fs::remove(kInfo);
  answer = Link();
  EXPECT_EQ(answer.code(), 404);
  EXPECT_EQ(answer.message(), "cannot find version");
  tptest::WriteFile(kInfo, "package=\"Tidepool\"\n");
  EXPECT_EQ(Link().message(), "cannot find version");
  tptest::WriteFile(kInfo, "version=\"1.2.3-456\"\n");

  // One line of setting.conf that does not parse loses update_server too:
  // the built-in server is asked, which does not answer here.
  tptest::WriteFile(SyncConfigMgr::kPath, "repo_volume=\"/volume1\"\nupdate_server=\"" +
                                              server.url("/getUpdate") +
                                              "\"\nthis line is broken\n");
  answer = Link();
  EXPECT_EQ(answer.code(), 404) << answer.body;
  EXPECT_EQ(answer.message(), "failed to reach update server");
  EXPECT_TRUE(server.targets().empty());
  EXPECT_NE(tptest::ReadPackageLog().find(std::string("query update server '") +
                                          GetClientLinkHandler::kDefaultUpdateServer + "?"),
            std::string::npos);
  // An empty value means the built-in server too.
  UseServer("");
  EXPECT_EQ(Link().message(), "failed to reach update server");
  EXPECT_TRUE(server.targets().empty());
  UseServer(server.url("/getUpdate"));
  EXPECT_TRUE(Link().success());
}

// ---- get_directory_service_status ----

class DirectoryServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedDemoSystem();
    alice_ = tptest::Login("alice", "alice-demo");
  }
  tptest::WebAnswer Status(const std::string& sid) {
    return Call(kTidepool, "get_directory_service_status", {}, sid);
  }
  std::string alice_;
};

Json::Value Entry(const std::string& name, const std::string& type) {
  Json::Value entry(Json::objectValue);
  entry["display"] = name;
  entry["value"] = name;
  entry["type"] = type;
  return entry;
}

TEST_F(DirectoryServiceTest, ListsTheDomainsAndTheLdapServer) {
  // A plain host.
  auto answer = Status(alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["domain_names"], Json::Value(Json::arrayValue));

  // Joined to a domain whose names are not cached yet: none to list.
  tptest::WriteFile("/usr/kstx/etc/directory.conf", "domain_enabled=\"yes\"\n");
  answer = Status(alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["domain_names"].size(), 0u);

  tptest::WriteFile("/usr/kstx/etc/cache/domain_names", "CORP\n\n  LAB  \n# old: TEST\n");
  tptest::WriteFile("/usr/kstx/etc/directory.conf",
                    "domain_enabled=\"yes\"\nldap_enabled=\"yes\"\nldap_domain=\"example.com\"\n");
  answer = Status(alice_);
  ASSERT_TRUE(answer.success()) << answer.body;
  Json::Value expected(Json::arrayValue);
  expected.append(Entry("CORP", "domain"));
  expected.append(Entry("LAB", "domain"));
  expected.append(Entry("example.com", "ldap"));
  EXPECT_EQ(answer.json["data"]["domain_names"], expected);

  // LDAP alone.
  tptest::WriteFile("/usr/kstx/etc/directory.conf",
                    "ldap_enabled=\"yes\"\nldap_domain=\"example.com\"\n");
  answer = Status(alice_);
  ASSERT_EQ(answer.json["data"]["domain_names"].size(), 1u) << answer.body;
  EXPECT_EQ(answer.json["data"]["domain_names"][0]["type"].asString(), "ldap");
}

TEST_F(DirectoryServiceTest, FailuresAndRefusals) {
  // LDAP without a domain name.
  tptest::WriteFile("/usr/kstx/etc/directory.conf", "ldap_enabled=\"yes\"\n");
  auto answer = Status(alice_);
  EXPECT_EQ(answer.code(), 401);
  EXPECT_EQ(answer.message(), "failed to get LDAP domain name");

  // The cached domain list cannot be read.
  tptest::WriteFile("/usr/kstx/etc/directory.conf", "domain_enabled=\"yes\"\n");
  fs::create_directories("/usr/kstx/etc/cache/domain_names");
  answer = Status(alice_);
  EXPECT_EQ(answer.code(), 401);
  EXPECT_EQ(answer.message(), "cache ipc failed");

  // Only enabled users of a running service may ask.
  EXPECT_EQ(Status("").code(), 105);
  tptest::AddHostUser("carol", "carol-pw");
  answer = Status(tptest::Login("carol", "carol-pw"));
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied (disabled)");
  tptest::SetServiceStatus("disabled");
  EXPECT_EQ(Status(alice_).code(), 501);
  tptest::SetServiceStatus("enabled");
  ASSERT_GE(SyncFreezeSet({1}), 0);
  EXPECT_EQ(Status(alice_).code(), 502);
}

}  // namespace
