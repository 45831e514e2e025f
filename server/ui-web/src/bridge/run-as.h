// A scope that changes the process's effective user and group and restores
// the ones it found at its end. Identity is process-wide, which is safe
// because a request runs on one thread from start to finish.
//
//   IF_RUN_AS(0, 0) {
//     ... runs as root ...
//   } else {
//     ... the switch failed ...
//   }
#pragma once

#include <sys/types.h>

class RunAsScope {
 public:
  RunAsScope(uid_t uid, gid_t gid, const char* file, int line, const char* name);
  ~RunAsScope();
  RunAsScope(const RunAsScope&) = delete;
  RunAsScope& operator=(const RunAsScope&) = delete;

  explicit operator bool() const { return active_; }

 private:
  uid_t saved_uid_;
  gid_t saved_gid_;
  const char* file_;
  int line_;
  const char* name_;
  bool active_ = false;
};

#define IF_RUN_AS(uid, gid) \
  if (RunAsScope run_as_scope_{(uid), (gid), __FILE__, __LINE__, "IF_RUN_AS"})
