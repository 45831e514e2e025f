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

  // With `encrypt` true, encrypts `src` into `dst` (created or truncated)
  // under the share key `key`; with false, decrypts. 0, or -1 on failure
  // (nothing left at dst); GetError() then tells -2 for no space.
  static int EncryptFile(const std::string& src, const std::string& dst, const std::string& key,
                         bool encrypt);

  // Renames `src` over `dst` (see FSRenameWithEA of file-util.h); `with_ea`
  // false renames plainly. 0 or -1 with errno set.
  static int FSRenameWithEA(const std::string& src, const std::string& dst, bool with_ea);
};
