#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "create-folder.h"
#include "host-accounts.h"
#include "kstx/webapi.h"
#include "process.h"
#include "sandbox.h"
#include "sdk-path.h"
#include "seed.h"

namespace {

const std::string kHome = "/volume1/homes/alice/Tidepool";
const std::string kControl = "/var/packages/Tidepool/target/bin/driftway-control";

struct Answer {
  int rc = -1;
  Json::Value envelope;
  bool success() const { return envelope["success"].asBool(); }
  int code() const { return envelope["error"]["code"].asInt(); }
};

Answer Create(const std::string& user, const Json::Value& params) {
  Answer answer;
  answer.rc =
      SDK::WebApiRunnerExec("KSTX.Tidepool.Files", "create", 1, params, answer.envelope, user);
  return answer;
}

Answer CreateFolder(const std::string& user, const std::string& path) {
  Json::Value params(Json::objectValue);
  params["path"] = "/volumes" + path;
  params["type"] = "folder";
  return Create(user, params);
}

// alice's home (0700, hers) and the share "team", where alice may write and
// bob may only read.
class FilesApiTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tptest::SeedDemoSystem();
    std::filesystem::create_directories(kHome + "/docs");
    for (const std::string& p : {std::string("/volume1/homes/alice"), kHome, kHome + "/docs"}) {
      ASSERT_EQ(chown(p.c_str(), tptest::UidOf("alice"), 100), 0);
      ASSERT_EQ(chmod(p.c_str(), 0700), 0);
    }
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_TRUE(accounts);
    hostaccounts::Share team;
    team.name = "team";
    team.volume = "/volume1";
    team.path = "/volume1/team";
    ASSERT_GE(accounts->AddShare(team), 0);
    ASSERT_GE(
        accounts->SetSharePermission("team", "alice", hostaccounts::SharePermission::kReadWrite),
        0);
    ASSERT_GE(accounts->SetSharePermission("team", "bob", hostaccounts::SharePermission::kReadOnly),
              0);
  }
};

