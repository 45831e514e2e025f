// Input: the content of an SCGI header netstring, as a peer of
// tidepool-webapi's socket could send it. What parses must hold variables
// the environment can take, CONTENT_LENGTH first, and must parse back the
// same once written out again.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "scgi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kstxentry::ScgiHeaders headers;
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  if (kstxentry::ParseScgiHeaders(content, headers) != 0) return 0;
  if (headers.empty() || headers.front().first != "CONTENT_LENGTH") __builtin_trap();
  std::string again;
  for (const auto& [name, value] : headers) {
    if (name.empty() || name.find_first_of(std::string("=\0", 2)) != std::string::npos ||
        value.find('\0') != std::string::npos) {
      __builtin_trap();
    }
    again += name + '\0' + value + '\0';
  }
  kstxentry::ScgiHeaders reparsed;
  if (again != content || kstxentry::ParseScgiHeaders(again, reparsed) != 0 ||
      reparsed != headers) {
    __builtin_trap();
  }
  return 0;
}
