// The package logger. Initialize runs on every request, so it only records
// where the level settings are; the file is read once per process, when the
// first line is tested. Each line is written with a single write() on an
// O_APPEND descriptor so that lines of concurrent processes never interleave.
#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

#include "logger-impl.h"

namespace Logger {
namespace {

constexpr int kDefaultLevel = 4;
constexpr const char* kPackageLogFile = "/var/packages/Tidepool/var/log/tidepool.log";
// The package's level settings, for programs that log before (or without)
// calling Initialize.
constexpr const char* kPackageSettings = "/var/packages/Tidepool/target/etc/syncfolder.debug";

struct State {
  std::mutex mutex;
  std::string settings_path = kPackageSettings;
  std::string log_file;  // empty: the package's file
  bool levels_loaded = false;
  std::map<std::string, int> levels;  // component -> level; "*" for the rest
  bool syslog_open = false;
};

State& GetState() {
  static State* state = new State;  // never destroyed: lines may be logged at exit
  return *state;
}

std::string Trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  const auto end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// Lines "component=level"; comments and lines that don't parse are skipped.
void LoadLevels(State& state) {
  state.levels_loaded = true;
  state.levels.clear();
  if (state.settings_path.empty()) return;
  std::ifstream in(state.settings_path);
  std::string line;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string component = Trim(line.substr(0, eq));
    std::string value = Trim(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    char* end = nullptr;
    const long level = strtol(value.c_str(), &end, 10);
    if (component.empty() || value.empty() || *end != '\0') continue;
    state.levels[component] = static_cast<int>(level);
  }
}

int LevelOf(State& state, const std::string& component) {
  if (!state.levels_loaded) LoadLevels(state);
  auto it = state.levels.find(component);
  if (it != state.levels.end()) return it->second;
  it = state.levels.find("*");
  return it != state.levels.end() ? it->second : kDefaultLevel;
}

// The logger's levels are syslog's priority numbers (2 critical to 7 debug);
// the names are taken by the logging macros of logger.h.
int SyslogPriority(int level) { return level < 2 ? 2 : (level > 7 ? 7 : level); }

int OpenLogFile(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 && errno == ENOENT) {
    // The folder is made on the first line; a failure drops the line.
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
      for (size_t i = 1; i <= slash; ++i) {
        if (i == slash || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
      }
    }
    fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  }
  return fd;
}

void AppendLine(const std::string& path, const std::string& line) {
  // The log is the package's (root's), while a web request works with the
  // service account's effective ids and keeps root as its real uid: the file
  // is opened with root's rights, and the line written through that handle.
  const uid_t euid = geteuid();
  const bool raised = euid != 0 && getuid() == 0 && setresuid(-1, 0, -1) == 0;
  const int fd = OpenLogFile(path);
  if (raised && setresuid(-1, euid, -1) != 0) abort();
  if (fd < 0) return;
  const ssize_t written = write(fd, line.data(), line.size());
  (void)written;  // a short or failed write loses the line, never the caller's request
  close(fd);
}

}  // namespace

void Initialize(int, const std::string&, const std::string& debug_settings_path, int, int) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.settings_path != debug_settings_path) {
    state.settings_path = debug_settings_path;
    state.levels_loaded = false;
  }
}

bool IsNeedToLog(int level, const std::string& component) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return level <= LevelOf(state, component);
}

void LogMsg(int level, const std::string& component, const char* format, ...) {
  char buffer[4096];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  if (length < 0) return;
  std::string line(buffer, std::min<size_t>(static_cast<size_t>(length), sizeof(buffer) - 1));
  if (line.empty() || line.back() != '\n') line.push_back('\n');

  State& state = GetState();
  std::string path;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.syslog_open) {
      openlog("tidepool", LOG_PID, LOG_USER);
      state.syslog_open = true;
    }
    path = state.log_file.empty() ? kPackageLogFile : state.log_file;
  }
  syslog(SyslogPriority(level), "%.*s", static_cast<int>(line.size() - 1), line.c_str());
  AppendLine(path, line);
}

std::string LogFilePath() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.log_file.empty() ? kPackageLogFile : state.log_file;
}

void TEST_SetLogFilePath(const std::string& path) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.log_file = path;
}

void TEST_ResetLevels() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.levels_loaded = false;
}

}  // namespace Logger
