#include "session.h"

#include <dirent.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kstxentry {
namespace {

std::string SessionPath(const std::string& sid) { return std::string(kSessionDir) + "/" + sid; }

bool ParseUnsigned(const char* text, unsigned long long max, unsigned long long& out) {
  if (*text < '0' || *text > '9') return false;
  char* end = nullptr;
  out = std::strtoull(text, &end, 10);
  return *end == '\0' && out <= max;
}

bool IsLowerHex(std::string_view text, std::size_t size) {
  if (text.size() != size) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

}  // namespace

bool TokenMatches(const std::string& token, std::string_view sent) {
  if (token.size() != kTokenChars || sent.size() != kTokenChars) return false;
  return sodium_memcmp(token.data(), sent.data(), kTokenChars) == 0;
}

bool IsValidSid(std::string_view sid) { return IsLowerHex(sid, 32); }

int ReadIdleMinutes() {
  int minutes = kDefaultIdleMinutes;
  FILE* f = std::fopen(kWebapiConf, "re");
  if (f == nullptr) return minutes;
  char line[256];
  unsigned long long value = 0;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    line[std::strcspn(line, "\r\n")] = '\0';
    constexpr const char kKey[] = "session_idle_minutes=";
    if (std::strncmp(line, kKey, sizeof kKey - 1) == 0 &&
        ParseUnsigned(line + sizeof kKey - 1, 1000000, value) && value > 0) {
      minutes = static_cast<int>(value);
    }
  }
  std::fclose(f);
  return minutes;
}

int LoadSession(const std::string& sid, int idle_minutes, Session& out) {
  if (!IsValidSid(sid)) return -1;
  const std::string path = SessionPath(sid);
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return -1;
  struct stat st;
  char buffer[1024];
  ssize_t n = -1;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) n = read(fd, buffer, sizeof buffer - 1);
  if (n <= 0) {
    close(fd);
    return -1;
  }
  buffer[n] = '\0';
  Session session;
  bool have_user = false, have_uid = false;
  unsigned long long value = 0;
  for (char* line = std::strtok(buffer, "\n"); line != nullptr; line = std::strtok(nullptr, "\n")) {
    if (std::strncmp(line, "user=", 5) == 0) {
      session.user = line + 5;
      have_user = !session.user.empty();
    } else if (std::strncmp(line, "uid=", 4) == 0 && ParseUnsigned(line + 4, 0xffffffffu, value)) {
      session.uid = static_cast<uint32_t>(value);
      have_uid = true;
    } else if (std::strcmp(line, "admin=1") == 0) {
      session.is_admin = true;
    } else if (std::strncmp(line, "token=", 6) == 0 && IsLowerHex(line + 6, kTokenChars)) {
      session.token = line + 6;
    }
  }
  if (!have_user || !have_uid) {
    close(fd);
    return -1;
  }
  out = session;
  const time_t now = time(nullptr);
  if (now - st.st_mtime > static_cast<time_t>(idle_minutes) * 60) {
    close(fd);
    return 1;
  }
  futimens(fd, nullptr);  // the last use is now
  close(fd);
  return 0;
}

int CreateSession(Session& session, std::string& sid) {
  if (sodium_init() < 0) return -1;
  unsigned char token[kTokenChars / 2];
  randombytes_buf(token, sizeof token);
  char token_hex[kTokenChars + 1];
  sodium_bin2hex(token_hex, sizeof token_hex, token, sizeof token);
  session.token = token_hex;
  unsigned char random[16];
  if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) return -1;
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (unsigned char b : random) {
    id.push_back(kHex[b >> 4]);
    id.push_back(kHex[b & 15]);
  }
  mkdir(kSessionDir, 0700);
  const std::string path = SessionPath(id);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  const std::string text = "user=" + session.user + "\nuid=" + std::to_string(session.uid) +
                           "\nadmin=" + (session.is_admin ? "1" : "0") +
                           "\ntoken=" + session.token + "\n";
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !ok) {
    unlink(path.c_str());
    return -1;
  }
  sid = std::move(id);
  return 0;
}

int RemoveSession(const std::string& sid) {
  if (!IsValidSid(sid)) return -1;
  return unlink(SessionPath(sid).c_str()) == 0 ? 0 : -1;
}

void PurgeSessions(time_t max_idle_seconds) {
  const int dir_fd = open(kSessionDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd < 0) return;
  DIR* dir = fdopendir(dir_fd);
  if (dir == nullptr) {
    close(dir_fd);
    return;
  }
  const time_t now = time(nullptr);
  while (const dirent* entry = readdir(dir)) {
    if (!IsValidSid(entry->d_name)) continue;
    struct stat st;
    if (fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        now - st.st_mtime > max_idle_seconds) {
      unlinkat(dir_fd, entry->d_name, 0);
    }
  }
  closedir(dir);
}

std::string CookieValue(const char* header, std::string_view name) {
  if (header == nullptr) return {};
  std::string_view rest(header);
  while (!rest.empty()) {
    const std::size_t semi = rest.find(';');
    std::string_view pair = rest.substr(0, semi);
    rest = semi == std::string_view::npos ? std::string_view() : rest.substr(semi + 1);
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    const std::size_t eq = pair.find('=');
    if (eq != std::string_view::npos && pair.substr(0, eq) == name) {
      return std::string(pair.substr(eq + 1));
    }
  }
  return {};
}

}  // namespace kstxentry
