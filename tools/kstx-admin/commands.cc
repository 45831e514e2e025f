#include "commands.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace kstxadmin {
namespace {

using hostaccounts::HostAccounts;
using hostaccounts::SharePermission;

const char* Reason(int rc) {
  switch (rc) {
    case hostaccounts::kErrNotFound:
      return "not found";
    case hostaccounts::kErrExists:
      return "already exists";
    case hostaccounts::kErrInvalid:
      return "invalid name or value";
    default:
      return "the account directory could not be read or written";
  }
}

// One message for every failed directory call: what was asked, and why not.
int Report(int rc, const std::string& what) {
  if (rc >= 0) return kOk;
  fprintf(stderr, "kstx-admin: %s: %s\n", what.c_str(), Reason(rc));
  return kBadInput;
}

int BadInput(const std::string& message) {
  fprintf(stderr, "kstx-admin: %s\n", message.c_str());
  return kBadInput;
}

bool Has(const Invocation& in, const char* option) { return in.options.count(option) != 0; }

bool ParseUnsigned(const std::string& text, unsigned long long max, unsigned long long& out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  out = strtoull(text.c_str(), nullptr, 10);
  return errno == 0 && out <= max;
}

// "never", a day count since the epoch, or a date YYYY-MM-DD (UTC).
bool ParseDay(const std::string& text, int64_t& day) {
  if (text == "never") {
    day = 0;
    return true;
  }
  unsigned long long number = 0;
  if (ParseUnsigned(text, 10000000, number)) {
    day = static_cast<int64_t>(number);
    return true;
  }
  struct tm date {};
  const char* end = strptime(text.c_str(), "%Y-%m-%d", &date);
  if (end == nullptr || *end != '\0') return false;
  day = static_cast<int64_t>(timegm(&date)) / 86400;
  return day > 0;
}

std::string FormatDay(int64_t day) {
  if (day == 0) return "never";
  const time_t seconds = static_cast<time_t>(day) * 86400;
  struct tm date {};
  gmtime_r(&seconds, &date);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%d", &date);
  return text;
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

std::string Describe(const Invocation& in, const char* verb) {
  std::string text = verb;
  for (const auto& arg : in.args) text += " " + arg;
  return text;
}

int UserAdd(Invocation& in) {
  if (!Has(in, "--password")) return BadInput("user add: missing --password");
  unsigned long long uid = 0;
  if (Has(in, "--uid") && (!ParseUnsigned(in.options["--uid"], INT32_MAX, uid) || uid == 0)) {
    return BadInput("user add: bad uid '" + in.options["--uid"] + "'");
  }
  return Report(
      in.accounts->AddUser(in.args[0], in.options["--password"], static_cast<uint32_t>(uid)),
      Describe(in, "user add"));
}

int UserDel(Invocation& in) {
  return Report(in.accounts->DeleteUser(in.args[0]), Describe(in, "user del"));
}

int UserPasswd(Invocation& in) {
  return Report(in.accounts->SetPassword(in.args[0], in.args[1]), "user passwd " + in.args[0]);
}

int UserList(Invocation& in) {
  std::vector<hostaccounts::User> users;
  const int rc = in.accounts->ListUsers(users);
  if (rc < 0) return Report(rc, "user list");
  printf("uid\tname\thome\tdisabled\texpire\tprivilege\tadmin\n");
  for (const auto& user : users) {
    printf("%u\t%s\t%s\t%s\t%s\t%s\t%s\n", user.uid, user.name.c_str(), user.home.c_str(),
           YesNo(user.disabled), FormatDay(user.expire_day).c_str(),
           user.app_allowed ? "allow" : "deny", YesNo(in.accounts->IsAdmin(user.name)));
  }
  return kOk;
}

int UserDisable(Invocation& in) {
  return Report(in.accounts->SetDisabled(in.args[0], true), Describe(in, "user disable"));
}

int UserEnable(Invocation& in) {
  return Report(in.accounts->SetDisabled(in.args[0], false), Describe(in, "user enable"));
}

int UserExpire(Invocation& in) {
  int64_t day = 0;
  if (!ParseDay(in.args[1], day)) {
    return BadInput("user expire: bad day '" + in.args[1] + "' (YYYY-MM-DD, days, or never)");
  }
  return Report(in.accounts->SetExpireDay(in.args[0], day), Describe(in, "user expire"));
}

int UserPrivilege(Invocation& in) {
  if (Has(in, "--allow") == Has(in, "--deny")) {
    return BadInput("user privilege: give one of --allow and --deny");
  }
  return Report(in.accounts->SetAppPrivilege(in.args[0], Has(in, "--allow")),
                Describe(in, "user privilege"));
}

int GroupAdd(Invocation& in) {
  return Report(in.accounts->AddGroup(in.args[0]), Describe(in, "group add"));
}

int GroupMember(Invocation& in) {
  const std::string& group = in.args[0];
  const std::string& user = in.args[1];
  const int rc = Has(in, "--remove") ? in.accounts->RemoveGroupMember(group, user)
                                     : in.accounts->AddGroupMember(group, user);
  return Report(rc, Describe(in, "group member"));
}

int ShareAdd(Invocation& in) {
  if (!Has(in, "--volume")) return BadInput("share add: missing --volume");
  hostaccounts::Share share;
  share.name = in.args[0];
  share.volume = in.options["--volume"];
  if (!Has(in, "--encrypted")) {
    if (Has(in, "--passphrase")) return BadInput("share add: --passphrase needs --encrypted");
    return Report(in.accounts->AddShare(share), Describe(in, "share add") + " on " + share.volume);
  }
  // A share encrypted under nothing could never be unlocked again.
  if (!Has(in, "--passphrase") || in.options["--passphrase"].empty())
    return BadInput("share add: an encrypted share needs --passphrase");
  return Report(in.accounts->AddEncryptedShare(share, in.options["--passphrase"]),
                Describe(in, "share add") + " on " + share.volume);
}

int ShareUnlock(Invocation& in) {
  if (!Has(in, "--passphrase")) return BadInput("share unlock: missing --passphrase");
  const int rc = in.accounts->UnlockShare(in.args[0], in.options["--passphrase"]);
  if (rc == hostaccounts::kErrInvalid)
    return BadInput("share unlock " + in.args[0] + ": wrong passphrase");
  if (rc == hostaccounts::kErrNotFound)
    return BadInput("share unlock " + in.args[0] + ": no such encrypted share");
  return Report(rc, "share unlock " + in.args[0]);
}

int ShareLock(Invocation& in) {
  const int rc = in.accounts->LockShare(in.args[0]);
  if (rc == hostaccounts::kErrNotFound)
    return BadInput("share lock " + in.args[0] + ": no such encrypted share");
  return Report(rc, "share lock " + in.args[0]);
}

int ShareList(Invocation& in) {
  std::vector<hostaccounts::Share> shares;
  const int rc = in.accounts->ListShares(shares);
  if (rc < 0) return Report(rc, "share list");
  printf("name\tvolume\tpath\tencrypted\tmounted\n");
  for (const auto& share : shares) {
    printf("%s\t%s\t%s\t%s\t%s\n", share.name.c_str(), share.volume.c_str(), share.path.c_str(),
           YesNo(share.encrypted), YesNo(share.mounted));
  }
  return kOk;
}

int SharePerm(Invocation& in) {
  static const std::map<std::string, SharePermission> kPermissions = {
      {"ro", SharePermission::kReadOnly},
      {"rw", SharePermission::kReadWrite},
      {"none", SharePermission::kNone},
  };
  const auto it = kPermissions.find(in.args[2]);
  if (it == kPermissions.end()) {
    return BadInput("share perm: bad permission '" + in.args[2] + "' (ro, rw or none)");
  }
  return Report(in.accounts->SetSharePermission(in.args[0], in.args[1], it->second),
                Describe(in, "share perm"));
}

int VolumeAdd(Invocation& in) {
  hostaccounts::Volume volume;
  volume.path = in.args[0];
  return Report(in.accounts->AddVolume(volume), Describe(in, "volume add"));
}

int VolumeList(Invocation& in) {
  std::vector<hostaccounts::Volume> volumes;
  const int rc = in.accounts->ListVolumes(volumes);
  if (rc < 0) return Report(rc, "volume list");
  printf("id\tpath\ttype\twritable\tdescription\n");
  for (const auto& volume : volumes) {
    printf("%d\t%s\t%d\t%s\t%s\n", volume.id, volume.path.c_str(), volume.type,
           YesNo(volume.writable), volume.description.c_str());
  }
  return kOk;
}

}  // namespace

const std::vector<Command>& Commands() {
  static const std::vector<Command> kCommands = {
      {"user",
       "add",
       1,
       1,
       {{"--password", true}, {"--uid", true}},
       "NAME --password PW [--uid N]",
       UserAdd},
      {"user", "del", 1, 1, {}, "NAME", UserDel},
      {"user", "passwd", 2, 2, {}, "NAME PW", UserPasswd},
      {"user", "list", 0, 0, {}, "", UserList},
      {"user", "disable", 1, 1, {}, "NAME", UserDisable},
      {"user", "enable", 1, 1, {}, "NAME", UserEnable},
      {"user", "expire", 2, 2, {}, "NAME YYYY-MM-DD|DAYS|never", UserExpire},
      {"user",
       "privilege",
       1,
       1,
       {{"--allow", false}, {"--deny", false}},
       "NAME --allow|--deny",
       UserPrivilege},
      {"group", "add", 1, 1, {}, "NAME", GroupAdd},
      {"group", "member", 2, 2, {{"--remove", false}}, "GROUP USER [--remove]", GroupMember},
      {"share",
       "add",
       1,
       1,
       {{"--volume", true}, {"--encrypted", false}, {"--passphrase", true}},
       "NAME --volume /volumeN [--encrypted --passphrase P]",
       ShareAdd},
      {"share", "unlock", 1, 1, {{"--passphrase", true}}, "NAME --passphrase P", ShareUnlock},
      {"share", "lock", 1, 1, {}, "NAME", ShareLock},
      {"share", "list", 0, 0, {}, "", ShareList},
      {"share", "perm", 3, 3, {}, "SHARE USER ro|rw|none", SharePerm},
      {"volume", "add", 1, 1, {}, "/volumeN", VolumeAdd},
      {"volume", "list", 0, 0, {}, "", VolumeList},
  };
  return kCommands;
}

}  // namespace kstxadmin
