// Small key="value" files of the relay daemon and the string bundles. A file
// that is missing or unreadable reads as empty: these describe optional
// services, whose absence is not an error.
#pragma once

#include <map>
#include <string>

namespace tprelay {

std::map<std::string, std::string> ReadKeyValueFile(const std::string& path);

// Root of the relay daemon's files and of the string bundles.
constexpr const char* kEtcRoot = "/usr/kstx/etc";

}  // namespace tprelay
