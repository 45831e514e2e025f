// entry.cgi as the web server runs it: a CGI environment, the body on
// standard input, the answer on standard output.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <map>
#include <string>

#include "host-accounts.h"
#include "kstx/webapi.h"
#include "process.h"
#include "sandbox.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kEntry = "/usr/kstx/webapi/entry.cgi";
constexpr const char* kSessions = "/usr/kstx/etc/sessions";

struct Answer {
  std::string headers;  // the header block, each line ending in "\r\n"
  std::string body;
  Json::Value json;  // the envelope, null for a raw answer
};

struct Call {
  Call(std::string q, std::string type = "", std::string b = "", std::string c = "",
       const char* length = nullptr)
      : query(std::move(q)),
        content_type(std::move(type)),
        body(std::move(b)),
        cookie(std::move(c)),
        content_length(length) {}
  std::string query;
  std::string content_type;
  std::string body;
  std::string cookie;
  const char* content_length;                   // the real length when null
  std::map<std::string, std::string> env = {};  // added to, or replacing, the CGI variables
};

Answer RunEntry(const Call& call) {
  std::map<std::string, std::string> env = {
      {"GATEWAY_INTERFACE", "CGI/1.1"}, {"REQUEST_METHOD", call.body.empty() ? "GET" : "POST"},
      {"QUERY_STRING", call.query},     {"REMOTE_ADDR", "192.0.2.7"},
      {"SERVER_PORT", "5000"},          {"HTTP_HOST", "nas.example:5000"},
      {"TEST_SECRET", "leak"}};
  if (!call.content_type.empty()) env["CONTENT_TYPE"] = call.content_type;
  if (!call.body.empty() || call.content_length != nullptr) {
    env["CONTENT_LENGTH"] =
        call.content_length ? call.content_length : std::to_string(call.body.size());
  }
  if (!call.cookie.empty()) env["HTTP_COOKIE"] = call.cookie;
  for (const auto& [name, value] : call.env) env[name] = value;
  const tptest::ProcessResult result = tptest::RunProcess({kEntry}, env, call.body);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  Answer answer;
  const size_t split = result.out.find("\r\n\r\n");
  EXPECT_NE(split, std::string::npos) << result.out;
  if (split == std::string::npos) return answer;
  answer.headers = result.out.substr(0, split + 2);
  answer.body = result.out.substr(split + 4);
  if (answer.headers.find("application/json") != std::string::npos) {
    answer.json = KSTX::WebAPIUtil::ParseJson(answer.body);
    EXPECT_TRUE(answer.json.isObject()) << answer.body;
  }
  return answer;
}

Answer Get(const std::string& query, const std::string& cookie = "") {
  return RunEntry({query, "", "", cookie});
}

int ErrorCode(const Answer& a) {
  return a.json["success"] == false ? a.json["error"]["code"].asInt() : 0;
}

class EntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::ResetSandboxData();
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_NE(accounts, nullptr);
    ASSERT_GE(accounts->AddUser("admin", "admin-pw"), 0);
    const int group = accounts->AddGroup(hostaccounts::kAdministratorsGroup);
    ASSERT_TRUE(group >= 0 || group == hostaccounts::kErrExists);
    ASSERT_GE(accounts->AddGroupMember(hostaccounts::kAdministratorsGroup, "admin"), 0);
    ASSERT_GE(accounts->AddUser("alice", "alice-pw"), 0);
    ASSERT_GE(accounts->AddUser("bob", "bob-pw"), 0);
    ASSERT_GE(accounts->SetDisabled("bob", true), 0);
    ASSERT_GE(accounts->AddUser("carol", "carol-pw"), 0);
    ASSERT_GE(accounts->SetExpireDay("carol", 1), 0);
    fs::create_directories("/usr/kstx/webapi/modules.d");
    const auto indexed = tptest::RunProcess(
        {INDEX_TOOL, TEST_MODULE, TEST_MODULE, "/usr/kstx/webapi/modules.d/test.index"});
    ASSERT_EQ(indexed.exit_status, 0) << indexed.err;
  }

  std::string Login(const std::string& account, const std::string& passwd) {
    return LoginFrom("192.0.2.7", account, passwd).json["data"]["sid"].asString();
  }

  static Answer LoginFrom(const std::string& address, const std::string& account,
                          const std::string& passwd) {
    Call call("api=KSTX.API.Auth&method=login&version=1&account=" + account + "&passwd=" + passwd);
    call.env["REMOTE_ADDR"] = address;
    return RunEntry(call);
  }

  Json::Value Echo(const std::string& cookie, const std::string& extra = "") {
    return Get("api=KSTX.Test&method=echo&version=1" + extra, cookie).json["data"];
  }
};

