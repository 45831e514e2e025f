// The relay service through which clients reach the server from outside.
//
// /usr/kstx/etc/kstxrelayd/kstxrelayd.conf, key="value" lines:
//   enabled="yes"  alias_enabled="yes"  alias_name="myhost"
// The relay daemon reports its state per service in
// /usr/kstx/etc/kstxrelayd/status/<service> (id, status, detail) and the
// alias state in /usr/kstx/etc/kstxrelayd/status/alias (status, detail).
#pragma once

#include <string>

namespace KSTX::Relay {

class AliasConf {
 public:
  bool IsAliasEnabled() const { return alias_enabled_; }
  std::string GetAliasName() const { return alias_name_; }

 protected:
  bool alias_enabled_ = false;
  std::string alias_name_;
};

class RelaydConf : public AliasConf {
 public:
  explicit RelaydConf(const std::string& path);
  bool GetEnableConf() const { return enabled_; }

 private:
  bool enabled_ = false;
};

struct Daemon {
  static bool GetStatus(std::string& id, std::string& status, std::string& detail,
                        const std::string& service);
};

struct AliasStatus {
  static bool GetStatus(const std::string& alias, std::string& status, std::string& detail);
};

}  // namespace KSTX::Relay
