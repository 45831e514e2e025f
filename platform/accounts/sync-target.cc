#include "sync-target.h"

#include <vector>

bool SyncIsShareReq(const std::string& target) { return target.size() > 1 && target[0] == '@'; }

std::string SyncTargetNameGet(const std::string& target) {
  return SyncIsShareReq(target) ? target.substr(1) : target;
}

std::string NormalizePath(const std::string& path) {
  const bool absolute = !path.empty() && path[0] == '/';
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();  // never above the start
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  std::string out = absolute ? "/" : "";
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += '/';
    out += parts[i];
  }
  return out;
}
