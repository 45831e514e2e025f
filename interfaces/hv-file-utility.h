// Rebuilding a stored version: an origin file and the ordered chain of
// deltas that lead from it to the wanted content.
#pragma once

#include <string>
#include <vector>

class HVFileUtility {
 public:
  // Applies `patches` (librsync deltas, oldest first) to `origin` and writes
  // the result to a new file under `work_dir`, whose path goes to
  // `out_path`. `key` decrypts the pieces of an encrypted share; empty for a
  // plain one. 0 on success, -1 on failure (nothing is left under work_dir).
  static int PatchFile(const std::string& origin, const std::vector<std::string>& patches,
                       const std::string& key, const std::string& work_dir, std::string& out_path);
  // After a failed PatchFile of this thread: -2 when the disk or quota was
  // full, -1 for any other failure; 0 after a success.
  static int GetError();
};
