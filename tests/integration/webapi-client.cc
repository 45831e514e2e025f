#include "webapi-client.h"

#include <json/reader.h>
#include <json/writer.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include "lighttpd.h"
#include "process.h"
#include "sandbox.h"
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

// With TIDEPOOL_TEST_WEBAPI=forked, calls go to one tidepool-webapi of this
// test process over its socket, as lighttpd sends them, instead of to an
// entry.cgi run for each.
bool ThroughForkedServer() {
  static const bool forked = [] {
    const char* path = std::getenv("TIDEPOOL_TEST_WEBAPI");
    return path != nullptr && std::strcmp(path, "forked") == 0;
  }();
  return forked;
}

class ForkedServer {
 public:
  ~ForkedServer() {
    // Only the process that started it; a test's forked child exits too.
    if (pid_ > 0 && getpid() == owner_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool Ready() {
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0) return true;
    pid_ = StartWebApiServer();
    owner_ = getpid();
    return pid_ > 0;
  }

 private:
  pid_t pid_ = -1;
  pid_t owner_ = 0;
};

ProcessResult ScgiExchange(const std::map<std::string, std::string>& env, const std::string& body) {
  static ForkedServer server;
  ProcessResult result;
  if (!server.Ready()) {
    result.err = ReadFile(kWebApiLog);
    return result;
  }
  std::string header = std::string("CONTENT_LENGTH") + '\0' + std::to_string(body.size()) + '\0';
  header += std::string("SCGI") + '\0' + "1" + '\0';
  for (const auto& [name, value] : env) {
    if (name != "CONTENT_LENGTH") header += name + '\0' + value + '\0';
  }
  const std::string request = std::to_string(header.size()) + ":" + header + "," + body;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kWebApiSocket, sizeof address.sun_path - 1);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (fd >= 0) close(fd);
    result.err = "cannot reach tidepool-webapi";
    return result;
  }
  // A request refused early (too large) is answered before its body is
  // read: the answer still stands to be read.
  for (size_t sent = 0; sent < request.size();) {
    const ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  char buffer[65536];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) result.out.append(buffer, n);
  close(fd);
  result.exit_status = result.out.empty() ? 1 : 0;
  return result;
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
  ProcessResult run = ThroughForkedServer() ? ScgiExchange(env, call.body)
                                            : RunProcess({kEntry}, env, call.body, WebServerUid());
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
