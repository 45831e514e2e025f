// One node of the sync database at one version, which can rebuild itself on
// disk. The base class holds the fixed sequence of a restore and every rule
// that does not depend on the kind of node: unique names, safe paths, the
// owner, mode, ACL and time put back on a file, Mac attributes, progress
// and the log record. Subclasses rebuild files (RegularItem), folders
// (DirItem) and office documents (OfficeItem).
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "acl.h"
#include "db/types.h"
#include "fs-beneath.h"
#include "task-actor.h"
#include "user-manager.h"
#include "utils.h"
#include "view.h"

namespace tidepool::restore {

// Where an item goes: a folder held open beneath the task's root (the
// view's folder in place, the chosen folder on a copy) and the entry in it.
struct Target {
  int root_fd = -1;
  std::string root_path;  // what root_fd was opened as, for messages and notices
  int dir_fd = -1;
  std::shared_ptr<const fsb::UniqueFd> dir_hold;  // keeps dir_fd open
  std::string dir;                                // the folder below the root: "" or "/a/b"
  std::string name;                               // "" for the root folder itself
  bool exists = false;                            // something stands there (CheckDestEnv)
  // The entry, as a path that library calls resolve through the open
  // folder and never through anything a user could swap.
  std::string Path() const { return fsb::FdPath(dir_fd) + (name.empty() ? "/." : "/" + name); }
  std::string Below() const { return name.empty() ? dir : dir + "/" + name; }
  std::string Shown() const { return root_path + Below(); }
};

// The working folder of one top-level item: <root>/@eaDir/@tmp/Tidepool.XXXXXX,
// made by root, 0700, held open. While the item is built it is the
// process's working folder, so library calls name what is staged there by
// relative paths ("./name"): resolved from that held folder, cheaply, and
// never through anything a user could swap.
class WorkDir {
 public:
  ~WorkDir();
  // 0, or -1 when the folder cannot be made or @eaDir/@tmp is not root's.
  int Create(int root_fd);
  // Makes it the working folder (until destruction) and gives the path
  // that names it: ".". Empty when that fails.
  std::string Enter();
  // Removes the folder, and @tmp and @eaDir when that leaves them empty.
  void RemoveIfEmpty();

 private:
  fsb::UniqueFd root_, ea_, tmp_, dir_, previous_;
  std::string name_;
};

class Item {
 public:
  Item(View& view, unsigned long long permanent_id, unsigned long long sync_id,
       unsigned long long ctime_ub, const std::string& name, const std::string& path,
       const DecryptMap& decrypt_map, HVOS::Task* task);
  virtual ~Item() = default;
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  // Brings the item back where it lived, and logs it.
  virtual int Restore(const TaskActor& actor, int flags);
  // Brings the item under `dest`, owned by the actor.
  virtual int CopyTo(const std::string& dest, const TaskActor& actor, int flags);
  // The fixed sequence: version, rights, parent folder, destination check,
  // rebuild. `dest_dir` is a folder below the task's root ("" the root).
  virtual int Prepare(const std::string& work_dir, const std::string& dest_dir,
                      const TaskActor& actor, int flags);
  virtual int ListEncrypted(std::vector<db::Node>& out, bool include_removed);
  virtual int Count(unsigned long long& count, bool include_removed);

  std::string GetName() const { return name; }
  unsigned long long GetPermanentId() const { return permanent_id; }
  unsigned long long GetSyncId() const { return sync_id; }
  unsigned long long GetCtimeUB() const { return ctime_ub; }
  const db::Version& GetVersion() const { return version; }
  // Places a child of a folder being restored: the chain of rights of its
  // ancestors and its folder's path in the view.
  void SetParent(std::shared_ptr<const ACL_API::ACL> parents, std::string view_folder);

  static std::unique_ptr<Item> ItemFactory(bool is_dir, View& view, unsigned long long permanent_id,
                                           unsigned long long sync_id, unsigned long long ctime_ub,
                                           const std::string& name, const std::string& path,
                                           const DecryptMap& decrypt_map, HVOS::Task* task);

  // The version `sync_id` of the node, or with 0 the newest that is not a
  // deletion. 0, or -1 (logged).
  static int ChooseVersion(db::ViewManager& vif, unsigned long long permanent_id,
                           unsigned long long sync_id, db::Version& out);
  // "report.txt" seen before gives "report (2).txt", and so on.
  static std::string CalcAppendedName(const std::string& name, NameCount& seen);
  static std::string AppendNameIndex(const std::string& name, int index);
  // The token of `path` from `pos` (leading "/" skipped) and the index that
  // ends it.
  static int FindToken(const std::string& path, int pos, std::string& token);
  // False for a path with a "." or ".." component or a backslash.
  static bool IsPathSafe(const std::string& path);
  static std::string GetExtension(const std::string& name);
  static std::string TransformExtension(const std::string& name);
  static bool IsOfficeItemByExtension(const std::string& ext);
  // 0 when `path` lies inside a synced folder, -1 when not or unknown.
  static int IsDestUnderTidepool(const std::string& path);
  static int IsDestUnderTidepoolByUIList(const std::string& path, const std::list<UserInfo>& users);
  static int ApplyMacAttr(const std::string& packed, const std::string& path);

  // Stored mode bits to file-system bits.
  static const std::map<uint32_t, uint32_t> unix_mode_map;
  static const std::set<std::string> office_ext_set;
  static const std::map<std::string, std::string> ext_map;

 protected:
  virtual int PrepareImpl(const std::string& work_dir, const Target& target, const TaskActor& actor,
                          int flags) = 0;
  virtual int InitVersion();
  virtual int VersionCheck() { return 0; }
  virtual int PrepareMacAttr(const std::string& work_dir, const std::string& key,
                             const std::string& path);
  virtual int ApplyPrivilege(const std::string& path, const TaskActor& actor);

  int CheckDestEnv(Target& target);
  // Opens (making it if needed) the folder `dest_dir` below the root into
  // `target`.
  int CreateDestDir(const std::string& dest_dir, const TaskActor& actor, Target& target);
  // The fixed sequence under a root: working folder, then Prepare into the
  // node's own folder (in place) or the root itself (a copy).
  int PrepareBeneath(int root_fd, bool in_place, const TaskActor& actor, int flags);
  int IncProg();
  // Counts this item's whole progress as skipped: the caller may not have it.
  int SkipProg(int flags);
  // Where the item stood at the restore point: its ancestors' rights and
  // its folder in the view. Set by the parent for children.
  int Place();
  // The moment the item is restored as of.
  uint64_t RestorePoint() const { return RestorePointOf(version, ctime_ub); }
  // The name at the destination: the node's own at its version; a view's
  // root is copied under the view's name.
  std::string DestName(const TaskActor& actor) const;
  int RootFd(const TaskActor& actor);
  std::string RootPath(const TaskActor& actor) const;
  std::string InfoString() const;
  int LogRestoreDone(const TaskActor& actor);

  View& view;
  db::Version version;
  unsigned long long permanent_id;
  unsigned long long sync_id;
  unsigned long long ctime_ub;
  std::string name;
  std::string path;
  DecryptMap decrypt_map;
  HVOS::Task* task;
  // The chain of rights of the ancestors at the restore point, the folder's
  // path in the view, and this node's own chain once judged.
  std::shared_ptr<const ACL_API::ACL> parents;
  std::string view_folder;
  std::shared_ptr<const ACL_API::ACL> chain;
  bool version_ready = false;
  bool child = false;
};

}  // namespace tidepool::restore
