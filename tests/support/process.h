// Running programs from tests: arguments, environment, input, and what they
// printed.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tptest {

struct ProcessResult {
  int exit_status = -1;  // the exit code, or 128 + signal
  std::string out;
  std::string err;
};

// Runs `argv` with exactly `env` as its environment (empty: inherit) and
// `input` on standard input.
// With `as_uid` set, the child drops to that user (real and effective) first,
// as a web server's worker would run a program.
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         const std::string& input = "", int as_uid = -1);

// Whether what another process does in its own time happens: `done` is
// asked every 100 ms; the minute's limit only keeps a broken program from
// hanging the test.
bool Eventually(const std::function<bool()>& done);

// The installed driftway-control with these arguments.
ProcessResult RunControl(const std::vector<std::string>& args);
// Appends key="value" to the service's setting.conf.
void AppendSetting(const std::string& key, const std::string& value);

}  // namespace tptest
