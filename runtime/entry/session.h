// Web login sessions: one file per session, /usr/kstx/etc/sessions/<sid>,
// holding the identity taken at login; its mtime is the time of last use.
// All functions touch root-owned files: call them inside a RootScope.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace kstxentry {

constexpr const char* kSessionDir = "/usr/kstx/etc/sessions";
constexpr const char* kWebapiConf = "/usr/kstx/etc/webapi.conf";
constexpr int kDefaultIdleMinutes = 30;
// Sessions idle this long are removed when someone logs in.
constexpr time_t kSessionPurgeSeconds = 24 * 60 * 60;

struct Session {
  std::string user;
  uint32_t uid = 0;
  bool is_admin = false;
};

// 32 lowercase hex characters.
bool IsValidSid(std::string_view sid);

// session_idle_minutes of webapi.conf, or the default.
int ReadIdleMinutes();

// 0 for a live session (its mtime is refreshed), 1 for one idle longer than
// `idle_minutes` (left as it is), -1 when there is none or it is unreadable.
int LoadSession(const std::string& sid, int idle_minutes, Session& out);

// Writes a new session and returns its sid. 0 or -1.
int CreateSession(const Session& session, std::string& sid);

// 0, or -1 when there was nothing to remove.
int RemoveSession(const std::string& sid);

// Removes the sessions idle for more than `max_idle_seconds`.
void PurgeSessions(time_t max_idle_seconds);

// The value of cookie `name` in an HTTP Cookie header, or empty.
std::string CookieValue(const char* header, std::string_view name);

}  // namespace kstxentry
