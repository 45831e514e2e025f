// A small web-API module for the entry.cgi and tidepool-webapi tests: it
// echoes what the runtime told it, fails, crashes and hangs on demand, writes
// raw answers of its own, and leaves a mess behind for the next request.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

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

// Module state that a request changes; each request must start from scratch.
int g_dirty_calls = 0;

// What the process inherited from whoever started entry.cgi.
void Hygiene(KSTX::APIRequest*, KSTX::APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["dirty_calls"] = g_dirty_calls;
  data["euid"] = static_cast<unsigned>(geteuid());
  data["env_leaked"] = std::getenv("TEST_SECRET") != nullptr;
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

// Everything a module may change in its own process, changed.
void Dirty(KSTX::APIRequest*, KSTX::APIResponse* response) {
  ++g_dirty_calls;
  setenv("TEST_SECRET", "left by a request", 1);
  (void)open("/etc/hostname", O_RDONLY);  // inherited by any later exec
  umask(077);
  if (chdir("/tmp") != 0) return response->SetError(100, Json::Value());
  if (seteuid(0) != 0) return response->SetError(100, Json::Value());
  response->SetSuccess(Json::Value(geteuid() == 0));
}

void Crash(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  if (request->GetParamRef("after_raw", Json::Value(false)).asBool()) {
    response->SetEnableOutput(false);
    std::fputs("Content-Type: text/plain\r\n\r\npartial", stdout);
    std::fflush(stdout);
  }
  response->SetSuccess("never sent");
  raise(SIGSEGV);
}

// Never answers; with "deaf" it also ignores the runtime's time limit.
void Hang(KSTX::APIRequest* request, KSTX::APIResponse*) {
  if (request->GetParamRef("deaf", Json::Value(false)).asBool()) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, nullptr);
  }
  for (int i = 0; i < 600; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// A raw answer of `chunks` blocks of 64 KiB ("a", "b", ...), `pause_ms` apart,
// ending in "end\n". With `wait_for`, the first block is sent and the rest
// only once that file exists (within a minute).
void Stream(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  const int chunks = request->GetParamRef("chunks", Json::Value(1)).asInt();
  const int pause_ms = request->GetParamRef("pause_ms", Json::Value(0)).asInt();
  const std::string wait_for = request->GetParamRef("wait_for", Json::Value("")).asString();
  response->SetEnableOutput(false);
  std::fputs("Content-Type: application/octet-stream\r\n\r\n", stdout);
  for (int i = 0; i < chunks; ++i) {
    const std::string block(65536, static_cast<char>('a' + i % 26));
    if (std::fwrite(block.data(), 1, block.size(), stdout) != block.size()) return;
    std::fflush(stdout);
    for (int w = 0; i == 0 && !wait_for.empty() && w < 600 && access(wait_for.c_str(), F_OK) != 0;
         ++w) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
  }
  std::fputs("end\n", stdout);
  std::fflush(stdout);
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
    {"KSTX.Test", 1, "dirty", Dirty},    {"KSTX.Test", 1, "crash", Crash},
    {"KSTX.Test", 1, "hang", Hang},      {"KSTX.Test", 1, "stream", Stream},
    {nullptr, 0, nullptr, nullptr}};
const KSTXAPICheckTableRow kCheckTable[] = {
    {"KSTX.Test", 1, "echo", CheckEcho, nullptr, nullptr},
    {"KSTX.Test", 2, "echo", CheckEcho, nullptr, nullptr},
    {"KSTX.Test", 1, "throw", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "raw", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "hygiene", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "dirty", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "crash", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "hang", CheckNothing, nullptr, nullptr},
    {"KSTX.Test", 1, "stream", CheckNothing, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

extern "C" const KSTXAPITableRow* GetAPITable() { return kTable; }
extern "C" const KSTXAPICheckTableRow* GetAPICheckTable() { return kCheckTable; }
