// The request pipeline's decisions over the handler settings, against a real
// service state (status word, freeze file, user database) in the sandbox.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "fake-request.h"
#include "host-accounts.h"
#include "request-handler.h"
#include "sandbox.h"
#include "seed.h"
#include "sync-service.h"

namespace {

// Records what it saw when the pipeline let it run.
class ProbeHandler : public RequestHandler {
 public:
  int Handle(const RequestAuthentication& auth, BridgeRequest&, BridgeResponse&) override {
    ran = true;
    euid_in_handle = geteuid();
    egid_in_handle = getegid();
    user_in_handle = auth.user;
    return 0;
  }
  bool ran = false;
  uid_t euid_in_handle = 12345;
  gid_t egid_in_handle = 12345;
  std::string user_in_handle;
};

enum class Caller { kAdmin, kAlice, kAnonymous, kTimedOut, kRoot, kNotEnabled, kHostDisabled };

RequestAuthentication IdentityOf(Caller caller) {
  RequestAuthentication auth;
  auth.remote_ip = "127.0.0.1";
  auth.url_host = "localhost";
  auth.is_expired = false;
  switch (caller) {
    case Caller::kAdmin:
      auth.user = "admin";
      auth.uid = tptest::UidOf("admin");
      auth.is_admin = true;
      break;
    case Caller::kAlice:
      auth.user = "alice";
      auth.uid = tptest::UidOf("alice");
      break;
    case Caller::kAnonymous:
      auth.user = "anonymous";
      auth.uid = RequestAuthentication::kAnonymousUid;
      auth.is_anonymous = true;
      break;
    case Caller::kTimedOut:
      auth.user = "alice";
      auth.uid = tptest::UidOf("alice");
      auth.is_timeout = true;
      break;
    case Caller::kRoot:
      auth.user = "root";
      auth.uid = 0;
      auth.is_root = true;
      break;
    case Caller::kNotEnabled:
      auth.user = "carol";
      auth.uid = tptest::UidOf("carol");
      break;
    case Caller::kHostDisabled:
      auth.user = "bob";
      auth.uid = tptest::UidOf("bob");
      break;
  }
  return auth;
}

struct PipelineCase {
  const char* what;
  unsigned database, account, access, status;
  Caller caller;
  const char* service_status;
  bool frozen;
  int code;  // 0: Handle runs
  const char* message;
};

const PipelineCase kCases[] = {
    {"enabled user passes", 1, 3, 1, 3, Caller::kAlice, "enabled", false, 0, ""},
    {"admin passes admin-only", 1, 3, 2, 3, Caller::kAdmin, "enabled", false, 0, ""},
    {"user refused admin-only", 1, 3, 2, 3, Caller::kAlice, "enabled", false, 105,
     "permission denied (admin only)"},
    {"anonymous refused", 1, 3, 1, 3, Caller::kAnonymous, "enabled", false, 105,
     "permission denied by anonymous"},
    {"timed-out login", 1, 3, 1, 3, Caller::kTimedOut, "enabled", false, 106, "session timeout"},
    {"host account unknown to the service", 1, 3, 1, 3, Caller::kNotEnabled, "enabled", false, 105,
     "permission denied (disabled)"},
    // A disabled account keeps its privilege but may not use it.
    {"account disabled on the host", 1, 3, 1, 3, Caller::kHostDisabled, "enabled", false, 105,
     "permission denied by app-privilege"},
    {"service not ready", 1, 3, 1, 3, Caller::kAlice, "disabled", false, 501,
     "driftway is not ready"},
    {"repository moving", 1, 3, 1, 3, Caller::kAdmin, "moving_db", false, 503,
     "repository is moving"},
    {"freeze mode", 1, 3, 1, 3, Caller::kAlice, "enabled", true, 502, "freeze mode"},
    {"root skips account and access tests", 1, 3, 2, 3, Caller::kRoot, "enabled", false, 0, ""},
    {"root still needs a running service", 1, 3, 2, 3, Caller::kRoot, "disabled", false, 501,
     "driftway is not ready"},
    {"status option 0 runs while frozen and not ready", 0, 3, 2, 0, Caller::kAdmin, "disabled",
     true, 0, ""},
    {"all-zero settings let anonymous in", 0, 0, 0, 0, Caller::kAnonymous, "disabled", false, 0,
     ""},
    {"account option 0 lets a timed-out login in", 0, 0, 0, 0, Caller::kTimedOut, "enabled", false,
     0, ""},
    {"access 1 opens the user database even without the bit", 0, 3, 1, 3, Caller::kAlice, "enabled",
     false, 0, ""},
    {"app privilege denied", 1, 3, 1, 3, Caller::kAlice, "enabled", false, 105,
     "permission denied by app-privilege"},
};

class PipelineTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tptest::SeedDemoSystem();
    tptest::AddHostUser("carol", "carol-pw");
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_GE(accounts->SetDisabled("bob", true), 0);
  }
};

