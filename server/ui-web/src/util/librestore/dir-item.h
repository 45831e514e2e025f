// A folder and everything that lay in it at the chosen moment. It makes the
// folder, gives it its attributes, asks the view for the children as they
// stood then, and prepares an item for each; it also counts a subtree for
// the progress total and lists its encrypted nodes.
#pragma once

#include "restore-item.h"

namespace tidepool::restore {

class DirItem : public Item {
 public:
  using Item::Item;
  ~DirItem() override = default;

  int ListEncrypted(std::vector<db::Node>& out, bool include_removed) override;
  int Count(unsigned long long& count, bool include_removed) override;

  // Makes the folder and gives it its attributes; the target was checked
  // by Prepare. `dir` receives the folder, held open.
  int PrepareDir(const std::string& work_dir, const Target& target, const TaskActor& actor,
                 int flags, fsb::UniqueFd& dir);
  int GetNodeList(ItemList& out, bool include_removed);
  void FillSearchNodeFilter(const db::Node& node, bool recursive, bool include_removed,
                            db::SearchNodeFilter& filter) const;

 protected:
  int PrepareImpl(const std::string& work_dir, const Target& target, const TaskActor& actor,
                  int flags) override;
  int VersionCheck() override { return version.isDir() ? 0 : -1; }

 private:
  // This folder's node as it stood in the item's version.
  int QuerySelf(db::Node& node, bool include_removed);
  // The filter of this folder's whole subtree; -1 when the folder is not found.
  int SubtreeFilter(bool include_removed, db::SearchNodeFilter& filter);
};

}  // namespace tidepool::restore
