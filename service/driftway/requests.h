// The daemon's requests: one handler per "op", found in a table.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

namespace driftway {

// Called after a user or share was enabled or disabled, so that its watch
// starts or stops at once.
void SetViewsChangedHook(std::function<void()> hook);
// What "status" adds about watching and versioning.
void SetStatusHook(std::function<Json::Value()> hook);

// Answers one request line (an encoded answer with its newline). A line that
// is not a JSON object with a text "op" sets `close_after`.
std::string DispatchLine(const std::string& line, bool& close_after);

}  // namespace driftway
