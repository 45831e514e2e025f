// The appliance's cache of its shares and domains, as one process-wide
// client. Results: 0 or more on success, negative when the cache cannot be
// read (the list is then left as it was).
#pragma once

#include <list>
#include <string>

class CacheIPC {
 public:
  static CacheIPC* GetInstance();

  // The names of every local share, "homes" among them, in the order of
  // their lower-case names.
  int ListShareName(std::list<std::string>& out);
  // The names of the joined domains; this host joins none.
  int ListDomainName(std::list<std::string>& out);

 private:
  CacheIPC() = default;
};
