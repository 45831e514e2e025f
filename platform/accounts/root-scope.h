// The directory file is root's alone, yet the SDK calls come from processes
// that run with the service account's effective uid and keep root as their
// real or saved uid (entry.cgi, the daemon). A RootScope raises the effective
// uid to 0 for one directory look-up and gives back the uid it found. This is
// process-wide, which is safe because those callers make these calls from a
// single thread.
#pragma once

#include <unistd.h>

#include <cstdlib>

namespace hostaccounts {

class RootScope {
 public:
  RootScope() : saved_(geteuid()) {
    if (saved_ != 0) raised_ = setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) == 0;
  }
  ~RootScope() {
    // Going on with root's rights after a failed return would be worse than
    // stopping.
    if (raised_ && setresuid(static_cast<uid_t>(-1), saved_, static_cast<uid_t>(-1)) != 0) {
      std::abort();
    }
  }
  RootScope(const RootScope&) = delete;
  RootScope& operator=(const RootScope&) = delete;

 private:
  uid_t saved_;
  bool raised_ = false;
};

}  // namespace hostaccounts
