// The module's tables: what it serves and each method's parameter check.
#include <kstx/webapi-module.h>

#include "create-folder.h"

namespace {
constexpr const char* kFilesApi = "KSTX.Tidepool.Files";
}  // namespace

extern "C" {

__attribute__((visibility("default"))) const KSTXAPITableRow* GetAPITable() {
  static const KSTXAPITableRow table[] = {
      {kFilesApi, 1, "create", filesapi::CreateFolder},
      {nullptr, 0, nullptr, nullptr},
  };
  return table;
}

__attribute__((visibility("default"))) const KSTXAPICheckTableRow* GetAPICheckTable() {
  static const KSTXAPICheckTableRow table[] = {
      {kFilesApi, 1, "create", filesapi::CheckCreate, nullptr, nullptr},
      {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
  };
  return table;
}

}  // extern "C"
