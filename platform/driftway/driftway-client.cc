// Driftway client: a connection per call, one request line out, one answer
// line back, under the timeout set by SetTimeout.
#include "driftway-client.h"

#include <json/value.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "driftway-protocol.h"

namespace {

constexpr const char* kUnixScheme = "unix:";

class Socket {
 public:
  Socket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::string ErrnoText(const char* what) { return std::string(what) + ": " + strerror(errno); }

bool SendAll(int fd, const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Reads up to the first newline. False on error, timeout, end of stream or an
// answer longer than any the service sends.
bool ReadLine(int fd, std::string& line, std::string& error) {
  line.clear();
  char buffer[4096];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = (errno == EAGAIN || errno == EWOULDBLOCK) ? "timed out waiting for the service"
                                                        : ErrnoText("recv");
      return false;
    }
    if (n == 0) {
      error = "the service closed the connection";
      return false;
    }
    const char* end = static_cast<const char*>(memchr(buffer, '\n', static_cast<size_t>(n)));
    line.append(buffer, end ? static_cast<size_t>(end - buffer) : static_cast<size_t>(n));
    if (end) return true;
    if (line.size() > driftway::kMaxAnswer) {
      error = "answer too long";
      return false;
    }
  }
}

// The service runs as root or as its own account. Anyone else who answers
// at the path (it lies in /tmp, where any user may bind a socket while the
// service is down) could feed forged answers to a caller that acts as root.
bool TrustedServer(uid_t uid) {
  if (uid == 0) return true;
  passwd entry{};
  passwd* found = nullptr;
  char buffer[4096];
  return getpwnam_r(driftway::kServiceAccount, &entry, buffer, sizeof buffer, &found) == 0 &&
         found != nullptr && found->pw_uid != 0 && found->pw_uid == uid;
}

}  // namespace

void Driftway::SetSSL(bool, bool, const std::string&, const std::string&) {
  // The control socket is local; there is nothing to encrypt.
}

void Driftway::SetServer(const std::string& address, int) {
  socket_path_ = address.rfind(kUnixScheme, 0) == 0 ? address.substr(strlen(kUnixScheme)) : address;
}

void Driftway::SetUser(const std::string& user, const std::string&, const std::string&) {
  user_ = user;
}

void Driftway::SetSudoUser(const std::string& user) { sudo_user_ = user; }
void Driftway::SetServerVersion(int version) { server_version_ = version; }
void Driftway::SetTimeout(int seconds) { timeout_seconds_ = seconds; }

int Driftway::Fail(int code, const std::string& message) {
  last_error_ = code;
  last_error_message_ = message;
  return -1;
}

int Driftway::Call(const Json::Value& request, Json::Value& answer) {
  last_error_ = 0;
  last_error_message_.clear();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_path_.empty() || socket_path_[0] != '/' ||
      socket_path_.size() >= sizeof address.sun_path)
    return Fail(driftway::kErrTransport, "unsupported server address '" + socket_path_ + "'");
  memcpy(address.sun_path, socket_path_.c_str(), socket_path_.size() + 1);

  Socket sock;
  if (sock.fd() < 0) return Fail(driftway::kErrTransport, ErrnoText("socket"));
  if (timeout_seconds_ > 0) {
    const timeval timeout{timeout_seconds_, 0};
    setsockopt(sock.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(sock.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  }
  if (connect(sock.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Fail(driftway::kErrTransport, ErrnoText(("connect " + socket_path_).c_str()));
  ucred peer{};
  socklen_t peer_size = sizeof peer;
  if (getsockopt(sock.fd(), SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) != 0)
    return Fail(driftway::kErrTransport, ErrnoText("SO_PEERCRED"));
  if (!TrustedServer(peer.uid)) {
    return Fail(driftway::kErrUntrustedServer,
                socket_path_ + " is served by uid " + std::to_string(peer.uid) +
                    ", neither root nor the service account: refused");
  }
  // A refused peer is answered and hung up on before it sends: the refusal
  // is still worth reading when the send fails.
  const bool sent = SendAll(sock.fd(), driftway::EncodeLine(request));
  const std::string send_error = sent ? "" : ErrnoText("send");

  std::string line, error;
  if (!ReadLine(sock.fd(), line, error))
    return Fail(driftway::kErrTransport, sent ? error : send_error);
  Json::Value reply;
  if (!driftway::DecodeLine(line, reply) || !reply["success"].isBool())
    return Fail(driftway::kErrTransport, "malformed answer from the service");
  if (!reply["success"].asBool()) {
    const Json::Value& err = reply["error"];
    const int code = err["code"].isInt() ? err["code"].asInt() : driftway::kErrFailed;
    const std::string message = err["message"].isString() ? err["message"].asString() : "failed";
    return Fail(code, message);
  }
  answer = std::move(reply);
  return 0;
}

int Driftway::QueryUser(UserInfo& out, bool with_admin_flag) {
  Json::Value request(Json::objectValue);
  request["op"] = "query_user";
  request["user"] = user_;
  request["sudo_user"] = sudo_user_;
  request["version"] = server_version_;
  Json::Value answer;
  if (Call(request, answer) < 0) return -1;
  if (!answer["name"].isString() || !answer["uid"].isUInt() || !answer["is_admin"].isBool())
    return Fail(driftway::kErrTransport, "malformed user answer from the service");
  UserInfo info;
  info.name = answer["name"].asString();
  info.uid = answer["uid"].asUInt();
  info.is_admin = with_admin_flag && answer["is_admin"].asBool();
  out = std::move(info);
  return 0;
}

int Driftway::QueryStatus(Json::Value& out) {
  Json::Value request(Json::objectValue);
  request["op"] = "status";
  return Call(request, out);
}

int SendUserControl(int operation, const std::string& name, unsigned int id, int rotate_cnt,
                    const std::string& rotate_policy, int rotate_days) {
  const char* op = driftway::UserControlOp(operation);
  if (op == nullptr || name.empty()) return -1;
  Json::Value request(Json::objectValue);
  request["op"] = op;
  request["name"] = name;
  request["uid"] = id;
  request["rotate_cnt"] = rotate_cnt;
  request["rotate_policy"] = rotate_policy;
  request["rotate_days"] = rotate_days;
  Driftway client;
  Json::Value answer;
  return client.Call(request, answer);
}

int ServiceReloadProfile() {
  Json::Value request(Json::objectValue);
  request["op"] = "reload_profile";
  Driftway client;
  Json::Value answer;
  return client.Call(request, answer);
}
