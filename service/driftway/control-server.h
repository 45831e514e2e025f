// The control socket: accepts local clients whose peer is root or the
// service account, splits their input into lines and answers each line with
// the dispatcher's answer.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>

#include "event-loop.h"

namespace Json {
class Value;
}

namespace driftway {

// Answers one request line. `close_after` ends the connection once the answer
// is out (a client that sends garbage is not trusted with more).
using Dispatcher = std::function<std::string(const std::string& line, bool& close_after)>;

class ControlServer {
 public:
  ControlServer(EventLoop& loop, Dispatcher dispatch);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Binds `path` (a socket there is replaced; anything else there, a link
  // included, fails the call), mode 0666, and starts accepting. Peers other
  // than uid 0 and `service_uid` are refused.
  int Listen(const std::string& path, uid_t service_uid);
  // Closes every connection and removes the socket file.
  void Shutdown();

 private:
  struct Client {
    std::string in;
    std::string out;
    bool closing = false;  // close once `out` is written
  };

  void OnAccept();
  void OnClient(int fd, uint32_t events);
  void HandleInput(int fd, Client& client);
  void Queue(int fd, Client& client, const std::string& data);
  bool Flush(int fd, Client& client);
  void Drop(int fd);
  bool PeerAllowed(int fd) const;

  EventLoop& loop_;
  Dispatcher dispatch_;
  int listen_fd_ = -1;
  std::string path_;
  ino_t socket_inode_ = 0;  // of the socket file at path_
  uid_t service_uid_ = 0;
  std::map<int, Client> clients_;
};

}  // namespace driftway
