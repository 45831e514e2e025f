// One view database ("<connect>/views/<id>.sqlite"): the current state of
// every node in `nodes` (what listings of the present read, through
// indexes) and every version in `versions`, each with the node's parent and
// name at that version, so that the tree at a past moment is exact.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "db/view-manager.h"
#include "db/view-writer.h"

namespace db::internal {

// Schema changes of view databases, oldest first.
const std::vector<const char*>& ViewMigrations();

// Bytes whose order is the natural order of names (folders are grouped
// apart by the caller), and the collation they come from.
std::string SortKeyOf(const std::string& name);
std::string CurrentCollation();

class ViewDB final : public ViewManager, public ViewWriter {
 public:
  ViewDB(uint64_t view_id, std::unique_ptr<SQLite::Database> db);

  // Opens an existing view file; kErrCannotOpen when missing.
  static int Open(const std::string& path, uint64_t view_id, bool for_writing,
                  std::unique_ptr<ViewDB>& out);
  // Creates the file with its root node unless it exists.
  static int Create(const std::string& path, uint64_t view_id);

  uint64_t getViewId() const override { return view_id_; }
  uint64_t getRootNodeId() const override { return root_id_; }

  int QueryNode(uint64_t node_id, Node& out, int flags) override;
  int QueryNode(const std::string& path, Node& out, int flags) override;
  int QueryNodeByPermanentId(uint64_t permanent_id, Node& out, int flags) override;
  int QueryNodeByPermanentIdAndSyncId(uint64_t permanent_id, uint64_t sync_id, Node& out,
                                      int flags) override;
  int QueryParentNodes(uint64_t node_id, std::vector<Node>& out) override;
  int SearchNode(const SearchNodeFilter& filter, std::vector<Node>& out) override;
  int CountNode(const SearchNodeFilter& filter, unsigned long long& count) override;
  int ListVersion(uint64_t node_id, std::vector<Version>& out, ListVersionFlag flag) override;
  int ListVersionByPermanentId(uint64_t permanent_id, std::vector<Version>& out,
                               ListVersionFlag flag) override;
  int OpenVersionByPermanentId(uint64_t permanent_id, uint64_t sync_id, Version& out) override;
  int QueryVersionAt(uint64_t node_id, uint64_t moment, Version& out) override;
  int ListNodeActivity(uint64_t node_id, uint64_t start, uint64_t end, uint64_t interval,
                       int32_t tz_offset, std::vector<NodeActivity>& out) override;
  int GetRotateCount(int& count) override;
  int SetRotateCount(int count) override;
  int SetRotateDays(int days) override;
  int SetRotatePolicy(const std::string& policy) override;
  int SetRotation(int count, int days, const std::string& policy) override;
  int ContentInUse(const std::string& uuid, const std::vector<uint64_t>& file_ids,
                   std::vector<uint64_t>& in_use) override;
  int GetNodeDeltaSizeSum(unsigned long long& size) override;
  int GetMacAttrSizeSum(unsigned long long& size) override;
  int GetSignatureSizeSum(unsigned long long& size) override;

  int AddVersion(const NewVersion& v, Node& out) override;
  int RemoveNode(uint64_t node_id, uint32_t ctime, const std::string& client_id) override;
  int MoveNode(uint64_t node_id, const std::string& new_path, uint32_t ctime,
               const std::string& client_id) override;
  int RotateVersions(uint64_t node_id, int keep, std::vector<Version>& removed) override;
  int GetRotateSettings(RotateSettings& out) override;
  int MarkRotateSettingsApplied(const RotateSettings& settings) override;
  int ListNodesToRotate(int count, uint32_t older_than, std::vector<HistoryNode>& out) override;
  int DropVersions(uint64_t node_id, const std::vector<uint64_t>& sync_ids,
                   std::vector<Version>& removed) override;
  int PurgeNode(uint64_t node_id, std::vector<PurgedNode>& purged) override;
  int PurgeRemoved(std::vector<PurgedNode>& purged) override;
  int PendingRelease(std::map<std::string, std::vector<uint64_t>>& out) override;
  int ClearPendingRelease(const std::string& uuid) override;
  int Begin() override;
  int Commit() override;
  int Rollback() override;
  ViewManager& Reader() override { return *this; }

  int ForEachVersion(const std::function<int(const Version&)>& visit) override;
  // Opens an existing view file read-only, without migrating it.
  static int OpenReadOnly(const std::string& path, uint64_t view_id, std::unique_ptr<ViewDB>& out);

 private:
  int LoadRoot();
  int Rekey();
  // Builds the node of a `nodes` row read by kNodeColumns.
  int NodeFromRow(SQLite::Statement& q, const std::string* path, Node& out);
  int VersionFromRow(SQLite::Statement& q, Version& out);
  int FindNodeRow(const char* where, int flags, Node& out, uint64_t key);
  int LiveNodeAt(const std::string& path, uint64_t& node_id, int32_t& file_type);
  // The node's path in the tree as it stood at `moment` ("" when it had none).
  int PathAt(uint64_t node_id, uint64_t moment, std::map<uint64_t, std::string>& cache,
             std::string& out);
  int RunSearch(const SearchNodeFilter& filter, bool count_only, std::vector<Node>* rows,
                unsigned long long* count);
  int SubtreeIds(uint64_t node_id, bool live_only, std::vector<uint64_t>& out);
  // Purges the nodes in temp.purge_ids (see PurgeNode).
  int PurgeMarked(std::vector<PurgedNode>& purged);
  int InsertVersionFrom(uint64_t node_id, uint64_t parent_id, const std::string& name,
                        uint32_t ctime, const std::string& client_id, bool removed);

  // A statement prepared once per view file and kept: the scan of many new
  // files spent most of its time preparing the same few statements. Reset
  // (so that it holds no read open) when the holder goes out of scope.
  class Reused {
   public:
    explicit Reused(SQLite::Statement& q) : q_(q) {}
    ~Reused() { q_.tryReset(); }
    Reused(const Reused&) = delete;
    Reused& operator=(const Reused&) = delete;
    SQLite::Statement* operator->() { return &q_; }
    SQLite::Statement& operator*() { return q_; }

   private:
    SQLite::Statement& q_;
  };
  Reused Prepared(const std::string& sql);
  // Runs the savepoint statements of a change, each prepared once.
  auto Savepoints() {
    return [this](const char* sql) { Prepared(sql)->exec(); };
  }

  uint64_t view_id_;
  uint64_t root_id_ = 0;
  int batch_depth_ = 0;
  std::unique_ptr<SQLite::Database> db_;
  // Declared after db_: finalized before the database closes.
  std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>> prepared_;
  // Prepared once: a folder restore opens a version per file. Declared after
  // db_ so that it is finalized before the database closes.
  std::unique_ptr<SQLite::Statement> open_version_;
  std::unique_ptr<SQLite::Statement> version_at_;
};

// Splits "/a/b" into "/a" and "b"; false for a path that is not absolute,
// is the root, or has empty, "." or ".." parts. Trailing "/" is dropped.
bool SplitPath(const std::string& path, std::string& parent, std::string& name);
std::string NormalizePath(const std::string& path);
std::string ExtensionOf(const std::string& name);

}  // namespace db::internal
