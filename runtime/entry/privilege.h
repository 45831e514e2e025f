// The identities entry.cgi runs under: started setuid root, it keeps real and
// saved uid 0 and works with the service account's effective ids, raising
// them to root only for the few steps that need it.
#pragma once

#include <sys/types.h>

namespace kstxentry {

constexpr const char* kRuntimeConf = "/usr/kstx/webapi/runtime.conf";
constexpr const char* kServiceAccount = "tidepool";

struct ServiceIds {
  uid_t uid = 0;
  gid_t gid = 0;
};

// The service account's ids from runtime.conf, else from the account
// database. 0 or -1.
int LoadServiceIds(ServiceIds& ids);

// Real and saved ids become 0, effective ids those of `ids`, and the
// supplementary groups the service group alone. 0 or -1. A process that was
// not started with root rights keeps its ids and gets 1.
int LowerToService(const ServiceIds& ids);

// Effective root for the life of the scope, then back to the ids before it.
class RootScope {
 public:
  RootScope();
  ~RootScope();
  RootScope(const RootScope&) = delete;
  RootScope& operator=(const RootScope&) = delete;
  bool ok() const { return ok_; }

 private:
  uid_t uid_;
  gid_t gid_;
  bool ok_;
};

}  // namespace kstxentry
