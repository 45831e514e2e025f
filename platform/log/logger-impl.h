// Test hooks of the package logger; nothing outside platform/log and its
// tests names these.
#pragma once

#include <string>

namespace Logger {

// Sends lines to `path` instead of the package's log file; an empty path
// restores the default.
void TEST_SetLogFilePath(const std::string& path);
// Forgets the levels read so far, so that the next test reads the settings
// file again.
void TEST_ResetLevels();

}  // namespace Logger
