// DirItem::PrepareImpl:
//   1. PrepareDir: make the folder if it is missing (through the sync
//      service's own web API inside a synced folder, so that the service
//      learns of it; directly elsewhere), open it without following a link,
//      then Mac attributes, owner, mode, ACL and time through that
//      descriptor. An existing folder keeps what it holds. The view's own
//      folder restored in place keeps its attributes: they belong to the
//      share or home, not to a version.
//   2. GetNodeList: the children as they stood at the item's time bound,
//      one query for the folder, names made unique per folder; each child
//      carries this folder's chain of rights down.
//   3. Prepare each child under the folder; the first failure ends the
//      folder as a general failure. A child the caller may not have is
//      skipped by its own Prepare.
//   4. Give the folder its time again (its children moved it on) and count
//      it once its children are done.
// The recursion is as deep as the tree; each level holds only its own
// folder's items.
#include "dir-item.h"

#include <errno.h>
#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "fs.h"
#include "sdk-path.h"

namespace tidepool::restore {

void DirItem::FillSearchNodeFilter(const db::Node& node, bool recursive, bool include_removed,
                                   db::SearchNodeFilter& filter) const {
  filter.node_id = node.getNodeId();
  filter.recursive = recursive;
  filter.sort_by = "mtime";
  filter.sort_direction = 2;
  filter.removed_mode = include_removed ? 3 : 1;
  filter.ver_ctime_upper_bound = ctime_ub;
}

int DirItem::QuerySelf(db::Node& node, bool include_removed) {
  db::ViewDBInterface& vif = view.GetVif();
  if (!vif) return -1;
  // Sync id 0 names the newest version that is not a deletion, which only
  // the version list can tell.
  if (sync_id == 0 && version.getSyncId() == 0 && InitVersion() < 0) return -1;
  const unsigned long long wanted = sync_id != 0 ? sync_id : version.getSyncId();
  const int flags =
      include_removed ? db::ViewManager::kQueryWithRemoved : db::ViewManager::kQueryExisting;
  return vif->QueryNodeByPermanentIdAndSyncId(permanent_id, wanted, node, flags);
}

int DirItem::SubtreeFilter(bool include_removed, db::SearchNodeFilter& filter) {
  db::Node node;
  if (QuerySelf(node, include_removed) < 0) {
    RESTORE_ERR("Failed to QueryNodeByPermanentIdAndSyncId(), permanent_id = %llu, sync_id = %llu",
                permanent_id, sync_id);
    return -1;
  }
  FillSearchNodeFilter(node, true, include_removed, filter);
  return 0;
}

int DirItem::Count(unsigned long long& count, bool include_removed) {
  db::SearchNodeFilter filter;
  if (SubtreeFilter(include_removed, filter) < 0) return -1;
  unsigned long long n = 0;
  if (view.GetVif()->CountNode(filter, n) < 0) {
    RESTORE_ERR("failed to count node with permanent_id = %llu, and sync_id = %llu", permanent_id,
                sync_id);
    return -1;
  }
  count += n + 1;
  return 0;
}

int DirItem::ListEncrypted(std::vector<db::Node>& out, bool include_removed) {
  db::SearchNodeFilter filter;
  if (SubtreeFilter(include_removed, filter) < 0) return -1;
  // The database picks the protected documents: a large tree holds few.
  filter.encrypted_only = true;
  std::vector<db::Node> nodes;
  if (view.GetVif()->SearchNode(filter, nodes) < 0) {
    RESTORE_ERR("failed to search node with permanent_id = %llu, and sync_id = %llu", permanent_id,
                sync_id);
    return -1;
  }
  for (db::Node& child : nodes) {
    if (child.isEncrypted()) out.push_back(std::move(child));
  }
  return 0;
}

int DirItem::GetNodeList(ItemList& out, bool include_removed) {
  db::ViewDBInterface& vif = view.GetVif();
  db::Node node;
  if (QuerySelf(node, include_removed) < 0) {
    RESTORE_ERR("Failed to QueryNodeByPermanentIdAndSyncId(), %s", InfoString().c_str());
    return -1;
  }
  db::SearchNodeFilter filter;
  FillSearchNodeFilter(node, false, include_removed, filter);
  std::vector<db::Node> nodes;
  if (vif->SearchNode(filter, nodes) < 0) {
    RESTORE_ERR("failed to search node with permanent_id = %llu, and sync_id = %llu", permanent_id,
                sync_id);
    return -1;
  }
  NameCount names;
  out.reserve(out.size() + nodes.size());
  const bool is_root = version.getNodeId() == vif->getRootNodeId();
  const std::string here = is_root ? "" : view_folder + "/" + version.record().name;
  for (const db::Node& child : nodes) {
    // A removed child's newest state is its deletion: sync id 0 asks for the
    // newest version that is not one.
    const unsigned long long child_sync_id = child.isRemoved() ? 0 : child.getSyncId();
    out.push_back(ItemFactory(child.isDir(), view, child.getPermanentId(), child_sync_id, ctime_ub,
                              CalcAppendedName(child.getName(), names), child.getPath(),
                              decrypt_map, task));
    if (chain) out.back()->SetParent(chain, here);
  }
  return 0;
}

int DirItem::PrepareDir(const std::string& work_dir, const Target& target, const TaskActor& actor,
                        int flags, fsb::UniqueFd& dir) {
  const std::string key = view.GetCipherKey();
  if (target.name.empty()) {
    dir.reset(fcntl(target.dir_fd, F_DUPFD_CLOEXEC, 0));
    return dir.valid() ? 0 : -1;
  }
  if (!target.exists) {
    if (IsDestUnderTidepool(target.Shown()) == 0) {
      Json::Value params(Json::objectValue);
      params["path"] = "/volumes" + target.Shown();
      params["type"] = "folder";
      Json::Value answer;
      if (SDK::WebApiRunnerExec("KSTX.Tidepool.Files", "create", 1, params, answer,
                                actor.GetUser()) < 0 ||
          !answer.isObject() || !answer["success"].isBool() || !answer["success"].asBool()) {
        RESTORE_ERR("Failed to create dir '%s' via Tidepool WebAPI", target.Shown().c_str());
        return -1;
      }
    } else if (mkdirat(target.dir_fd, target.name.c_str(), 0700) != 0 && errno != EEXIST) {
      // Private until its attributes are on.
      RESTORE_ERR("Failed to create directory directly on FS: %s", strerror(errno));
      return -1;
    }
  }
  dir.reset(
      openat(target.dir_fd, target.name.c_str(), O_DIRECTORY | O_NOFOLLOW | O_RDONLY | O_CLOEXEC));
  if (!dir.valid()) {
    RESTORE_ERR("'%s' is not a folder: %s", target.Shown().c_str(), strerror(errno));
    return -1;
  }
  const std::string self = fsb::FdPath(dir.get()) + "/.";
  if ((flags & PREPARE_MAC_ATTR) && !version.getMacAttributeHash().empty() &&
      PrepareMacAttr(work_dir, key, self) < 0) {
    RESTORE_ERR("Failed to prepare MAC attr '%s'", target.Shown().c_str());
    return -1;
  }
  if (ApplyPrivilege(self, actor) != 0) {
    RESTORE_ERR("Failed to ApplyPrivilege '%s'\n", target.Shown().c_str());
    return -1;
  }
  return 0;
}

int DirItem::PrepareImpl(const std::string& work_dir, const Target& target, const TaskActor& actor,
                         int flags) {
  fsb::UniqueFd dir;
  if (PrepareDir(work_dir, target, actor, flags, dir) != 0) {
    RESTORE_ERR("Failed to prepare directory %s for hosting dir entries", name.c_str());
    return -1;
  }
  ItemList children;
  if (GetNodeList(children, (flags & PREPARE_INCLUDE_REMOVED) != 0) < 0) {
    RESTORE_ERR("Failed to list nodes under %s", name.c_str());
    return -1;
  }
  const std::string here = target.Below();
  for (const auto& child : children) {
    if (child->Prepare(work_dir, here, actor, flags) < 0) {
      RESTORE_ERR("Failed to prepare '%s'", child->GetName().c_str());
      return -1;
    }
  }
  // Filling the folder moved its time on; it gets the version's back.
  if (!children.empty() && !target.name.empty()) {
    const int64_t mtime = version.getVerModifiedTime();
    (void)FSUTime(fsb::FdPath(dir.get()) + "/.", mtime, mtime);
  }
  IncProg();
  return 0;
}

}  // namespace tidepool::restore
