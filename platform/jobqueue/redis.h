// A small hiredis wrapper for the Redis job queue: a connection that
// reconnects on its next use after a failure, and Lua scripts that run by
// their digest. Both are members of the store and die with it.
#pragma once

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <vector>

namespace tidepool::core::redis {

struct Endpoint {
  std::string host;
  int port = 6379;
  std::string user;  // empty: the server's default user
  std::string password;
  bool has_password = false;
  int db = 0;
};

struct ReplyDeleter {
  void operator()(redisReply* reply) const {
    if (reply) freeReplyObject(reply);
  }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

class Connector {
 public:
  explicit Connector(Endpoint endpoint) : endpoint_(std::move(endpoint)) {}
  ~Connector() { Close(); }
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

  // Connects, authenticates and selects the database unless connected; 0 or
  // -1 (logged). A server that is down answers within the connect timeout.
  int Connect();
  void Close();
  bool connected() const { return context_ != nullptr; }
  // The socket while connected, else -1.
  int fd() const;

  // One command. Null when the server could not be reached or stopped
  // answering: the connection is closed then and the next call connects
  // again. Not retried here, since the command may have run. An error reply
  // is returned as it is.
  Reply Command(const std::vector<std::string>& args);

  // For a connection in subscriber mode: reads what the socket holds
  // without blocking and discards the messages. -1 when the connection
  // broke (it is closed then).
  int DiscardPending();

 private:
  Reply Raw(const std::vector<std::string>& args);

  Endpoint endpoint_;
  redisContext* context_ = nullptr;
};

// Scripts loaded once with SCRIPT LOAD and called with EVALSHA; a server
// that lost them (restarted, flushed) gets them again on NOSCRIPT.
class LuaScripts {
 public:
  explicit LuaScripts(std::vector<std::string> sources)
      : sources_(std::move(sources)), digests_(sources_.size()) {}

  // Runs script `index` with no keys and `args`: its reply, or null as
  // Connector::Command.
  Reply Run(Connector& connector, size_t index, const std::vector<std::string>& args);

 private:
  int Load(Connector& connector, size_t index);

  std::vector<std::string> sources_;
  std::vector<std::string> digests_;
};

// True for an error reply; logs it.
bool IsError(const Reply& reply, const char* what);

}  // namespace tidepool::core::redis
