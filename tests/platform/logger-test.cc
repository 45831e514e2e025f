#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "logger-impl.h"
#include "logger.h"
#include "sandbox.h"

namespace {

using tptest::ReadFile;
using tptest::WriteFile;

constexpr const char* kSettings = "/var/packages/Tidepool/target/etc/syncfolder.debug";

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::ResetSandboxData();
    Logger::TEST_SetLogFilePath("");
    Logger::TEST_ResetLevels();
  }
  void TearDown() override { Logger::TEST_SetLogFilePath(""); }

  // Starts the logger as a request would, with these level settings.
  void Start(const std::string& settings) {
    if (!settings.empty()) WriteFile(kSettings, settings);
    Logger::Initialize(0, "tidepool", kSettings, 0, 0);
    Logger::TEST_ResetLevels();
  }
};

TEST_F(LoggerTest, LinesCarryTheModulePrefix) {
  Start("default_component=7\n");
  EXPECT_EQ(Logger::LogFilePath(), "/var/packages/Tidepool/var/log/tidepool.log");
  LOG_DEBUG("restored %d files of '%s'\n", 3, "alice");
  LOG_ERROR("no newline at the end");

  const std::string text = ReadFile(Logger::LogFilePath());
  const std::regex lines(
      R"(\(\s*\d+:\s*\d+\) \[DEBUG\] logger-test\.cc\(\d+\): restored 3 files of 'alice'\n)"
      R"(\(\s*\d+:\s*\d+\) \[ERROR\] logger-test\.cc\(\d+\): no newline at the end\n)");
  EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

TEST_F(LoggerTest, LevelsComeFromTheSettingsFile) {
  struct Case {
    const char* settings;
    const char* component;
    int level;
    bool logged;
  };
  const Case cases[] = {
      {"", "default_component", 4, true},  // no file: warnings and worse
      {"", "default_component", 6, false},
      {"*=2\n", "default_component", 2, true},
      {"*=2\n", "default_component", 3, false},
      {"default_component=3\n*=7\n", "default_component", 3, true},
      {"default_component=3\n*=7\n", "default_component", 4, false},
      {"default_component=3\n*=7\n", "other", 7, true},
      {"# default_component=7\nnonsense\ndefault_component = 6\n", "default_component", 6, true},
      {"# default_component=7\nnonsense\ndefault_component = 6\n", "default_component", 7, false},
      {"default_component=\"7\"\n", "default_component", 7, true},
  };
  for (const auto& c : cases) {
    tptest::ResetSandboxData();
    Start(c.settings);
    EXPECT_EQ(Logger::IsNeedToLog(c.level, c.component), c.logged)
        << "settings '" << c.settings << "', " << c.component << " at " << c.level;
  }
}

TEST_F(LoggerTest, SettingsAreReadOncePerProcess) {
  Start("default_component=3\n");
  WriteFile(kSettings, "default_component=7\n");  // before the first test: still counts
  EXPECT_TRUE(Logger::IsNeedToLog(7, "default_component"));
  WriteFile(kSettings, "default_component=2\n");  // after it: too late
  Logger::Initialize(0, "tidepool", kSettings, 0, 0);
  EXPECT_TRUE(Logger::IsNeedToLog(7, "default_component"));
}

TEST_F(LoggerTest, LogFileFolderIsMadeAndUnwritableFilesAreIgnored) {
  Start("*=7\n");
  Logger::TEST_SetLogFilePath("/tmp/deep/er/test.log");
  LOG_WARNING("first %s", "line");
  LOG_WARNING("second");
  const std::string text = ReadFile("/tmp/deep/er/test.log");
  EXPECT_NE(text.find("[WARNING]"), std::string::npos);
  EXPECT_NE(text.find(": first line\n"), std::string::npos);
  EXPECT_NE(text.find(": second\n"), std::string::npos);

  // A log that can't be written never stops the caller.
  WriteFile("/tmp/blocker", "a file where a folder should be");
  Logger::TEST_SetLogFilePath("/tmp/blocker/test.log");
  LOG_CRIT("dropped");
  SUCCEED();
}

}  // namespace
