// Files of key="value" lines, shared by the system library's readers and
// writers. Writes replace the file atomically (a temporary file in the same
// folder, then rename), so a reader sees the old or the new file, never half.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tpsys {

// The value of every key; quotes around a value are removed. False when the
// file cannot be read.
bool ReadKeyValues(const std::string& path, std::map<std::string, std::string>& out);

// Sets the keys, keeping every other line as it is and appending new keys.
// Creates the file (and its folder) when missing. 0, or -1 on failure.
int SetKeyValues(const std::string& path,
                 const std::vector<std::pair<std::string, std::string>>& values);

// Replaces the whole content of `path`. 0, or -1 on failure.
int WriteFileAtomically(const std::string& path, const std::string& content, int mode = 0644);

// The whole file; false when it cannot be read (errno tells why).
bool ReadWholeFile(const std::string& path, std::string& out);

}  // namespace tpsys
