// Calls /webapi/entry.cgi as a web server would: a CGI environment, the body
// on standard input, the program run by the web server's unprivileged user.
// With TIDEPOOL_TEST_WEBAPI=forked in the environment, the same request goes
// to a tidepool-webapi over its SCGI socket instead (the `_forked` tests).
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

namespace tptest {

struct WebAnswer {
  int exit_status = -1;
  std::string headers;  // the CGI header block
  std::string body;
  Json::Value json;  // the parsed body; null when it is not JSON
  std::string stderr_text;

  bool success() const { return json["success"].asBool(); }
  int code() const { return json["error"]["code"].asInt(); }
  std::string message() const { return json["error"]["errors"]["message"].asString(); }
};

struct WebCall {
  std::string query;         // "api=...&method=...&version=1&..."
  std::string sid;           // sent as the cookie "id"
  std::string content_type;  // with a body: POST
  std::string body;
  std::string token = {};  // sent as the header X-Tidepool-Token
};

WebAnswer CallWebAPI(const WebCall& call);
// GET with the query; the sid (if any) as cookie. No request token.
WebAnswer Get(const std::string& query, const std::string& sid = "");
// Named parameters, each sent as its JSON text, as the front-end does.
using Params = std::vector<std::pair<std::string, Json::Value>>;
// `api` `method` version 1 with the parameters: a urlencoded POST with the
// session's request token when Login gave one for `sid`, else a GET.
WebAnswer CallApi(const std::string& api, const std::string& method, const Params& params,
                  const std::string& sid);
// Logs in through KSTX.API.Auth and gives the session id ("" on failure);
// the session's request token is remembered for CallApi.
std::string Login(const std::string& account, const std::string& password);
struct Session {
  std::string sid;
  std::string token;
};
Session LoginWithToken(const std::string& account, const std::string& password);
// The token Login remembered for `sid`, or "".
std::string TokenFor(const std::string& sid);
// Makes a session look idle since `seconds` ago.
void AgeSession(const std::string& sid, int seconds);

}  // namespace tptest