TEST_F(PipelineTest, DecidesByHandlerSettings) {
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    tptest::SetServiceStatus(c.service_status);
    if (c.frozen) {
      ASSERT_GE(SyncFreezeSet({1}), 0);
    } else {
      ASSERT_GE(SyncFreezeClear(), 0);
    }
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_GE(accounts->SetAppPrivilege("alice", std::string(c.what) != "app privilege denied"), 0);

    FixedIdentity identity(IdentityOf(c.caller));
    ProbeHandler handler;
    handler.SetRequiredDatabase(c.database);
    handler.SetAccountOption(c.account);
    handler.SetRequiredAccessPrivilege(c.access);
    handler.SetStatusOption(c.status);
    handler.SetAPI("KSTX.Tidepool.Test", "probe", 0, 0);
    handler.SetAuthenticationService(&identity);
    FakeRequest request;
    BridgeResponse response;
    const int result = handler.HandleRequest(request, response);
    if (c.code == 0) {
      EXPECT_EQ(result, 0);
      EXPECT_TRUE(handler.ran);
      EXPECT_FALSE(response.IsErrorSet()) << response.GetErrorMessage();
    } else {
      EXPECT_EQ(result, -1);
      EXPECT_FALSE(handler.ran);
      EXPECT_EQ(response.GetErrorCode(), c.code);
      EXPECT_EQ(response.GetErrorMessage(), c.message);
    }
  }
  ASSERT_GE(SyncFreezeClear(), 0);
  tptest::SetServiceStatus("enabled");
  ASSERT_GE(hostaccounts::HostAccounts::Open()->SetAppPrivilege("alice", true), 0);
}

