// The appliance's cache of names that are slow to ask the system for: the
// host's shares and the domains of its directory service.
//
// This host's cache is files: the shares come from the account directory;
// the domain names from /usr/kstx/etc/cache/domain_names, one a line, which
// the directory service writes when it joins a domain. A host that never
// joined one has no such file, and no domain names.
#pragma once

#include <list>
#include <string>

class CacheIPC {
 public:
  // The process-wide client.
  static CacheIPC* GetInstance();

  // Names of all local shares, "homes" among them. 0, or -1 when the
  // directory cannot be read (the list is then untouched).
  int ListShareName(std::list<std::string>& out);
  // The domain names. 0 (an empty list without a domain), or -1 when the
  // cached list cannot be read (the list is then untouched).
  int ListDomainName(std::list<std::string>& out);

 private:
  CacheIPC() = default;
};
