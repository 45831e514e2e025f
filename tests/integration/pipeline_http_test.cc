// check_user and the pipeline's refusals, over the web runtime as a browser
// would see them.
#include <gtest/gtest.h>

#include "host-accounts.h"
#include "sandbox.h"
#include "seed.h"
#include "sync-service.h"
#include "url-encode.h"
#include "webapi-client.h"

namespace {

using tptest::Get;
using tptest::Login;

constexpr const char* kCheckUser = "api=KSTX.Tidepool&method=check_user&version=1";

class PipelineHttpTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::SeedDemoSystem(); }
};

TEST_F(PipelineHttpTest, CheckUserTellsWhoMayUseTheService) {
  const std::string alice = Login("alice", "alice-demo");
  ASSERT_FALSE(alice.empty());
  auto answer = Get(kCheckUser, alice);
  EXPECT_TRUE(answer.success()) << answer.body;
  EXPECT_FALSE(answer.json.isMember("data")) << "check_user carries no value";

  answer = Get(kCheckUser);
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied by anonymous");

  // A host account the service does not know.
  tptest::AddHostUser("carol", "carol-pw");
  answer = Get(kCheckUser, Login("carol", "carol-pw"));
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied (disabled)");

  // An idle session past its lifetime is a timed-out login, not an anonymous one.
  tptest::AgeSession(alice, 31 * 60);
  answer = Get(kCheckUser, alice);
  EXPECT_EQ(answer.code(), 106);
  EXPECT_EQ(answer.message(), "session timeout");
}

// The rights of a session follow the account, not the moment of the login.
TEST_F(PipelineHttpTest, AnAccountChangeTakesEffectAtTheNextRequest) {
  const std::string alice = Login("alice", "alice-demo");
  ASSERT_TRUE(Get(kCheckUser, alice).success());
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_GE(accounts->SetExpireDay("alice", 1), 0);
  auto answer = Get(kCheckUser, alice);
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied (user expired)");
  ASSERT_GE(accounts->SetExpireDay("alice", 0), 0);
  ASSERT_GE(accounts->SetDisabled("alice", true), 0);
  answer = Get(kCheckUser, alice);
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied by anonymous");
}

// A page of another site can make the browser send the cookie with a GET or a
// form POST, but it cannot read the request token.
TEST_F(PipelineHttpTest, CrossSiteWritesAreRefusedAndStartNothing) {
  const tptest::Session alice = tptest::LoginWithToken("alice", "alice-demo");
  ASSERT_EQ(alice.token.size(), 64u);
  const std::string start =
      "api=KSTX.Tidepool.Node.Restore&method=start&version=1&target=%22mine%22&nodes=" +
      UrlEncode(R"([{"node_id":"6","permanent_id":"1005","sync_id":"7","name":"plan.txt",)"
                R"("path":"/projects/plan.txt","file_type":0,"is_removed":false}])");
  const std::string form = "application/x-www-form-urlencoded";
  const struct {
    const char* what;
    tptest::WebCall call;
  } refused[] = {
      {"GET with the cookie", {start, alice.sid, "", ""}},
      {"GET with the cookie and the token", {start, alice.sid, "", "", alice.token}},
      {"POST without the token", {"", alice.sid, form, start}},
      {"POST with a wrong token", {"", alice.sid, form, start, std::string(64, '0')}},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(c.what);
    const auto answer = tptest::CallWebAPI(c.call);
    EXPECT_EQ(answer.code(), 105) << answer.body;
    EXPECT_EQ(answer.message(), "permission denied (request token)");
  }
  // No restore task was started: there is nothing to report.
  const auto status = tptest::CallApi("KSTX.Tidepool.Node.Restore", "status", {}, alice.sid);
  EXPECT_EQ(status.code(), 401) << status.body;

  // The same call with the token, in the header or in the body, is served.
  for (const tptest::WebCall& call :
       {tptest::WebCall{"", alice.sid, form, start, alice.token},
        tptest::WebCall{"", alice.sid, form, start + "&_token=" + alice.token}}) {
    const auto answer = tptest::CallWebAPI(call);
    EXPECT_NE(answer.code(), 105) << answer.body;
  }
}

TEST_F(PipelineHttpTest, ServiceStateStopsEveryStatusCheckedCall) {
  const std::string alice = Login("alice", "alice-demo");
  struct Case {
    const char* status;
    bool frozen;
    int code;
    const char* message;
  };
  for (const Case& c : {Case{"disabled", false, 501, "driftway is not ready"},
                        Case{"moving_db", false, 503, "repository is moving"},
                        Case{"enabled", true, 502, "freeze mode"}}) {
    SCOPED_TRACE(c.status);
    tptest::SetServiceStatus(c.status);
    if (c.frozen) {
      ASSERT_GE(SyncFreezeSet({1}), 0);
    }
    auto answer = Get(kCheckUser, alice);
    EXPECT_EQ(answer.code(), c.code) << answer.body;
    EXPECT_EQ(answer.message(), c.message);
    ASSERT_GE(SyncFreezeClear(), 0);
  }
}

TEST_F(PipelineHttpTest, SudoParameter) {
  const std::string alice = Login("alice", "alice-demo");
  const std::string bob_uid = std::to_string(tptest::UidOf("bob"));
  struct Case {
    std::string sudo;
    int code;
    const char* message;
  };
  for (const Case& c :
       {Case{"someone", 0, ""}, Case{"%22bob%22", 0, ""}, Case{bob_uid, 0, ""},
        Case{"12345", 401, "sudo: Failed to get user"}, Case{"true", 401, "sudo: format error"},
        Case{"%5B1%5D", 401, "sudo: format error"}}) {
    SCOPED_TRACE(c.sudo);
    auto answer = Get(std::string(kCheckUser) + "&sudo=" + c.sudo, alice);
    if (c.code == 0) {
      EXPECT_TRUE(answer.success()) << answer.body;
    } else {
      EXPECT_EQ(answer.code(), c.code) << answer.body;
      EXPECT_EQ(answer.message(), c.message);
    }
  }
}

