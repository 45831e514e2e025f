// Kept apart from the other helpers: only the callers of this function load
// ICU, which costs every process that links it about a millisecond at start.
#include <unicode/unistr.h>

#include <cstring>
#include <string>

#include "hlibc.h"

int HLIBCUnicodeUTF8StrUpper(const char* text, char* buffer, size_t size) {
  if (text == nullptr || buffer == nullptr || size == 0) return -1;
  icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
  if (unicode.isBogus()) return -1;
  std::string upper;
  unicode.toUpper().toUTF8String(upper);
  if (upper.size() >= size) return -1;
  memcpy(buffer, upper.c_str(), upper.size() + 1);
  return static_cast<int>(upper.size());
}
