// One version of a file or symlink turned into a real file in a working
// folder: rebuilt from the version store (origin and delta chain), or, for
// a version whose content was never kept, taken from the live file in the
// share while its hash still matches.
#pragma once

#include <string>

#include "db/types.h"

namespace tidepool::restore {

class File {
 public:
  explicit File(db::Version version) : version(std::move(version)) {}

  bool IsNoRepo() const { return version.getVerType() == db::kVerTypeLive; }
  // Rebuilds the stored content under work_dir (decrypting with `key` when
  // it is not empty). 0, -1, or -2 for no space.
  int Patch(const std::string& work_dir, const std::string& key);
  // Moves the rebuilt content to `dst`: renamed, or made a real symlink.
  int PatchedToPath(const std::string& dst);
  // Clones or copies the live file at `rel` beneath the view's folder
  // `root_fd` into a temporary file of work_dir and keeps it only if its
  // hash is the version's. The file is opened without following links and
  // read through that descriptor. 0, -1, -2 for no space, -4 when the live
  // file is gone.
  int DupFromShare(int root_fd, const std::string& rel, const std::string& work_dir, bool encrypted,
                   std::string& out_path);
  bool SupportSnapShot(const std::string& src, const std::string& dst) const;

 private:
  db::Version version;
  std::string patched_path;
};

// Closes the file databases the task kept open.
void CloseFileDatabases();

}  // namespace tidepool::restore
