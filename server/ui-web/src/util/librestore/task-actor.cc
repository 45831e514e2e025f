#include "task-actor.h"

#include "host-accounts.h"
#include "user-manager.h"
#include "utils.h"

namespace tidepool::restore {

TaskActor::TaskActor(ACTION action, const std::string& user, unsigned int uid)
    : action_(action), user_(user), uid_(uid), gid_(0) {
  UserInfo info;
  if (UserManager::GetUser(user, uid, info, 0) < 1) {
    RESTORE_ERR("Failed to GetUser %s %d", user.c_str(), static_cast<int>(uid));
    return;
  }
  // The sync service's record names the person; the primary group is the
  // appliance's.
  hostaccounts::User account;
  if (hostaccounts::LookUpUser(user, account) < 0) {
    RESTORE_ERR("Failed to GetUser %s %d", user.c_str(), static_cast<int>(uid));
    return;
  }
  gid_ = account.gid;
}

}  // namespace tidepool::restore
