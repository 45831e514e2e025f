#include "scgi.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kstxentry {
namespace {

bool AllDigits(std::string_view text) {
  if (text.empty() || text.size() > 19) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

bool ReadExactly(int fd, char* at, std::size_t size) {
  while (size > 0) {
    const ssize_t n = read(fd, at, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

int ParseScgiHeaders(std::string_view content, ScgiHeaders& out) {
  out.clear();
  bool scgi = false;
  while (!content.empty()) {
    const std::size_t name_end = content.find('\0');
    if (name_end == std::string_view::npos) return -1;
    const std::size_t value_end = content.find('\0', name_end + 1);
    if (value_end == std::string_view::npos) return -1;
    const std::string_view name = content.substr(0, name_end);
    const std::string_view value = content.substr(name_end + 1, value_end - name_end - 1);
    content.remove_prefix(value_end + 1);
    if (name.empty() || name.find('=') != std::string_view::npos) return -1;
    if (out.empty() != (name == "CONTENT_LENGTH")) return -1;
    if (name == "CONTENT_LENGTH" && !AllDigits(value)) return -1;
    for (const auto& seen : out) {
      if (seen.first == name) return -1;
    }
    if (name == "SCGI") {
      if (value != "1") return -1;
      scgi = true;
    }
    out.emplace_back(name, value);
  }
  return scgi ? 0 : -1;
}

int ReadScgiHeaders(int fd, ScgiHeaders& out) {
  // The length's digits and the colon are peeked at, so that exactly the
  // netstring is then read and the body stays for the request's reader.
  char prefix[16];
  std::size_t digits = 0;
  for (;;) {
    const ssize_t n = recv(fd, prefix, sizeof prefix, MSG_PEEK);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -1;
    const void* colon = std::memchr(prefix, ':', static_cast<std::size_t>(n));
    if (colon != nullptr) {
      digits = static_cast<std::size_t>(static_cast<const char*>(colon) - prefix);
      break;
    }
    if (static_cast<std::size_t>(n) == sizeof prefix) return -1;
    // Only part of the prefix has arrived: wait for the rest.
    if (recv(fd, prefix, static_cast<std::size_t>(n) + 1, MSG_PEEK | MSG_WAITALL) <= 0) return -1;
  }
  const std::string_view length_text(prefix, digits);
  if (!AllDigits(length_text) || digits > 7) return -1;
  std::size_t length = 0;
  for (char c : length_text) length = length * 10 + static_cast<std::size_t>(c - '0');
  if (length > kMaxScgiHeaderBytes) return -1;
  std::string netstring(digits + 1 + length + 1, '\0');
  if (!ReadExactly(fd, netstring.data(), netstring.size()) || netstring.back() != ',') return -1;
  return ParseScgiHeaders(std::string_view(netstring).substr(digits + 1, length), out);
}

}  // namespace kstxentry
