// Plain file-system operations of the appliance's file library, as the
// restore engine uses them, and the black list of names the service keeps
// out of sync. Paths are absolute UTF-8 texts.
//
// Every int-returning function answers 0 on success and -1 on failure with
// errno set to the cause (ENOSPC and EDQUOT come through unchanged).
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

// What FSStat found at a path.
struct FSInfo {
  bool exists = false;
  int type = 0;  // 1 regular file, 2 folder, 3 symlink, 0 anything else
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t mode = 0;  // permission bits, 07777
  uint64_t size = 0;
  int64_t mtime = 0;
};

inline constexpr int kFSTypeFile = 1;
inline constexpr int kFSTypeDir = 2;
inline constexpr int kFSTypeSymlink = 3;

// Fills `info`. Nothing at `path` is not a failure: 0 with exists false.
// With `no_follow` a symlink is described itself, else its target.
int FSStat(const std::string& path, FSInfo& info, bool no_follow);
// True when something is at `path` (with `no_follow`, a dangling link too).
bool IsFileExist(const std::string& path, bool no_follow);
// Makes `path` and its missing parents (mode 0777 less umask), creating
// nothing at or above `root`, which must be a prefix of `path`.
int FSMKDirFromRoot(const std::string& path, const std::string& root);
// Makes `path`; with `parents` its missing parents too. An existing folder
// is success.
int FSMKDir(const std::string& path, bool parents);
// Owner and group of `path` itself (a symlink is not followed).
int FSChown(const std::string& path, uint32_t uid, uint32_t gid);
// Access and modification time, in seconds, of `path` itself.
int FSUTime(const std::string& path, int64_t atime, int64_t mtime);
// Creates an empty file with a unique name in `dir` (mode 0600) and gives
// its path in `out`.
int FSMktemp(const std::string& dir, std::string& out);
// Makes the symlink `path` pointing at `target`.
int FSCreateSymbolicLink(const std::string& target, const std::string& path);
// Removes a file, a link or an empty folder; with `recursive` a whole tree.
int FSRemove(const std::string& path, bool recursive);

// The service's black list: names, extensions and sizes that are never
// synced, and extended attributes that are never carried.
struct BlackListFilter {
  struct Common {
    uint64_t max_name_length = 0;  // 0: no limit
    uint64_t max_path_length = 0;
    std::string character;  // characters no name may hold
    std::vector<std::string> name, prefix, suffix, dir_prefix;
  } common;
  struct File {
    uint64_t max_size = 0;
    std::string character;
    std::vector<std::string> name, prefix, suffix, glob, ext;
  } file;
  struct Dir {
    std::string character;
    std::vector<std::string> name, prefix, suffix;
  } dir;
  struct Ea {
    std::set<std::string> name;  // attribute names as stored ("com.apple.X")
  } ea;
};

class BlackList2 {
 public:
  // The service's own list.
  static constexpr const char* kDefaultPath = "/var/packages/Tidepool/target/etc/filter";

  // Reads a list file (INI-like sections [common] [file] [dir] [ea], each
  // key = "value", "value"...). 0, or -1 when the file cannot be read or
  // parsed; the previous filter is then dropped.
  int Load(const std::string& path);
  // The loaded filter; without a successful Load, the service's own list
  // when it can be read, else null.
  const BlackListFilter* GetFilter();
  // Hands the filter back; the pointer from GetFilter is then invalid.
  void ReturnFilter();

 private:
  BlackListFilter filter_;
  bool loaded_ = false;
  bool tried_default_ = false;
};

// MacAttributeUnpack with the black list's "ea" names skipped; a null filter
// skips nothing.
int MacAttributeUnpack(const std::string& appledouble_path, const std::string& target_path,
                       const BlackListFilter* filter);
