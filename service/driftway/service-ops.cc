#include "service-ops.h"

#include <memory>

#include "db/manager.h"
#include "db/view-writer.h"
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

// Makes the owner's view (with its root) so it can be versioned and
// browsed at once; a rotation, when given, goes into the view too. Opens the
// sync database for the call when the caller has not.
bool CreateOwnerView(uint64_t view_id, const Rotation* rotation) {
  const bool opened_here = !db::Manager::IsInitialized();
  if (opened_here) {
    SyncConfigMgr config;
    if (SyncGetConf(config) < 0 ||
        db::Manager::Initialize(config.GetSystemRepoLocation(), config.GetDbConnectParam(),
                                config.GetDBBackendString()) < 0)
      return false;
  }
  bool ok = db::Manager::CreateView(view_id) >= 0;
  if (ok && rotation) {
    std::unique_ptr<db::ViewWriter> view;
    ok = db::Manager::GetViewWriter(view_id, view) >= 0 &&
         view->Reader().SetRotateCount(rotation->count) >= 0 &&
         view->Reader().SetRotatePolicy(rotation->policy) >= 0 &&
         view->Reader().SetRotateDays(rotation->days) >= 0;
  }
  if (opened_here) db::Manager::Destroy();
  return ok;
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
  UserInfo info;
  // A home follows the rotation of all homes, once one was set.
  Rotation homes;
  const bool homes_set =
      UserManager::QueryRotateSettingTable(0, homes.count, homes.policy, homes.days) > 0;
  if (UserManager::GetUser(user.name, info, UserManager::kQueryStored) <= 0 ||
      !CreateOwnerView(info.view_id, homes_set ? &homes : nullptr))
    return Failed(kErrFailed, "cannot create the view of user " + name);
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
  if (!CreateOwnerView(info.view_id, &rotation))
    return Failed(kErrFailed, "cannot create the view of share " + share_name);
  return {};
}

OpResult DisableShare(const std::string& share) {
  if (UserManager::DisableShare(share) < 0)
    return Failed(kErrNotFound, "share " + share + " is not known to the service");
  return {};
}

}  // namespace driftway
