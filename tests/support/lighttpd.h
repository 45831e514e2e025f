// lighttpd serving the sandbox's install on a random loopback port, with the
// configuration the package ships, as a browser reaches the system.
#pragma once

#include <sys/types.h>

#include <string>

namespace tptest {

class Lighttpd {
 public:
  // Starts the server and waits until it answers; port() is 0 when it did not.
  Lighttpd();
  ~Lighttpd();
  Lighttpd(const Lighttpd&) = delete;
  Lighttpd& operator=(const Lighttpd&) = delete;

  int port() const { return port_; }
  // A socket connected to the server, or -1.
  int Connect() const;
  // One HTTP/1.0 exchange: `request` is sent as it is, and everything the
  // server sends until it closes comes back.
  std::string Exchange(const std::string& request) const;

 private:
  int port_ = 0;
  pid_t server_ = -1;
};

}  // namespace tptest
