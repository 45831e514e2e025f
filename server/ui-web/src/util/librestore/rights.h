// What the caller of a task may do to the nodes of one view. Each node is
// judged on the version being restored and on its ancestors as they stood
// at the restore point, never on the newest state: a folder closed then
// stays closed in what is brought back from then.
//
// Administrators are not limited. Anyone else must be able to read every
// node a task reads and, in place, write every node it writes; a folder
// walk carries its chain of ancestors down so each child costs one level.
#pragma once

#include <cstdint>
#include <string>

#include "acl.h"
#include "db/types.h"
#include "db/view-manager.h"

namespace tidepool::restore {

class Rights {
 public:
  // Not limited.
  Rights() = default;
  // The caller `user`, with the uid and groups the host knows. `own_home`:
  // the view is the caller's home, over which the owner has complete
  // control; `write`: the task writes the nodes in place. 0, or -1 when the
  // user cannot be looked up.
  static int ForCaller(const std::string& user, bool own_home, bool write, Rights& out);

  bool Limited() const { return limited_; }
  // True when no node of the view can be refused: not limited, or the
  // caller's own home, where the owner has complete control throughout.
  bool RefusesNothing() const { return !limited_ || own_home_; }
  bool Writes() const { return write_; }
  // The chain of a node whose ancestors are `parents` (empty at the root).
  ACL_API::ACL ChainOf(const ACL_API::ACL& parents, const db::Version& version,
                       const std::string& path) const;
  // Whether the node at level 0 of `chain` may be read, and written when
  // the task writes in place.
  bool Allows(const ACL_API::ACL& chain) const;
  // The same for a child of the node of `parents`, which passed already:
  // judged without building the child's chain.
  bool AllowsChild(const ACL_API::ACL& parents, const db::Version& version,
                   const std::string& path) const;
  // The chain of an empty set of ancestors, with the owner's entry of a
  // home.
  ACL_API::ACL Root() const;

 private:
  bool limited_ = false;
  bool own_home_ = false;
  bool write_ = false;
  ACL_API::ACL::UserInfo subject_;
};

// The moment a version is restored as of: the client's time bound, but
// never before the version itself existed, so that ancestors are not judged
// on an earlier, more open state than the one the version was made under.
inline uint64_t RestorePointOf(const db::Version& version, uint64_t ctime_ub) {
  const uint64_t made = version.getVerCreatedTime();
  return ctime_ub > made ? ctime_ub : made;
}

// Where `version` stood at `moment`: the chain of its ancestors (its folder
// at level 0; empty for the view's root) and the folder's path in the view
// ("" for the root, else "/a/b"). 0, or -1 when an ancestor cannot be found
// then or the tree is damaged.
int AncestryAt(db::ViewManager& view, const db::Version& version, uint64_t moment,
               const Rights& rights, ACL_API::ACL& parents, std::string& folder);

class View;

// Whether the view's caller (View::GetRights) may have the node
// `permanent_id` as it is restored: its version `sync_id` (0: the newest
// that is not a deletion), judged with its ancestors at the restore point
// (`ctime_ub`, or the version's own time). 0 with `allowed` set, or -1 when
// the node cannot be judged.
int JudgeNode(View& view, uint64_t permanent_id, uint64_t sync_id, uint64_t ctime_ub,
              bool& allowed);

}  // namespace tidepool::restore
