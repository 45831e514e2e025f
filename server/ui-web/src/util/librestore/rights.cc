// Rights::ForCaller reads the caller's uid and groups once per task.
// AncestryAt climbs from a version's folder to the view's root, taking each
// ancestor's newest version made at or before the moment (the one before,
// when that is its deletion), then builds the chain from the root down, so
// that paths and levels come out in one pass.
#include "rights.h"

#include <vector>

#include "db/errors.h"
#include "platform-services.h"
#include "restore-item.h"
#include "utils.h"
#include "view.h"

namespace tidepool::restore {

namespace {

// Deeper than any real tree: a loop in damaged parent links ends here.
constexpr int kMaxDepth = 4096;
// Read and write data, read and write attributes: what restoring over a
// node needs.
constexpr uint32_t kWriteMask = 0x18A;

ACL_API::ACL::Privilege PrivilegeOf(const db::Version& v, const std::string& path) {
  ACL_API::ACL::Privilege p;
  p.acl = v.getAcl();
  p.path = path.empty() ? "/" : path;
  p.uid = v.getUserId();
  p.gid = v.getGroupId();
  p.mode = v.getUnixMode();
  p.is_dir = v.isDir();
  return p;
}

// The version of `node_id` at `moment` that carries rights: a deletion
// marker has none of its own, so the version before it stands in.
int RightsVersionAt(db::ViewManager& view, uint64_t node_id, uint64_t moment, db::Version& out) {
  if (view.QueryVersionAt(node_id, moment, out) != 0) return -1;
  if (!out.isRemoved()) return 0;
  const uint32_t deleted = out.getVerCreatedTime();
  if (deleted == 0 || view.QueryVersionAt(node_id, deleted - 1, out) != 0) return -1;
  return out.isRemoved() ? -1 : 0;
}

}  // namespace

int Rights::ForCaller(const std::string& user, bool own_home, bool write, Rights& out) {
  Platform::UserService users(false);
  Platform::User record;
  if (users.GetUser(user, record) < 0) {
    RESTORE_ERR("Failed to get user '%s'", user.c_str());
    return -1;
  }
  out = Rights();
  out.limited_ = true;
  out.own_home_ = own_home;
  out.write_ = write;
  out.subject_.uid = record.GetID();
  record.ListGroupID(out.subject_.gids);
  return 0;
}

ACL_API::ACL Rights::Root() const {
  ACL_API::ACL acl;
  if (limited_ && own_home_) {
    // Complete control for the owner, inherited by the whole view.
    acl.AddACE("/", ACL_API::ACLRule::Entry{1, subject_.uid, 0x1FFF, 6, 1});
  }
  return acl;
}

ACL_API::ACL Rights::ChainOf(const ACL_API::ACL& parents, const db::Version& version,
                             const std::string& path) const {
  return parents.Descend(PrivilegeOf(version, path));
}

bool Rights::Allows(const ACL_API::ACL& chain) const {
  if (!limited_) return true;
  if (!chain.IsAccessible(subject_, 0)) return false;
  return !write_ || chain.CheckPermission(subject_, kWriteMask, 0);
}

bool Rights::AllowsChild(const ACL_API::ACL& parents, const db::Version& version,
                         const std::string& path) const {
  if (!limited_) return true;
  return parents.ChildAllowed(PrivilegeOf(version, path), subject_, write_ ? kWriteMask : 0);
}

int AncestryAt(db::ViewManager& view, const db::Version& version, uint64_t moment,
               const Rights& rights, ACL_API::ACL& parents, std::string& folder) {
  std::vector<db::Version> chain;  // the folder first, the root last
  uint64_t id = version.record().parent_id;
  const uint64_t root = view.getRootNodeId();
  if (version.getNodeId() != root) {
    for (int depth = 0;; ++depth) {
      if (depth > kMaxDepth || id == 0) {
        RESTORE_ERR("Broken ancestry of node %llu", static_cast<unsigned long long>(id));
        return -1;
      }
      db::Version level;
      if (RightsVersionAt(view, id, moment, level) < 0) {
        RESTORE_ERR("No version of ancestor %llu at %llu", static_cast<unsigned long long>(id),
                    static_cast<unsigned long long>(moment));
        return -1;
      }
      chain.push_back(level);
      if (id == root) break;
      id = level.record().parent_id;
    }
  }
  parents = rights.Root();
  folder.clear();
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (it != chain.rbegin()) folder += "/" + it->record().name;
    parents = rights.ChainOf(parents, *it, folder);
  }
  return 0;
}

int JudgeNode(View& view, uint64_t permanent_id, uint64_t sync_id, uint64_t ctime_ub,
              bool& allowed) {
  db::ViewDBInterface& vif = view.GetVif();
  if (!vif) return -1;
  db::Version version;
  if (Item::ChooseVersion(*vif.get(), permanent_id, sync_id, version) < 0) return -1;
  const Rights& rights = view.GetRights();
  ACL_API::ACL parents;
  std::string folder;
  const uint64_t moment = RestorePointOf(version, ctime_ub);
  if (AncestryAt(*vif.get(), version, moment, rights, parents, folder) < 0) return -1;
  const bool is_root = version.getNodeId() == vif->getRootNodeId();
  allowed = rights.Allows(
      rights.ChainOf(parents, version, is_root ? "" : folder + "/" + version.record().name));
  return 0;
}

}  // namespace tidepool::restore
