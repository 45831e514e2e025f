// CacheIPC over the host account directory: this host keeps no cache
// daemon, so each listing is one read-only query.
#include "cache-ipc.h"

#include <SQLiteCpp/Statement.h>

#include "directory-read.h"

CacheIPC* CacheIPC::GetInstance() {
  static CacheIPC instance;
  return &instance;
}

int CacheIPC::ListShareName(std::list<std::string>& out) {
  std::list<std::string> names;
  const int rc = hostaccounts::WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db, "SELECT name FROM shares ORDER BY name_key");
    bool homes = false;
    while (query.executeStep()) {
      names.push_back(query.getColumn(0).getString());
      homes = homes || hostaccounts::AsciiLower(names.back()) == "homes";
    }
    // The folder of all homes is a share of the appliance even where the
    // directory does not list it.
    if (!homes) names.push_front("homes");
    return 0;
  });
  if (rc < 0) return rc;
  out.swap(names);
  return static_cast<int>(out.size());
}

int CacheIPC::ListDomainName(std::list<std::string>& out) {
  out.clear();
  return 0;
}
