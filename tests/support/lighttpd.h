// lighttpd serving the sandbox's install on a random loopback port, with the
// configuration the package ships, as a browser reaches the system: the web
// API served by tidepool-webapi's forked processes, or, for the CGI-only
// setup, by entry.cgi run for each request.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tptest {

enum class WebApiPath { kForked, kCgi };

constexpr const char* kWebApiServer = "/usr/kstx/sbin/tidepool-webapi";
constexpr const char* kWebApiSocket = "/tmp/tidepool-webapi/webapi.sock";
// What tidepool-webapi wrote to its standard error.
constexpr const char* kWebApiLog = "/tmp/lighttpd/webapi.log";

// Starts tidepool-webapi with `args` and waits for its socket; -1 when it
// did not come up.
pid_t StartWebApiServer(const std::vector<std::string>& args = {});

class Lighttpd {
 public:
  // Starts the servers and waits until they answer; port() is 0 when they did not.
  explicit Lighttpd(WebApiPath path = WebApiPath::kForked,
                    const std::vector<std::string>& webapi_args = {});
  ~Lighttpd();
  Lighttpd(const Lighttpd&) = delete;
  Lighttpd& operator=(const Lighttpd&) = delete;

  int port() const { return port_; }
  // tidepool-webapi's parent process, -1 on the CGI path.
  pid_t webapi_pid() const { return webapi_; }
  // Stops tidepool-webapi (and waits for it) and starts it again with the same
  // arguments, as the demo and the service do when it died.
  void StopWebApi();
  bool RestartWebApi();
  // A socket connected to the server, or -1.
  int Connect() const;
  // One HTTP/1.0 exchange: `request` is sent as it is, and everything the
  // server sends until it closes comes back.
  std::string Exchange(const std::string& request) const;

 private:
  int port_ = 0;
  pid_t server_ = -1;
  pid_t webapi_ = -1;
  std::vector<std::string> webapi_args_;
};

}  // namespace tptest
