// Office documents (".tdoc", ".tsheet", ".tslides", the extension exact and
// in lower case) belong to the office package, which writes each one with a
// first line of its own:
//
//   KSTXOFFICE/1[ ATTRIBUTE]...\n
//
// The attribute "protected" marks a document that opens only with its
// password. The sync service reads this line, and nothing else of the
// format, when it versions a document: a protected one is recorded with
// its node's `encrypted` flag set, which the restore engine reads as "an
// office document protected by a password". Content sealed in an encrypted
// share is a matter of the share, never of this flag.
#pragma once

#include <cstddef>
#include <string_view>

namespace office_format {

inline constexpr std::string_view kMagic = "KSTXOFFICE/1";
inline constexpr std::string_view kProtected = "protected";
// The header is looked for in the first bytes only.
inline constexpr size_t kHeaderMax = 256;

// True for a name whose extension is an office document's.
inline bool IsDocumentName(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  const std::string_view ext = name.substr(dot + 1);
  return ext == "tdoc" || ext == "tsheet" || ext == "tslides";
}

// True when `head`, the first bytes of a document, begins with a header
// line that carries the attribute "protected".
inline bool HeaderSaysProtected(std::string_view head) {
  if (head.substr(0, kMagic.size()) != kMagic) return false;
  std::string_view line = head.substr(kMagic.size());
  line = line.substr(0, line.find('\n'));
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  while (!line.empty()) {
    if (line.front() != ' ') return false;  // "KSTXOFFICE/10" is not this format
    line.remove_prefix(1);
    const size_t end = line.find(' ');
    if (line.substr(0, end) == kProtected) return true;
    line = end == std::string_view::npos ? std::string_view() : line.substr(end);
  }
  return false;
}

}  // namespace office_format
