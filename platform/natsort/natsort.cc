// The thin, ICU-free half of natural sorting: finds the ICU-backed shared
// object on first use and forwards to it.
#include <dlfcn.h>

#include <mutex>
#include <string>

#include "natsort-plugin.h"
#include "natural-sort.h"

namespace natsort {
namespace {

const PluginApi* Load() {
  // The installed object first, by absolute path: setuid callers never take
  // a path from their environment. The build tree's copy serves tests and
  // benchmarks that run outside an installed system.
  for (const char* path : {TP_NATSORT_INSTALLED_PATH, TP_NATSORT_BUILD_PATH}) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) continue;
    using Entry = const PluginApi* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(handle, kPluginSymbol));
    const PluginApi* api = entry ? entry() : nullptr;
    if (api != nullptr && api->version == kPluginApiVersion) return api;
    dlclose(handle);
  }
  return nullptr;
}

const PluginApi* Api() {
  static const PluginApi* api = Load();  // the object stays loaded for the process
  return api;
}

}  // namespace

std::string SortKey(const std::string& utf8) {
  std::string key;
  const PluginApi* api = Api();
  if (api == nullptr || api->sort_key(utf8.data(), utf8.size(), &key) < 0) return {};
  return key;
}

bool Less(const std::string& a, const std::string& b) {
  const PluginApi* api = Api();
  if (api == nullptr) return true;
  int r = api->compare(a.data(), a.size(), b.data(), b.size());
  return r < 0;  // failures (-2, -3) answer true, as the literal form does
}

bool LiteralLess(const std::string& a, const std::string& b) {
  const PluginApi* api = Api();
  if (api == nullptr) return true;
  return api->literal_compare(a.data(), a.size(), b.data(), b.size()) < 0;
}

bool Ready() {
  std::string version;
  const PluginApi* api = Api();
  return api != nullptr && api->collation_version(&version) == 0;
}

std::string CollationVersion() {
  std::string version;
  const PluginApi* api = Api();
  if (api == nullptr || api->collation_version(&version) < 0) return {};
  return version;
}

}  // namespace natsort
