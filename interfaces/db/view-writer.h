// The write side of a view, for the sync service and for tests: new nodes
// and versions, deletion markers, moves and version rotation. Results as in
// errors.h. Every change is a version, so the tree at any past moment can be
// rebuilt from the versions alone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "db/errors.h"
#include "db/types.h"
#include "db/view-manager.h"

namespace db {

struct NewVersion {
  std::string path;  // full path in the view, "/a/b.txt"; its parent folder must exist
  int32_t file_type = kFileTypeFile;
  uint64_t size = 0;
  std::string hash;
  uint32_t ctime = 0;  // when the version was made
  uint32_t mtime = 0;  // the file's modification time
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t mode = 0;
  std::string acl;
  uint32_t ver_type = kVerTypeStored;
  uint64_t file_id = 0;
  std::string file_uuid;
  uint64_t mac_attr_file_id = 0;
  std::string mac_attr_uuid;
  std::string mac_attr_hash;
  std::string client_id;
  bool encrypted = false;
};

// A view's version rotation as the sync service applies it. `count` 0 or
// less keeps any number of versions; `days` 0 keeps versions of any age.
struct RotateSettings {
  int count = 32;
  std::string policy = "fifo";  // "fifo" or "smart"
  int days = 0;
  // Whether every history of the view was last trimmed to these values.
  bool applied = false;
};

// A node whose history a rotation may shorten.
struct HistoryNode {
  uint64_t node_id = 0;
  std::string path;
  int32_t file_type = kFileTypeFile;
};

struct PurgedNode {
  uint64_t node_id = 0;
  std::string path;
};

class ViewWriter {
 public:
  virtual ~ViewWriter() = default;

  // A new node (new permanent id and permanent link) when no live node has
  // the path, else a new version of that node. `out` is the node afterwards.
  virtual int AddVersion(const NewVersion& v, Node& out) = 0;
  // A deletion marker; a folder's live descendants get markers too (same ctime).
  virtual int RemoveNode(uint64_t node_id, uint32_t ctime, const std::string& client_id) = 0;
  // A version with the new parent and name (content fields copied); the
  // descendants' paths follow.
  virtual int MoveNode(uint64_t node_id, const std::string& new_path, uint32_t ctime,
                       const std::string& client_id) = 0;
  // Drops a node's oldest versions beyond `keep` (the latest state always
  // stays); fills the removed versions so the caller can release their
  // stored content.
  virtual int RotateVersions(uint64_t node_id, int keep, std::vector<Version>& removed) = 0;

  // Rotation by policy. The settings as stored (defaults for a view that
  // has none), with whether histories were trimmed to them.
  virtual int GetRotateSettings(RotateSettings& out) = 0;
  // Records that every history now follows `settings`.
  virtual int MarkRotateSettingsApplied(const RotateSettings& settings) = 0;
  // Nodes with more than `count` versions (count > 0), or with more than
  // one version and one older than `older_than` (older_than > 0).
  virtual int ListNodesToRotate(int count, uint32_t older_than, std::vector<HistoryNode>& out) = 0;
  // Drops the versions `sync_ids` of a node; the newest version is never
  // dropped (kErrInvalid, nothing changed). `removed` gets what went.
  virtual int DropVersions(uint64_t node_id, const std::vector<uint64_t>& sync_ids,
                           std::vector<Version>& removed) = 0;

  // Purging. Nodes go with every version, and the stored content that
  // their versions named is put in the view's release journal in the same
  // transaction, so a crash never loses track of it. `purged` gets the
  // nodes removed, each with the path it last had.
  // `node_id` with its whole subtree, live or removed; kErrInvalid for the
  // root, kErrNotFound for a node the view does not have.
  virtual int PurgeNode(uint64_t node_id, std::vector<PurgedNode>& purged) = 0;
  // Every removed node, with whatever lies below it.
  virtual int PurgeRemoved(std::vector<PurgedNode>& purged) = 0;
  // The journal: per store uuid, the file ids purged versions named.
  virtual int PendingRelease(std::map<std::string, std::vector<uint64_t>>& out) = 0;
  // Ends the journal entries of one store once its content was released.
  virtual int ClearPendingRelease(const std::string& uuid) = 0;

  // Batching: changes between Begin and Commit land together.
  virtual int Begin() = 0;
  virtual int Commit() = 0;
  virtual int Rollback() = 0;

  // Reads through the same connection (sees uncommitted changes of a batch).
  virtual ViewManager& Reader() = 0;
};

}  // namespace db
