#include "webapi-client.h"

#include <json/reader.h>
#include <json/writer.h>
#include <pwd.h>
#include <sys/stat.h>
#include <utime.h>

#include <ctime>
#include <map>

#include "process.h"
#include "url-encode.h"

namespace tptest {
namespace {

constexpr const char* kEntry = "/usr/kstx/webapi/entry.cgi";

// Sessions of this process and their request tokens.
std::map<std::string, std::string>& Tokens() {
  static std::map<std::string, std::string> tokens;
  return tokens;
}

int WebServerUid() {
  const passwd* www = getpwnam("www-data");
  return www ? static_cast<int>(www->pw_uid) : 33;
}

}  // namespace

WebAnswer CallWebAPI(const WebCall& call) {
  std::map<std::string, std::string> env = {
      {"GATEWAY_INTERFACE", "CGI/1.1"},
      {"SERVER_PROTOCOL", "HTTP/1.1"},
      {"SCRIPT_NAME", "/webapi/entry.cgi"},
      {"REQUEST_METHOD", call.body.empty() && call.content_type.empty() ? "GET" : "POST"},
      {"QUERY_STRING", call.query},
      {"REMOTE_ADDR", "127.0.0.1"},
      {"SERVER_PORT", "5080"},
      {"HTTP_HOST", "127.0.0.1:5080"},
      {"PATH", "/usr/bin:/bin"},
  };
  if (!call.sid.empty()) env["HTTP_COOKIE"] = "id=" + call.sid;
  if (!call.token.empty()) env["HTTP_X_TIDEPOOL_TOKEN"] = call.token;
  if (!call.content_type.empty()) {
    env["CONTENT_TYPE"] = call.content_type;
    env["CONTENT_LENGTH"] = std::to_string(call.body.size());
  }
  ProcessResult run = RunProcess({kEntry}, env, call.body, WebServerUid());
  WebAnswer answer;
  answer.exit_status = run.exit_status;
  answer.stderr_text = run.err;
  size_t split = run.out.find("\r\n\r\n");
  size_t skip = 4;
  if (split == std::string::npos) {
    split = run.out.find("\n\n");
    skip = 2;
  }
  if (split != std::string::npos) {
    answer.headers = run.out.substr(0, split);
    answer.body = run.out.substr(split + skip);
  } else {
    answer.body = run.out;
  }
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(answer.body.data(), answer.body.data() + answer.body.size(), &answer.json,
                     &errors)) {
    answer.json = Json::Value();
  }
  return answer;
}

WebAnswer Get(const std::string& query, const std::string& sid) {
  return CallWebAPI(WebCall{query, sid, "", ""});
}

WebAnswer CallApi(const std::string& api, const std::string& method, const Params& params,
                  const std::string& sid) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  std::string query = "api=" + api + "&version=1&method=" + method;
  for (const auto& [name, value] : params) {
    query += "&" + name + "=" + UrlEncode(Json::writeString(builder, value));
  }
  const std::string token = TokenFor(sid);
  if (token.empty()) return Get(query, sid);
  return CallWebAPI(WebCall{"", sid, "application/x-www-form-urlencoded", query, token});
}

Session LoginWithToken(const std::string& account, const std::string& password) {
  WebAnswer answer =
      Get("api=KSTX.API.Auth&method=login&version=1&account=" + account + "&passwd=" + password);
  Session session{answer.json["data"]["sid"].asString(), answer.json["data"]["token"].asString()};
  if (!session.sid.empty()) Tokens()[session.sid] = session.token;
  return session;
}

std::string Login(const std::string& account, const std::string& password) {
  return LoginWithToken(account, password).sid;
}

std::string TokenFor(const std::string& sid) {
  if (sid.empty()) return {};
  const auto found = Tokens().find(sid);
  return found != Tokens().end() ? found->second : std::string();
}

void AgeSession(const std::string& sid, int seconds) {
  const std::string path = "/usr/kstx/etc/sessions/" + sid;
  utimbuf times;
  times.actime = times.modtime = time(nullptr) - seconds;
  utime(path.c_str(), &times);
}

}  // namespace tptest
