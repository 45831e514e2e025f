// The index of installed modules, written at build time by
// kstx-webapi-index so that a request finds its module without loading any:
// one line per API, "API<TAB>minVersion<TAB>maxVersion<TAB>MODULE_PATH".
#pragma once

#include <string>
#include <vector>

#include "kstx/webapi-module.h"

namespace kstxentry {

constexpr const char* kModuleIndexDir = "/usr/kstx/webapi/modules.d";

struct ApiIndexEntry {
  std::string api;
  unsigned min_version = 0;
  unsigned max_version = 0;
  std::string module_path;
};

// Every line of every "*.index" file of `dir`; broken lines are skipped.
std::vector<ApiIndexEntry> ReadModuleIndex(const char* dir = kModuleIndexDir);

// The index lines for a module's API table (ending with a row of zeros): one
// line per API, with the lowest and highest version of its rows.
std::string FormatModuleIndex(const KSTXAPITableRow* rows, const std::string& module_path);

}  // namespace kstxentry
