// File operations under a restore: reading a file once for its hash and
// copies, temporary files, copy-on-write clones, the plain-file form of a
// symlink, POSIX ACLs, Mac attribute files and renames that keep extended
// attributes.
//
// Every int-returning function answers 0 on success and -1 on failure with
// errno set to the cause (ENOSPC and EDQUOT come through unchanged, so a
// caller can tell a full volume from other faults).
//
// Mac attributes on Linux: an attribute named "com.apple.X" is kept as the
// extended attribute "user.com.apple.X", since only the user namespace is
// open to arbitrary names. MacAttributePack reads exactly those, and
// MacAttributeUnpack writes them back under the same names.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

// Reads one file from start to end in large blocks, writing each block to
// every copy target and feeding the content hash.
class SimpleFileReader {
 public:
  SimpleFileReader() = default;
  SimpleFileReader(const SimpleFileReader&) = delete;
  SimpleFileReader& operator=(const SimpleFileReader&) = delete;

  // The file to read; a later call replaces the earlier one.
  void setFile(const std::string& path) { path_ = path; }
  // A copy target: created (mode 0644) or truncated by readFile.
  void pushCopyFile(const std::string& path) { copies_.push_back(path); }
  // Where readFile puts the SHA-256 of the content, lower-case hex. Null
  // (the default) skips hashing. `hash` must outlive readFile.
  void setHashString(std::string* hash) { hash_ = hash; }
  // One pass over the file. On failure the hash string is left untouched and
  // copy targets may hold part of the content.
  int readFile();

 private:
  std::string path_;
  std::vector<std::string> copies_;
  std::string* hash_ = nullptr;
};

// A file with a unique name in a folder, removed when the object goes away
// unless it was made permanent.
class TempFile {
 public:
  explicit TempFile(std::string dir) : dir_(std::move(dir)) {}
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // Creates an empty file (mode 0600) in the folder. Once only: a second call
  // fails with EEXIST.
  int create();
  // The file's path; empty before create succeeded.
  const std::string& getPath() const { return path_; }
  // Keeps the file past the object's life.
  void convert_permanent() { permanent_ = true; }

 private:
  std::string dir_;
  std::string path_;
  bool permanent_ = false;
};

// Makes `dst` (created mode 0644, or truncated) a copy-on-write clone of the
// whole of `src`. Fails (EXDEV, EOPNOTSUPP, EINVAL...) where the volume
// cannot clone; `dst` may then exist, empty.
int CloneFile(const std::string& src, const std::string& dst);

// A symlink's plain-file form is a regular file whose content is exactly the
// link's target, no terminator: the form in which the version store keeps
// and hashes links.
// Writes the form of the link `link` (not followed) into `file` (created or
// truncated, mode 0644). EINVAL when `link` is not a symlink.
int getFileFromSymlink(const std::string& link, const std::string& file);
// Reads a link target back out of `file`. EINVAL when the content cannot be
// a target (empty, longer than PATH_MAX, or holding a NUL byte); `target` is
// left untouched on failure.
int getSymlinkFromFile(const std::string& file, std::string& target);

// Sets every Mac attribute found in the AppleDouble file `appledouble_path`
// on `target_path`, skipping names in `skip` (names as stored, "com.apple.X").
// Attributes come from the ATTR block that follows the Finder info entry; a
// non-zero Finder info and a non-empty resource fork entry become
// "com.apple.FinderInfo" and "com.apple.ResourceFork" unless the block holds
// them already. The whole file is checked before anything is written: a
// malformed one (bad magic or version, an entry or attribute out of bounds, a
// name without terminator) fails with EINVAL and the target is untouched.
int MacAttributeUnpack(const std::string& appledouble_path, const std::string& target_path,
                       const std::set<std::string>* skip = nullptr);
// Writes the Mac attributes of `path` (not followed) into a new AppleDouble
// file `out_appledouble` (created or truncated), all in the ATTR block. A
// file with no Mac attributes gives a valid file with none.
int MacAttributePack(const std::string& path, const std::string& out_appledouble);
// The same for the open file `fd`: the attributes of exactly what was opened.
int MacAttributePackFd(int fd, const std::string& out_appledouble);

// Renames `src` to `dst`, replacing it. Across file systems a regular file or
// a symlink is copied with its extended attributes, owner, mode and times
// into a temporary name beside `dst`, moved over `dst`, and `src` is then
// removed; a folder across file systems fails with EXDEV.
int FSRenameWithEA(const std::string& src, const std::string& dst);

namespace SDK {

// True when the volume holding `path` can make copy-on-write clones (btrfs).
// False when `path` cannot be examined. `follow` is kept for callers that
// pass it; the answer does not depend on it.
bool IsPathSupportSnapShot(const std::string& path, bool follow);

// A POSIX.1e ACL parsed from text, applied to paths as their access ACL.
class ACL {
 public:
  ACL() = default;
  ~ACL();
  ACL(const ACL&) = delete;
  ACL& operator=(const ACL&) = delete;

  // Parses the long or short text form (what acl_to_text writes, comments
  // allowed). An empty text is "no ACL": write then leaves paths as they are.
  // On failure (EINVAL) the previous ACL is dropped.
  int set(const std::string& text);
  // Applies the ACL to `path` (followed). Fails with EINVAL when set never
  // succeeded.
  int write(const std::string& path) const;

 private:
  void* acl_ = nullptr;  // acl_t, kept opaque so callers need no libacl header
  bool parsed_ = false;
};

}  // namespace SDK
