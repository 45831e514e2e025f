#include "util/lazy-curl.h"

#include <dlfcn.h>

#include "logger.h"

namespace lazy_curl {
namespace {

// By its soname, the way the dynamic linker would have found it: a setuid
// process ignores library paths from its environment.
constexpr const char* kLibrary = "libcurl.so.4";

template <typename F>
bool Bind(void* handle, const char* name, F& out) {
  out = reinterpret_cast<F>(dlsym(handle, name));
  return out != nullptr;
}

const Api* Load() {
  static Api api;
  void* handle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    LOG_ERROR("cannot load %s: %s\n", kLibrary, dlerror());
    return nullptr;
  }
  if (!Bind(handle, "curl_global_init", api.global_init) ||
      !Bind(handle, "curl_global_cleanup", api.global_cleanup) ||
      !Bind(handle, "curl_easy_init", api.easy_init) ||
      !Bind(handle, "curl_easy_setopt", api.easy_setopt) ||
      !Bind(handle, "curl_easy_perform", api.easy_perform) ||
      !Bind(handle, "curl_easy_cleanup", api.easy_cleanup) ||
      !Bind(handle, "curl_easy_strerror", api.easy_strerror)) {
    LOG_ERROR("%s lacks a function the update client calls\n", kLibrary);
    dlclose(handle);
    return nullptr;
  }
  return &api;
}

}  // namespace

const Api* Get() {
  static const Api* api = Load();  // stays loaded for the process
  return api;
}

}  // namespace lazy_curl
