// Localised texts of the appliance, by section and key, from
// /usr/kstx/etc/strings/<section>.txt (key="text" lines).
#pragma once

#include <map>
#include <string>

class StringBundle {
 public:
  StringBundle(const char* section, int, int, int, int, int);
  // The text of `key`, or null when there is none. Valid while the bundle lives.
  const char* Text(const char* key, int) const;

 private:
  std::map<std::string, std::string> texts_;
};
