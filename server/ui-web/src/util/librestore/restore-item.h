// One node of the sync database at one version, which can rebuild itself on
// disk. The base class holds the fixed sequence of a restore and every rule
// that does not depend on the kind of node: unique names, safe paths, the
// owner, mode, ACL and time put back on a file, Mac attributes, progress
// and the log record. Subclasses rebuild files (RegularItem) and folders
// (DirItem).
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "db/types.h"
#include "task-actor.h"
#include "user-manager.h"
#include "utils.h"
#include "view.h"

namespace tidepool::restore {

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
  // The fixed sequence: version, destination check, parent folder, rebuild.
  virtual int Prepare(const std::string& work_dir, const std::string& dest_dir,
                      const TaskActor& actor, int flags);
  virtual int ListEncrypted(std::vector<db::Node>& out, bool include_removed);
  virtual int Count(unsigned long long& count, bool include_removed);

  std::string GetName() const { return name; }
  unsigned long long GetPermanentId() const { return permanent_id; }
  unsigned long long GetSyncId() const { return sync_id; }
  unsigned long long GetCtimeUB() const { return ctime_ub; }
  const db::Version& GetVersion() const { return version; }

  static std::unique_ptr<Item> ItemFactory(bool is_dir, View& view, unsigned long long permanent_id,
                                           unsigned long long sync_id, unsigned long long ctime_ub,
                                           const std::string& name, const std::string& path,
                                           const DecryptMap& decrypt_map, HVOS::Task* task);

  // "report.txt" seen before gives "report (2).txt", and so on.
  static std::string CalcAppendedName(const std::string& name, NameCount& seen);
  static std::string AppendNameIndex(const std::string& name, int index);
  // The token of `path` from `pos` (leading "/" skipped) and the index that
  // ends it.
  static int FindToken(const std::string& path, int pos, std::string& token);
  // False for a path with a "." or ".." component or a backslash.
  static bool IsPathSafe(const std::string& path);
  // Makes `path` and its missing parents, giving the ones made to uid/gid.
  static int CreateDir(const std::string& path, unsigned int uid, unsigned int gid);
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
  virtual int PrepareImpl(const std::string& work_dir, const std::string& dest_dir,
                          const TaskActor& actor, int flags) = 0;
  virtual int InitVersion();
  virtual int VersionCheck() { return 0; }
  virtual int PrepareMacAttr(const std::string& work_dir, const std::string& key,
                             const std::string& path);
  virtual int ApplyPrivilege(const std::string& path, const TaskActor& actor);

  int CheckDestEnv(const std::string& target);
  int CreateDestDir(const std::string& dest_dir, const TaskActor& actor);
  int CreateWorkingDir(const std::string& dest, std::string& work_dir) const;
  int IncProg();
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
};

}  // namespace tidepool::restore
