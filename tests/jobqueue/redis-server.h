// A real redis-server on a free loopback port, for the Redis queue's tests.
#pragma once

#include <sys/types.h>

#include <string>

namespace tptest {

class RedisServer {
 public:
  // False when the program is not installed.
  static bool Available();

  RedisServer();  // picks the port and the data folder; starts nothing
  ~RedisServer();

  // Starts the server and waits until it answers; false when it does not.
  bool Start();
  // Stops it, keeping its data in the folder for the next Start.
  void Stop();

  std::string Location() const { return "redis://127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }

 private:
  int port_ = 0;
  std::string dir_;
  pid_t pid_ = -1;
};

}  // namespace tptest
