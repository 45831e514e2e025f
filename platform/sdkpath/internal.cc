#include "internal.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include "host-accounts.h"
#include "root-scope.h"

namespace sdkpath {

int IsAdministrator(uint32_t uid) {
  hostaccounts::RootScope root;  // the directory is root's alone
  try {
    SQLite::Database db(hostaccounts::kDefaultPath, SQLite::OPEN_READONLY, 5000);
    SQLite::Statement query(db,
                            "SELECT 1 FROM memberships m JOIN groups g ON g.gid = m.gid"
                            " WHERE g.name_key = ?1 AND m.uid = ?2");
    query.bind(1, hostaccounts::kAdministratorsGroup);
    query.bind(2, static_cast<int64_t>(uid));
    return query.executeStep() ? 1 : 0;
  } catch (const SQLite::Exception&) {
    return -1;
  }
}

bool SplitPath(const std::string& path, std::vector<std::string>& parts) {
  if (path.empty() || path[0] != '/') return false;
  std::vector<std::string> found;
  size_t pos = 0;
  while (pos < path.size()) {
    size_t next = path.find('/', pos + 1);
    if (next == std::string::npos) next = path.size();
    std::string part = path.substr(pos + 1, next - pos - 1);
    pos = next;
    if (part.empty()) continue;
    if (part == "." || part == "..") return false;
    found.push_back(std::move(part));
  }
  parts.swap(found);
  return true;
}

}  // namespace sdkpath
