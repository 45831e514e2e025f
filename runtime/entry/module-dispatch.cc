#include "module-dispatch.h"

#include <dlfcn.h>

#include <cstdio>
#include <map>
#include <string>

#include "builtin.h"
#include "kstx/webapi-module.h"

namespace kstxentry {
namespace {

// The row of exactly this version, else the first of the method.
template <typename Row>
const Row* FindRow(const Row* rows, const std::string& api, const std::string& method,
                   unsigned version) {
  const Row* any = nullptr;
  for (const Row* row = rows; row != nullptr && row->api != nullptr; ++row) {
    if (api != row->api || row->method == nullptr || method != row->method) continue;
    if (row->version == version) return row;
    if (any == nullptr) any = row;
  }
  return any;
}

struct Preloaded {
  bool done = false;
  std::vector<ApiIndexEntry> index;
  std::map<std::string, void*> modules;  // by path
};

Preloaded& preloaded() {
  static Preloaded instance;
  return instance;
}

}  // namespace

void PreloadModules() {
  Preloaded& p = preloaded();
  p.index = ReadModuleIndex();
  for (const ApiIndexEntry& entry : p.index) {
    if (p.modules.count(entry.module_path) != 0) continue;
    void* module = dlopen(entry.module_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
      std::fprintf(stderr, "cannot preload: %s\n", dlerror());
      continue;
    }
    p.modules[entry.module_path] = module;
  }
  p.done = true;
}

const std::vector<ApiIndexEntry>& ModuleIndex() {
  Preloaded& p = preloaded();
  if (!p.done) {
    static std::vector<ApiIndexEntry> read;
    read = ReadModuleIndex();
    return read;
  }
  return p.index;
}

void ServeModule(const ApiIndexEntry& entry, KSTX::APIRequest& request, KSTX::APIResponse& response,
                 const char* program) {
  // Lazy binding: a module is large and a request runs few of its functions.
  const auto found = preloaded().modules.find(entry.module_path);
  void* module = found != preloaded().modules.end()
                     ? found->second
                     : dlopen(entry.module_path.c_str(), RTLD_LAZY | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "%s: %s\n", program, dlerror());
    return SetRuntimeError(response, kErrUnexpected);
  }
  using TableFunc = const KSTXAPITableRow* (*)();
  using CheckTableFunc = const KSTXAPICheckTableRow* (*)();
  auto table = reinterpret_cast<TableFunc>(dlsym(module, "GetAPITable"));
  auto check_table = reinterpret_cast<CheckTableFunc>(dlsym(module, "GetAPICheckTable"));
  if (table == nullptr || check_table == nullptr) return SetRuntimeError(response, kErrUnexpected);
  const std::string api = request.GetAPIClass(), method = request.GetAPIMethod();
  const unsigned version = request.GetAPIVersion();
  const KSTXAPITableRow* row = FindRow(table(), api, method, version);
  const KSTXAPICheckTableRow* check = FindRow(check_table(), api, method, version);
  if (row == nullptr || row->process == nullptr || check == nullptr) {
    return SetRuntimeError(response, kErrNoSuchApi);
  }
  if (check->check != nullptr && !check->check(&request, &response)) {
    if (!response.IsError()) SetRuntimeError(response, kErrParameter);
    return;
  }
  row->process(&request, &response);
}

}  // namespace kstxentry
