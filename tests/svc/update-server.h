// A small HTTP server on the loopback address for the client-link tests: it
// stands in for the update server and answers each request as the test
// says, or never, and remembers what it was asked.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace svctest {

class UpdateServer {
 public:
  // Gets the request target ("/getUpdate?identify=..."); gives the whole
  // HTTP answer to send, or nothing to keep silent until the client leaves.
  using Answer = std::function<std::optional<std::string>(const std::string& target)>;

  explicit UpdateServer(Answer answer);
  ~UpdateServer();
  UpdateServer(const UpdateServer&) = delete;
  UpdateServer& operator=(const UpdateServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;
  // The request targets seen so far, in order.
  std::vector<std::string> targets() const;

  // An HTTP answer with this status, content type and body.
  static std::string Reply(int status, const std::string& type, const std::string& body,
                           const std::string& extra_headers = "");

 private:
  void Serve();
  void Handle(int connection);

  Answer answer_;
  int listener_ = -1;
  int stop_pipe_[2] = {-1, -1};
  int port_ = 0;
  mutable std::mutex mutex_;
  std::vector<std::string> targets_;
  std::thread thread_;
};

// A loopback port on which nothing listens: connecting is refused.
int RefusingPort();

}  // namespace svctest
