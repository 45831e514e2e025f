// Access decisions over a node's chain of ancestors, each level described by
// its stored POSIX.1e ACL text and its unix owner, group and mode.
//
// How a decision is made (the one place this is written down):
//
// * Rights. A level grants some of read (r), write (w) and execute/search
//   (x). Masks of ACLRule::Entry and of CheckPermission are 13-bit masks
//   (0x1FFF is all of them) whose bits map onto rwx:
//     r: 0x0001 read data/list, 0x0008 read named attributes,
//        0x0080 read attributes, 0x0400 read ACL
//     w: 0x0002 write data/add file, 0x0004 append/add folder,
//        0x0010 write named attributes, 0x0040 delete child,
//        0x0100 write attributes, 0x0200 delete, 0x0800 write ACL,
//        0x1000 change owner
//     x: 0x0020 execute/search
//   So 0x18A (what restoring over a node needs) asks for r and w.
//
// * One level. The ACL text is read in the long or the short form that
//   acl_to_text writes ("user::rw-\nuser:1026:r--\t#effective:r--\n..." or
//   "u::rw-,u:1026:r--,g::r-x,m::r-x,o::---"); comments, "default:" entries
//   and blank lines are ignored, qualifiers are numeric ids or names of the
//   system's users and groups. Owner, owning group and other entries the
//   text lacks come from the unix mode; an empty text is the mode alone.
//   The subject is then checked by the POSIX.1e algorithm: uid 0 passes;
//   the owner gets the owner entry; else a named user entry, limited by the
//   mask; else, if the owning group or named group entries match the
//   subject's groups, access is granted when one of them (limited by the
//   mask) holds all the rights asked for, and refused otherwise; else the
//   other entry. A text that cannot be parsed makes its level grant nothing.
//
// * Added entries (AddACE). An entry applies at the level whose path equals
//   its path, and with inheritance (`inherit` not 0) at every level below it
//   too: an entry at "/" with inheritance covers the whole chain. A matching
//   deny entry (allow 0) refuses the rights in its mask before anything else
//   is looked at; matching allow entries grant the rights in their masks,
//   and the stored ACL and mode are consulted only for what they leave out.
//
// * The chain. IsAccessible(user, 0): the subject needs x on every ancestor
//   (levels 1 and up) and r on the node (level 0). CheckPermission(user,
//   mask, 0): the rights of `mask` on the node, and w and x on its folder
//   (level 1, when known), since restoring replaces the entry in its folder.
//   With flags kNodeOnly only the node's own level is judged. A chain
//   without a level 0 is refused. Missing levels in between are skipped.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace ACL_API {

class ACLRule {
 public:
  enum Tag : uint32_t { kTagUser = 1, kTagGroup = 2, kTagEveryone = 3 };
  enum Inherit : uint32_t { kInheritFiles = 2, kInheritFolders = 4 };

  struct Entry {
    uint32_t tag = kTagUser;  // Tag
    uint32_t id = 0;          // uid for kTagUser, gid for kTagGroup
    uint32_t mask = 0;        // rights, 13-bit mask
    uint32_t inherit = 0;     // Inherit bits; 0 applies at its own path only
    uint32_t allow = 1;       // 1 grants, 0 denies
  };
};

class ACL {
 public:
  static constexpr int kNodeOnly = 1;  // flag: judge level 0 alone

  struct Privilege {
    std::string acl;    // stored ACL text, "" for none
    std::string path;   // the node's path in its view ("/" at the root)
    uint32_t uid = 0;   // owner
    uint32_t gid = 0;   // owning group
    uint32_t mode = 0;  // unix mode; only the 0777 bits count
    int32_t level = 0;  // 0 the node, growing towards the root
    bool is_dir = false;
  };

  struct UserInfo {
    uint32_t uid = 0;
    std::set<unsigned int> gids;
  };

  // 0, or -1 when the ACL text cannot be parsed (the level is kept and
  // grants nothing).
  int AddPrivilege(const Privilege& privilege);
  // 0, or -1 for an empty or relative path or an unknown tag (ignored).
  int AddACE(const std::string& path, const ACLRule::Entry& entry);
  // The chain of a child of this chain's node: every level one further from
  // the node, added entries kept, and `child` as the new node (its level is
  // set to 0). A walk down a tree judges each node without re-reading its
  // ancestors.
  ACL Descend(const Privilege& child) const;
  // The same decision as IsAccessible (and, with a non-zero `mask`,
  // CheckPermission with it) on Descend(child), for a child of a node that
  // already passed them: only the child's own level and this node as its
  // folder are judged, and nothing is copied.
  bool ChildAllowed(const Privilege& child, const UserInfo& user, uint32_t mask) const;

  bool IsAccessible(const UserInfo& user, int flags) const;
  bool CheckPermission(const UserInfo& user, uint32_t mask, int flags) const;

 private:
  struct AclEntry {
    int tag;  // 0 owner, 1 named user, 2 owning group, 3 named group, 4 mask, 5 other
    uint32_t id;
    unsigned perms;  // rwx as 4, 2, 1
  };
  struct Level {
    Privilege privilege;
    std::vector<AclEntry> entries;
    bool valid = true;
  };
  struct Ace {
    std::string path;
    ACLRule::Entry entry;
  };

  static Level MakeLevel(const Privilege& privilege);
  const Level* FindLevel(int32_t level) const;
  bool Allows(const Level& level, const UserInfo& user, unsigned want) const;

  std::vector<Level> levels_;
  std::vector<Ace> aces_;
};

}  // namespace ACL_API
