#include "service-ops.h"

#include "driftway-protocol.h"
#include "host-accounts.h"
#include "logger.h"
#include "sync-service.h"
#include "user-manager.h"

namespace driftway {
namespace {

OpResult Failed(int code, std::string message) {
  LOG_ERROR("%s\n", message.c_str());
  return OpResult{code, std::move(message)};
}

}  // namespace

uint32_t UserTypeOf(const std::string& name) {
  if (name.find('\\') != std::string::npos) return 3;
  if (name.find('@') != std::string::npos) return 2;
  return 0;
}

std::string UserHomeRoot(const SyncConfigMgr& config, const std::string& user) {
  return config.GetSysShareBin() + "/homes/" + user + "/Tidepool";
}

OpResult EnableUser(const SyncConfigMgr& config, const std::string& name, uint32_t uid) {
  auto host = hostaccounts::HostAccounts::Open();
  if (!host) return Failed(kErrFailed, "cannot open the account directory");
  hostaccounts::User user;
  if (host->GetUser(name, user) < 0) return Failed(kErrNotFound, "no such user: " + name);
  if (uid != 0 && uid != user.uid)
    return Failed(kErrNotFound, "user " + name + " does not have uid " + std::to_string(uid));
  // The directory's spelling of the name is the one the service keeps.
  if (UserManager::EnableUser(user.name, user.uid, UserTypeOf(user.name),
                              UserHomeRoot(config, user.name)) < 0)
    return Failed(kErrFailed, "cannot enable user " + name);
  return {};
}

OpResult DisableUser(const std::string& name) {
  if (UserManager::DisableUser(name) < 0)
    return Failed(kErrNotFound, "user " + name + " is not known to the service");
  return {};
}

OpResult EnableShare(const std::string& share_name, const Rotation& rotation) {
  auto host = hostaccounts::HostAccounts::Open();
  if (!host) return Failed(kErrFailed, "cannot open the account directory");
  hostaccounts::Share share;
  if (host->GetShare(share_name, share) < 0)
    return Failed(kErrNotFound, "no such share: " + share_name);
  if (UserManager::EnableShare(share.name, share.path, share.encrypted) < 0)
    return Failed(kErrFailed, "cannot enable share " + share_name);
  UserInfo info;
  if (UserManager::GetShareUser(share.name, info) <= 0 || info.name.empty() ||
      UserManager::InsertRotateSettingTable(info.view_id, rotation.count, rotation.policy,
                                            rotation.days) < 0)
    return Failed(kErrFailed, "cannot set the rotation of share " + share_name);
  return {};
}

OpResult DisableShare(const std::string& share) {
  if (UserManager::DisableShare(share) < 0)
    return Failed(kErrNotFound, "share " + share + " is not known to the service");
  return {};
}

}  // namespace driftway
