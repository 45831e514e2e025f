// Helpers shared by the path answers of this folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sdkpath {

// 1 when the user is a member of "administrators", 0 when not, negative when
// the directory cannot be read. Read without loading the full directory (no
// password hashing, no ICU).
int IsAdministrator(uint32_t uid);

// "/volume1/team/a" -> {"volume1", "team", "a"}; false for a relative path or
// one with "." or ".." in it, which could name a place other than it seems.
bool SplitPath(const std::string& path, std::vector<std::string>& parts);

}  // namespace sdkpath
