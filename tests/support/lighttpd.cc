#include "lighttpd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "sandbox.h"

namespace tptest {

pid_t StartWebApiServer(const std::vector<std::string>& args) {
  mkdir("/tmp/lighttpd", 0755);
  unlink(kWebApiSocket);
  const pid_t pid = fork();
  if (pid == 0) {
    const int log = open(kWebApiLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log >= 0) dup2(log, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(kWebApiServer)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(kWebApiServer, argv.data());
    _exit(127);
  }
  if (pid < 0) return -1;
  for (int i = 0; i < 400; ++i) {
    struct stat st {};
    if (lstat(kWebApiSocket, &st) == 0 && S_ISSOCK(st.st_mode)) return pid;
    if (waitpid(pid, nullptr, WNOHANG) == pid) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

Lighttpd::Lighttpd(WebApiPath path, const std::vector<std::string>& webapi_args)
    : webapi_args_(webapi_args) {
  const int port = 20000 + static_cast<int>(std::random_device{}() % 20000);
  std::string conf = ReadFile("/var/packages/Tidepool/target/etc/lighttpd.conf.in");
  if (conf.empty()) return;
  if (path == WebApiPath::kForked) {
    webapi_ = StartWebApiServer(webapi_args_);
    if (webapi_ < 0) return;
  }
  const std::string cgi_only = path == WebApiPath::kCgi ? "#" : "";
  for (auto [key, value] : {std::pair<std::string, std::string>{"@PORT@", std::to_string(port)},
                            {"@LOGDIR@", "/tmp/lighttpd"},
                            {"@CGI_ONLY@", cgi_only}}) {
    for (size_t at; (at = conf.find(key)) != std::string::npos;)
      conf.replace(at, key.size(), value);
  }
  WriteFile("/tmp/lighttpd/lighttpd.conf", conf);
  // lighttpd opens its error log after giving up root.
  const passwd* www = getpwnam("www-data");
  if (www == nullptr || chown("/tmp/lighttpd", www->pw_uid, www->pw_gid) != 0) return;
  server_ = fork();
  if (server_ == 0) {
    execl("/usr/sbin/lighttpd", "lighttpd", "-D", "-f", "/tmp/lighttpd/lighttpd.conf", nullptr);
    _exit(127);
  }
  port_ = port;
  for (int i = 0; i < 200; ++i) {
    const int fd = Connect();
    if (fd >= 0) {
      close(fd);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  port_ = 0;
}

Lighttpd::~Lighttpd() {
  if (server_ > 0) {
    kill(server_, SIGTERM);
    waitpid(server_, nullptr, 0);
  }
  StopWebApi();
}

void Lighttpd::StopWebApi() {
  if (webapi_ > 0) {
    kill(webapi_, SIGTERM);
    waitpid(webapi_, nullptr, 0);
  }
  webapi_ = -1;
}

bool Lighttpd::RestartWebApi() {
  StopWebApi();
  webapi_ = StartWebApiServer(webapi_args_);
  return webapi_ > 0;
}

int Lighttpd::Connect() const {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

std::string Lighttpd::Exchange(const std::string& request) const {
  const int fd = Connect();
  if (fd < 0) return "";
  std::string raw;
  if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
    char buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) raw.append(buffer, n);
  }
  close(fd);
  return raw;
}

}  // namespace tptest
