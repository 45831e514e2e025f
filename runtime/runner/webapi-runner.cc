// kstx-webapi-runner: one web-API call for a named user, made by a process
// that already decided the user may act (the restore engine's child, for
// one). Started by root, never setuid:
//
//   kstx-webapi-runner --user NAME API METHOD VERSION   (parameters on stdin)
//
//  1. refuse unless real and effective uid are root;
//  2. read the parameters (a JSON object) and look the user up in the
//     account directory (administrators: members of "administrators");
//     "root" is the system itself, uid 0 and an administrator;
//  3. lower the effective ids to the service account, as entry.cgi does, so
//     that the module runs under the identity it always runs under;
//  4. find the API in the module index, load its module, run the method's
//     check function and Process with a request authenticated as NAME;
//  5. print the JSON envelope on one line. An API that is not installed
//     answers 103, as entry.cgi answers it.
// Exit status 0 whenever the call was served; 1 when it could not run with
// the service account's rights; 2 for a bad command line or caller, 3 for an
// unknown user.
#include <dlfcn.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "builtin.h"
#include "host-accounts.h"
#include "kstx/webapi-module.h"
#include "module-dispatch.h"
#include "module-index.h"
#include "privilege.h"

namespace kstxentry {
namespace {

constexpr size_t kMaxParams = 16 * 1024 * 1024;
constexpr const char* kRootUser = "root";

int Usage() {
  std::fprintf(stderr, "usage: kstx-webapi-runner --user NAME API METHOD VERSION < params\n");
  return 2;
}

bool ReadParams(Json::Value& out) {
  std::string text;
  char buf[65536];
  for (;;) {
    const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || text.size() + static_cast<size_t>(n) > kMaxParams) return false;
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
    out = Json::Value(Json::objectValue);
    return true;
  }
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  return reader->parse(text.data(), text.data() + text.size(), &out, &errors) && out.isObject();
}

void Serve(KSTX::APIRequest& request, KSTX::APIResponse& response) {
  const std::string api = request.GetAPIClass();
  const unsigned version = request.GetAPIVersion();
  unsigned low = 0, high = 0;
  if (BuiltinVersions(api, low, high)) {
    // Logins and logouts belong to sessions, which a runner call has none of.
    if (api != kInfoApi || version < low || version > high) {
      return SetRuntimeError(response, kErrNoSuchApi);
    }
    return ServeBuiltin(request, response, "");
  }
  for (const ApiIndexEntry& entry : ReadModuleIndex()) {
    if (entry.api != api) continue;
    if (version < entry.min_version || version > entry.max_version) break;
    return ServeModule(entry, request, response, "kstx-webapi-runner");
  }
  SetRuntimeError(response, kErrNoSuchApi);
}

void PrintEnvelope(const KSTX::APIResponse& response) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  const std::string out = Json::writeString(writer, response.Envelope()) + "\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

int Run(int argc, char** argv) {
  if (argc != 6 || std::strcmp(argv[1], "--user") != 0 || *argv[2] == '\0') return Usage();
  char* end = nullptr;
  errno = 0;
  const unsigned long version = std::strtoul(argv[5], &end, 10);
  if (errno != 0 || end == argv[5] || *end != '\0' || version > 0xffffffffUL) return Usage();
  if (getuid() != 0 || geteuid() != 0) {
    std::fprintf(stderr, "kstx-webapi-runner: must be started by root\n");
    return 2;
  }
  clearenv();
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);

  KSTX::APIResponse response;
  KSTX::RequestContext ctx;
  ctx.api = argv[3];
  ctx.method = argv[4];
  ctx.version = static_cast<unsigned>(version);
  if (!ReadParams(ctx.params)) {
    SetRuntimeError(response, kErrMalformed);
    PrintEnvelope(response);
    return 0;
  }
  if (std::strcmp(argv[2], kRootUser) == 0) {
    // The system itself, which the account directory does not list: calls
    // the engine makes on its own behalf (an office export) run so.
    ctx.login_user = kRootUser;
    ctx.login_uid = 0;
    ctx.is_admin = true;
  } else {
    hostaccounts::User user;
    auto accounts = hostaccounts::HostAccounts::Open();
    if (accounts == nullptr || accounts->GetUser(argv[2], user) < 0) {
      std::fprintf(stderr, "kstx-webapi-runner: no such user: %s\n", argv[2]);
      return 3;
    }
    ctx.login_user = user.name;
    ctx.login_uid = user.uid;
    ctx.is_admin = accounts->IsAdmin(user.name);
  }
  // Only root can start the runner, for a request it already decided on: a
  // trusted internal call, which no other site can have forged.
  ctx.is_post = true;
  ctx.has_valid_token = true;

  ServiceIds ids;
  if (LoadServiceIds(ids) < 0 || LowerToService(ids) < 0) {
    // Never serve a call with root's rights by mistake.
    std::fprintf(stderr, "kstx-webapi-runner: cannot switch to the service account\n");
    SetRuntimeError(response, kErrUnexpected);
    PrintEnvelope(response);
    return 1;
  }
  try {
    KSTX::APIRequest request(std::move(ctx));
    Serve(request, response);
  } catch (...) {
    response = KSTX::APIResponse();
    SetRuntimeError(response, kErrUnexpected);
  }
  // A module that wrote a raw answer itself has already said what it had to.
  if (response.IsOutputEnabled()) PrintEnvelope(response);
  return 0;
}

}  // namespace
}  // namespace kstxentry

int main(int argc, char** argv) { return kstxentry::Run(argc, argv); }
