// Shares of paths and users' levels on them, from the account directory.
// "homes" is not a directory record: it is the folder of all homes on a
// volume, and every user may write in it (each home's own mode and ACL then
// decide).
#include <strings.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "internal.h"
#include "platform-services.h"
#include "root-scope.h"
#include "sdk-path.h"
#include "sync-service.h"

namespace {

constexpr const char* kHomesShare = "homes";

bool IsVolumeName(const std::string& name) {
  constexpr std::string_view kPrefix = "volume";
  if (name.size() <= kPrefix.size() || name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
  return name.find_first_not_of("0123456789", kPrefix.size()) == std::string::npos;
}

bool IsFolder(const std::string& path) {
  hostaccounts::RootScope root;  // homes may be closed to the service account
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

namespace SDK {

std::string PathGetShareName(const std::string& path) {
  std::vector<std::string> parts;
  if (!sdkpath::SplitPath(path, parts) || parts.size() < 2 || !IsVolumeName(parts[0])) return "";
  const std::string share_path = "/" + parts[0] + "/" + parts[1];
  if (parts[1] == kHomesShare) return IsFolder(share_path) ? kHomesShare : "";
  Platform::Share share;
  if (Platform::ShareService(false).GetShare(parts[1], share) < 0) return "";
  // The look-up ignores case; the file system does not.
  if (share.GetPath() != share_path) return "";
  return share.GetDisplayName();
}

int GetSharePrivilege(const std::string& share_name, const std::string& user) {
  Platform::User account;
  if (Platform::UserService().GetUser(user, account) < 0) return -1;
  const bool homes = strcasecmp(share_name.c_str(), kHomesShare) == 0;
  Platform::Share share;
  if (!homes && Platform::ShareService(false).GetShare(share_name, share) < 0) return -1;
  const int admin = sdkpath::IsAdministrator(account.GetID());
  if (admin < 0) return -1;
  if (admin == 1) return kShareFull;
  if (homes) return kShareReadWrite;
  const Platform::SharePrivilege level = share.GetPrivilege(account);
  if (level.IsReadWrite()) return kShareReadWrite;
  if (level.IsReadOnly()) return kShareReadOnly;
  return kShareNoAccess;
}

bool IsLocalHomeServiceEnabled() { return ServiceIsHomeServiceEnabled(0); }
bool IsLdapHomeServiceEnabled() { return ServiceIsHomeServiceEnabled(2); }
bool IsDomainHomeServiceEnabled() { return ServiceIsHomeServiceEnabled(3); }

}  // namespace SDK
