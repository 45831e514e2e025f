// One web-API request per process: the whole of entry.cgi (run by the web
// server as a CGI program, installed setuid root) and of each child that
// tidepool-webapi forks for a request (started as root).
//
//  1. start clean (umask, working folder, no inherited descriptors), keep
//     only the CGI variables, lower the effective ids to the service
//     account (real and saved stay root for the scopes that need it);
//  2. read and decode the request; find the caller's session and check its
//     account and request token; store an upload only for a logged-in caller;
//  3. serve a built-in API, or find the API's module in the index, load it,
//     run the method's check function and then its Process;
//  4. write the JSON envelope, unless the module wrote its answer itself.
// Every path ends in a complete answer: decode errors, unknown APIs,
// exceptions escaping a module and a module that crashes before it wrote
// anything each get their error envelope; with a time limit, so does a
// request still unanswered when the limit passes.
#include "serve-request.h"

#include <dlfcn.h>
#include <json/writer.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "builtin.h"
#include "host-accounts.h"
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
  ctx.is_post = Env("REQUEST_METHOD") == "POST";
}

// The request token as sent: the header, else a POST's `_token` parameter
// (as typed: a token of digits must not become a number).
std::string SentToken(const KSTX::RequestContext& ctx) {
  const char* header = getenv("HTTP_X_TIDEPOOL_TOKEN");
  if (header != nullptr && *header != '\0') return header;
  if (!ctx.is_post) return {};
  constexpr std::string_view kName = "_token";
  const Json::Value* text = ctx.form_text.find(kName.data(), kName.data() + kName.size());
  if (text == nullptr) text = ctx.params.find(kName.data(), kName.data() + kName.size());
  return text != nullptr && text->isString() ? text->asString() : std::string();
}

std::string RequestSid(const KSTX::RequestContext& ctx) {
  constexpr std::string_view kSidParam = "_sid";
  const Json::Value* sid = ctx.params.find(kSidParam.data(), kSidParam.data() + kSidParam.size());
  if (sid != nullptr && sid->isString()) return sid->asString();
  return CookieValue(getenv("HTTP_COOKIE"), "id");
}

// The caller's identity. The account's standing comes from the directory,
// not from the session: a disabled or deleted account's sessions end at their
// next request, an expired or demoted one's rights at once.
void AttachSession(KSTX::RequestContext& ctx, const std::string& sid) {
  if (!IsValidSid(sid)) return;  // checked before any path is built from it
  RootScope root;
  if (!root.ok()) return;
  Session session;
  const int state = LoadSession(sid, ReadIdleMinutes(), session);
  if (state < 0) return;
  hostaccounts::AccountStanding standing;
  const int found = hostaccounts::LookUpStanding(session.uid, standing);
  if (found == hostaccounts::kErrNotFound || (found == 0 && standing.disabled)) {
    RemoveSession(sid);
    return;
  }
  if (found < 0) return;  // an unreadable directory grants nothing
  ctx.login_user = session.user;
  ctx.login_uid = session.uid;
  ctx.is_admin = standing.is_admin;
  ctx.is_expired = standing.expired;
  ctx.is_timeout = state == 1;
  ctx.has_valid_token = TokenMatches(session.token, SentToken(ctx));
}

// Who may leave a file behind for the length of a request: a logged-in caller.
bool MayStoreUpload(const KSTX::RequestContext& ctx) {
  return !ctx.login_user.empty() && ctx.login_uid != 4294967295u && !ctx.is_timeout &&
         !ctx.is_expired;
}

// The stored upload of this request, removed however the request ends:
// after the answer, on an exception, or on exit() from inside a module.
// Children a module forks leave it to the request's own process.
std::string g_upload;
pid_t g_upload_owner = 0;

void RemoveUpload() {
  if (g_upload.empty() || getpid() != g_upload_owner) return;
  unlink(g_upload.c_str());
  g_upload.clear();
}

// What a request that dies or overruns still owes its caller, kept where a
// signal handler can reach it: the failure answer is formatted before the
// module runs, and written only when nothing else was (neither the runtime's
// answer nor a module's raw output has begun).
std::string FormatAnswer(const KSTX::APIResponse& response);

struct FailSafe {
  std::string answer;
  const KSTX::APIResponse* response = nullptr;
  volatile sig_atomic_t answer_begun = 0;
  pid_t pid = 0;
  volatile std::uint8_t* streaming = nullptr;
};
FailSafe g_failsafe;
alignas(16) char g_signal_stack[64 * 1024];  // a stack overflow still gets its answer

