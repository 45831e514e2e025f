// Parsing of a Redis queue location from setting.conf.
#include <cerrno>
#include <cstdlib>

#include "stores.h"

namespace tidepool::core::job_queue {

namespace {

bool ParseNumber(const std::string& text, long min, long max, int& out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  const long value = strtol(text.c_str(), nullptr, 10);
  if (errno != 0 || value < min || value > max) return false;
  out = static_cast<int>(value);
  return true;
}

}  // namespace

int ParseRedisLocation(const std::string& location, RedisLocation& out) {
  const std::string scheme = kRedisScheme;
  if (location.compare(0, scheme.size(), scheme) != 0) return -1;
  std::string rest = location.substr(scheme.size());
  RedisLocation parsed;

  // A password may hold '@' and '/': the credentials end at the last '@'.
  const auto at = rest.rfind('@');
  if (at != std::string::npos) {
    const std::string credentials = rest.substr(0, at);
    rest = rest.substr(at + 1);
    const auto colon = credentials.find(':');
    if (colon == std::string::npos) return -1;
    parsed.user = credentials.substr(0, colon);
    parsed.password = credentials.substr(colon + 1);
    parsed.has_password = true;
  }

  const auto slash = rest.find('/');
  if (slash != std::string::npos) {
    if (!ParseNumber(rest.substr(slash + 1), 0, 65535, parsed.db)) return -1;
    rest = rest.substr(0, slash);
  }

  std::string port;
  if (!rest.empty() && rest[0] == '[') {  // [v6 address]
    const auto close = rest.find(']');
    if (close == std::string::npos) return -1;
    parsed.host = rest.substr(1, close - 1);
    rest = rest.substr(close + 1);
    if (!rest.empty()) {
      if (rest[0] != ':') return -1;
      port = rest.substr(1);
    }
  } else {
    const auto colon = rest.rfind(':');
    parsed.host = rest.substr(0, colon);
    if (colon != std::string::npos) port = rest.substr(colon + 1);
  }
  if (parsed.host.empty()) return -1;
  if (!port.empty() && !ParseNumber(port, 1, 65535, parsed.port)) return -1;
  if (port.empty() && rest.find(':') != std::string::npos) return -1;  // "host:"
  out = parsed;
  return 0;
}

}  // namespace tidepool::core::job_queue