TEST_F(EntryTest, InfoQuery) {
  const Answer all = Get("api=KSTX.API.Info&method=query&version=1&query=all");
  EXPECT_EQ(all.headers, "Content-Type: application/json; charset=utf-8\r\n");
  const Json::Value expected = KSTX::WebAPIUtil::ParseJson(R"({
      "KSTX.API.Auth": {"minVersion": 1, "maxVersion": 1, "path": "entry.cgi"},
      "KSTX.API.Info": {"minVersion": 1, "maxVersion": 1, "path": "entry.cgi"},
      "KSTX.Test": {"minVersion": 1, "maxVersion": 2, "path": "entry.cgi"}})");
  // Installed modules other than the test's may be listed too.
  for (const std::string& api : expected.getMemberNames()) {
    EXPECT_EQ(all.json["data"][api], expected[api]) << all.body;
  }
  EXPECT_EQ(Get("api=KSTX.API.Info&method=query").json, all.json);

  const Answer some = Get("api=KSTX.API.Info&method=query&query=KSTX.Test,KSTX.Nothing");
  EXPECT_EQ(some.json["data"].getMemberNames(), std::vector<std::string>{"KSTX.Test"});
}

TEST_F(EntryTest, LoginAnswers) {
  const Answer wrong = Get("api=KSTX.API.Auth&method=login&account=alice&passwd=nope");
  const Answer unknown = Get("api=KSTX.API.Auth&method=login&account=mallory&passwd=nope");
  EXPECT_EQ(ErrorCode(wrong), 400);
  EXPECT_EQ(wrong.body, unknown.body);  // nothing tells an account from a typo
  EXPECT_EQ(wrong.json["error"]["errors"]["message"], "no such account or incorrect password");

  const struct {
    const char* account;
    const char* passwd;
    int code;
  } cases[] = {
      {"bob", "bob-pw", 408}, {"bob", "nope", 400}, {"carol", "carol-pw", 409},
      {"carol", "nope", 400}, {"", "x", 400},       {"alice%0Aadmin=1", "x", 400},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.account) + "/" + c.passwd);
    EXPECT_EQ(ErrorCode(Get(std::string("api=KSTX.API.Auth&method=login&account=") + c.account +
                            "&passwd=" + c.passwd)),
              c.code);
  }
  const Answer no_passwd = Get("api=KSTX.API.Auth&method=login&account=alice");
  EXPECT_EQ(ErrorCode(no_passwd), 120);
  EXPECT_EQ(no_passwd.json["error"]["errors"]["name"], "passwd");
  ASSERT_FALSE(fs::exists(kSessions) && !fs::is_empty(kSessions));

  const Answer ok = Get("api=KSTX.API.Auth&method=login&account=alice&passwd=alice-pw");
  const std::string sid = ok.json["data"]["sid"].asString();
  ASSERT_EQ(sid.size(), 32u) << ok.body;
  EXPECT_EQ(sid.find_first_not_of("0123456789abcdef"), std::string::npos);
  const std::string token = ok.json["data"]["token"].asString();
  EXPECT_EQ(token.size(), 64u) << ok.body;
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(ok.headers.find("Set-Cookie: id=" + sid + "; Path=/; HttpOnly; SameSite=Strict\r\n"),
            std::string::npos)
      << ok.headers;
  EXPECT_TRUE(fs::exists(std::string(kSessions) + "/" + sid));

  // Over HTTPS the cookie never travels in the clear.
  Call secure("api=KSTX.API.Auth&method=login&account=alice&passwd=alice-pw");
  secure.env["HTTPS"] = "on";
  const Answer over_tls = RunEntry(secure);
  EXPECT_NE(over_tls.headers.find("; Path=/; HttpOnly; SameSite=Strict; Secure\r\n"),
            std::string::npos)
      << over_tls.headers;
  EXPECT_NE(over_tls.json["data"]["token"], token);

  // A password that reads as a number is still the text that was typed.
  ASSERT_GE(hostaccounts::HostAccounts::Open()->SetPassword("alice", "1.50"), 0);
  EXPECT_EQ(Login("alice", "1.50").size(), 32u);
  EXPECT_EQ(ErrorCode(Get("api=KSTX.API.Auth&method=login&account=alice&passwd=1.5")), 400);
}

