#include "control-server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "driftway-protocol.h"
#include "logger.h"

namespace driftway {
namespace {

// A client that does not read its answers is dropped past this.
// The status of a service watching tens of thousands of homes is a few
// megabytes; the client takes up to kMaxAnswer.
constexpr size_t kMaxPendingOutput = kMaxAnswer;

}  // namespace

ControlServer::ControlServer(EventLoop& loop, Dispatcher dispatch)
    : loop_(loop), dispatch_(std::move(dispatch)) {}

ControlServer::~ControlServer() { Shutdown(); }

int ControlServer::Listen(const std::string& path, uid_t service_uid) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  service_uid_ = service_uid;

  // The path lies in /tmp, where anyone may have put something first. Only
  // a socket is replaced: one left by a daemon that died (the pidfile lock
  // has ruled out a live one), or one bound by someone else, whom clients
  // refuse to talk to anyway. A link or a file is left alone, and nothing
  // here follows a link.
  struct stat st {};
  if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_uid != 0 &&
      st.st_uid != service_uid) {
    LOG_WARNING("replacing the socket %s of uid %u\n", path.c_str(),
                static_cast<unsigned>(st.st_uid));
  }
  if (RemoveSocketFile(path) < 0) {
    LOG_ERROR("cannot replace %s: %s (%d)\n", path.c_str(),
              errno == EEXIST ? "not a socket" : strerror(errno), errno);
    return -1;
  }
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) {
    LOG_ERROR("socket: %s (%d)\n", strerror(errno), errno);
    return -1;
  }
  // Anyone may connect; who may talk is decided per peer. The mode comes
  // from the umask at bind, so no chmod by name follows; bind itself never
  // follows a link and fails on any name that exists.
  const mode_t saved_umask = umask(0111);
  const int bound = bind(listen_fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int bind_errno = errno;
  umask(saved_umask);
  if (bound != 0) {
    LOG_ERROR("cannot bind %s: %s (%d)\n", path.c_str(), strerror(bind_errno), bind_errno);
    return -1;
  }
  if (lstat(path.c_str(), &st) != 0 || listen(listen_fd_, 64) != 0) {
    LOG_ERROR("cannot listen on %s: %s (%d)\n", path.c_str(), strerror(errno), errno);
    unlink(path.c_str());
    return -1;
  }
  path_ = path;
  socket_inode_ = st.st_ino;
  return loop_.Add(listen_fd_, EPOLLIN, [this](uint32_t) { OnAccept(); });
}

void ControlServer::Shutdown() {
  while (!clients_.empty()) Drop(clients_.begin()->first);
  if (listen_fd_ >= 0) {
    loop_.Remove(listen_fd_);
    close(listen_fd_);
    listen_fd_ = -1;
  }
  if (!path_.empty()) {
    // Only our own socket goes; a name that is something else now stays.
    struct stat st {};
    if (lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_ino == socket_inode_)
      unlink(path_.c_str());
    path_.clear();
  }
}

bool ControlServer::PeerAllowed(int fd) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || (service_uid_ != 0 && peer.uid == service_uid_);
}

void ControlServer::OnAccept() {
  for (;;) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        LOG_ERROR("accept: %s (%d)\n", strerror(errno), errno);
      if (errno == EINTR) continue;
      return;
    }
    if (!PeerAllowed(fd)) {
      // Best effort: the refused peer learns why, nothing more.
      const std::string answer = EncodeLine(ErrorAnswer(kErrPermission, "permission denied"));
      [[maybe_unused]] ssize_t ignored = send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(fd);
      continue;
    }
    clients_[fd] = Client{};
    if (loop_.Add(fd, EPOLLIN, [this, fd](uint32_t events) { OnClient(fd, events); }) != 0) {
      clients_.erase(fd);
      close(fd);
    }
  }
}

void ControlServer::OnClient(int fd, uint32_t events) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& client = it->second;
  if (events & EPOLLOUT) {
    if (!Flush(fd, client)) return;
  }
  if (!(events & (EPOLLIN | EPOLLHUP | EPOLLERR)) || client.closing) return;
  char buffer[16384];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n <= 0) {
      // End of input: answers still owed go out first.
      client.closing = true;
      Flush(fd, client);
      return;
    }
    client.in.append(buffer, static_cast<size_t>(n));
    HandleInput(fd, client);
    if (clients_.find(fd) == clients_.end() || client.closing) return;
  }
}

void ControlServer::HandleInput(int fd, Client& client) {
  size_t start = 0;
  for (;;) {
    const size_t end = client.in.find('\n', start);
    if (end == std::string::npos) break;
    std::string line = client.in.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    bool close_after = line.size() > kMaxLine;
    const std::string answer = close_after
                                   ? EncodeLine(ErrorAnswer(kErrBadRequest, "request too long"))
                                   : dispatch_(line, close_after);
    if (close_after) {
      client.in.clear();
      client.closing = true;
      Queue(fd, client, answer);
      return;
    }
    Queue(fd, client, answer);
    if (clients_.find(fd) == clients_.end()) return;
  }
  client.in.erase(0, start);
  if (client.in.size() > kMaxLine) {
    client.in.clear();
    client.closing = true;
    Queue(fd, client, EncodeLine(ErrorAnswer(kErrBadRequest, "request too long")));
  }
}

void ControlServer::Queue(int fd, Client& client, const std::string& data) {
  client.out += data;
  if (client.out.size() > kMaxPendingOutput) {
    Drop(fd);
    return;
  }
  Flush(fd, client);
}

// Writes what it can; false when the client is gone afterwards.
bool ControlServer::Flush(int fd, Client& client) {
  while (!client.out.empty()) {
    const ssize_t n = send(fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n <= 0) {
      Drop(fd);
      return false;
    }
    client.out.erase(0, static_cast<size_t>(n));
  }
  if (client.out.empty() && client.closing) {
    Drop(fd);
    return false;
  }
  // A closing client is not read any more, or a pending end of input would
  // wake the loop forever.
  uint32_t events = client.out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
  if (client.closing) events = EPOLLOUT;
  loop_.Modify(fd, events);
  return true;
}

void ControlServer::Drop(int fd) {
  loop_.Remove(fd);
  clients_.erase(fd);
  close(fd);
}

}  // namespace driftway
