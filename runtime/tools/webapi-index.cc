// kstx-webapi-index MODULE.so INSTALLED_PATH OUT_FILE
//
// Loads a web-API module at build time and writes the index lines through
// which entry.cgi finds it: one per API, with its version range and the path
// the module is installed at.
#include <dlfcn.h>

#include <cstdio>
#include <string>

#include "module-index.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s MODULE.so INSTALLED_PATH OUT_FILE\n", argv[0]);
    return 2;
  }
  void* module = dlopen(argv[1], RTLD_LAZY | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "kstx-webapi-index: %s\n", dlerror());
    return 1;
  }
  using TableFunc = const KSTXAPITableRow* (*)();
  auto table = reinterpret_cast<TableFunc>(dlsym(module, "GetAPITable"));
  if (table == nullptr) {
    std::fprintf(stderr, "kstx-webapi-index: %s has no GetAPITable\n", argv[1]);
    return 1;
  }
  const std::string text = kstxentry::FormatModuleIndex(table(), argv[2]);
  if (text.empty()) {
    std::fprintf(stderr, "kstx-webapi-index: %s serves no API\n", argv[1]);
    return 1;
  }
  const std::string tmp = std::string(argv[3]) + ".tmp";
  FILE* out = std::fopen(tmp.c_str(), "we");
  if (out == nullptr) {
    std::perror(argv[3]);
    return 1;
  }
  const bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  if (std::fclose(out) != 0 || !ok || std::rename(tmp.c_str(), argv[3]) != 0) {
    std::perror(argv[3]);
    std::remove(tmp.c_str());
    return 1;
  }
  return 0;
}