TEST_F(PipelineHttpTest, UnknownApiMethodOrVersionAnswers103) {
  const std::string admin = Login("admin", "admin-demo");
  for (const char* query : {"api=KSTX.Nothing&method=list&version=1",
                            "api=KSTX.Tidepool&method=no_such_method&version=1",
                            "api=KSTX.Tidepool&method=check_user&version=99",
                            // In the table, but its handler is not registered.
                            "api=KSTX.Tidepool.KeyManagement&method=list&version=1"}) {
    SCOPED_TRACE(query);
    auto answer = Get(query, admin);
    EXPECT_EQ(answer.code(), 103) << answer.body;
    EXPECT_EQ(answer.message(), "no such API or method");
  }
  // The module's own refusal leaves its two lines in the package's log,
  // although the request runs as the service account.
  const std::string log = tptest::ReadPackageLog();
  const size_t lookup = log.find("no such api : KSTX.Tidepool.KeyManagement.list.\n");
  ASSERT_NE(lookup, std::string::npos) << log;
  EXPECT_NE(log.find("Fail to find handler\n", lookup), std::string::npos) << log;
}

TEST_F(PipelineHttpTest, InfoListsEveryApiOfTheModule) {
  auto answer = Get("api=KSTX.API.Info&method=query&version=1");
  ASSERT_TRUE(answer.success()) << answer.body;
  int module_apis = 0;
  for (const auto& name : answer.json["data"].getMemberNames()) {
    // KSTX.Tidepool.Files is served by a module of its own.
    if (name.rfind("KSTX.Tidepool", 0) != 0 || name == "KSTX.Tidepool.Files") continue;
    ++module_apis;
    EXPECT_EQ(answer.json["data"][name]["minVersion"].asInt(), 1) << name;
    EXPECT_EQ(answer.json["data"][name]["maxVersion"].asInt(), 1) << name;
    EXPECT_EQ(answer.json["data"][name]["path"].asString(), "entry.cgi") << name;
  }
  EXPECT_EQ(module_apis, 13);
  EXPECT_TRUE(answer.json["data"].isMember("KSTX.Tidepool.Files"));
  EXPECT_TRUE(answer.json["data"].isMember("KSTX.API.Auth"));
}

TEST_F(PipelineHttpTest, ParameterErrorsNameTheParameterAndTheRule) {
  const std::string admin = Login("admin", "admin-demo");
  struct Case {
    const char* what;
    const char* query;
    const char* name;
    const char* reason;
  };
  const Case cases[] = {
      {"required", "api=KSTX.Tidepool.Log&method=list&version=1&share_type=%22all%22", "target",
       "required"},
      {"first in table order", "api=KSTX.Tidepool.Log&method=list&version=1", "target", "required"},
      {"type", "api=KSTX.Tidepool.Node&method=list&version=1&offset=%22ten%22", "offset", "type"},
      {"condition", "api=KSTX.Tidepool.Node&method=list&version=1&sort_by=%22size%22", "sort_by",
       "condition"},
      {"array element",
       "api=KSTX.Tidepool.KeyManagement&method=delete&version=1&ids=%5B1,%22x%22%5D", "ids",
       "type"},
      {"nested object",
       "api=KSTX.Tidepool.Profile&method=set&version=1&profiles=%5B%7B%22profile_desc%22:%7B%22"
       "filtered_names%22:%5B1%5D%7D%7D%5D",
       "profiles", "type"},
      {"range",
       "api=KSTX.Tidepool.Share&method=set&version=1&share=%5B%7B%22rotate_cnt%22:33%7D%5D",
       "share", "type"},
      {"bare number as node",
       "api=KSTX.Tidepool.Node&method=dry_run&version=1&target=%22x%22&"
       "nodes=%5B5%5D",
       "nodes", "type"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto answer = Get(c.query, admin);
    EXPECT_EQ(answer.code(), 120) << answer.body;
    EXPECT_EQ(answer.json["error"]["errors"]["name"].asString(), c.name);
    EXPECT_EQ(answer.json["error"]["errors"]["reason"].asString(), c.reason);
  }
}

TEST_F(PipelineHttpTest, MalformedRequestsGetAnEnvelope) {
  const std::string alice = Login("alice", "alice-demo");
  struct Case {
    const char* what;
    tptest::WebCall call;
  };
  const Case cases[] = {
      {"bad cookie", {kCheckUser, "../../etc/passwd", "", ""}},
      {"unparsable JSON body",
       {"", alice, "application/json", R"({"api":"KSTX.Tidepool","method":)"}},
      {"unknown content type", {kCheckUser, alice, "application/x-nothing", "abc"}},
      {"broken multipart", {kCheckUser, alice, "multipart/form-data; boundary=zz", "--zz\r\nbad"}},
      {"bad percent escapes",
       {"api=KSTX.Tidepool&method=check_user&version=1&x=%G1%", alice, "", ""}},
      {"huge body",
       {kCheckUser, alice, "application/x-www-form-urlencoded", "x=" + std::string(3 << 20, 'a')}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto answer = tptest::CallWebAPI(c.call);
    EXPECT_EQ(answer.exit_status, 0) << answer.stderr_text;
    ASSERT_TRUE(answer.json.isObject()) << answer.body;
    EXPECT_TRUE(answer.json.isMember("success"));
    if (!answer.success()) {
      EXPECT_GT(answer.code(), 0);
    }
  }
}

}  // namespace
