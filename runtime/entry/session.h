// Web login sessions: one file per session, /usr/kstx/etc/sessions/<sid>,
// holding the identity taken at login and the session's request token; its
// mtime is the time of last use. The account's standing (disabled, expired,
// administrator) is not trusted from here: it is read anew on every request.
// All functions touch root-owned files: call them inside a RootScope.
#pragma once

#include <cstddef>
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
  bool is_admin = false;  // at login; see above
  std::string token;      // kTokenChars lowercase hex characters
};

constexpr std::size_t kTokenChars = 64;

// 32 lowercase hex characters.
bool IsValidSid(std::string_view sid);

// True when `sent` is the session's token; the comparison takes the same time
// whatever the position of the first difference.
bool TokenMatches(const std::string& token, std::string_view sent);

// session_idle_minutes of webapi.conf, or the default.
int ReadIdleMinutes();

// 0 for a live session (its mtime is refreshed), 1 for one idle longer than
// `idle_minutes` (left as it is), -1 when there is none or it is unreadable.
int LoadSession(const std::string& sid, int idle_minutes, Session& out);

// Writes a new session with a fresh token (stored into `session.token`) and
// returns its sid. 0 or -1.
int CreateSession(Session& session, std::string& sid);

// 0, or -1 when there was nothing to remove.
int RemoveSession(const std::string& sid);

// Removes the sessions idle for more than `max_idle_seconds`.
void PurgeSessions(time_t max_idle_seconds);

// The value of cookie `name` in an HTTP Cookie header, or empty.
std::string CookieValue(const char* header, std::string_view name);

}  // namespace kstxentry
