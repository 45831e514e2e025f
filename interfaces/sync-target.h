// The `target` texts of web-API calls and the paths shown with them.
#pragma once

#include <string>

// "@<share>" names a share; any other text the caller's own home. True for
// "@" followed by at least one character.
bool SyncIsShareReq(const std::string& target);
// The share's name: the text after "@" for a share request, the text itself
// otherwise.
std::string SyncTargetNameGet(const std::string& target);
// The path with doubled and trailing separators removed and "." and ".."
// resolved; ".." never climbs above the start ("/.." is "/", "a/../.." is
// ""). A path that began with "/" keeps it; "" stays "".
std::string NormalizePath(const std::string& path);