TEST_F(FilesApiTest, CreatesFoldersOwnedByTheCaller) {
  const std::string folder = kHome + "/docs/new";
  const Answer made = CreateFolder("alice", folder);
  ASSERT_EQ(made.rc, 0);
  EXPECT_TRUE(made.success()) << made.envelope.toStyledString();
  EXPECT_EQ(made.envelope["data"]["path"].asString(), "/volumes" + folder);
  struct stat st {};
  ASSERT_EQ(stat(folder.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_uid, tptest::UidOf("alice"));
  EXPECT_EQ(st.st_gid, 100u);

  // There already: success, and it stays as it was.
  const Answer again = CreateFolder("alice", folder + "/");
  ASSERT_EQ(again.rc, 0);
  EXPECT_TRUE(again.success()) << again.envelope.toStyledString();

  // In a share the share's own permission counts too: the folder is open
  // to everyone, yet bob may only read the share.
  const Answer in_share = CreateFolder("alice", "/volume1/team/plans");
  EXPECT_TRUE(in_share.success()) << in_share.envelope.toStyledString();
  EXPECT_TRUE(std::filesystem::is_directory("/volume1/team/plans"));
  const Answer read_only = CreateFolder("bob", "/volume1/team/bobs");
  EXPECT_FALSE(read_only.success());
  EXPECT_EQ(read_only.code(), 403);
  EXPECT_FALSE(std::filesystem::exists("/volume1/team/bobs"));
  // An administrator needs no permission of the share, but the folders'
  // own rights still hold.
  EXPECT_TRUE(CreateFolder("admin", "/volume1/team/from-admin").success());
  EXPECT_EQ(CreateFolder("admin", kHome + "/docs/from-admin").code(), 403);
}

TEST_F(FilesApiTest, RefusesOtherUsersAndBadRequests) {
  const Answer bobs = CreateFolder("bob", kHome + "/docs/bobs");
  ASSERT_EQ(bobs.rc, 0);
  EXPECT_FALSE(bobs.success());
  EXPECT_EQ(bobs.code(), 403);
  EXPECT_FALSE(std::filesystem::exists(kHome + "/docs/bobs"));

  struct Case {
    const char* path;  // null: not sent
    const char* type;
    int code;
  };
  const Case cases[] = {
      {nullptr, "folder", 120},
      {"/volume1/team/x", "folder", 120},  // without "/volumes"
      {"/volumes/volume1/team/../homes/x", "folder", 120},
      {"/volumes/volume1/team/./x", "folder", 120},
      {"/volumes/volume1/team/x", "file", 120},
      {"/volumes/volume1/team/x", nullptr, 120},
      {"/volumes/volume1/nosuch/x", "folder", 401},  // in no share
      {"/volumes/volume1/team", "folder", 401},      // the share itself
      {"/volumes/volume1/team/missing/x", "folder", 401},
  };
  for (const Case& c : cases) {
    Json::Value params(Json::objectValue);
    if (c.path != nullptr) params["path"] = c.path;
    if (c.type != nullptr) params["type"] = c.type;
    const Answer answer = Create("alice", params);
    ASSERT_EQ(answer.rc, 0) << (c.path ? c.path : "(none)");
    EXPECT_FALSE(answer.success()) << (c.path ? c.path : "(none)");
    EXPECT_EQ(answer.code(), c.code) << (c.path ? c.path : "(none)");
  }
  EXPECT_FALSE(std::filesystem::exists("/volume1/team/missing"));
  EXPECT_FALSE(std::filesystem::exists("/volume1/team/x"));

  // A file in the way is not a folder.
  tptest::WriteFile("/volume1/team/a-file", "x");
  EXPECT_EQ(CreateFolder("alice", "/volume1/team/a-file").code(), 401);
}

TEST_F(FilesApiTest, UnknownApisAndUsers) {
  Json::Value envelope;
  ASSERT_EQ(SDK::WebApiRunnerExec("KSTX.Office.Node.Version", "restore", 1,
                                  Json::Value(Json::objectValue), envelope, "alice"),
            0);
  EXPECT_FALSE(envelope["success"].asBool());
  EXPECT_EQ(envelope["error"]["code"].asInt(), 103);
  ASSERT_EQ(SDK::WebApiRunnerExec("KSTX.Tidepool.Files", "remove", 1,
                                  Json::Value(Json::objectValue), envelope, "alice"),
            0);
  EXPECT_EQ(envelope["error"]["code"].asInt(), 103);
  // Logins belong to sessions, which runner calls have none of.
  ASSERT_EQ(SDK::WebApiRunnerExec("KSTX.API.Auth", "login", 1, Json::Value(Json::objectValue),
                                  envelope, "alice"),
            0);
  EXPECT_EQ(envelope["error"]["code"].asInt(), 103);

  envelope = Json::Value("untouched");
  EXPECT_LT(CreateFolder("nobody", kHome + "/docs/x").rc, 0);
  EXPECT_LT(SDK::WebApiRunnerExec("KSTX.Tidepool.Files", "create", 1,
                                  Json::Value(Json::objectValue), envelope, "nobody"),
            0);
  EXPECT_EQ(envelope.asString(), "untouched");
}

TEST_F(FilesApiTest, TheRunningServiceHearsOfNewFolders) {
  tptest::EnableDebugLog();
  const auto started = tptest::RunProcess({kControl, "service", "--start"});
  ASSERT_EQ(started.exit_status, 0) << started.out << started.err;
  const Answer made = CreateFolder("alice", kHome + "/docs/noticed");
  tptest::RunProcess({kControl, "service", "--stop"});
  ASSERT_TRUE(made.success()) << made.envelope.toStyledString();
  const std::string log = tptest::ReadPackageLog();
  EXPECT_NE(log.find("folder created in alice: " + kHome + "/docs/noticed"), std::string::npos)
      << log;
  // A folder made while the service is down is still made.
  EXPECT_TRUE(CreateFolder("alice", kHome + "/docs/unnoticed").success());
  EXPECT_TRUE(std::filesystem::is_directory(kHome + "/docs/unnoticed"));
}

// The same call made in this process, with a session of our choosing, so a
// test can change the tree between the checks and the mkdir.
Json::Value CreateInProcess(const std::string& user, const std::string& path,
                            bool timed_out = false) {
  KSTX::RequestContext ctx;
  ctx.api = "KSTX.Tidepool.Files";
  ctx.method = "create";
  ctx.version = 1;
  ctx.params["path"] = "/volumes" + path;
  ctx.params["type"] = "folder";
  ctx.login_user = user;
  ctx.login_uid = tptest::UidOf(user);
  ctx.is_timeout = timed_out;
  KSTX::APIRequest request(std::move(ctx));
  KSTX::APIResponse response;
  filesapi::CreateFolder(&request, &response);
  return response.Envelope();
}

TEST_F(FilesApiTest, RefusesTimedOutSessionsAndDisabledOrUnknownAccounts) {
  const std::string folder = kHome + "/docs/late";
  const Json::Value late = CreateInProcess("alice", folder, true);
  EXPECT_EQ(late["error"]["code"].asInt(), 106) << late.toStyledString();
  EXPECT_EQ(CreateInProcess("ghost", folder)["error"]["code"].asInt(), 105);
  EXPECT_EQ(CreateInProcess("", folder)["error"]["code"].asInt(), 105);
  EXPECT_FALSE(std::filesystem::exists(folder));

  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  ASSERT_GE(accounts->SetDisabled("alice", true), 0);
  const Answer disabled = CreateFolder("alice", folder);
  ASSERT_GE(accounts->SetDisabled("alice", false), 0);
  EXPECT_EQ(disabled.code(), 105) << disabled.envelope.toStyledString();
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(CreateFolder("alice", folder).success());
}

// A part of the path swapped for a link after the checks, as a racing user
// would: nothing is made through the link, wherever it leads.
TEST_F(FilesApiTest, LinksSwappedInAfterTheChecksAreNotFollowed) {
  const std::string secret = "/volume1/root-only";
  std::filesystem::create_directories(secret + "/deeper");
  ASSERT_EQ(chmod(secret.c_str(), 0700), 0);
  const std::string tree = kHome + "/race";
  struct Case {
    const char* what;
    std::string create;   // the folder asked for
    std::string swapped;  // what becomes a link to the secret folder
  };
  const Case cases[] = {
      {"the parent", tree + "/parent/new", tree + "/parent"},
      {"a folder above the parent", tree + "/above/deeper/new", tree + "/above"},
      {"the folder itself", tree + "/self/new", tree + "/self/new"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::create_directories(std::filesystem::path(c.create).parent_path());
    for (std::filesystem::path p = c.create; p != kHome; p = p.parent_path()) {
      chown(p.c_str(), tptest::UidOf("alice"), 100);
    }
    filesapi::TEST_SetBeforeCreateHook([&] {
      std::filesystem::remove_all(c.swapped);
      std::filesystem::create_symlink(secret, c.swapped);
    });
    const Json::Value answer = CreateInProcess("alice", c.create);
    filesapi::TEST_SetBeforeCreateHook(nullptr);
    EXPECT_FALSE(answer["success"].asBool()) << answer.toStyledString();
    EXPECT_EQ(answer["error"]["code"].asInt(), 401);
    for (const char* made : {"/new", "/deeper/new"}) {
      EXPECT_FALSE(std::filesystem::exists(secret + made)) << made;
    }
    std::filesystem::remove(c.swapped);
  }
  // Without the race, the same call works.
  std::filesystem::create_directories(tree + "/parent");
  ASSERT_EQ(chown((tree + "/parent").c_str(), tptest::UidOf("alice"), 100), 0);
  const Json::Value made = CreateInProcess("alice", tree + "/parent/new");
  EXPECT_TRUE(made["success"].asBool()) << made.toStyledString();
  struct stat st {};
  ASSERT_EQ(lstat((tree + "/parent/new").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, tptest::UidOf("alice"));
}

}  // namespace
