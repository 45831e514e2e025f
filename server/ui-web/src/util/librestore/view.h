// The opened context of one sync view: its database, the owner of the view
// and, for an encrypted share, the key that unlocks its stored content.
#pragma once

#include <cstdint>
#include <string>

#include "db/view-manager.h"
#include "fs-beneath.h"
#include "rights.h"
#include "user-manager.h"

namespace tidepool::restore {

class View {
 public:
  static inline const std::string kHome = "home";

  explicit View(unsigned int view_id) : view_id_(view_id) {}
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  // Non-zero when ready, 0 when the database, the owner or the key could not
  // be had. Opens once; later calls answer at once.
  int Init();

  db::ViewDBInterface& GetVif() { return vif_; }
  const UserInfo& GetUserInfo() const { return user_info_; }
  unsigned int GetViewId() const { return view_id_; }
  const std::string& GetCipherKey() const { return cipher_key_; }
  // The share's name for a share view, "home" for a home.
  std::string GetName() const { return user_info_.isShareUser() ? user_info_.name : kHome; }
  // The view's folder, opened on first use with no link on the way: every
  // in-place restore resolves beneath it. -1 when it cannot be opened.
  int RootFd();
  // What the task's caller may do here; not limited until set.
  const Rights& GetRights() const { return rights_; }
  void SetRights(const Rights& rights) { rights_ = rights; }

 private:
  int GetCipherKeyInternal();

  db::ViewDBInterface vif_;
  unsigned int view_id_;
  UserInfo user_info_;
  std::string cipher_key_;
  fsb::UniqueFd root_fd_;
  Rights rights_;
};

}  // namespace tidepool::restore
