// The rules of a user's profile that decide what of their home is versioned:
// a size limit, extensions and names. A file or folder the rules leave out
// is left alone: never versioned, and what the view already holds of it
// stays as it is.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace scan {

class UploadFilter {
 public:
  // From a profile's description, a JSON object:
  //   filtered_max_upload_size   bytes; a larger file is left out (0: no limit)
  //   filtered_extensions, user_defined_extensions
  //                              "iso", ".ISO": names ending so, case ignored
  //   filtered_names, user_defined_names
  //                              whole names of files or folders, case
  //                              ignored; "*" and "?" match as in a shell
  // Anything else in the object, or a text that is not one, adds no rule.
  static UploadFilter FromDescription(const std::string& description);

  bool empty() const { return max_size_ == 0 && extensions_.empty() && names_.empty(); }
  // Whether the entry named `name` (its last component) is left out; the
  // size counts for regular files only.
  bool Skips(const std::string& name, bool regular_file, uint64_t size) const;

 private:
  uint64_t max_size_ = 0;
  std::set<std::string> extensions_;  // lower case, without the dot
  std::set<std::string> names_;       // lower case
  std::vector<std::string> patterns_;
};

}  // namespace scan
