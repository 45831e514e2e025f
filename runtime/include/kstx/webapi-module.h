// The tables through which the runtime learns what a web-API module serves.
// Both tables end with a row of zeros.
#pragma once

namespace KSTX {
class APIRequest;
class APIResponse;
}  // namespace KSTX

extern "C" {

using KSTXProcessFunc = void (*)(KSTX::APIRequest*, KSTX::APIResponse*);
using KSTXCheckFunc = bool (*)(KSTX::APIRequest*, KSTX::APIResponse*);

struct KSTXAPITableRow {
  const char* api;
  unsigned version;
  const char* method;
  KSTXProcessFunc process;
};

struct KSTXAPICheckTableRow {
  const char* api;
  unsigned version;
  const char* method;
  KSTXCheckFunc check;
  void* reserved1;
  void* reserved2;
};

// Exported by every module.
const KSTXAPITableRow* GetAPITable();
const KSTXAPICheckTableRow* GetAPICheckTable();
}
