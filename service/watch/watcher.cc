// How the watches follow the tree:
//  1. A view is walked depth first through descriptors: each folder is
//     opened beneath its parent with O_NOFOLLOW and watched through that
//     descriptor, so a folder swapped for a link is skipped, not followed.
//  2. A folder created or moved in is walked the same way from the root
//     (openat2 beneath it, no link allowed) before its view is reported,
//     so whatever was written into it before its watch existed is read by
//     the scan that follows.
//  3. A folder deleted or moved away loses the watches of its subtree at
//     once. A rename within a view is a move away followed by a move in:
//     the subtree is walked again under its new name, which keeps every
//     watch's path right without rewriting paths.
//  4. Events of a watch already dropped are stale and ignored; the event
//     that dropped it has reported the change.
#include "watcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "fs-beneath.h"
#include "logger.h"

namespace watch {
namespace {

constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB |
                           IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF |
                           IN_EXCL_UNLINK;

// The system's own working folders: restores build their files there, which
// is not a change of the user's content.
constexpr const char* kSystemFolder = "@eaDir";

std::function<void(const std::string&)>& BeforeOpen() {
  static std::function<void(const std::string&)> hook;
  return hook;
}

std::string Join(const std::string& rel, const std::string& name) {
  return rel.empty() ? name : rel + "/" + name;
}

// Errors of an open that say the entry is no longer a folder where it was
// listed (gone, or swapped for a link or a file): its own event tells.
bool Vanished(int error) {
  return error == ENOENT || error == ELOOP || error == ENOTDIR || error == EXDEV;
}

// Names of the folders directly in the open folder `fd`, links and
// "@eaDir" left out.
std::vector<std::string> Subfolders(int fd) {
  std::vector<std::string> out;
  const int list_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (list_fd < 0) return out;
  DIR* dir = fdopendir(list_fd);
  if (!dir) {
    close(list_fd);
    return out;
  }
  while (const dirent* d = readdir(dir)) {
    if (strcmp(d->d_name, ".") == 0 || strcmp(d->d_name, "..") == 0 ||
        strcmp(d->d_name, kSystemFolder) == 0) {
      continue;
    }
    bool folder = d->d_type == DT_DIR;
    if (d->d_type == DT_UNKNOWN) {
      struct stat st;
      folder = fstatat(fd, d->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    }
    if (folder) out.emplace_back(d->d_name);
  }
  closedir(dir);
  return out;
}

}  // namespace

Watcher::Watcher(Callbacks callbacks) : callbacks_(std::move(callbacks)) {
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) LOG_ERROR("watch: inotify_init1: %s\n", strerror(errno));
}

Watcher::~Watcher() {
  if (fd_ >= 0) close(fd_);
}

int Watcher::AddView(uint64_t view_id, const std::string& root) {
  if (fd_ < 0) return -1;
  if (Rewalk(view_id, root) != 0) {
    DropView(view_id);
    return -1;
  }
  Flush();
  return 0;
}

int Watcher::Rewalk(uint64_t view_id, const std::string& root) {
  fsb::UniqueFd root_fd;
  if (!root.empty() && root[0] == '/') {
    root_fd.reset(fsb::OpenNoSymlinks(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  } else {
    errno = EINVAL;
  }
  if (!root_fd.valid()) {
    LOG_WARNING("watch: cannot open the root %s of view %llu: %s\n", root.c_str(),
                static_cast<unsigned long long>(view_id), strerror(errno));
    return -1;
  }
  View& view = views_[view_id];
  // Paths are relative to the root: a view moved onto another root starts
  // afresh.
  if (view.root != root) DropSubtree(view_id, "");
  view.root = root;
  view.partial = false;
  // Watches met again are kept (the kernel gives the same one back), so no
  // event is lost meanwhile; those not met belong to folders gone.
  std::unordered_set<int> seen;
  Walk(view_id, root_fd.release(), "", &seen);
  std::vector<int> stale;
  for (const auto& [path, wd] : view.folders) {
    if (!seen.count(wd)) stale.push_back(wd);
  }
  for (int wd : stale) DropWatch(wd, true);
  return 0;
}

void Watcher::RemoveView(uint64_t view_id) { DropView(view_id); }

bool Watcher::Watching(uint64_t view_id) const { return views_.count(view_id) != 0; }

std::vector<Watcher::ViewStats> Watcher::Stats() const {
  std::vector<ViewStats> out;
  out.reserve(views_.size());
  for (const auto& [id, view] : views_) {
    out.push_back(ViewStats{id, view.root, view.folders.size(), view.partial});
  }
  return out;
}

std::vector<std::string> Watcher::TEST_Folders(uint64_t view_id) const {
  std::vector<std::string> out;
  const auto it = views_.find(view_id);
  if (it == views_.end()) return out;
  for (const auto& entry : it->second.folders) out.push_back(entry.first);
  return out;
}

void Watcher::TEST_SetBeforeOpen(std::function<void(const std::string& rel)> hook) {
  BeforeOpen() = std::move(hook);
}

void Watcher::OnReadable() {
  if (fd_ < 0) return;
  alignas(inotify_event) char buf[64 * 1024];
  for (;;) {
    const ssize_t n = read(fd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (errno != EAGAIN) LOG_WARNING("watch: reading events: %s\n", strerror(errno));
      break;
    }
    if (n == 0) break;
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* ev = reinterpret_cast<const inotify_event*>(buf + at);
      HandleEvent(ev->wd, ev->mask, ev->len ? ev->name : nullptr);
      at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
    }
  }
  Flush();
}

void Watcher::HandleEvent(int wd, uint32_t mask, const char* name) {
  if (mask & IN_Q_OVERFLOW) {
    // Events were lost, folders made in that time among them: every view
    // is scanned, and walked again so that its watches match the tree.
    std::vector<uint64_t> ids;
    for (const auto& entry : views_) ids.push_back(entry.first);
    for (uint64_t id : ids) {
      Rescan(id, "event queue overflowed");
      Resync(id);
    }
    return;
  }
  const auto it = folders_.find(wd);
  if (it == folders_.end()) return;
  const uint64_t view_id = it->second.view_id;
  const std::string rel = *it->second.path;
  if (mask & (IN_IGNORED | IN_UNMOUNT)) {
    DropWatch(wd, false);
    if (rel.empty()) RootGone(view_id, "the root's file system was unmounted");
    return;
  }
  if (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
    if (rel.empty()) {
      RootGone(view_id, mask & IN_DELETE_SELF ? "the root was deleted" : "the root was moved");
      return;
    }
    // Its parent's event dropped it already unless the parent is not
    // watched; then where it went is unknown and a move in will walk it.
    DropSubtree(view_id, rel);
  }
  if (name && strcmp(name, kSystemFolder) == 0) return;
  if (name && (mask & IN_ISDIR)) {
    const std::string child = Join(rel, name);
    if (mask & (IN_MOVED_FROM | IN_DELETE)) DropSubtree(view_id, child);
    if (mask & (IN_CREATE | IN_MOVED_TO)) WalkFrom(view_id, child);
  }
  Changed(view_id, rel, name && (mask & (IN_CREATE | IN_MOVED_TO)));
}

void Watcher::Resync(uint64_t view_id) {
  const auto vit = views_.find(view_id);
  if (vit == views_.end()) return;
  const std::string root = vit->second.root;
  if (Rewalk(view_id, root) != 0) RootGone(view_id, "the root cannot be opened");
}

void Watcher::WalkFrom(uint64_t view_id, const std::string& rel) {
  const auto vit = views_.find(view_id);
  if (vit == views_.end()) return;
  fsb::UniqueFd root_fd(fsb::OpenNoSymlinks(vit->second.root, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root_fd.valid()) {
    LOG_WARNING("watch: cannot open the root %s: %s\n", vit->second.root.c_str(), strerror(errno));
    return;
  }
  const int fd = fsb::OpenBeneath(root_fd.get(), rel, O_RDONLY | O_DIRECTORY);
  if (fd < 0) {
    if (!Vanished(errno)) {
      LOG_WARNING("watch: cannot open %s/%s: %s\n", vit->second.root.c_str(), rel.c_str(),
                  strerror(errno));
    }
    return;
  }
  Walk(view_id, fd, rel, nullptr);
}

void Watcher::Walk(uint64_t view_id, int start_fd, const std::string& start_rel,
                   std::unordered_set<int>* seen) {
  struct Frame {
    fsb::UniqueFd fd;
    std::string rel;
    std::vector<std::string> subfolders;
    size_t next = 0;
  };
  // Depth first with one descriptor per level: children are opened beneath
  // their parent's descriptor, never by a path.
  std::vector<Frame> stack;
  auto enter = [&](int fd, std::string rel) {
    fsb::UniqueFd owned(fd);
    const int wd = AddWatch(view_id, fd, rel);
    if (wd < 0) return;  // its subtree could not be watched either
    if (seen) seen->insert(wd);
    std::vector<std::string> subs = Subfolders(fd);
    stack.push_back(Frame{std::move(owned), std::move(rel), std::move(subs), 0});
  };
  enter(start_fd, start_rel);
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.subfolders.size()) {
      stack.pop_back();
      continue;
    }
    const std::string& name = top.subfolders[top.next++];
    if (BeforeOpen()) BeforeOpen()(Join(top.rel, name));
    const int fd =
        openat(top.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      const int error = errno;
      const std::string path = views_[view_id].root + "/" + Join(top.rel, name);
      if (error == EMFILE || error == ENFILE) {
        LOG_WARNING("watch: cannot open %s: %s\n", path.c_str(), strerror(error));
        View& view = views_[view_id];
        if (!view.partial) {
          view.partial = true;
          Rescan(view_id, "too many open files");
        }
      } else if (!Vanished(error)) {
        LOG_WARNING("watch: cannot open %s: %s\n", path.c_str(), strerror(error));
      }
      continue;
    }
    enter(fd, Join(top.rel, name));
  }
}

int Watcher::AddWatch(uint64_t view_id, int dir_fd, const std::string& rel) {
  View& view = views_[view_id];
  // "/." makes the kernel resolve the descriptor's folder itself, and with
  // IN_DONT_FOLLOW nothing after it can be a link.
  const std::string path = fsb::FdPath(dir_fd) + "/.";
  const int wd = inotify_add_watch(fd_, path.c_str(), kMask | IN_ONLYDIR | IN_DONT_FOLLOW);
  if (wd < 0) {
    const int error = errno;
    if (error == ENOSPC) {
      if (!view.partial) {
        LOG_WARNING("watch: watch limit reached in %s\n", view.root.c_str());
        view.partial = true;
        Rescan(view_id, "watch limit reached");
      }
    } else {
      LOG_WARNING("watch: cannot watch %s/%s: %s\n", view.root.c_str(), rel.c_str(),
                  strerror(error));
    }
    return -1;
  }
  // The kernel hands back the same watch for a folder already watched.
  const auto known = folders_.find(wd);
  if (known != folders_.end()) {
    if (known->second.view_id == view_id && *known->second.path == rel) return wd;
    DropWatch(wd, false);
  }
  auto [pit, fresh] = view.folders.emplace(rel, wd);
  if (!fresh) {
    // Another folder held this path before and its removal is still
    // queued: that watch is stale.
    DropWatch(pit->second, true);
    pit = view.folders.emplace(rel, wd).first;
  }
  folders_[wd] = Folder{view_id, &pit->first};
  return wd;
}

void Watcher::DropWatch(int wd, bool remove_from_kernel) {
  const auto it = folders_.find(wd);
  if (it == folders_.end()) return;
  const auto vit = views_.find(it->second.view_id);
  if (vit != views_.end()) vit->second.folders.erase(*it->second.path);
  folders_.erase(it);
  // EINVAL when the kernel has dropped it already: nothing to do.
  if (remove_from_kernel) inotify_rm_watch(fd_, wd);
}

void Watcher::DropSubtree(uint64_t view_id, const std::string& rel) {
  const auto vit = views_.find(view_id);
  if (vit == views_.end()) return;
  auto& folders = vit->second.folders;
  std::vector<int> wds;
  if (rel.empty()) {
    for (const auto& entry : folders) wds.push_back(entry.second);
  } else {
    // "a!b" sorts between "a" and "a/b": the folder and its subtree are
    // looked up apart.
    if (const auto self = folders.find(rel); self != folders.end()) wds.push_back(self->second);
    const std::string prefix = rel + "/";
    for (auto it = folders.lower_bound(prefix);
         it != folders.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
      wds.push_back(it->second);
    }
  }
  for (int wd : wds) DropWatch(wd, true);
}

void Watcher::DropView(uint64_t view_id) {
  DropSubtree(view_id, "");
  views_.erase(view_id);
}

void Watcher::RootGone(uint64_t view_id, const std::string& why) {
  DropSubtree(view_id, "");
  const auto vit = views_.find(view_id);
  if (vit == views_.end()) return;
  vit->second.partial = true;
  LOG_WARNING("watch: %s: %s\n", vit->second.root.c_str(), why.c_str());
  Rescan(view_id, why);
}

void Watcher::Rescan(uint64_t view_id, const std::string& why) {
  notes_.push_back(Note{view_id, true, why});
}

void Watcher::Changed(uint64_t view_id, const std::string& folder, bool added) {
  if (!notes_.empty() && !notes_.back().rescan && notes_.back().view_id == view_id &&
      notes_.back().why == folder) {
    notes_.back().added += added;
    return;
  }
  notes_.push_back(Note{view_id, false, folder, added ? 1u : 0u});
}

void Watcher::Flush() {
  std::vector<Note> notes;
  notes.swap(notes_);
  for (const Note& note : notes) {
    // A callback may have removed a view that later notes name.
    if (!Watching(note.view_id)) continue;
    if (note.rescan) {
      if (callbacks_.rescan) callbacks_.rescan(note.view_id, note.why);
    } else if (callbacks_.changed) {
      callbacks_.changed(note.view_id, note.why, note.added);
    }
  }
}

}  // namespace watch
