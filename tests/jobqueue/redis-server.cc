#include "redis-server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

namespace tptest {

namespace {

constexpr const char* kProgram = "/usr/bin/redis-server";

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

// Sends one command on a fresh connection; true when the server answered.
bool Send(int port, const char* command) {
  timeval timeout = {1, 0};
  redisContext* context = redisConnectWithTimeout("127.0.0.1", port, timeout);
  if (!context || context->err) {
    if (context) redisFree(context);
    return false;
  }
  auto* reply = static_cast<redisReply*>(redisCommand(context, command));
  const bool answered = reply != nullptr;
  if (reply) freeReplyObject(reply);
  redisFree(context);
  return answered;
}

}  // namespace

bool RedisServer::Available() { return access(kProgram, X_OK) == 0; }

RedisServer::RedisServer() : port_(FreePort()) {
  char pattern[] = "/tmp/redis-test-XXXXXX";
  if (mkdtemp(pattern)) dir_ = pattern;
}

RedisServer::~RedisServer() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  std::error_code ec;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

bool RedisServer::Start() {
  const std::string port = std::to_string(port_);
  std::vector<std::string> args = {kProgram, "--port", port,           "--bind",     "127.0.0.1",
                                   "--save", "",       "--appendonly", "no",         "--daemonize",
                                   "no",     "--dir",  dir_,           "--loglevel", "warning"};
  pid_ = fork();
  if (pid_ == 0) {
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    // Its start-up banner is noise in a test's output; warnings go to a file.
    const int log = open((dir_ + "/server.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (log >= 0) {
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
    }
    execv(kProgram, argv.data());
    _exit(127);
  }
  // Readiness, not speed: poll until it answers or has plainly failed.
  for (int i = 0; i < 500; ++i) {
    if (Send(port_, "PING")) return true;
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    usleep(20000);
  }
  return false;
}

void RedisServer::Stop() {
  if (pid_ <= 0) return;
  // SHUTDOWN SAVE writes the data set to the folder so that the next Start
  // loads it, as a real server's restart would.
  Send(port_, "SHUTDOWN SAVE");
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace tptest
