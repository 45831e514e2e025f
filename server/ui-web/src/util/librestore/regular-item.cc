// RegularItem::PrepareImpl (Item::Prepare has refused unsafe targets):
//   1. An existing target without overwrite is left alone and counts as
//      done: one access(), no version store.
//   2. Stage the content (File: patch, or duplicate the live file).
//   3. Owner, mode, ACL and time onto the staged file, then Mac attributes.
//   4. One rename onto the target, which replaces an old file atomically.
#include "regular-item.h"

#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "file.h"
#include "hv-file-utility.h"

namespace tidepool::restore {

int RegularItem::VersionCheck() { return version.isFile() || version.isSymlink() ? 0 : -1; }

int RegularItem::PrepareImpl(const std::string& work_dir, const std::string& dest_dir,
                             const TaskActor& actor, int flags) {
  const std::string target = dest_dir + "/" + name;
  std::string staged = work_dir + "/" + name;
  const std::string key = view.GetCipherKey();
  if (access(target.c_str(), F_OK) == 0 && !(flags & PREPARE_OVERWRITE)) {
    IncProg();
    return RC_OK;
  }
  File file(view.GetUserInfo().root_path + "/" + path, version);
  if (!file.IsNoRepo()) {
    const int rc = file.Patch(work_dir, key);
    if (rc < 0) {
      RESTORE_ERR("Failed to patch file. [%s]", InfoString().c_str());
      return rc;
    }
    if (file.PatchedToPath(staged) < 0) return RC_GENERAL;
  } else {
    const int rc = file.DupFromShare(work_dir, view.GetUserInfo().isEncryptionShare(), staged);
    if (rc < 0) {
      RESTORE_ERR("Failed to dup file from share folder [%s]", InfoString().c_str());
      return rc;
    }
  }
  if (ApplyPrivilege(staged, actor) < 0) {
    RESTORE_ERR("Failed to apply privilege info on '%s'", staged.c_str());
    return RC_GENERAL;
  }
  int rc = 0;
  if (!(flags & PREPARE_MAC_ATTR)) {
    rc = rename(staged.c_str(), target.c_str());
  } else {
    if (!version.getMacAttributeHash().empty()) rc = PrepareMacAttr(work_dir, key, staged);
    if (rc >= 0) rc = HVFileUtility::FSRenameWithEA(staged, target, true);
  }
  if (rc < 0) {
    RESTORE_ERR("Fail to move files. (%s) -> (%s)\n", staged.c_str(), target.c_str());
    return RC_GENERAL;
  }
  IncProg();
  return RC_OK;
}

}  // namespace tidepool::restore
