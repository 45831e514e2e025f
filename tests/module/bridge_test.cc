// The bridge: handler look-up by API, method and version, the identity the
// runtime hands over, and the envelope a response turns into.
#include <gtest/gtest.h>
#include <json/writer.h>
#include <kstx/webapi.h>

#include <ctime>
#include <filesystem>
#include <memory>

#include "fake-request.h"
#include "job-queue.h"
#include "job-store.h"
#include "request-handler.h"
#include "sandbox.h"
#include "webapi-bridge.h"
#include "webapi-request.h"

namespace {

int g_destroyed = 0;

class NamedHandler : public RequestHandler {
 public:
  NamedHandler(const char* method, unsigned min, unsigned max, int tag) : tag(tag) {
    SetAPI("KSTX.Tidepool", method, min, max);
  }
  ~NamedHandler() override { ++g_destroyed; }
  int tag;
};

KSTX::APIRequest MakeRequest(const char* method, unsigned version, const std::string& user = "",
                             uint32_t uid = RequestAuthentication::kAnonymousUid) {
  KSTX::RequestContext ctx;
  ctx.api = "KSTX.Tidepool";
  ctx.method = method;
  ctx.version = version;
  ctx.login_user = user;
  ctx.login_uid = uid;
  return KSTX::APIRequest(ctx);
}

TEST(BridgeTest, FindsHandlersByKeyAndVersion) {
  KSTX::APIRequest api_request = MakeRequest("check_user", 1);
  KSTX::APIResponse api_response;
  WebAPIBridge bridge(&api_request, &api_response);
  bridge.AddHandler(new NamedHandler("any", 0, 0, 1));
  bridge.AddHandler(new NamedHandler("ranged", 2, 3, 2));
  bridge.AddHandler(new NamedHandler("open_max", 5, 0, 3));
  for (unsigned v : {0u, 1u, 99u}) {
    ASSERT_NE(bridge.FindHandler("KSTX.Tidepool", "any", v), nullptr);
  }
  EXPECT_EQ(bridge.FindHandler("KSTX.Tidepool", "ranged", 1), nullptr);
  EXPECT_NE(bridge.FindHandler("KSTX.Tidepool", "ranged", 3), nullptr);
  // A zero in either bound serves every version.
  EXPECT_NE(bridge.FindHandler("KSTX.Tidepool", "open_max", 1), nullptr);
  EXPECT_FALSE(bridge.HasHandler("KSTX.Nothing", "any", 1));
  EXPECT_FALSE(bridge.HasHandler("KSTX.Tidepool", "none", 1));

  g_destroyed = 0;
  bridge.AddHandler(new NamedHandler("any", 0, 0, 4));
  EXPECT_EQ(g_destroyed, 1);
  auto* replaced = static_cast<NamedHandler*>(bridge.FindHandler("KSTX.Tidepool", "any", 1));
  EXPECT_EQ(replaced->tag, 4);
}

TEST(BridgeTest, UnknownMethodAnswers103) {
  KSTX::APIRequest api_request = MakeRequest("list", 1);
  KSTX::APIResponse api_response;
  {
    WebAPIBridge bridge(&api_request, &api_response);
    bridge.AddHandler(new NamedHandler("check_user", 0, 0, 1));
    EXPECT_EQ(bridge.Process(), -1);
  }
  Json::Value envelope = api_response.Envelope();
  EXPECT_FALSE(envelope["success"].asBool());
  EXPECT_EQ(envelope["error"]["code"].asInt(), 103);
  EXPECT_EQ(envelope["error"]["errors"]["message"].asString(), "no such API or method");
  EXPECT_TRUE(envelope["error"]["errors"]["line"].isInt());
}

TEST(BridgeTest, ResponseBecomesEnvelope) {
  struct Case {
    const char* what;
    int code;
    Json::Value data;
    const char* expected;
  };
  Json::Value object(Json::objectValue);
  object["a"] = 1;
  const Case cases[] = {
      {"success with data", 0, object, R"({"data":{"a":1},"success":true})"},
      {"success with null", 0, Json::Value(), R"({"success":true})"},
      {"error code 0 is no error", 0, Json::Value(), R"({"success":true})"},
      {"error", 403, object,
       R"({"error":{"code":403,"errors":{"line":7,"message":"m"}},"success":false})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    KSTX::APIRequest api_request = MakeRequest("x", 1);
    KSTX::APIResponse api_response;
    WebAPIBridge bridge(&api_request, &api_response);
    BridgeResponse response;
    response.SetJsonResponse(c.data);
    if (c.code) response.SetError(c.code, "m", 7);
    if (std::string(c.what) == "error code 0 is no error") response.SetError(0, "ignored", 1);
    bridge.SetResponse(response);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    EXPECT_EQ(Json::writeString(writer, api_response.Envelope()), c.expected);
  }
}

TEST(BridgeTest, ResponseSetters) {
  BridgeResponse response;
  response.AddAutoRemovePath("");
  EXPECT_FALSE(response.IsAutoRemove());
  response.SetArchiveResponse("a.zip", "/tmp/x", "big5", true);
  EXPECT_EQ(response.GetType(), BridgeResponse::kArchive);
  EXPECT_EQ(response.GetArchiveCodepage(), "");  // taken from the user's settings later
  EXPECT_EQ(response.GetAutoRemovePaths(), std::vector<std::string>{"/tmp/x"});
  response.SetCookie("id", "a b;c", {"/"});
  response.SetCookie("k", "v");
  ASSERT_EQ(response.GetHeaders().size(), 2u);
  EXPECT_EQ(response.GetHeaders()[0].second, "id=a%20b%3Bc; path=/");
  EXPECT_EQ(response.GetHeaders()[1].second, "k=v");
  response.SetError(600, "first", 1);
  response.SetError(401, "second", 2);
  EXPECT_EQ(response.GetErrorCode(), 401);
  EXPECT_EQ(response.GetType(), BridgeResponse::kArchive);
}

TEST(BridgeTest, IdentityFromTheRuntime) {
  struct Case {
    std::string user;
    uint32_t uid;
    bool admin;
    std::string expected_user;
    bool anonymous, root;
  };
  const Case cases[] = {
      {"", RequestAuthentication::kAnonymousUid, false, "anonymous", true, false},
      {"somebody", RequestAuthentication::kAnonymousUid, false, "anonymous", true, false},
      {"anonymous", 1030, false, "anonymous", true, false},
      {"root", 0, false, "root", false, true},
      {"alice", 1027, true, "alice", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user);
    KSTX::RequestContext ctx;
    ctx.login_user = c.user;
    ctx.login_uid = c.uid;
    ctx.is_admin = c.admin;
    KSTX::APIRequest api_request(ctx);
    KSTX::APIResponse api_response;
    WebAPIAuthenticationService service(&api_request, &api_response);
    RequestAuthentication auth;
    FakeRequest request;
    BridgeResponse response;
    ASSERT_EQ(service.Authenticate(auth, request, response), 0);
    EXPECT_EQ(auth.user, c.expected_user);
    EXPECT_EQ(auth.is_anonymous, c.anonymous);
    EXPECT_EQ(auth.is_root, c.root);
    EXPECT_EQ(auth.is_admin, c.admin);
    EXPECT_FALSE(auth.is_expired);
    EXPECT_EQ(auth.remote_ip, "127.0.0.1");
    EXPECT_EQ(auth.url_host, "localhost");
  }
}

}  // namespace

namespace auto_remove {

namespace jq = tidepool::core::job_queue;
namespace stdfs = std::filesystem;

// A request whose JSON answer marked `paths` as temporary, to its end.
void RunBridgeRemoving(const std::vector<std::string>& paths) {
  KSTX::APIRequest api_request = MakeRequest("list", 1);
  KSTX::APIResponse api_response;
  WebAPIBridge bridge(&api_request, &api_response);
  BridgeResponse response;
  for (const auto& path : paths) response.AddAutoRemovePath(path);
  bridge.SetResponse(response);
}

std::vector<jq::JobRecord> QueuedJobs() {
  std::unique_ptr<jq::JobStore> store;
  std::vector<jq::JobRecord> jobs;
  EXPECT_GE(jq::OpenJobStore(jq::ConfiguredQueueLocation(), store), 0);
  if (store) {
    EXPECT_GE(store->List(jobs), 0);
  }
  return jobs;
}

TEST(BridgeTest, AutoRemovePathsGoToTheQueueElseAtOnce) {
  tptest::ResetSandboxData();
  tptest::WriteFile("/var/packages/Tidepool/etc/setting.conf", "repo_volume=\"/volume1\"\n");
  stdfs::create_directories("/volume1/@tidepool");
  tptest::WriteFile("/tmp/bridge/answer.zip", "x");
  tptest::WriteFile("/tmp/bridge/other.zip", "x");

  // Queued for the daemon a minute from now: the file stays for the client.
  const long long now = time(nullptr);
  RunBridgeRemoving({"/tmp/bridge/answer.zip", "/tmp/bridge/other.zip"});
  EXPECT_TRUE(stdfs::exists("/tmp/bridge/answer.zip"));
  const auto jobs = QueuedJobs();
  ASSERT_EQ(jobs.size(), 2u);
  EXPECT_EQ(jobs[0].name, jq::jobs::UnlinkJob::kName);
  EXPECT_EQ(jobs[0].payload, jq::jobs::UnlinkJob("/tmp/bridge/answer.zip").Payload());
  EXPECT_EQ(jobs[1].payload, jq::jobs::UnlinkJob("/tmp/bridge/other.zip").Payload());
  EXPECT_GE(jobs[0].due, now + 60);
  EXPECT_LE(jobs[0].due, time(nullptr) + 60);

  // A job for the path waits already: the queue refuses a second one, so
  // the path goes at once.
  RunBridgeRemoving({"/tmp/bridge/answer.zip"});
  EXPECT_FALSE(stdfs::exists("/tmp/bridge/answer.zip"));
  EXPECT_EQ(QueuedJobs().size(), 2u);

  // Without a queue, at once too, and confined: a link inside the tree goes
  // as a link, and a path through a link removes nothing.
  stdfs::remove("/var/packages/Tidepool/etc/setting.conf");
  tptest::WriteFile("/volume2/keep/victim", "precious");
  tptest::WriteFile("/tmp/bridge/tree/a/b.txt", "x");
  stdfs::create_symlink("/volume2/keep", "/tmp/bridge/tree/a/link");
  stdfs::create_symlink("/volume2/keep", "/tmp/bridge/link");
  RunBridgeRemoving({"/tmp/bridge/link/victim", "/tmp/bridge/tree", "/tmp/bridge/never-was"});
  EXPECT_FALSE(stdfs::exists(stdfs::symlink_status("/tmp/bridge/tree")));
  EXPECT_TRUE(stdfs::is_symlink("/tmp/bridge/link"));
  EXPECT_EQ(tptest::ReadFile("/volume2/keep/victim"), "precious");
}

}  // namespace auto_remove
