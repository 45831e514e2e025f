// The tree walk: a stack of open folders, one per level, each read as a
// stream with readdir (getdents underneath). A folder is opened from its
// parent's descriptor with O_NOFOLLOW and described by fstat of what was
// opened, so what is entered is what was looked at; every other entry is
// described by fstatat without following it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "fs-beneath.h"
#include "traverse-dir.h"

namespace {

struct Level {
  DIR* dir = nullptr;
  int depth = 0;
};

class Stack {
 public:
  ~Stack() {
    for (Level& level : levels_) closedir(level.dir);
  }
  // Takes `fd`; false (fd closed) when it cannot be read as a folder.
  bool Push(int fd, int depth) {
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
      const int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    levels_.push_back({dir, depth});
    return true;
  }
  void Pop() {
    closedir(levels_.back().dir);
    levels_.pop_back();
  }
  bool empty() const { return levels_.empty(); }
  Level& top() { return levels_.back(); }

 private:
  std::vector<Level> levels_;
};

bool IsDots(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Describes the entry `name` of `dir_fd`. For a folder, `child` gets it
// open. 1 described, 0 gone meanwhile, -1 failed.
int Describe(int dir_fd, const char* name, unsigned char type, struct stat& st,
             fsb::UniqueFd& child) {
  if (type == DT_DIR || type == DT_UNKNOWN) {
    const int fd = openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
      child.reset(fd);
      return fstat(fd, &st) == 0 ? 1 : -1;
    }
    if (errno == ENOENT) return 0;
    // Replaced by something that is not a folder (or a link): described below.
    if (errno != ENOTDIR && errno != ELOOP) return -1;
  }
  if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) return 1;
  return errno == ENOENT ? 0 : -1;
}

}  // namespace

int TraverseDir(TraverseHandler& handler, int flags) {
  if (flags != 0) {
    errno = EINVAL;
    return -1;
  }
  fsb::UniqueFd root(fsb::OpenNoSymlinks(handler.GetRoot(), O_RDONLY | O_DIRECTORY));
  struct stat root_st {};
  if (!root.valid() || fstat(root.get(), &root_st) != 0) return -1;
  errno = 0;
  if (handler.Begin(root.get(), root_st) < 0) {
    if (errno == 0) errno = EINTR;
    return -1;
  }
  Stack stack;
  if (!stack.Push(root.release(), 1)) return -1;
  while (!stack.empty()) {
    Level& level = stack.top();
    errno = 0;
    const struct dirent* entry = readdir(level.dir);
    if (entry == nullptr) {
      if (errno != 0) return -1;
      stack.Pop();
      continue;
    }
    if (IsDots(entry->d_name)) continue;
    const int dir_fd = dirfd(level.dir);
    struct stat st {};
    fsb::UniqueFd child;
    const int described = Describe(dir_fd, entry->d_name, entry->d_type, st, child);
    if (described < 0) return -1;
    if (described == 0) continue;
    errno = 0;
    const int answer = handler.Visit({dir_fd, entry->d_name, &st, level.depth});
    if (answer < 0) {
      if (errno == 0) errno = EINTR;
      return -1;
    }
    // A mount point beneath the root belongs to another file system.
    if (answer == kTraverseSkip || !S_ISDIR(st.st_mode) || !child.valid() ||
        st.st_dev != root_st.st_dev) {
      continue;
    }
    const int depth = level.depth + 1;  // `level` may move with the push
    if (!stack.Push(child.release(), depth)) return -1;
  }
  return 0;
}

int TraverseWithExceptionPathHandler::Begin(int root_fd, const struct stat& /*root_st*/) {
  excluded_.clear();
  for (const std::string& path : exceptions_) {
    fsb::UniqueFd fd(fsb::OpenBeneath(root_fd, path, O_PATH | O_NOFOLLOW));
    if (!fd.valid()) {
      // Missing, or a link (which the walk would not follow anyway).
      if (errno == ENOENT || errno == ELOOP) continue;
      return -1;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0) return -1;
    excluded_.emplace(st.st_dev, st.st_ino);
  }
  return 0;
}

int TraverseWithExceptionPathHandler::Visit(const TraverseEntry& entry) {
  if (!excluded_.empty() && excluded_.count({entry.st->st_dev, entry.st->st_ino}) != 0) {
    return kTraverseSkip;
  }
  return OnEntry(entry);
}

int FolderSizeCounter::OnEntry(const TraverseEntry& entry) {
  const struct stat& st = *entry.st;
  if (!S_ISREG(st.st_mode)) return kTraverseContinue;
  if (st.st_nlink > 1 && !linked_.emplace(st.st_dev, st.st_ino).second) return kTraverseContinue;
  Add(static_cast<unsigned long long>(st.st_size));
  return kTraverseContinue;
}
