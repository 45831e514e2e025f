// The daemon's requests: one handler per "op", found in a table.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>

namespace driftway {

// Called after a user or share was enabled or disabled, so that its watch
// starts or stops at once.
void SetViewsChangedHook(std::function<void()> hook);
// Called after one user was enabled (with the root of their view) or
// disabled, so that the watch of that one view starts or stops at once
// without re-reading every owner; without it the views-changed hook runs.
void SetUserChangedHook(
    std::function<void(uint64_t view_id, const std::string& root, bool enabled)> hook);
// Called after profiles changed: what their rules left out before may be
// versioned now, and the other way round.
void SetProfilesChangedHook(std::function<void()> hook);
// What "status" adds about watching and versioning.
void SetStatusHook(std::function<Json::Value()> hook);

// Answers one request line (an encoded answer with its newline). A line that
// is not a JSON object with a text "op" sets `close_after`.
std::string DispatchLine(const std::string& line, bool& close_after);

}  // namespace driftway