TEST_F(EntryTest, IdentityReachesTheModule) {
  const Json::Value anonymous = Echo("");
  EXPECT_EQ(anonymous["user"], "");
  EXPECT_EQ(anonymous["uid"].asUInt(), 4294967295u);
  EXPECT_FALSE(anonymous["env_leaked"].asBool());
  EXPECT_NE(anonymous["euid"], 0) << "the module must not run with root's rights";
  EXPECT_EQ(anonymous["params"]["version"], 1);

  const std::string alice = Login("alice", "alice-pw");
  const std::string admin = Login("admin", "admin-pw");
  ASSERT_FALSE(alice.empty());
  ASSERT_FALSE(admin.empty());
  for (const Json::Value& seen : {Echo("lang=en; id=" + alice), Echo("", "&_sid=" + alice)}) {
    EXPECT_EQ(seen["user"], "alice");
    EXPECT_GE(seen["uid"].asUInt(), 1026u);
    EXPECT_FALSE(seen["is_admin"].asBool());
    EXPECT_FALSE(seen["is_timeout"].asBool());
  }
  EXPECT_TRUE(Echo("id=" + admin)["is_admin"].asBool());

  // Sids that are not sessions leave the caller anonymous.
  for (const std::string& bad : {std::string("../../../etc/passwd"), std::string(32, 'a'),
                                 alice.substr(1), std::string(alice).replace(0, 1, "A")}) {
    EXPECT_EQ(Echo("id=" + bad)["uid"].asUInt(), 4294967295u) << bad;
  }
}

