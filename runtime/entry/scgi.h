// SCGI as lighttpd's mod_scgi speaks it: each connection starts with a
// netstring "LEN:NAME\0VALUE\0...NAME\0VALUE\0," of the request's CGI
// variables (CONTENT_LENGTH first, and "SCGI" "1"); the body follows, and the
// answer goes back on the same connection as a CGI program writes it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kstxentry {

using ScgiHeaders = std::vector<std::pair<std::string, std::string>>;

// lighttpd sends a few kilobytes; more is not a web server talking.
constexpr std::size_t kMaxScgiHeaderBytes = 256 * 1024;

// The variables of a netstring's content (what stands between ':' and ',').
// 0, or -1 for anything but well-formed SCGI: odd fields, an empty name or
// one with '=', a name given twice, CONTENT_LENGTH not first or not a
// number, "SCGI" not "1".
int ParseScgiHeaders(std::string_view content, ScgiHeaders& out);

// Reads the netstring from the socket `fd` and parses it, leaving every byte
// of the body unread. 0 or -1.
int ReadScgiHeaders(int fd, ScgiHeaders& out);

}  // namespace kstxentry