// What another site can make a browser send: a GET, or a POST without the
// session's token. Only methods that change something insist on both; a
// root caller (the runner) gets no pass of its own.
TEST_F(PipelineTest, WritingMethodsNeedAPostWithTheToken) {
  tptest::SetServiceStatus("enabled");
  ASSERT_GE(SyncFreezeClear(), 0);
  const struct {
    const char* what;
    RequestMethod method;
    Caller caller;
    bool post, token;
    bool runs;
  } cases[] = {
      {"writing, POST with token", kRequestMethodWrite, Caller::kAlice, true, true, true},
      {"writing, GET with token", kRequestMethodWrite, Caller::kAlice, false, true, false},
      {"writing, POST without token", kRequestMethodWrite, Caller::kAlice, true, false, false},
      {"writing, GET without token", kRequestMethodWrite, Caller::kAlice, false, false, false},
      {"writing, root without token", kRequestMethodWrite, Caller::kRoot, true, false, false},
      {"reading, GET without token", kRequestMethodRead, Caller::kAlice, false, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FixedIdentity identity(IdentityOf(c.caller));
    ProbeHandler handler;
    handler.SetRequiredDatabase(1);
    handler.SetRequiredAccessPrivilege(1);
    handler.SetRequestMethod(c.method);
    handler.SetAuthenticationService(&identity);
    FakeRequest request(Json::Value(Json::objectValue), c.post, c.token);
    BridgeResponse response;
    EXPECT_EQ(handler.HandleRequest(request, response), c.runs ? 0 : -1);
    EXPECT_EQ(handler.ran, c.runs);
    if (!c.runs) {
      EXPECT_EQ(response.GetErrorCode(), 105);
      EXPECT_EQ(response.GetErrorMessage(), "permission denied (request token)");
    }
  }
}

struct SudoCase {
  Json::Value sudo;
  int code;
  const char* message;
  const char* sudo_user;
};

TEST_F(PipelineTest, SudoParameterIsParsedNotEnforced) {
  const SudoCase cases[] = {
      {Json::Value("someone"), 0, "", "someone"},
      {Json::Value(tptest::UidOf("bob")), 0, "", "bob"},
      {Json::Value(12345), 401, "sudo: Failed to get user", ""},
      {Json::Value(-1), 401, "sudo: Failed to get user", ""},
      {Json::Value(true), 401, "sudo: format error", ""},
      {Json::Value(Json::arrayValue), 401, "sudo: format error", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sudo.toStyledString());
    FixedIdentity identity(IdentityOf(Caller::kAlice));
    ProbeHandler handler;
    handler.SetRequiredDatabase(1);
    handler.SetRequiredAccessPrivilege(1);
    handler.SetAuthenticationService(&identity);
    Json::Value params(Json::objectValue);
    params["sudo"] = c.sudo;
    FakeRequest request(params);
    BridgeResponse response;
    handler.HandleRequest(request, response);
    EXPECT_EQ(response.GetErrorCode(), c.code);
    EXPECT_EQ(response.GetErrorMessage(), c.message);
    // The caller's identity is not changed by sudo.
    if (c.code == 0) {
      EXPECT_EQ(handler.user_in_handle, "alice");
    }
    EXPECT_EQ(handler.GetSudoUser(), c.sudo_user);
  }
}

// Handlers for administrators run as root; the others keep the service
// account's ids, and every scope gives back the ids it found.
TEST_F(PipelineTest, AdminHandlersRunAsRootOthersAsServiceAccount) {
  const passwd* service = getpwnam("tidepool");
  ASSERT_NE(service, nullptr);
  ASSERT_EQ(setresgid(-1, service->pw_gid, -1), 0);
  ASSERT_EQ(setresuid(-1, service->pw_uid, -1), 0);
  for (unsigned access : {1u, 2u}) {
    SCOPED_TRACE(access);
    FixedIdentity identity(IdentityOf(Caller::kAdmin));
    ProbeHandler handler;
    handler.SetRequiredDatabase(1);
    handler.SetRequiredAccessPrivilege(access);
    handler.SetAuthenticationService(&identity);
    FakeRequest request;
    BridgeResponse response;
    ASSERT_EQ(handler.HandleRequest(request, response), 0) << response.GetErrorMessage();
    if (access == 2) {
      EXPECT_EQ(handler.euid_in_handle, 0u);
      EXPECT_EQ(handler.egid_in_handle, 0u);
    } else {
      EXPECT_EQ(handler.euid_in_handle, service->pw_uid);
      EXPECT_EQ(handler.egid_in_handle, service->pw_gid);
    }
    EXPECT_EQ(geteuid(), service->pw_uid);
    EXPECT_EQ(getegid(), service->pw_gid);
  }
  ASSERT_EQ(setresuid(-1, 0, -1), 0);
  ASSERT_EQ(setresgid(-1, 0, -1), 0);
}

TEST_F(PipelineTest, DatabasesFollowTheSettingsAndCloseWithTheHandler) {
  tptest::EnableDebugLog();
  struct Case {
    unsigned database, access;
    uint32_t opened;
  };
  for (const Case c : {Case{0, 0, 0}, Case{1, 3, 1}, Case{4, 2, 4}, Case{0, 1, 1}, Case{7, 2, 7}}) {
    SCOPED_TRACE(testing::Message() << c.database << "/" << c.access);
    FixedIdentity identity(IdentityOf(Caller::kAdmin));
    auto handler = std::make_unique<ProbeHandler>();
    handler->SetRequiredDatabase(c.database);
    handler->SetRequiredAccessPrivilege(c.access);
    handler->SetAuthenticationService(&identity);
    FakeRequest request;
    BridgeResponse response;
    ASSERT_EQ(handler->HandleRequest(request, response), 0) << response.GetErrorMessage();
    EXPECT_EQ(handler->GetOpenedDatabases(), c.opened);
    handler.reset();
  }
  EXPECT_NE(tptest::ReadPackageLog().find("no database is required"), std::string::npos);
  EXPECT_NE(tptest::ReadPackageLog().find("user database is destroyed"), std::string::npos);
}

TEST_F(PipelineTest, MissingConfigurationFailsDatabaseSetUp) {
  tptest::WriteFile(SyncConfigMgr::kPath + std::string(".bak"),
                    tptest::ReadFile(SyncConfigMgr::kPath));
  ASSERT_EQ(std::rename(SyncConfigMgr::kPath, (SyncConfigMgr::kPath + std::string(".bak")).c_str()),
            0);
  FixedIdentity identity(IdentityOf(Caller::kAlice));
  ProbeHandler handler;
  handler.SetRequiredDatabase(1);
  handler.SetRequiredAccessPrivilege(1);
  handler.SetAuthenticationService(&identity);
  FakeRequest request;
  BridgeResponse response;
  EXPECT_EQ(handler.HandleRequest(request, response), -1);
  EXPECT_EQ(response.GetErrorCode(), 401);
  EXPECT_EQ(response.GetErrorMessage(), "failed to initialize database");
  ASSERT_EQ(std::rename((SyncConfigMgr::kPath + std::string(".bak")).c_str(), SyncConfigMgr::kPath),
            0);
}

}  // namespace
