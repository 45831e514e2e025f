// Helpers for tests that run inside scripts/sandbox, where the appliance's
// fixed paths are private to the test binary.
#pragma once

#include <string>

namespace tptest {

// True inside a sandbox (the marker file /usr/kstx/.sandbox exists).
bool InSandbox();

// Empties the data of the fixed paths (accounts, settings, volumes, /tmp
// contents of the system) but keeps the installed programs.
void ResetSandboxData();

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);  // creates folders

}  // namespace tptest
