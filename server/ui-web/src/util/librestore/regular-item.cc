// RegularItem::PrepareImpl (Item::Prepare has opened the target's folder):
//   1. An existing target without overwrite is left alone and counts as
//      done: no version store is read.
//   2. Stage the content (File: patch, or duplicate the live file, found at
//      the node's present place in the view and opened without following
//      links).
//   3. Owner, mode, ACL and time onto the staged file, then Mac attributes.
//   4. One rename onto the target, which replaces an old file atomically.
#include "regular-item.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "file.h"
#include "hv-file-utility.h"

namespace tidepool::restore {

int RegularItem::VersionCheck() { return version.isFile() || version.isSymlink() ? 0 : -1; }

int RegularItem::PrepareImpl(const std::string& work_dir, const Target& target,
                             const TaskActor& actor, int flags) {
  std::string staged = work_dir + "/" + target.name;
  const std::string key = view.GetCipherKey();
  if (target.exists && !(flags & PREPARE_OVERWRITE)) {
    IncProg();
    return RC_OK;
  }
  File file(version);
  if (!file.IsNoRepo()) {
    const int rc = file.Patch(work_dir, key);
    if (rc < 0) {
      RESTORE_ERR("Failed to patch file. [%s]", InfoString().c_str());
      return rc;
    }
    if (file.PatchedToPath(staged) < 0) return RC_GENERAL;
  } else {
    // The live file stands where the node is now, which may differ from
    // where it was at the restore point.
    db::Node node;
    if (view.GetVif()->QueryNode(version.getNodeId(), node, db::ViewManager::kQueryExisting) != 0) {
      RESTORE_ERR("The live file of %s is gone", InfoString().c_str());
      return RC_NO_SHARE_FILE;
    }
    const int rc = file.DupFromShare(view.RootFd(), node.getPath(), work_dir,
                                     view.GetUserInfo().isEncryptionShare(), staged);
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
  if ((flags & PREPARE_MAC_ATTR) && !version.getMacAttributeHash().empty()) {
    rc = PrepareMacAttr(work_dir, key, staged);
  }
  if (rc >= 0) {
    // The working folder sits beneath the same root, so this is one rename;
    // only a mount inside the destination makes it a copy that keeps the
    // attributes.
    rc = renameat(AT_FDCWD, staged.c_str(), target.dir_fd, target.name.c_str());
    if (rc < 0 && errno == EXDEV && (flags & PREPARE_MAC_ATTR)) {
      rc = HVFileUtility::FSRenameWithEA(staged, target.Path(), true);
    }
  }
  if (rc < 0) {
    RESTORE_ERR("Fail to move files. (%s) -> (%s)\n", staged.c_str(), target.Shown().c_str());
    return RC_GENERAL;
  }
  IncProg();
  return RC_OK;
}

}  // namespace tidepool::restore
