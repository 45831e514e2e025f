#include "privilege.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kstxentry {
namespace {

bool ParseId(const char* text, unsigned long& out) {
  char* end = nullptr;
  out = std::strtoul(text, &end, 10);
  return end != text && (*end == '\0' || *end == '\n');
}

}  // namespace

int LoadServiceIds(ServiceIds& ids) {
  // runtime.conf is written at install time so that a request does not pay
  // for an NSS lookup.
  if (FILE* f = std::fopen(kRuntimeConf, "re")) {
    bool have_uid = false, have_gid = false;
    char line[128];
    unsigned long value = 0;
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::strncmp(line, "service_uid=", 12) == 0 && ParseId(line + 12, value)) {
        ids.uid = static_cast<uid_t>(value);
        have_uid = true;
      } else if (std::strncmp(line, "service_gid=", 12) == 0 && ParseId(line + 12, value)) {
        ids.gid = static_cast<gid_t>(value);
        have_gid = true;
      }
    }
    std::fclose(f);
    if (have_uid && have_gid && ids.uid != 0) return 0;
  }
  const passwd* pw = getpwnam(kServiceAccount);
  if (pw == nullptr || pw->pw_uid == 0) return -1;
  ids.uid = pw->pw_uid;
  ids.gid = pw->pw_gid;
  return 0;
}

int LowerToService(const ServiceIds& ids) {
  if (geteuid() != 0) return 1;
  if (setgroups(1, &ids.gid) != 0) return -1;
  if (setresgid(0, ids.gid, 0) != 0) return -1;
  if (setresuid(0, ids.uid, 0) != 0) return -1;
  // Believe the kernel's answer, not the calls': a request must never go on
  // with more rights than the service account's.
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0) return -1;
  return euid == ids.uid && egid == ids.gid ? 0 : -1;
}

RootScope::RootScope() : uid_(geteuid()), gid_(getegid()) {
  ok_ = uid_ == 0 || (seteuid(0) == 0 && setegid(0) == 0);
  // Half raised is not raised; the destructor puts back what changed.
}

RootScope::~RootScope() {
  if (uid_ == 0) return;
  // The group first: once the uid is lowered the gid can no longer change.
  if (setegid(gid_) != 0 || seteuid(uid_) != 0 || geteuid() != uid_ || getegid() != gid_) {
    std::abort();  // never run on with root by accident
  }
}

}  // namespace kstxentry
