// The package's logger: lines go to syslog and to the package's log file
// (/var/packages/Tidepool/var/log/tidepool.log). The level of each component
// comes from the debug settings file given to Initialize, read once per
// process when the first line is tested:
//
//   # comment
//   default_component=7      level for one component
//   *=4                      level for every other component
//
// Levels: 2 CRIT, 3 ERROR, 4 WARNING, 6 INFO, 7 DEBUG. Without a file (or a
// matching line) the level is 4. A line that cannot be written is dropped.
#pragma once

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

namespace Logger {

void Initialize(int type, const std::string& name, const std::string& debug_settings_path,
                int reserved, int safety_scope);
bool IsNeedToLog(int level, const std::string& component);
void LogMsg(int level, const std::string& component, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Where lines go besides syslog; tests point it elsewhere.
std::string LogFilePath();

}  // namespace Logger

// The module's line prefix: "(pid:thread) [LEVEL] file(line): ".
#define TP_LOG(level, word, format, ...)                                                    \
  do {                                                                                      \
    if (Logger::IsNeedToLog(level, "default_component")) {                                  \
      Logger::LogMsg(level, "default_component", "(%5d:%5d) [" word "] %s(%d): " format,    \
                     static_cast<int>(getpid()), static_cast<int>(pthread_self() % 100000), \
                     __FILE_NAME__, __LINE__, ##__VA_ARGS__);                               \
    }                                                                                       \
  } while (0)

// The levels are syslog's numbers, and the logging macros below take the
// names of syslog's priority constants: those are given up in files that
// log through this header (use the numbers, 2 to 7, with syslog()).
#undef LOG_CRIT
#undef LOG_WARNING
#undef LOG_INFO
#undef LOG_DEBUG
#define LOG_CRIT(format, ...) TP_LOG(2, "CRIT", format, ##__VA_ARGS__)
#define LOG_ERROR(format, ...) TP_LOG(3, "ERROR", format, ##__VA_ARGS__)
#define LOG_WARNING(format, ...) TP_LOG(4, "WARNING", format, ##__VA_ARGS__)
#define LOG_INFO(format, ...) TP_LOG(6, "INFO", format, ##__VA_ARGS__)
#define LOG_DEBUG(format, ...) TP_LOG(7, "DEBUG", format, ##__VA_ARGS__)
