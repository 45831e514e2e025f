// The scan of one view: matches the tree on disk to the view's live nodes
// (by device and inode first, so moves and renames keep their node, then by
// path), places every entry (moves, additions, removal of what stands in
// the way), records changed content and attributes, and removes the nodes
// left without a file.
#pragma once

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "db/view-writer.h"
#include "file-store.h"
#include "rotation.h"
#include "scan-state.h"
#include "scan.h"
#include "tree-walk.h"

namespace scan {

class ViewScan {
 public:
  ViewScan(const ScanTarget& target, db::ViewWriter& view, filestore::FileStore& store,
           ScanState& state, const ScanOptions& options, ScanSummary& summary)
      : target_(target),
        view_(view),
        store_(store),
        state_(state),
        options_(options),
        summary_(summary) {}
  ~ViewScan();
  ViewScan(const ViewScan&) = delete;
  ViewScan& operator=(const ViewScan&) = delete;
  // 0, or negative when the view could not be scanned at all.
  int Run();

 private:
  struct Live {
    uint64_t id = 0;
    std::string path;
    int32_t type = 0;
    bool claimed = false;
    bool kept = false;  // its file waits for a later pass: not removed
    bool gone = false;
  };

  int LoadLive();
  // The scoped pass: the changed folders' subtrees only, each folder moved
  // up to the nearest one that still exists on disk and in the view.
  int WalkScope();
  int LoadScope();
  // What the last scans recorded of the nodes in `live_`.
  int LoadRecorded();
  void Match();
  // The root's owner, mode and ACL govern everything below it, so the root
  // is versioned like any folder.
  int RecordRoot();
  int PlaceAll();
  // Stage 0 places what is free; stage 1 may remove an unclaimed node in
  // the way first.
  bool TryPlace(size_t i, int stage);
  bool ParentReady(const std::string& path) const;
  int Move(size_t i);
  int Record(size_t i, uint64_t node_id);
  // `fd` is the entry opened by OpenBeneath; -1 for a symlink, or when the
  // stat fields show nothing changed and nothing is read.
  int StoreContent(const DiskEntry& e, int fd, const Recorded* prev, Recorded& now);
  // The entry's Mac attributes, packed into one AppleDouble piece of the
  // store; the previous piece is kept when the packed bytes are the same.
  int StoreMacAttr(const DiskEntry& e, int fd, const Recorded* prev, Recorded& now);
  // Takes out what the owner's profile leaves alone.
  void ApplyFilter();
  // Whether `path` is, or lies under, an entry left for the next pass.
  bool IsDeferred(const std::string& path) const;
  void Defer(const DiskEntry& e);
  // Takes what lies in busy folders out of the walk into `waiting_`.
  void SetAsideBusy();
  bool InBusy(const std::string& path) const;
  // Whether `e`, in a busy folder, may be versioned now: nothing without a
  // settle time; else files changed since `settled_before_ns_` wait, but a
  // new one changed before `closed_before_ns_` only while open for writing.
  enum class Settled { kNo, kYes, kIfClosed };
  Settled SettledOf(const DiskEntry& e, bool is_new) const;
  void RemoveLive(uint64_t node_id);
  void Rotate(uint64_t node_id, const std::string& path, int32_t type);
  // Every history the rule may shorten, after a change of the rule.
  void RotateAll();
  int PreviousOf(uint64_t node_id, Recorded& out);
  void Log(uint32_t type, uint64_t node_id, int32_t file_type,
           const std::vector<std::string>& s_args, bool with_source_id = false);

  const ScanTarget& target_;
  db::ViewWriter& view_;
  filestore::FileStore& store_;
  ScanState& state_;
  const ScanOptions& options_;
  ScanSummary& summary_;

  int root_fd_ = -1;
  uint64_t root_id_ = 0;
  RotateRule rule_;
  std::vector<std::string> scope_;  // empty: the whole view
  std::vector<std::string> busy_;   // folders whose contents wait
  std::vector<DiskEntry> waiting_;  // entries of them left for a later pass
  int64_t settled_before_ns_ = 0;
  int64_t closed_before_ns_ = 0;
  std::unordered_set<std::string> closed_check_;  // new files of kIfClosed
  // Entries the profile leaves alone, and the folders among them, below
  // which nothing is versioned or taken as removed.
  std::unordered_set<std::string> filtered_;
  std::vector<std::string> filtered_folders_;
  std::vector<DiskEntry> entries_;
  std::vector<std::string> deferred_;
  std::vector<uint64_t> node_of_;  // per entry; 0 for a new node
  std::vector<bool> placed_;
  std::unordered_map<uint64_t, Live> live_;
  std::unordered_map<std::string, uint64_t> at_path_;
  std::unordered_map<uint64_t, Recorded> recorded_;
};

}  // namespace scan
