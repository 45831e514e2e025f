// Turns inotify events into "view N changed". Each view is a folder tree
// at an absolute root; every folder of it carries one watch.
//
// Users own everything under a root and may swap any folder for a link at
// any moment, so folders are only entered through descriptors opened
// without following links, and each watch is added through the opened
// folder itself ("/proc/self/fd/N/."), never through a path a user can
// redirect. "@eaDir" folders (the system's own working folders) and
// anything that is not a folder are not watched.
//
// Roots are taken as disjoint: the kernel gives one watch per folder, so
// when two roots nest, the folders they share belong to the view added
// last.
//
// The kernel's queue is bounded and so is the number of watches; when
// either limit is hit, or a root goes away, the view is handed to
// `rescan`: the scan reads the whole tree, which is the safety net for
// anything a watch missed. Not thread-safe: one loop owns it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace watch {

class Watcher {
 public:
  struct Callbacks {
    // Something in the folder `folder` of the view changed: an entry of
    // it, or the folder itself. "" is the root, else "a/b". `added` counts
    // the entries created or moved into it since the last report.
    std::function<void(uint64_t view_id, const std::string& folder, unsigned added)> changed;
    // The view must be scanned whole: the event queue overflowed, a watch
    // could not be added (the view stays partly watched), or the root was
    // deleted or moved away. `why` is for the log.
    std::function<void(uint64_t view_id, const std::string& why)> rescan;
  };

  explicit Watcher(Callbacks callbacks);
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // The inotify descriptor (nonblocking, close-on-exec), -1 when it could
  // not be made. Call OnReadable when it polls readable.
  int fd() const { return fd_; }

  // Watches every folder of the tree at the absolute `root`. 0, or -1
  // (logged) when the root cannot be opened as a folder without following
  // a link; the view is then not watched. A view added again is walked
  // again (also onto a new root): folders found are watched, folders gone
  // lose their watches. `rescan` may be called before it returns.
  int AddView(uint64_t view_id, const std::string& root);
  void RemoveView(uint64_t view_id);
  // True from AddView to RemoveView, also after the root went away (the
  // view then holds no watch until it is added again).
  bool Watching(uint64_t view_id) const;

  // Reads every pending event and reports through the callbacks, after the
  // watches are brought up to date: a folder created or moved in is
  // watched with its whole subtree before its view is reported changed.
  // The callbacks may add and remove views.
  void OnReadable();

  struct ViewStats {
    uint64_t view_id;
    std::string root;
    size_t folders;  // folders watched, the root included
    bool partial;    // some folders could not be watched
  };
  std::vector<ViewStats> Stats() const;

  // The view's watched folders, relative to its root ("" is the root).
  std::vector<std::string> TEST_Folders(uint64_t view_id) const;
  // Called with a folder's path relative to its root between its listing
  // and its open, so that a test can swap it at exactly that moment. Empty
  // to clear.
  static void TEST_SetBeforeOpen(std::function<void(const std::string& rel)> hook);

 private:
  struct View {
    std::string root;
    std::map<std::string, int> folders;  // relative path -> watch; the paths live here
    bool partial = false;
  };
  struct Folder {
    uint64_t view_id;
    const std::string* path;  // key in View::folders
  };
  struct Note {
    uint64_t view_id;
    bool rescan;
    std::string why;  // a rescan's reason, or the folder that changed
    unsigned added = 0;
  };

  void Walk(uint64_t view_id, int start_fd, const std::string& start_rel,
            std::unordered_set<int>* seen);
  int Rewalk(uint64_t view_id, const std::string& root);
  void WalkFrom(uint64_t view_id, const std::string& rel);
  void Resync(uint64_t view_id);
  int AddWatch(uint64_t view_id, int dir_fd, const std::string& rel);
  void DropWatch(int wd, bool remove_from_kernel);
  void DropSubtree(uint64_t view_id, const std::string& rel);
  void DropView(uint64_t view_id);
  void HandleEvent(int wd, uint32_t mask, const char* name);
  void RootGone(uint64_t view_id, const std::string& why);
  void Rescan(uint64_t view_id, const std::string& why);
  void Changed(uint64_t view_id, const std::string& folder, bool added);
  void Flush();

  Callbacks callbacks_;
  int fd_ = -1;
  std::map<uint64_t, View> views_;
  std::unordered_map<int, Folder> folders_;
  std::vector<Note> notes_;  // reported once the watches are consistent
};

}  // namespace watch
