// The daemon's requests: one handler per "op", found in a table.
#pragma once

#include <string>

namespace driftway {

// Answers one request line (an encoded answer with its newline). A line that
// is not a JSON object with a text "op" sets `close_after`.
std::string DispatchLine(const std::string& line, bool& close_after);

}  // namespace driftway