void Age(const std::string& sid, time_t seconds) {
  const std::string path = std::string(kSessions) + "/" + sid;
  const time_t then = time(nullptr) - seconds;
  const utimbuf times{then, then};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

time_t MTime(const std::string& sid) {
  struct stat st {};
  stat((std::string(kSessions) + "/" + sid).c_str(), &st);
  return st.st_mtime;
}

TEST_F(EntryTest, IdleSessionsTimeOut) {
  const std::string sid = Login("alice", "alice-pw");
  ASSERT_FALSE(sid.empty());
  Age(sid, 31 * 60);
  for (int i = 0; i < 2; ++i) {  // it stays timed out: the file is not refreshed
    const Json::Value seen = Echo("id=" + sid);
    EXPECT_EQ(seen["user"], "alice");
    EXPECT_TRUE(seen["is_timeout"].asBool());
  }
  EXPECT_LT(MTime(sid), time(nullptr) - 30 * 60);

  tptest::WriteFile("/usr/kstx/etc/webapi.conf", "session_idle_minutes=60\n");
  EXPECT_FALSE(Echo("id=" + sid)["is_timeout"].asBool());
  EXPECT_GT(MTime(sid), time(nullptr) - 60);  // used now

  // A login clears out sessions idle for more than a day.
  Age(sid, 25 * 60 * 60);
  Login("admin", "admin-pw");
  EXPECT_FALSE(fs::exists(std::string(kSessions) + "/" + sid));
}

TEST_F(EntryTest, Logout) {
  const std::string sid = Login("alice", "alice-pw");
  ASSERT_FALSE(sid.empty());
  const Answer out = Get("api=KSTX.API.Auth&method=logout", "id=" + sid);
  EXPECT_EQ(out.body, R"({"success":true})");
  EXPECT_NE(out.headers.find("Set-Cookie: id=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0"),
            std::string::npos);
  EXPECT_FALSE(fs::exists(std::string(kSessions) + "/" + sid));
  EXPECT_EQ(Echo("id=" + sid)["uid"].asUInt(), 4294967295u);
  // Logging out without a session is no error.
  EXPECT_EQ(Get("api=KSTX.API.Auth&method=logout").body, R"({"success":true})");
}

TEST_F(EntryTest, EveryRequestGetsAnAnswer) {
  const std::string form = "application/x-www-form-urlencoded";
  const struct {
    const char* name;
    Call call;
    int code;
    const char* message;
  } cases[] = {
      {"no api", {"method=echo"}, 101, "malformed request"},
      {"broken JSON body", {"", "application/json", "{\"api\":"}, 101, "malformed request"},
      {"short body", {"", form, "api=KSTX.Test&method=echo", "", "100"}, 101, "malformed request"},
      {"unknown content type",
       {"api=KSTX.Test&method=echo", "text/xml", "<a/>"},
       101,
       "malformed request"},
      {"body too large", {"", form, "a=1", "", "2000000"}, 102, "request too large"},
      {"unknown API", {"api=KSTX.Nothing&method=echo"}, 103, "no such API or method"},
      {"version above the range",
       {"api=KSTX.Test&method=echo&version=3"},
       103,
       "no such API or method"},
      {"built-in version out of range",
       {"api=KSTX.API.Info&method=query&version=2"},
       103,
       "no such API or method"},
      {"unknown method", {"api=KSTX.Test&method=nothing"}, 103, "no such API or method"},
      {"unknown built-in method",
       {"api=KSTX.API.Auth&method=nothing"},
       103,
       "no such API or method"},
      {"method without a check", {"api=KSTX.Test&method=unchecked"}, 103, "no such API or method"},
      {"exception in the module", {"api=KSTX.Test&method=throw"}, 100, "unexpected failure"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Answer a = RunEntry(c.call);
    EXPECT_EQ(ErrorCode(a), c.code) << a.body;
    EXPECT_EQ(a.json["error"]["errors"]["message"], c.message);
  }

  const Answer bad_param = Get("api=KSTX.Test&method=echo&n=%22x%22");
  EXPECT_EQ(bad_param.json,
            KSTX::WebAPIUtil::ParseJson(R"({"success":false,"error":{"code":120,)"
                                        R"("errors":{"name":"n","reason":"type"}}})"));

  const Answer ok = RunEntry({"", form, "api=KSTX.Test&method=echo&version=2&n=4"});
  EXPECT_EQ(ok.json["data"]["params"]["n"], 4);
  EXPECT_EQ(ok.json["data"]["version"], 2);
  EXPECT_NE(ok.headers.find("\r\nX-Test: echo\r\n"), std::string::npos);

  const tptest::ProcessResult raw =
      tptest::RunProcess({kEntry}, {{"QUERY_STRING", "api=KSTX.Test&method=raw"}});
  EXPECT_EQ(raw.out, "Content-Type: text/plain\r\n\r\nraw body");
}

std::vector<std::string> StoredUploads() {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    if (entry.path().filename().string().rfind("kstx-upload-", 0) == 0) {
      found.push_back(entry.path());
    }
  }
  return found;
}

TEST_F(EntryTest, UploadIsStoredForALoggedInCallerAndTheRequestOnly) {
  const std::string body =
      "--b0undary\r\nContent-Disposition: form-data; name=\"upload_key\"; filename=\"k.7z\"\r\n"
      "\r\nKEYDATA\r\n--b0undary--\r\n";
  const std::string type = "multipart/form-data; boundary=b0undary";
  const std::string alice = Login("alice", "alice-pw");
  ASSERT_FALSE(alice.empty());

  const Answer a = RunEntry({"api=KSTX.Test&method=echo", type, body, "id=" + alice});
  const std::string stored = a.json["data"]["file_tmp"].asString();
  EXPECT_EQ(stored.rfind("/tmp/kstx-upload-", 0), 0u) << a.body;
  EXPECT_EQ(a.json["data"]["params"]["upload_key_tmp"], stored);

  // A session named by a form field counts as well, wherever the field is.
  const std::string with_sid = body.substr(0, body.size() - 4) +
                               "\r\nContent-Disposition: form-data; name=\"_sid\"\r\n\r\n" + alice +
                               "\r\n--b0undary--\r\n";
  EXPECT_TRUE(
      RunEntry({"api=KSTX.Test&method=echo", type, with_sid}).json["data"].isMember("file_tmp"));

  // Nobody who may not act gets a byte on the disk.
  const std::string late = Login("admin", "admin-pw");
  Age(late, 31 * 60);
  for (const std::string& cookie : {std::string(), "id=" + late, "id=" + std::string(32, 'a')}) {
    SCOPED_TRACE(cookie);
    const Answer refused = RunEntry({"api=KSTX.Test&method=echo", type, body, cookie});
    EXPECT_FALSE(refused.json["data"].isMember("file_tmp")) << refused.body;
    EXPECT_FALSE(refused.json["data"]["params"].isMember("upload_key_tmp"));
  }

  // Removed after the answer, also when the module throws.
  EXPECT_EQ(ErrorCode(RunEntry({"api=KSTX.Test&method=throw", type, body, "id=" + alice})), 100);
  EXPECT_EQ(StoredUploads(), std::vector<std::string>{});
}

TEST_F(EntryTest, RequestTokenTravelsWithItsSession) {
  const Answer login = LoginFrom("192.0.2.7", "alice", "alice-pw");
  const std::string sid = login.json["data"]["sid"].asString();
  const std::string token = login.json["data"]["token"].asString();
  const std::string other =
      LoginFrom("192.0.2.7", "admin", "admin-pw").json["data"]["token"].asString();
  ASSERT_EQ(token.size(), 64u);
  const std::string form = "application/x-www-form-urlencoded";
  const std::string echo = "api=KSTX.Test&method=echo";
  auto with_header = [](Call call, const std::string& value) {
    call.env["HTTP_X_TIDEPOOL_TOKEN"] = value;
    return call;
  };
  const struct {
    const char* what;
    Call call;
    bool post;
    bool valid;
  } cases[] = {
      {"GET, no token", {echo, "", "", "id=" + sid}, false, false},
      {"GET with the header", with_header({echo, "", "", "id=" + sid}, token), false, true},
      {"GET with _token in the query",
       {echo + "&_token=" + token, "", "", "id=" + sid},
       false,
       false},
      {"POST, no token", {"", form, echo, "id=" + sid}, true, false},
      {"POST with the header", with_header({"", form, echo, "id=" + sid}, token), true, true},
      {"POST with _token", {"", form, echo + "&_token=" + token, "id=" + sid}, true, true},
      {"POST with another session's token", with_header({"", form, echo, "id=" + sid}, other), true,
       false},
      {"POST with a cut token", with_header({"", form, echo, "id=" + sid}, token.substr(1)), true,
       false},
      {"POST with the token and no session", with_header({"", form, echo}, token), true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Json::Value seen = RunEntry(c.call).json["data"];
    EXPECT_EQ(seen["is_post"].asBool(), c.post);
    EXPECT_EQ(seen["has_valid_token"].asBool(), c.valid);
  }
}

TEST_F(EntryTest, AccountStandingIsReadOnEveryRequest) {
  const std::string admin = Login("admin", "admin-pw");
  const std::string alice = Login("alice", "alice-pw");
  ASSERT_TRUE(Echo("id=" + admin)["is_admin"].asBool());
  ASSERT_FALSE(Echo("id=" + alice)["is_expired"].asBool());
  auto accounts = hostaccounts::HostAccounts::Open();

  // Demoted: no longer an administrator, still logged in.
  ASSERT_GE(accounts->RemoveGroupMember(hostaccounts::kAdministratorsGroup, "admin"), 0);
  Json::Value seen = Echo("id=" + admin);
  EXPECT_EQ(seen["user"], "admin");
  EXPECT_FALSE(seen["is_admin"].asBool());
  ASSERT_GE(accounts->AddGroupMember(hostaccounts::kAdministratorsGroup, "alice"), 0);
  EXPECT_TRUE(Echo("id=" + alice)["is_admin"].asBool());

  // Expired: the module learns it on the next request.
  ASSERT_GE(accounts->SetExpireDay("alice", 1), 0);
  EXPECT_TRUE(Echo("id=" + alice)["is_expired"].asBool());
  ASSERT_GE(accounts->SetExpireDay("alice", 0), 0);

  // Disabled or deleted: the session ends, for good.
  ASSERT_GE(accounts->SetDisabled("alice", true), 0);
  EXPECT_EQ(Echo("id=" + alice)["uid"].asUInt(), 4294967295u);
  ASSERT_GE(accounts->SetDisabled("alice", false), 0);
  EXPECT_EQ(Echo("id=" + alice)["uid"].asUInt(), 4294967295u);
  ASSERT_GE(accounts->DeleteUser("admin"), 0);
  EXPECT_EQ(Echo("id=" + admin)["uid"].asUInt(), 4294967295u);
}

TEST_F(EntryTest, FailedLoginsAreThrottledPerAccountAndPerAddress) {
  // Ten wrong passwords for alice, each from another address.
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(ErrorCode(LoginFrom("192.0.2." + std::to_string(10 + i), "alice", "nope")), 400);
  }
  const Answer blocked = LoginFrom("198.51.100.1", "ALICE", "alice-pw");
  EXPECT_EQ(ErrorCode(blocked), 411) << blocked.body;
  EXPECT_EQ(blocked.json["error"]["errors"]["message"], "too many failed logins, try again later");
  EXPECT_EQ(ErrorCode(LoginFrom("192.0.2.10", "admin", "admin-pw")), 0) << "other accounts may";

  // Ten unknown names from one address close that address to everybody.
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(ErrorCode(LoginFrom("203.0.113.5", "nobody" + std::to_string(i), "x")), 400);
  }
  EXPECT_EQ(ErrorCode(LoginFrom("203.0.113.5", "admin", "admin-pw")), 411);
  EXPECT_EQ(ErrorCode(LoginFrom("203.0.113.6", "admin", "admin-pw")), 0);

  struct stat st {};
  ASSERT_EQ(lstat("/usr/kstx/etc/login/failures.db", &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(EntryTest, StartsClean) {
  std::map<std::string, std::string> env = {{"GATEWAY_INTERFACE", "CGI/1.1"},
                                            {"REQUEST_METHOD", "GET"},
                                            {"QUERY_STRING", "api=KSTX.Test&method=hygiene"}};
  // A careless web server: an open descriptor, a tight umask, a folder of its own.
  const tptest::ProcessResult run = tptest::RunProcess(
      {"/bin/sh", "-c", std::string("exec 7</etc/hostname; cd /tmp; umask 077; exec ") + kEntry},
      env);
  const size_t split = run.out.find("\r\n\r\n");
  ASSERT_NE(split, std::string::npos) << run.out << run.err;
  const Json::Value seen = KSTX::WebAPIUtil::ParseJson(run.out.substr(split + 4))["data"];
  EXPECT_EQ(seen["open_fds"], Json::Value(Json::arrayValue)) << seen.toStyledString();
  EXPECT_EQ(seen["umask"].asUInt(), 022u);
  EXPECT_EQ(seen["cwd"], "/");
}

// A request that cannot lower its rights is not served at all: with the
// right to change ids taken away before it starts, entry.cgi answers a
// failure and the module never runs with root's rights.
TEST_F(EntryTest, CannotLowerItsRightsAndStops) {
  std::map<std::string, std::string> env = {{"GATEWAY_INTERFACE", "CGI/1.1"},
                                            {"REQUEST_METHOD", "GET"},
                                            {"QUERY_STRING", "api=KSTX.Test&method=hygiene"}};
  const tptest::ProcessResult run = tptest::RunProcess(
      {"/usr/bin/setpriv", "--bounding-set", "-setuid,-setgid", "--", kEntry}, env);
  EXPECT_NE(run.exit_status, 0) << run.out;
  EXPECT_NE(run.out.find("Status: 500"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("open_fds"), std::string::npos) << "the module ran: " << run.out;
}

}  // namespace