void WriteFailureIfSilent() {
  const KSTX::APIResponse* response = g_failsafe.response;
  if (g_failsafe.answer_begun != 0 || response == nullptr || !response->IsOutputEnabled()) return;
  g_failsafe.answer_begun = 1;
  const char* at = g_failsafe.answer.data();
  std::size_t left = g_failsafe.answer.size();
  while (left > 0) {
    const ssize_t n = write(STDOUT_FILENO, at, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    at += n;
    left -= static_cast<std::size_t>(n);
  }
}

// A crash of the request's own process (a module's forked children have
// their own pids and die silently): answer if still possible, then die of
// the same signal so the exit status tells what happened.
void OnFatalSignal(int sig) {
  const int saved = errno;
  if (getpid() == g_failsafe.pid) WriteFailureIfSilent();
  errno = saved;
  signal(sig, SIG_DFL);
  raise(sig);
}

// The request's time is up. A raw answer being written (a download) is paced
// by its client and left to run; anything else is a hung request.
void OnTimeLimit(int) {
  if (getpid() != g_failsafe.pid) return;
  const KSTX::APIResponse* response = g_failsafe.response;
  if (response != nullptr && !response->IsOutputEnabled()) {
    if (g_failsafe.streaming != nullptr) *g_failsafe.streaming = 1;
    return;
  }
  WriteFailureIfSilent();
  if (!g_upload.empty() && getpid() == g_upload_owner) unlink(g_upload.c_str());
  _exit(1);
}

void ArmFailSafe(const KSTX::APIResponse& response, const RequestLimits& limits) {
  KSTX::APIResponse failure;
  SetRuntimeError(failure, kErrUnexpected);
  g_failsafe.answer = FormatAnswer(failure);
  g_failsafe.pid = getpid();
  g_failsafe.streaming = limits.streaming;
  g_failsafe.response = &response;
  stack_t stack{};
  stack.ss_sp = g_signal_stack;
  stack.ss_size = sizeof g_signal_stack;
  sigaltstack(&stack, nullptr);
  struct sigaction action {};
  action.sa_handler = OnFatalSignal;
  action.sa_flags = SA_ONSTACK | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(sig, &action, nullptr);
  if (limits.time_limit_seconds > 0) {
    action.sa_handler = OnTimeLimit;
    action.sa_flags = SA_ONSTACK | SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    alarm(limits.time_limit_seconds);
  }
}

void DisarmFailSafe() {
  alarm(0);
  g_failsafe.response = nullptr;
}

void Serve(KSTX::APIRequest& request, KSTX::APIResponse& response, const std::string& sid) {
  const std::string api = request.GetAPIClass();
  const unsigned version = request.GetAPIVersion();
  unsigned low = 0, high = 0;
  if (BuiltinVersions(api, low, high)) {
    if (version < low || version > high) return SetRuntimeError(response, kErrNoSuchApi);
    return ServeBuiltin(request, response, sid);
  }
  for (const ApiIndexEntry& entry : ModuleIndex()) {
    if (entry.api != api) continue;
    if (version < entry.min_version || version > entry.max_version) break;
    return ServeModule(entry, request, response, "entry.cgi");
  }
  SetRuntimeError(response, kErrNoSuchApi);
}

bool SafeHeader(const std::string& text) { return text.find_first_of("\r\n") == std::string::npos; }

std::string FormatAnswer(const KSTX::APIResponse& response) {
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
  return out;
}

void WriteAnswer(const KSTX::APIResponse& response) {
  const std::string out = FormatAnswer(response);
  g_failsafe.answer_begun = 1;
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

// Decodes and serves the request; true when the runtime writes the answer.
bool ServeRequest(KSTX::APIResponse& response) {
  KSTX::RequestContext ctx;
  FillConnection(ctx);
  const std::string query = Env("QUERY_STRING"), content_type = Env("CONTENT_TYPE");
  std::string body;
  int rc = KSTX::ReadRequestBody(STDIN_FILENO, getenv("CONTENT_LENGTH"), content_type, query.size(),
                                 body);
  // The session is resolved once the parameters are known (a `_sid` may be a
  // form field) and before a file is stored.
  bool attached = false;
  const KSTX::UploadGate gate = [&attached](KSTX::RequestContext& c) {
    AttachSession(c, RequestSid(c));
    attached = true;
    return MayStoreUpload(c);
  };
  if (rc == 0) rc = KSTX::DecodeRequest(query, content_type, body, ctx, gate);
  g_upload = ctx.upload_file_path;
  std::string().swap(body);
  if (rc < 0) {
    SetRuntimeError(response, -rc);
    return true;
  }
  const std::string sid = RequestSid(ctx);
  if (!attached) AttachSession(ctx, sid);
  KSTX::APIRequest request(std::move(ctx));
  Serve(request, response, sid);
  return response.IsOutputEnabled();
}

// A setuid program inherits its caller's umask, working folder and open
// descriptors; none of them is the web server's business here.
bool StartClean() {
  umask(022);
  if (chdir("/") != 0) return false;
  if (close_range(3, ~0u, 0) == 0) return true;
  if (errno != ENOSYS) return false;
  for (long fd = 3, max = sysconf(_SC_OPEN_MAX); fd < max; ++fd) close(static_cast<int>(fd));
  return true;
}

// The request cannot be served safely: say so and stop.
int Refuse(const char* why) {
  std::fprintf(stderr, "entry.cgi: %s\n", why);
  KSTX::APIResponse response;
  SetRuntimeError(response, kErrUnexpected);
  response.SetHeader("Status", "500 Internal Server Error");
  WriteAnswer(response);
  return 1;
}

}  // namespace

int ServeRequestProcess(const RequestLimits& limits) {
  if (!StartClean()) return Refuse("cannot start clean");
  ClearEnvironment();
  ServiceIds ids;
  // Never serve a request with root's rights by mistake.
  if (LoadServiceIds(ids) < 0 || LowerToService(ids) < 0) {
    return Refuse("cannot switch to the service account");
  }
  g_upload_owner = getpid();
  std::atexit(RemoveUpload);
  KSTX::APIResponse response;
  ArmFailSafe(response, limits);
  try {
    if (ServeRequest(response)) WriteAnswer(response);
  } catch (...) {
    // Whatever the module had set or written, the caller learns it failed.
    response = KSTX::APIResponse();
    SetRuntimeError(response, kErrUnexpected);
    WriteAnswer(response);
  }
  std::fflush(stdout);
  DisarmFailSafe();
  RemoveUpload();
  // The web server ends the answer when the connection or pipe closes: not
  // after the process's clean-up, which is no concern of the caller.
  close(STDOUT_FILENO);
  close(STDIN_FILENO);
  return 0;
}

}  // namespace kstxentry
