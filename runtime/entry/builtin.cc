#include "builtin.h"

#include <dlfcn.h>

#include <cstring>

#include "login-plugin.h"
#include "module-dispatch.h"
#include "privilege.h"
#include "session.h"

namespace kstxentry {
namespace {

const char* ErrorMessage(int code) {
  switch (code) {
    case kErrMalformed:
      return "malformed request";
    case kErrTooLarge:
      return "request too large";
    case kErrNoSuchApi:
      return "no such API or method";
    case kErrBadLogin:
      return "no such account or incorrect password";
    case kErrDisabled:
      return "account disabled";
    case kErrExpired:
      return "account expired";
    case kErrThrottled:
      return "too many failed logins, try again later";
    default:
      return "unexpected failure";
  }
}

void SetParameterError(KSTX::APIResponse& response, const char* name, bool missing) {
  Json::Value errors(Json::objectValue);
  errors["name"] = name;
  errors["reason"] = missing ? "required" : "type";
  response.SetError(kErrParameter, errors);
}

// A credential as typed: a password "0123" or "1e5" must not become a number.
KSTX::APIParameter<std::string> Credential(const KSTX::APIRequest& request, const char* name) {
  const Json::Value* text = request.Context().form_text.find(name, name + std::strlen(name));
  if (text != nullptr) return KSTX::APIParameter<std::string>(text->asString(), true, false);
  return request.GetAndCheckString(name, KSTX::PARAM_REQUIRED);
}

// Scripts of the page cannot read the cookie, other sites' requests do not
// carry it, and over HTTPS it never travels in the clear.
std::string CookieAttributes(const KSTX::APIRequest& request) {
  std::string attributes = "; Path=/; HttpOnly; SameSite=Strict";
  if (request.GetURLProto("http") == "https") attributes += "; Secure";
  return attributes;
}

void Login(KSTX::APIRequest& request, KSTX::APIResponse& response) {
  const auto account = Credential(request, "account");
  const auto passwd = Credential(request, "passwd");
  for (const auto& [param, name] : {std::pair{&account, "account"}, std::pair{&passwd, "passwd"}}) {
    if (param->IsInvalid()) return SetParameterError(response, name, !param->IsSet());
  }
  // A name that could not be written into a session file is no account.
  if (account.Get().empty() || account.Get().find_first_of("\n\r", 0) != std::string::npos ||
      account.Get().find('\0') != std::string::npos) {
    return SetRuntimeError(response, kErrBadLogin);
  }
  RootScope root;
  if (!root.ok()) return SetRuntimeError(response, kErrUnexpected);
  void* plugin = dlopen(kLoginPluginPath, RTLD_NOW | RTLD_LOCAL);
  auto verify = plugin ? reinterpret_cast<KSTXWebLoginFunc>(dlsym(plugin, kLoginSymbol)) : nullptr;
  if (verify == nullptr) return SetRuntimeError(response, kErrUnexpected);
  Session session;
  int is_admin = 0;
  const std::string address = request.GetRemoteIP();
  const int rc =
      verify(account.Get().c_str(), passwd.Get().c_str(), address.c_str(), &session.uid, &is_admin);
  if (rc < 0) return SetRuntimeError(response, -rc);
  session.user = account.Get();
  session.is_admin = is_admin != 0;
  PurgeSessions(kSessionPurgeSeconds);
  std::string sid;
  if (CreateSession(session, sid) < 0) return SetRuntimeError(response, kErrUnexpected);
  Json::Value data(Json::objectValue);
  data["sid"] = sid;
  data["token"] = session.token;
  response.SetSuccess(data);
  response.SetHeader("Set-Cookie", "id=" + sid + CookieAttributes(request));
}

void Logout(KSTX::APIRequest& request, KSTX::APIResponse& response, const std::string& sid) {
  if (IsValidSid(sid)) {
    RootScope root;
    if (root.ok()) RemoveSession(sid);
  }
  response.SetSuccess(Json::Value());
  response.SetHeader("Set-Cookie", "id=" + CookieAttributes(request) + "; Max-Age=0");
}

Json::Value ApiInfo(unsigned min_version, unsigned max_version) {
  Json::Value info(Json::objectValue);
  info["minVersion"] = min_version;
  info["maxVersion"] = max_version;
  info["path"] = "entry.cgi";
  return info;
}

void Query(KSTX::APIRequest& request, KSTX::APIResponse& response) {
  auto query = request.GetAndCheckString("query", KSTX::PARAM_OPTIONAL);
  if (query.IsInvalid()) return SetParameterError(response, "query", false);
  query.SetDefault("all");
  Json::Value all(Json::objectValue);
  for (const char* api : {kAuthApi, kInfoApi}) {
    unsigned low = 0, high = 0;
    BuiltinVersions(api, low, high);
    all[api] = ApiInfo(low, high);
  }
  for (const ApiIndexEntry& e : ModuleIndex()) {
    if (!all.isMember(e.api)) all[e.api] = ApiInfo(e.min_version, e.max_version);
  }
  if (query.Get() == "all") return response.SetSuccess(all);
  Json::Value wanted(Json::objectValue);
  std::string_view rest = query.Get();
  while (!rest.empty()) {
    const std::size_t comma = rest.find(',');
    std::string_view name = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    while (!name.empty() && name.front() == ' ') name.remove_prefix(1);
    while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
    const Json::Value* info = all.find(name.data(), name.data() + name.size());
    if (info != nullptr) wanted[std::string(name)] = *info;
  }
  response.SetSuccess(wanted);
}

}  // namespace

void SetRuntimeError(KSTX::APIResponse& response, int code) {
  Json::Value errors(Json::objectValue);
  errors["message"] = ErrorMessage(code);
  response.SetError(code, errors);
}

bool BuiltinVersions(const std::string& api, unsigned& min_version, unsigned& max_version) {
  if (api != kAuthApi && api != kInfoApi) return false;
  min_version = 1;
  max_version = 1;
  return true;
}

void ServeBuiltin(KSTX::APIRequest& request, KSTX::APIResponse& response, const std::string& sid) {
  const std::string api = request.GetAPIClass();
  const std::string method = request.GetAPIMethod();
  if (api == kAuthApi && method == "login") return Login(request, response);
  if (api == kAuthApi && method == "logout") return Logout(request, response, sid);
  if (api == kInfoApi && method == "query") return Query(request, response);
  SetRuntimeError(response, kErrNoSuchApi);
}

}  // namespace kstxentry
