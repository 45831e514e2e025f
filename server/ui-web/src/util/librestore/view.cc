// View::Init: open the view database with root's rights, find the view's
// owner, and for an encrypted share take the key from the share service.
// The user record and the share service must agree that the share is
// encrypted; without a key the view does not open, so nothing of a locked
// share is ever restored.
#include "view.h"

#include <errno.h>
#include <fcntl.h>

#include <cstring>

#include "bridge/run-as.h"
#include "db/manager.h"
#include "hvos-service.h"
#include "utils.h"

namespace tidepool::restore {

int View::Init() {
  if (vif_) return 1;
  IF_RUN_AS(0, 0) {
    if (db::Manager::GetViewDB(view_id_, vif_) < 0) {
      RESTORE_ERR("Failed to GetViewDB() with view_id: %d", static_cast<int>(view_id_));
      return 0;
    }
  }
  else {
    RESTORE_ERR("Failed to IF_RUN_AS");
    return 0;
  }
  if (UserManager::GetUserByDefaultView(view_id_, user_info_) < 0) {
    RESTORE_ERR("Failed to GetUserByDefaultView() with view_id: %d", static_cast<int>(view_id_));
    vif_.reset();
    return 0;
  }
  if (!GetCipherKeyInternal()) {
    vif_.reset();
    return 0;
  }
  return 1;
}

int View::RootFd() {
  if (root_fd_.valid()) return root_fd_.get();
  root_fd_.reset(fsb::OpenNoSymlinks(user_info_.root_path, O_DIRECTORY | O_RDONLY));
  if (!root_fd_.valid()) {
    RESTORE_ERR("Cannot open the view's folder '%s': %s", user_info_.root_path.c_str(),
                strerror(errno));
  }
  return root_fd_.get();
}

int View::GetCipherKeyInternal() {
  if (!user_info_.isEncryptionShare()) return 1;
  const std::string name = user_info_.isShareUser() ? user_info_.name : "homes";
  HVOSService::ShareService service(true);
  HVOSService::Share share;
  if (service.GetShare(name, share) < 0) {
    RESTORE_ERR("Can't get share [%s] via cache", name.c_str());
    return 0;
  }
  if (!share.isEncryption()) {
    RESTORE_ERR("UserInfo shows share [%s] is encrypted but cache reports not.", name.c_str());
    return 0;
  }
  if (share.getUniqueKey(cipher_key_) != 1) {
    cipher_key_.clear();
    RESTORE_ERR("Share [%s] is encrypted but cannot get cipher key.", name.c_str());
    return 0;
  }
  return 1;
}

}  // namespace tidepool::restore
