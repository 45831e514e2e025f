// One open view: the nodes and versions of one owner's tree (a user's home
// or a share). Results as in errors.h; QueryNode gives kErrNotFound for a
// node that does not exist.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db/types.h"

namespace db {

class ViewManager {
 public:
  enum ListVersionFlag { kListVersionAll = 0, kListVersionForDisplay = 1 };
  // Flags of QueryNode: which nodes may be found.
  static constexpr int kQueryExisting = 1;     // not removed
  static constexpr int kQueryWithRemoved = 3;  // removed too
  static constexpr int kQueryAny = 0;          // by path: the node there, removed or not

  virtual ~ViewManager() = default;

  virtual uint64_t getViewId() const = 0;
  virtual uint64_t getRootNodeId() const = 0;

  virtual int QueryNode(uint64_t node_id, Node& out, int flags) = 0;
  virtual int QueryNode(const std::string& path, Node& out, int flags) = 0;
  virtual int QueryNodeByPermanentId(uint64_t permanent_id, Node& out, int flags) = 0;
  // The node as it was in the version with this sync id.
  virtual int QueryNodeByPermanentIdAndSyncId(uint64_t permanent_id, uint64_t sync_id, Node& out,
                                              int flags) = 0;
  // The node's ancestors and the node itself: the root first, the node last.
  virtual int QueryParentNodes(uint64_t node_id, std::vector<Node>& out) = 0;

  // The rows the filter selects, in its order, limited by limit and offset.
  // With ver_ctime_upper_bound set, the tree as it stood at that moment.
  virtual int SearchNode(const SearchNodeFilter& filter, std::vector<Node>& out) = 0;
  // How many rows the filter selects (limit and offset ignored).
  virtual int CountNode(const SearchNodeFilter& filter, unsigned long long& count) = 0;

  // Versions of a node, oldest first, deletion markers included.
  virtual int ListVersion(uint64_t node_id, std::vector<Version>& out, ListVersionFlag flag) = 0;
  virtual int ListVersionByPermanentId(uint64_t permanent_id, std::vector<Version>& out,
                                       ListVersionFlag flag) = 0;
  virtual int OpenVersionByPermanentId(uint64_t permanent_id, uint64_t sync_id, Version& out) = 0;
  // The node's newest version made at or before `moment` (a deletion marker
  // too): where it stood then, under which name and with which rights.
  // kErrNotFound when the node did not exist yet.
  virtual int QueryVersionAt(uint64_t node_id, uint64_t moment, Version& out) = 0;

  // Changes under the node (itself included) in buckets of `interval`
  // seconds between start and end; buckets are aligned to local midnight
  // of `tz_offset` (seconds east of UTC). Empty buckets are left out.
  virtual int ListNodeActivity(uint64_t node_id, uint64_t start, uint64_t end, uint64_t interval,
                               int32_t tz_offset, std::vector<NodeActivity>& out) = 0;

  virtual int GetRotateCount(int& count) = 0;
  virtual int SetRotateCount(int count) = 0;
  virtual int SetRotateDays(int days) = 0;
  virtual int SetRotatePolicy(const std::string& policy) = 0;
  // The three above in one commit: an administrator's change of all homes
  // writes thousands of views.
  virtual int SetRotation(int count, int days, const std::string& policy) = 0;

  // Which of `file_ids`, content of the store `uuid`, a version of this
  // view still names (as content or as Mac attributes).
  virtual int ContentInUse(const std::string& uuid, const std::vector<uint64_t>& file_ids,
                           std::vector<uint64_t>& in_use) = 0;

  virtual int GetNodeDeltaSizeSum(unsigned long long& size) = 0;
  virtual int GetMacAttrSizeSum(unsigned long long& size) = 0;
  virtual int GetSignatureSizeSum(unsigned long long& size) = 0;

  // Hands every version of the view (deletion markers too) to `visit`, in
  // sync id order, one row at a time: a view may hold millions. A negative
  // answer from `visit` stops the walk and is returned; otherwise the number
  // of versions visited, or negative when the view cannot be read.
  virtual int ForEachVersion(const std::function<int(const Version&)>& visit) = 0;
};

void ViewDBDelete(ViewManager* view);

// Owning handle of an open view, empty after construction.
class ViewDBInterface {
 public:
  ViewDBInterface() = default;
  ViewManager* get() const { return view_.get(); }
  ViewManager* operator->() const { return view_.get(); }
  explicit operator bool() const { return view_ != nullptr; }
  void reset(ViewManager* view = nullptr) { view_.reset(view); }

 private:
  struct Deleter {
    void operator()(ViewManager* view) const { ViewDBDelete(view); }
  };
  std::unique_ptr<ViewManager, Deleter> view_;
};

}  // namespace db
