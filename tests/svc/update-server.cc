#include "update-server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace svctest {
namespace {

int ListenOnLoopback(int& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 16) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close(fd);
    throw std::runtime_error("bind");
  }
  port = ntohs(address.sin_port);
  return fd;
}

// Waits until `fd` is readable or the stop pipe is; false on stop.
bool WaitReadable(int fd, int stop_fd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
  while (poll(fds, 2, -1) < 0) {
  }
  return (fds[1].revents & POLLIN) == 0;
}

}  // namespace

UpdateServer::UpdateServer(Answer answer) : answer_(std::move(answer)) {
  listener_ = ListenOnLoopback(port_);
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  thread_ = std::thread([this] { Serve(); });
}

UpdateServer::~UpdateServer() {
  (void)!write(stop_pipe_[1], "x", 1);
  thread_.join();
  close(listener_);
  close(stop_pipe_[0]);
  close(stop_pipe_[1]);
}

std::string UpdateServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> UpdateServer::targets() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return targets_;
}

std::string UpdateServer::Reply(int status, const std::string& type, const std::string& body,
                                const std::string& extra_headers) {
  return "HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extra_headers +
         "Connection: close\r\n\r\n" + body;
}

void UpdateServer::Serve() {
  while (WaitReadable(listener_, stop_pipe_[0])) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    Handle(connection);
    close(connection);
  }
}

void UpdateServer::Handle(int connection) {
  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    if (!WaitReadable(connection, stop_pipe_[0])) return;
    const ssize_t n = read(connection, buffer, sizeof buffer);
    if (n <= 0) return;
    request.append(buffer, static_cast<size_t>(n));
  }
  // "GET /path?query HTTP/1.1"
  const size_t start = request.find(' ') + 1;
  const std::string target = request.substr(start, request.find(' ', start) - start);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    targets_.push_back(target);
  }
  const std::optional<std::string> reply = answer_(target);
  if (!reply) {
    // Silent: hold the connection until the client gives up.
    while (WaitReadable(connection, stop_pipe_[0]) && read(connection, buffer, sizeof buffer) > 0) {
    }
    return;
  }
  size_t done = 0;
  while (done < reply->size()) {
    const ssize_t n = write(connection, reply->data() + done, reply->size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

int RefusingPort() {
  int port = 0;
  // Bound and closed again: nothing listens there now.
  close(ListenOnLoopback(port));
  return port;
}

}  // namespace svctest
