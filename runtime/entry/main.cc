// entry.cgi: one web-API request per process, run by the web server as a
// CGI program and installed setuid root.
//
//  1. keep only the CGI variables, lower the effective ids to the service
//     account (real and saved stay root for the scopes that need it);
//  2. read and decode the request; find the caller's session;
//  3. serve a built-in API, or find the API's module in the index, load it,
//     run the method's check function and then its Process;
//  4. write the JSON envelope, unless the module wrote its answer itself.
// Every path ends in a complete answer: decode errors, unknown APIs and
// exceptions escaping a module each get their error envelope.
#include <dlfcn.h>
#include <json/writer.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "builtin.h"
#include "kstx/request-decoder.h"
#include "kstx/webapi-module.h"
#include "module-dispatch.h"
#include "module-index.h"
#include "privilege.h"
#include "session.h"

extern char** environ;

namespace kstxentry {
namespace {

constexpr const char* kSafePath = "/usr/sbin:/usr/bin:/sbin:/bin";

bool IsCgiVariable(std::string_view name) {
  static constexpr const char* kNames[] = {
      "AUTH_TYPE",   "CONTENT_LENGTH",  "CONTENT_TYPE",   "DOCUMENT_ROOT",   "GATEWAY_INTERFACE",
      "HTTPS",       "PATH_INFO",       "QUERY_STRING",   "REDIRECT_STATUS", "REMOTE_ADDR",
      "REMOTE_HOST", "REMOTE_PORT",     "REMOTE_USER",    "REQUEST_METHOD",  "REQUEST_SCHEME",
      "REQUEST_URI", "SCRIPT_FILENAME", "SCRIPT_NAME",    "SERVER_ADDR",     "SERVER_NAME",
      "SERVER_PORT", "SERVER_PROTOCOL", "SERVER_SOFTWARE"};
  for (const char* n : kNames) {
    if (name == n) return true;
  }
  // A client's "Proxy:" header would arrive as HTTP_PROXY and redirect the
  // module's outgoing requests.
  return name.substr(0, 5) == "HTTP_" && name != "HTTP_PROXY";
}

void ClearEnvironment() {
  std::vector<std::pair<std::string, std::string>> kept;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (eq == nullptr) continue;
    std::string name(*e, static_cast<std::size_t>(eq - *e));
    if (IsCgiVariable(name)) kept.emplace_back(std::move(name), eq + 1);
  }
  clearenv();
  for (const auto& [name, value] : kept) setenv(name.c_str(), value.c_str(), 1);
  setenv("PATH", kSafePath, 1);
}

std::string Env(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

void FillConnection(KSTX::RequestContext& ctx) {
  ctx.remote_ip = Env("REMOTE_ADDR");
  const std::string https = Env("HTTPS");
  ctx.url_proto = (https == "on" || https == "1") ? "https" : "http";
  ctx.url_host = Env("HTTP_HOST");
  // "host:port" and "[v6]:port" carry the port, which SERVER_PORT tells.
  const std::size_t colon = ctx.url_host.rfind(':');
  if (colon != std::string::npos && ctx.url_host.find(']', colon) == std::string::npos) {
    ctx.url_host.erase(colon);
  }
  ctx.url_port = std::atoi(Env("SERVER_PORT").c_str());
  if (ctx.url_port < 0 || ctx.url_port > 65535) ctx.url_port = 0;
}

std::string RequestSid(const KSTX::RequestContext& ctx) {
  constexpr std::string_view kSidParam = "_sid";
  const Json::Value* sid = ctx.params.find(kSidParam.data(), kSidParam.data() + kSidParam.size());
  if (sid != nullptr && sid->isString()) return sid->asString();
  return CookieValue(getenv("HTTP_COOKIE"), "id");
}

void AttachSession(KSTX::RequestContext& ctx, const std::string& sid) {
  if (!IsValidSid(sid)) return;  // checked before any path is built from it
  RootScope root;
  if (!root.ok()) return;
  Session session;
  const int state = LoadSession(sid, ReadIdleMinutes(), session);
  if (state < 0) return;
  ctx.login_user = session.user;
  ctx.login_uid = session.uid;
  ctx.is_admin = session.is_admin;
  ctx.is_timeout = state == 1;
}

void Serve(KSTX::APIRequest& request, KSTX::APIResponse& response, const std::string& sid) {
  const std::string api = request.GetAPIClass();
  const unsigned version = request.GetAPIVersion();
  unsigned low = 0, high = 0;
  if (BuiltinVersions(api, low, high)) {
    if (version < low || version > high) return SetRuntimeError(response, kErrNoSuchApi);
    return ServeBuiltin(request, response, sid);
  }
  for (const ApiIndexEntry& entry : ReadModuleIndex()) {
    if (entry.api != api) continue;
    if (version < entry.min_version || version > entry.max_version) break;
    return ServeModule(entry, request, response, "entry.cgi");
  }
  SetRuntimeError(response, kErrNoSuchApi);
}

bool SafeHeader(const std::string& text) { return text.find_first_of("\r\n") == std::string::npos; }

void WriteAnswer(const KSTX::APIResponse& response) {
  std::string out = "Content-Type: application/json; charset=utf-8\r\n";
  for (const auto& [name, value] : response.GetHeaders()) {
    if (name.empty() || !SafeHeader(name) || !SafeHeader(value)) continue;  // no header injection
    out += name + ": " + value + "\r\n";
  }
  out += "\r\n";
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  out += Json::writeString(writer, response.Envelope());
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

// Decodes and serves the request; true when the runtime writes the answer.
bool ServeRequest(KSTX::APIResponse& response, std::string& upload) {
  KSTX::RequestContext ctx;
  FillConnection(ctx);
  const std::string query = Env("QUERY_STRING"), content_type = Env("CONTENT_TYPE");
  std::string body;
  int rc = KSTX::ReadRequestBody(STDIN_FILENO, getenv("CONTENT_LENGTH"), content_type, query.size(),
                                 body);
  if (rc == 0) rc = KSTX::DecodeRequest(query, content_type, body, ctx);
  std::string().swap(body);
  if (rc < 0) {
    SetRuntimeError(response, -rc);
    return true;
  }
  upload = ctx.upload_file_path;
  const std::string sid = RequestSid(ctx);
  AttachSession(ctx, sid);
  KSTX::APIRequest request(std::move(ctx));
  Serve(request, response, sid);
  return response.IsOutputEnabled();
}

int Run() {
  ClearEnvironment();
  KSTX::APIResponse response;
  ServiceIds ids;
  if (LoadServiceIds(ids) < 0 || LowerToService(ids) < 0) {
    // Never serve a request with root's rights by mistake.
    std::fprintf(stderr, "entry.cgi: cannot switch to the service account\n");
    SetRuntimeError(response, kErrUnexpected);
    WriteAnswer(response);
    return 0;
  }
  std::string upload;
  try {
    if (ServeRequest(response, upload)) WriteAnswer(response);
  } catch (...) {
    // Whatever the module had set or written, the caller learns it failed.
    response = KSTX::APIResponse();
    SetRuntimeError(response, kErrUnexpected);
    WriteAnswer(response);
  }
  std::fflush(stdout);
  if (!upload.empty()) unlink(upload.c_str());
  return 0;
}

}  // namespace
}  // namespace kstxentry

int main() { return kstxentry::Run(); }
