// A small web-API module for the entry.cgi tests: it echoes what the runtime
// told it, fails on demand, and writes a raw answer of its own.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "kstx/webapi-module.h"
#include "kstx/webapi.h"

namespace {

void Echo(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["user"] = request->GetLoginUserName();
  data["uid"] = request->GetLoginUID();
  data["is_admin"] = request->IsAdmin();
  data["is_timeout"] = request->IsTimeout();
  data["is_expired"] = request->IsExpired();
  data["is_post"] = request->IsPost();
  data["has_valid_token"] = request->HasValidToken();
  data["version"] = request->GetAPIVersion();
  data["params"] = request->GetParams();
  data["euid"] = static_cast<unsigned>(geteuid());
  data["env_leaked"] = std::getenv("TEST_SECRET") != nullptr;
  Json::Value file(Json::objectValue);
  KSTX::APIUpload upload(request);
  if (upload.GetUploadFile(file) == 1) data["file_tmp"] = file["file_tmp"];
  response->SetHeader("X-Test", "echo");
  response->SetSuccess(data);
}

// What the process inherited from whoever started entry.cgi.
void Hygiene(KSTX::APIRequest*, KSTX::APIResponse* response) {
  Json::Value data(Json::objectValue);
  Json::Value fds(Json::arrayValue);
  for (int fd = 3; fd < 256; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) fds.append(fd);
  }
  data["open_fds"] = fds;
  const mode_t mask = umask(0);
  umask(mask);
  data["umask"] = static_cast<unsigned>(mask);
  char cwd[4096];
  data["cwd"] = getcwd(cwd, sizeof cwd) != nullptr ? cwd : "";
  response->SetSuccess(data);
}

void Throw(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  response->SetSuccess("half done");
  (void)std::stoull(request->GetParamRef("number", Json::Value("x")).asString());
}

void Raw(KSTX::APIRequest*, KSTX::APIResponse* response) {
  response->SetEnableOutput(false);
  std::fputs("Content-Type: text/plain\r\n\r\nraw body", stdout);
}

bool CheckEcho(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  auto n = request->GetAndCheckInt("n", KSTX::PARAM_OPTIONAL);
  if (!n.IsInvalid()) return true;
  Json::Value errors(Json::objectValue);
  errors["name"] = "n";
  errors["reason"] = "type";
  response->SetError(120, errors);
  return false;
}

bool CheckNothing(KSTX::APIRequest*, KSTX::APIResponse*) { return true; }

const KSTXAPITableRow kTable[] = {
    {"KSTX.Test", 1, "echo", Echo},      {"KSTX.Test", 2, "echo", Echo},
    {"KSTX.Test", 1, "throw", Throw},    {"KSTX.Test", 1, "raw", Raw},
    {"KSTX.Test", 1, "unchecked", Echo}, {"KSTX.Test", 1, "hygiene", Hygiene},
    {nullptr, 0, nullptr, nullptr}};
const KSTXAPICheckTableRow kCheckTable[] = {
    {"KSTX.Test", 1, "echo", CheckEcho, nullptr, nullptr},
    {"KSTX.Test", 2, "echo", CheckEcho, nullptr, nullptr},
    {"KSTX.Test", 1, "throw", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "raw", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "hygiene", CheckNothing, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

extern "C" const KSTXAPITableRow* GetAPITable() { return kTable; }
extern "C" const KSTXAPICheckTableRow* GetAPICheckTable() { return kCheckTable; }
