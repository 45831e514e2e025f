// The directory services this host may belong to, and the cache of names the
// module lists. Both are files that the directory service (when there is
// one) writes; a plain host has none of them and so no domain or LDAP.
//
//   /usr/kstx/etc/directory.conf         domain_enabled="yes", ldap_enabled="yes",
//                                        ldap_domain="example.com"
//   /usr/kstx/etc/cache/domain_names     one domain name a line
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <sstream>

#include "cache-ipc.h"
#include "directory-read.h"
#include "keyvalue-file.h"
#include "sdk.h"

namespace {

constexpr const char* kDirectoryConf = "/usr/kstx/etc/directory.conf";
constexpr const char* kDomainNames = "/usr/kstx/etc/cache/domain_names";

std::string DirectorySetting(const std::string& key) {
  std::map<std::string, std::string> values;
  if (!tpsys::ReadKeyValues(kDirectoryConf, values)) return "";
  return values[key];
}

std::string Trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  const auto end = text.find_last_not_of(" \t\r");
  return text.substr(begin, end - begin + 1);
}

}  // namespace

namespace SDK {

bool LDAPService::IsServiceEnabled() const { return DirectorySetting("ldap_enabled") == "yes"; }

std::string LDAPService::GetDomainName() const { return DirectorySetting("ldap_domain"); }

bool DomainService::IsServiceEnabled() const { return DirectorySetting("domain_enabled") == "yes"; }

}  // namespace SDK

CacheIPC* CacheIPC::GetInstance() {
  static CacheIPC instance;
  return &instance;
}

int CacheIPC::ListShareName(std::list<std::string>& out) {
  std::list<std::string> names;
  const int rc = hostaccounts::WithDirectory([&](SQLite::Database& db) {
    SQLite::Statement query(db, "SELECT name FROM shares ORDER BY name_key");
    while (query.executeStep()) names.push_back(query.getColumn(0).getString());
    return 0;
  });
  if (rc < 0) return -1;
  // Homes are a share of the appliance like any other, though the directory
  // keeps them apart.
  names.push_back("homes");
  out.swap(names);
  return 0;
}

int CacheIPC::ListDomainName(std::list<std::string>& out) {
  std::string content;
  if (!tpsys::ReadWholeFile(kDomainNames, content)) {
    if (errno != ENOENT) return -1;
    out.clear();
    return 0;
  }
  std::list<std::string> names;
  std::istringstream lines(content);
  std::string line;
  while (std::getline(lines, line)) {
    line = Trim(line);
    if (!line.empty() && line[0] != '#') names.push_back(line);
  }
  out.swap(names);
  return 0;
}
