#include "run-as.h"

#include <syslog.h>
#include <unistd.h>

RunAsScope::RunAsScope(uid_t uid, gid_t gid, const char* file, int line, const char* name)
    : saved_uid_(geteuid()), saved_gid_(getegid()), file_(file), line_(line), name_(name) {
  if (saved_uid_ == uid && saved_gid_ == gid) {
    active_ = true;
    return;
  }
  // The group can only be changed with root's rights, hence root first and
  // the target user last.
  const bool ok = (geteuid() == 0 || setresuid(-1, 0, -1) == 0) &&
                  (getegid() == gid || setresgid(-1, gid, -1) == 0) &&
                  (geteuid() == uid || setresuid(-1, uid, -1) == 0);
  if (!ok) {
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", file_, line_, name_,
           static_cast<int>(uid), static_cast<int>(gid));
    return;
  }
  active_ = true;
}

RunAsScope::~RunAsScope() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == saved_uid_ && gid == saved_gid_) return;
  bool ok = true;
  if (uid != 0 && uid != saved_uid_) ok = setresuid(-1, 0, -1) == 0 && ok;
  if (gid != saved_gid_ && saved_gid_ != static_cast<gid_t>(-1))
    ok = setresgid(-1, saved_gid_, -1) == 0 && ok;
  if (geteuid() != saved_uid_ && saved_uid_ != static_cast<uid_t>(-1))
    ok = setresuid(-1, saved_uid_, -1) == 0 && ok;
  if (!ok) {
    syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", file_, line_, name_,
           static_cast<int>(saved_uid_), static_cast<int>(saved_gid_));
  }
}
