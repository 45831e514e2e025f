// Walks of a folder tree for the service's own measurements: how many bytes
// the databases' folders, the office folder or a repository about to move
// take on disk.
//
//   FolderSizeCounter counter("/volume1/@tidepool");
//   counter.AddException("/@sync/repo");
//   if (TraverseDir(counter, 0) == 0) use(counter.GetTotal());
//
// The walk runs as whoever calls it, usually root, over folders that a user
// may have written to, so it never follows a symbolic link: the root is
// opened with no link anywhere on its path, and every folder below is
// opened from its parent's descriptor with O_NOFOLLOW. It reads each folder
// as a stream of entries and holds one descriptor per level, never a list
// of names or a path per entry. It stays on the root's file system.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

// One entry as the walk meets it.
struct TraverseEntry {
  int dir_fd = -1;                  // the open folder that holds the entry
  const char* name = nullptr;       // its name in that folder
  const struct stat* st = nullptr;  // the entry itself (a link is described, not followed)
  int depth = 1;                    // 1 for the root's own entries
};

// Visit answers: go on (and enter the entry when it is a folder), or pass
// over the entry and whatever it holds. A negative answer stops the walk,
// which then fails.
inline constexpr int kTraverseContinue = 0;
inline constexpr int kTraverseSkip = 1;

class TraverseHandler {
 public:
  explicit TraverseHandler(std::string root) : root_(std::move(root)) {}
  virtual ~TraverseHandler() = default;
  TraverseHandler(const TraverseHandler&) = delete;
  TraverseHandler& operator=(const TraverseHandler&) = delete;

  // The absolute path of the folder to walk.
  const std::string& GetRoot() const { return root_; }
  // Bytes counted so far.
  unsigned long long GetTotal() const { return total_; }

  // Called once with the open root before any entry; negative stops the
  // walk before it begins.
  virtual int Begin(int /*root_fd*/, const struct stat& /*root_st*/) { return 0; }
  // Called for every entry beneath the root, a folder before what it holds.
  virtual int Visit(const TraverseEntry& entry) = 0;

 protected:
  void Add(unsigned long long bytes) { total_ += bytes; }

 private:
  std::string root_;
  unsigned long long total_ = 0;
};

// A handler that leaves chosen paths out of the walk.
class TraverseWithExceptionPathHandler : public TraverseHandler {
 public:
  using TraverseHandler::TraverseHandler;

  // `path` is relative to the root ("/@sync/repo" or "@sync/repo"): the
  // entry there, and all it holds, is left out. The paths are looked up
  // beneath the root, without following links, when the walk begins, and
  // matched by identity (device and inode), so a hard link elsewhere to an
  // excepted file is left out too. A path that is missing then leaves out
  // nothing; one that tries to leave the root makes the walk fail.
  void AddException(const std::string& path) { exceptions_.push_back(path); }

  int Begin(int root_fd, const struct stat& root_st) override;
  int Visit(const TraverseEntry& entry) final;

 protected:
  // Visit for the entries that are not left out.
  virtual int OnEntry(const TraverseEntry& entry) = 0;

 private:
  std::vector<std::string> exceptions_;
  std::set<std::pair<dev_t, ino_t>> excluded_;
};

// Counts the bytes of the regular files beneath the root (their length, as
// `du -b` does), a file with several names once. Folders and links add
// nothing.
class FolderSizeCounter : public TraverseWithExceptionPathHandler {
 public:
  using TraverseWithExceptionPathHandler::TraverseWithExceptionPathHandler;

 protected:
  int OnEntry(const TraverseEntry& entry) override;

 private:
  std::set<std::pair<dev_t, ino_t>> linked_;  // files with more than one name, seen once
};

// Walks the tree under handler.GetRoot(), calling the handler. `flags` must
// be 0. 0 on success; -1 with errno when the root cannot be opened as a
// folder with no link on its path, a folder cannot be read, the handler
// stops the walk (EINTR unless the handler set errno) or the tree is deeper
// than the descriptors a process may hold. Entries that vanish during the
// walk are passed over.
int TraverseDir(TraverseHandler& handler, int flags);
