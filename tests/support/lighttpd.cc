#include "lighttpd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "sandbox.h"

namespace tptest {

Lighttpd::Lighttpd() {
  const int port = 20000 + static_cast<int>(std::random_device{}() % 20000);
  std::string conf = ReadFile("/var/packages/Tidepool/target/etc/lighttpd.conf.in");
  if (conf.empty()) return;
  for (auto [key, value] : {std::pair<std::string, std::string>{"@PORT@", std::to_string(port)},
                            {"@LOGDIR@", "/tmp/lighttpd"}}) {
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
