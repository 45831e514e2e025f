// The web desktop's personal settings of a user, which the runtime keeps as
// one JSON object per user in /usr/kstx/etc/usersettings/<user>.json
// (root's). Readers take them as they are; nothing here writes them.
#pragma once

#include <json/value.h>

#include <string>

class WebMan {
 public:
  // `for_user`: the login whose settings are read.
  explicit WebMan(std::string for_user) : user_(std::move(for_user)) {}
  // The settings object; 0, or -1 when there is none or it cannot be read
  // (then `settings` is an empty object).
  int loadUserJsonSettings(Json::Value& settings) const;

  static constexpr const char* kSettingsDir = "/usr/kstx/etc/usersettings";

 private:
  std::string user_;
};
