#include "view-scan.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>
#include <unordered_set>

#include "content-pass.h"
#include "db/errors.h"
#include "db/log-manager.h"
#include "db/log-types.h"
#include "file-util.h"
#include "logger.h"
#include "office-format.h"

namespace scan {
namespace {

// An office document whose header marks it as opening only with its
// password (office-format.h). Read through the descriptor already open for
// the content, so that the flag describes the bytes that were stored.
bool IsProtectedDocument(const DiskEntry& e, int fd) {
  if (e.file_type != db::kFileTypeFile) return false;
  const size_t slash = e.path.rfind('/');
  if (!office_format::IsDocumentName(slash == std::string::npos ? e.path
                                                                : e.path.substr(slash + 1))) {
    return false;
  }
  char head[office_format::kHeaderMax];
  const ssize_t n = pread(fd, head, sizeof head, 0);
  return n > 0 &&
         office_format::HeaderSaysProtected(std::string_view(head, static_cast<size_t>(n)));
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsUnder(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

struct PairHash {
  size_t operator()(const std::pair<uint64_t, uint64_t>& p) const {
    return std::hash<uint64_t>()(p.first * 1000003u ^ p.second);
  }
};

// Whether the open file carries any "user.com.apple." attribute: one
// listing, and no packing for the many files that have none.
bool HasMacAttrs(int fd) {
  static constexpr char kPrefix[] = "user.com.apple.";
  char small[4096];
  std::string names;
  ssize_t n = flistxattr(fd, small, sizeof small);
  if (n < 0 && errno == ERANGE) {
    n = flistxattr(fd, nullptr, 0);
    if (n > 0) {
      names.resize(static_cast<size_t>(n));
      n = flistxattr(fd, names.data(), names.size());
    }
  } else if (n > 0) {
    names.assign(small, static_cast<size_t>(n));
  }
  if (n <= 0) return false;
  names.resize(static_cast<size_t>(n));
  for (size_t pos = 0; pos < names.size(); pos += strlen(names.c_str() + pos) + 1)
    if (names.compare(pos, sizeof kPrefix - 1, kPrefix) == 0) return true;
  return false;
}

// Whether anyone may have the open file `fd` open for writing: a read
// lease is refused while someone does. Taken and given back at once; the
// kernel would signal this process if a writer came meanwhile, which must
// not end it. True also when the file system offers no leases.
bool OpenForWriting(int fd) {
  static const bool ignoring = [] {
    struct sigaction now {};
    if (sigaction(SIGIO, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) signal(SIGIO, SIG_IGN);
    return true;
  }();
  (void)ignoring;
  if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return true;
  fcntl(fd, F_SETLEASE, F_UNLCK);
  return false;
}

// Whether the entry's ctime lies within the last `ms` milliseconds.
bool ChangedWithin(const Recorded& entry, int64_t ms) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t now_ns = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
  return entry.ctime_ns >= now_ns - ms * 1000000;
}

// SHA-256 of a small file, lower-case hex; empty when it cannot be read.
std::string HashOf(int fd) {
  struct stat st;
  filestore::HashConsumer hash;
  if (fstat(fd, &st) != 0 ||
      filestore::ReadOnce(fd, static_cast<uint64_t>(st.st_size), {&hash}, {}) < 0)
    return "";
  return hash.hex();
}

Recorded FromDisk(const DiskEntry& e) {
  Recorded r;
  r.dev = e.st.st_dev;
  r.ino = e.st.st_ino;
  r.file_type = e.file_type;
  r.mtime_ns = e.mtime_ns();
  r.uid = e.st.st_uid;
  r.gid = e.st.st_gid;
  r.mode = e.st.st_mode & 07777;
  r.acl = e.acl;
  r.ver_type = db::kVerTypeStored;
  r.ctime_ns = static_cast<int64_t>(e.st.st_ctim.tv_sec) * 1000000000 + e.st.st_ctim.tv_nsec;
  return r;
}

bool SameStat(const Recorded& a, const Recorded& b) {
  return a.dev == b.dev && a.ino == b.ino && a.file_type == b.file_type && a.size == b.size &&
         a.mtime_ns == b.mtime_ns;
}

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

ViewScan::~ViewScan() {
  if (root_fd_ >= 0) close(root_fd_);
}

int ViewScan::Run() {
  // The root itself may have been swapped for a link by the folder's owner.
  root_fd_ = open(target_.root_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const auto scoped = options_.folders.find(target_.view_id);
  if (scoped != options_.folders.end()) scope_ = scoped->second;
  const int walked = root_fd_ < 0     ? -1
                     : scope_.empty() ? WalkTree(root_fd_, target_.root_path, entries_, deferred_)
                                      : WalkScope();
  if (walked < 0) {
    LOG_ERROR("scan: cannot read %s: %s\n", target_.root_path.c_str(), strerror(errno));
    return db::kErrCannotOpen;
  }
  summary_.deferred += static_cast<unsigned>(deferred_.size());
  if (!target_.filter.empty()) ApplyFilter();
  int rc = scope_.empty() ? LoadLive() : LoadScope();
  if (rc < 0 || (rc = LoadRecorded()) < 0) return rc;
  SetAsideBusy();
  db::RotateSettings rotation;
  if (view_.GetRotateSettings(rotation) < 0) {
    rotation.count = 0;  // a damaged setting keeps every version
    rotation.applied = true;
  }
  rule_ = RotateRule{rotation.count, rotation.policy, rotation.days};
  Match();
  // One transaction per database for the whole view: a scan of many small
  // files is bound by commits otherwise.
  if ((rc = view_.Begin()) < 0) return rc;
  store_.BeginBatch();
  state_.Begin();
  rc = scope_.empty() ? RecordRoot() : db::kOk;
  if (rc >= 0) rc = PlaceAll();
  std::vector<const Live*> left;
  for (const auto& [id, live] : live_)
    if (!live.claimed && !live.kept && !live.gone && !IsDeferred(live.path)) left.push_back(&live);
  std::sort(left.begin(), left.end(),
            [](const Live* a, const Live* b) { return a->path < b->path; });
  for (const Live* live : left)
    if (!live->gone) RemoveLive(live->id);
  // Changed settings reach every history at the next pass; an age limit
  // also catches up on each full pass, as versions grow old.
  if (rc >= 0 && (!rotation.applied || (scope_.empty() && rule_.days > 0))) {
    RotateAll();
    view_.MarkRotateSettingsApplied(rotation);
  }
  state_.Commit();
  store_.CommitBatch();
  const int commit = view_.Commit();
  return commit < 0 ? commit : rc;
}

int ViewScan::LoadRecorded() {
  // Only live nodes are ever matched or compared; past this share of a
  // large view one read of all its rows is cheaper than a look-up each.
  constexpr size_t kByNode = 20000;
  if (scope_.empty() || live_.size() > kByNode) return state_.Load(target_.view_id, recorded_);
  std::vector<uint64_t> ids;
  ids.reserve(live_.size());
  for (const auto& [id, live] : live_) ids.push_back(id);
  return state_.LoadNodes(target_.view_id, ids, recorded_);
}

void ViewScan::ApplyFilter() {
  // Parents come before their children, so a folder left out is known
  // before anything below it.
  std::vector<std::string> folders;
  auto skipped = [&](const DiskEntry& e) {
    for (const std::string& folder : folders)
      if (IsUnder(e.path, folder)) return true;
    const std::string name = e.path.substr(e.path.rfind('/') + 1);
    const bool regular = S_ISREG(e.st.st_mode);
    if (e.path == "/" ||
        !target_.filter.Skips(name, regular, regular ? static_cast<uint64_t>(e.st.st_size) : 0))
      return false;
    filtered_.insert(e.path);
    if (S_ISDIR(e.st.st_mode)) folders.push_back(e.path);
    ++summary_.filtered;
    return true;
  };
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(), skipped), entries_.end());
  filtered_folders_ = std::move(folders);
}

bool ViewScan::IsDeferred(const std::string& path) const {
  if (filtered_.count(path)) return true;
  for (const std::string& f : filtered_folders_)
    if (IsUnder(path, f)) return true;
  for (const std::string& d : deferred_)
    if (path == d || IsUnder(path, d)) return true;
  // Without a settle time nothing in a busy folder is taken as removed;
  // with one, what waits keeps its node (see Match).
  if (options_.settle_ms < 0)
    for (const std::string& b : busy_)
      if (IsUnder(path, b)) return true;
  return false;
}

bool ViewScan::InBusy(const std::string& path) const {
  for (const std::string& b : busy_)
    if (b == "/" || IsUnder(path, b)) return true;
  return false;
}

ViewScan::Settled ViewScan::SettledOf(const DiskEntry& e, bool is_new) const {
  if (options_.settle_ms < 0) return Settled::kNo;
  if (e.file_type != db::kFileTypeFile) return Settled::kYes;
  const int64_t ctime_ns =
      static_cast<int64_t>(e.st.st_ctim.tv_sec) * 1000000000 + e.st.st_ctim.tv_nsec;
  if (ctime_ns <= settled_before_ns_) return Settled::kYes;
  return is_new && ctime_ns <= closed_before_ns_ ? Settled::kIfClosed : Settled::kNo;
}

void ViewScan::SetAsideBusy() {
  const auto busy = options_.busy.find(target_.view_id);
  if (busy == options_.busy.end()) return;
  for (const std::string& folder : busy->second) {
    // The whole view waiting would make the pass pointless.
    if (folder.empty() || (folder == "/" && options_.settle_ms < 0)) continue;
    busy_.push_back(folder);
  }
  if (busy_.empty()) return;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t now_ns = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
  const int64_t settle_ms = std::max<int64_t>(options_.settle_ms, 0);
  settled_before_ns_ = now_ns - settle_ms * 1000000;
  closed_before_ns_ = now_ns - std::min<int64_t>(settle_ms, kClosedSettleMs) * 1000000;
  std::unordered_set<std::pair<uint64_t, uint64_t>, PairHash> known;
  for (const auto& [id, r] : recorded_)
    if (live_.count(id)) known.insert({r.dev, r.ino});
  // A busy folder's own entry is versioned; what lies in it waits (with a
  // settle time: the files changed since `settled_before_ns_`, but a new
  // file only until its writer is done with it).
  auto waits = [&](const DiskEntry& e) {
    if (!InBusy(e.path)) return false;
    const bool is_new = !at_path_.count(e.path) && !known.count({e.st.st_dev, e.st.st_ino});
    const Settled settled = SettledOf(e, is_new);
    if (settled == Settled::kIfClosed) closed_check_.insert(e.path);
    return settled == Settled::kNo;
  };
  std::vector<DiskEntry> now_entries;
  now_entries.reserve(entries_.size());
  for (DiskEntry& e : entries_) (waits(e) ? waiting_ : now_entries).push_back(std::move(e));
  entries_.swap(now_entries);
  summary_.deferred += static_cast<unsigned>(waiting_.size());
}

void ViewScan::Defer(const DiskEntry& e) {
  LOG_INFO("scan: %s changed while being read; left for the next pass\n", e.abs_path.c_str());
  deferred_.push_back(e.path);
  ++summary_.deferred;
}

int ViewScan::RecordRoot() {
  struct stat st;
  if (fstat(root_fd_, &st) != 0) return db::kErrCannotOpen;
  const uint32_t mode = st.st_mode & 07777;
  const std::string acl = AclText(root_fd_);
  std::vector<db::Version> versions;
  const int rc = view_.Reader().ListVersion(root_id_, versions, db::ViewManager::kListVersionAll);
  if (rc < 0) return rc;
  if (!versions.empty()) {
    const db::Version& last = versions.back();
    if (last.getUserId() == st.st_uid && last.getGroupId() == st.st_gid &&
        last.getUnixMode() == mode && last.getAcl() == acl) {
      return db::kOk;
    }
  }
  db::NewVersion v;
  v.path = "/";
  v.file_type = db::kFileTypeDir;
  v.ctime = options_.at;
  v.mtime = static_cast<uint32_t>(st.st_mtim.tv_sec);
  v.uid = st.st_uid;
  v.gid = st.st_gid;
  v.mode = mode;
  v.acl = acl;
  v.client_id = options_.client_id;
  db::Node node;
  return view_.AddVersion(v, node);
}

int ViewScan::LoadLive() {
  db::ViewManager& reader = view_.Reader();
  root_id_ = reader.getRootNodeId();
  db::SearchNodeFilter filter;
  filter.node_id = root_id_;
  filter.recursive = true;
  filter.removed_mode = 1;
  filter.file_type = -1;
  std::vector<db::Node> nodes;
  const int rc = reader.SearchNode(filter, nodes);
  if (rc < 0) return rc;
  live_.clear();
  at_path_.clear();
  at_path_["/"] = root_id_;
  for (const db::Node& n : nodes) {
    if (n.getNodeId() == root_id_ || n.isRemoved()) continue;
    live_[n.getNodeId()] = Live{n.getNodeId(), n.getPath(), n.getFileType()};
    at_path_[n.getPath()] = n.getNodeId();
  }
  return db::kOk;
}

int ViewScan::WalkScope() {
  // Each folder, or the nearest folder above it that exists; nested ones
  // are covered by the folder above them. The root means the whole view.
  std::set<std::string> folders;
  for (std::string folder : scope_) {
    if (folder.empty() || folder[0] != '/') folder = "/" + folder;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    db::Node node;
    while (folder != "/") {
      struct stat st;
      const std::string relative = folder.substr(1);
      if (fstatat(root_fd_, relative.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(st.st_mode) &&
          view_.Reader().QueryNode(folder, node, db::ViewManager::kQueryExisting) == 0 &&
          node.isDir()) {
        break;
      }
      folder = ParentOf(folder);
    }
    folders.insert(folder);
  }
  scope_.clear();
  if (folders.count("/")) return WalkTree(root_fd_, target_.root_path, entries_, deferred_);
  entries_.clear();
  deferred_.clear();
  for (const std::string& folder : folders) {
    if (!scope_.empty() && (folder == scope_.back() || IsUnder(folder, scope_.back()))) continue;
    scope_.push_back(folder);
  }
  for (const std::string& folder : scope_) {
    if (WalkSubtree(root_fd_, target_.root_path, folder, entries_, deferred_) < 0) {
      // Gone since it was looked at: the next pass, or the rescan, sees it.
      deferred_.push_back(folder);
    }
  }
  return 0;
}

int ViewScan::LoadScope() {
  db::ViewManager& reader = view_.Reader();
  root_id_ = reader.getRootNodeId();
  live_.clear();
  at_path_.clear();
  at_path_["/"] = root_id_;
  for (const std::string& folder : scope_) {
    db::Node top;
    if (reader.QueryNode(folder, top, db::ViewManager::kQueryExisting) != 0) continue;
    // The folders above it are placed already and stay as they are.
    for (std::string above = ParentOf(folder); above != "/"; above = ParentOf(above)) {
      db::Node node;
      if (at_path_.count(above) ||
          reader.QueryNode(above, node, db::ViewManager::kQueryExisting) != 0) {
        continue;
      }
      live_[node.getNodeId()] = Live{node.getNodeId(), above, node.getFileType(), true};
      at_path_[above] = node.getNodeId();
    }
    live_[top.getNodeId()] = Live{top.getNodeId(), folder, top.getFileType()};
    at_path_[folder] = top.getNodeId();
    db::SearchNodeFilter filter;
    filter.node_id = top.getNodeId();
    filter.recursive = true;
    filter.removed_mode = 1;
    filter.file_type = -1;
    std::vector<db::Node> nodes;
    const int rc = reader.SearchNode(filter, nodes);
    if (rc < 0) return rc;
    for (const db::Node& n : nodes) {
      if (n.getNodeId() == top.getNodeId() || n.isRemoved()) continue;
      live_[n.getNodeId()] = Live{n.getNodeId(), n.getPath(), n.getFileType()};
      at_path_[n.getPath()] = n.getNodeId();
    }
  }
  return db::kOk;
}

// Identity first: a file that kept its inode, size and modification time
// was moved, wherever it now lies. Inode numbers are reused after a delete,
// so a changed size or time at a new path counts as a new file. Then
// whatever stands at the same path with the same kind is the same node
// (editors that save by rename give a new inode).
void ViewScan::Match() {
  std::unordered_map<std::pair<uint64_t, uint64_t>, uint64_t, PairHash> by_inode;
  for (const auto& [id, r] : recorded_)
    if (live_.count(id)) by_inode[{r.dev, r.ino}] = id;
  // A file left for later keeps its node where it is, also when it was
  // just moved here from elsewhere: the next pass places it.
  for (const DiskEntry& e : waiting_) {
    const auto it = by_inode.find({e.st.st_dev, e.st.st_ino});
    if (it != by_inode.end()) live_[it->second].kept = true;
    const auto at = at_path_.find(e.path);
    if (at != at_path_.end() && at->second != root_id_) live_[at->second].kept = true;
  }
  node_of_.assign(entries_.size(), 0);
  placed_.assign(entries_.size(), false);
  for (size_t i = 0; i < entries_.size(); ++i) {
    const DiskEntry& e = entries_[i];
    const auto it = by_inode.find({e.st.st_dev, e.st.st_ino});
    if (it == by_inode.end()) continue;
    Live& live = live_[it->second];
    const Recorded& r = recorded_[it->second];
    if (live.claimed || live.type != e.file_type) continue;
    const bool same_content =
        e.file_type == db::kFileTypeDir ||
        (r.size == static_cast<uint64_t>(e.st.st_size) && r.mtime_ns == e.mtime_ns());
    if (live.path != e.path && !same_content) continue;
    live.claimed = true;
    node_of_[i] = live.id;
  }
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (node_of_[i] != 0) continue;
    const auto it = at_path_.find(entries_[i].path);
    if (it == at_path_.end() || it->second == root_id_) continue;
    Live& live = live_[it->second];
    if (live.claimed || live.type != entries_[i].file_type) continue;
    live.claimed = true;
    node_of_[i] = live.id;
  }
}

int ViewScan::PlaceAll() {
  size_t left = entries_.size();
  while (left > 0) {
    bool progress = false;
    for (int stage = 0; stage < 2 && !progress; ++stage) {
      for (size_t i = 0; i < entries_.size(); ++i) {
        if (placed_[i] || !TryPlace(i, stage)) continue;
        --left;
        progress = true;
        if (stage > 0) break;  // one removal, then the cheap pass again
      }
    }
    if (progress) continue;
    // Nodes that swapped places wait on each other: the first one in the
    // way gives up its identity and is recorded as removed and added.
    for (size_t i = 0; i < entries_.size() && !progress; ++i) {
      if (placed_[i] || node_of_[i] == 0) continue;
      live_[node_of_[i]].claimed = false;
      node_of_[i] = 0;
      progress = true;
    }
    if (!progress) break;
  }
  for (size_t i = 0; i < entries_.size(); ++i) {
    // Below a folder left for the next pass: so is this entry.
    if (!placed_[i] && IsDeferred(entries_[i].path)) continue;
    if (!placed_[i]) {
      LOG_ERROR("scan: cannot place %s\n", entries_[i].abs_path.c_str());
      ++summary_.failed;
    }
  }
  return db::kOk;
}

bool ViewScan::ParentReady(const std::string& path) const {
  const auto it = at_path_.find(ParentOf(path));
  if (it == at_path_.end()) return false;
  if (it->second == root_id_) return true;
  const auto live = live_.find(it->second);
  return live != live_.end() && live->second.type == db::kFileTypeDir;
}

bool ViewScan::TryPlace(size_t i, int stage) {
  const DiskEntry& e = entries_[i];
  const uint64_t node = node_of_[i];
  if (!ParentReady(e.path)) return false;
  if (node == 0 || live_[node].path != e.path) {
    const auto occupant = at_path_.find(e.path);
    if (occupant != at_path_.end()) {
      if (stage == 0 || live_[occupant->second].claimed) return false;
      RemoveLive(occupant->second);
    }
  }
  placed_[i] = true;
  if (node != 0 && live_[node].path != e.path && Move(i) < 0) {
    // The node could not follow its file: record the file as new.
    live_[node].claimed = false;
    node_of_[i] = 0;
  }
  if (Record(i, node_of_[i]) < 0) ++summary_.failed;
  return true;
}

int ViewScan::Move(size_t i) {
  const DiskEntry& e = entries_[i];
  Live& live = live_[node_of_[i]];
  const std::string old_path = live.path;
  const int rc = view_.MoveNode(live.id, e.path, options_.at, options_.client_id);
  if (rc < 0) {
    LOG_ERROR("scan: cannot move %s to %s (%d)\n", old_path.c_str(), e.path.c_str(), rc);
    return rc;
  }
  at_path_.erase(old_path);
  at_path_[e.path] = live.id;
  live.path = e.path;
  if (live.type == db::kFileTypeDir) {
    for (auto& [id, other] : live_) {
      if (other.gone || !IsUnder(other.path, old_path)) continue;
      at_path_.erase(other.path);
      other.path = e.path + other.path.substr(old_path.size());
      at_path_[other.path] = id;
    }
  }
  ++summary_.moved;
  Log(db::kLogNodeMove, live.id, live.type, {e.path, old_path, options_.client_id}, true);
  Rotate(live.id, e.path, live.type);
  return db::kOk;
}

int ViewScan::PreviousOf(uint64_t node_id, Recorded& out) {
  const auto it = recorded_.find(node_id);
  if (it != recorded_.end()) {
    out = it->second;
    return db::kOk;
  }
  // Recorded by someone else: its newest version says what is known.
  std::vector<db::Version> versions;
  const int rc = view_.Reader().ListVersion(node_id, versions, db::ViewManager::kListVersionAll);
  if (rc < 0 || versions.empty()) return rc < 0 ? rc : db::kErrNotFound;
  const db::Version& v = versions.back();
  out = Recorded{};
  out.node_id = node_id;
  out.file_type = v.getFileType();
  out.size = v.getSize();
  out.mtime_ns = static_cast<int64_t>(v.getVerModifiedTime()) * 1000000000;
  out.uid = v.getUserId();
  out.gid = v.getGroupId();
  out.mode = v.getUnixMode();
  out.acl = v.getAcl();
  out.hash = v.getHash();
  out.file_id = v.getFileId();
  out.file_uuid = v.getFileUuid();
  out.ver_type = v.getVerType();
  out.mac_file_id = v.getMacAttributeFileId();
  out.mac_uuid = v.getMacAttributeUuid();
  out.mac_hash = v.getMacAttributeHash();
  return db::kOk;
}

int ViewScan::StoreMacAttr(const DiskEntry& e, int fd, const Recorded* prev, Recorded& now) {
  auto keep_previous = [&] {
    now.mac_file_id = prev->mac_file_id;
    now.mac_uuid = prev->mac_uuid;
    now.mac_hash = prev->mac_hash;
  };
  // Setting an attribute moves ctime alone: an unchanged ctime needs no look.
  if (prev && SameStat(*prev, now) && prev->ctime_ns == now.ctime_ns) {
    keep_previous();
    return db::kOk;
  }
  // Symlinks cannot carry user attributes on Linux.
  if (e.file_type == db::kFileTypeSymlink || fd < 0 || !HasMacAttrs(fd)) return db::kOk;
  std::string packed = store_.folder() + "/.mac-XXXXXX";
  const int packed_fd = mkostemp(packed.data(), O_CLOEXEC);
  if (packed_fd < 0) {
    LOG_ERROR("scan: no room to pack the Mac attributes of %s: %s\n", e.abs_path.c_str(),
              strerror(errno));
    return db::kErrGeneral;
  }
  int rc = db::kOk;
  std::string hash;
  if (MacAttributePackFd(fd, packed) < 0 || (hash = HashOf(packed_fd)).empty()) {
    LOG_ERROR("scan: cannot pack the Mac attributes of %s: %s\n", e.abs_path.c_str(),
              strerror(errno));
    rc = db::kErrGeneral;
  } else if (prev && prev->mac_hash == hash && prev->mac_file_id != 0 &&
             prev->mac_uuid == store_.uuid()) {
    keep_previous();
  } else {
    filestore::Stored stored;
    rc = store_.StoreWholeFd(packed_fd, stored);
    if (rc >= 0) {
      now.mac_file_id = stored.file_id;
      now.mac_uuid = store_.uuid();
      now.mac_hash = stored.hash;
    }
  }
  close(packed_fd);
  unlink(packed.c_str());
  return rc;
}

// Content is read only when size, time or inode moved on, and then once:
// as a delta against the previous version where there is one. A touch that
// left the bytes alone keeps the previous content.
int ViewScan::StoreContent(const DiskEntry& e, int fd, const Recorded* prev, Recorded& now) {
  now.size = e.file_type == db::kFileTypeSymlink ? e.link_target.size()
                                                 : static_cast<uint64_t>(e.st.st_size);
  if (e.file_type == db::kFileTypeDir) {
    now.size = 0;
    return db::kOk;
  }
  auto keep_previous = [&] {
    now.hash = prev->hash;
    now.file_id = prev->file_id;
    now.file_uuid = prev->file_uuid;
    now.ver_type = prev->ver_type;
    now.size = prev->size;
  };
  if (prev && SameStat(*prev, now)) {
    keep_previous();
    return db::kOk;
  }
  filestore::Stored stored;
  int rc;
  if (e.file_type == db::kFileTypeSymlink) {
    rc = store_.StoreBytes(e.link_target, stored);
  } else if (fd < 0) {
    rc = db::kErrInvalid;  // changed, yet not opened: never read by path
  } else if (prev && prev->file_id != 0 && prev->ver_type == db::kVerTypeStored &&
             prev->file_uuid == store_.uuid() && prev->file_type == e.file_type) {
    rc = store_.StoreNewVersionFd(prev->file_id, fd, stored);
    if (rc == db::kErrNotFound) rc = store_.StoreNewFileFd(fd, stored);
  } else {
    rc = store_.StoreNewFileFd(fd, stored);
  }
  if (rc < 0) {
    LOG_ERROR("scan: cannot store %s (%d)\n", e.abs_path.c_str(), rc);
    return rc;
  }
  if (prev && prev->file_type == e.file_type && stored.hash == prev->hash &&
      stored.size == prev->size && stored.ver_type == prev->ver_type) {
    if (stored.file_id != 0 && stored.file_id != prev->file_id) store_.Release(stored.file_id);
    keep_previous();
    return db::kOk;
  }
  now.hash = stored.hash;
  now.size = stored.size;
  now.file_id = stored.file_id;
  now.file_uuid = stored.file_id != 0 ? store_.uuid() : "";
  now.ver_type = stored.ver_type;
  return db::kOk;
}

int ViewScan::Record(size_t i, uint64_t node_id) {
  DiskEntry& e = entries_[i];
  Recorded prev;
  const bool have_prev = node_id != 0 && PreviousOf(node_id, prev) == 0;
  Recorded now = FromDisk(e);
  // Any change to content, owner, mode, ACL or attributes moves ctime: an
  // entry whose stat fields all stayed is not even opened.
  const bool untouched = have_prev && SameStat(prev, now) && prev.ctime_ns == now.ctime_ns;
  int opened = -1;
  if (untouched) {
    now.acl = prev.acl;
  } else if (e.file_type != db::kFileTypeSymlink) {
    opened = OpenBeneath(root_fd_, e);
    if (opened < 0 && errno == ESTALE) {
      Defer(e);
      return db::kOk;
    }
    if (opened < 0) {
      LOG_ERROR("scan: cannot open %s: %s\n", e.abs_path.c_str(), strerror(errno));
      return db::kErrCannotOpen;
    }
    now = FromDisk(e);
  }
  const ScopedFd fd(opened);
  // A pass of the watching service leaves a file that someone still holds
  // open for writing and changed lately: a writer that paused longer than
  // the quiet moment has not finished, and its close brings the folder back.
  if (opened >= 0 && options_.open_wait_ms >= 0 && e.file_type == db::kFileTypeFile &&
      ChangedWithin(now, options_.open_wait_ms) && OpenForWriting(opened)) {
    deferred_.push_back(e.path);
    ++summary_.deferred;
    return db::kOk;
  }
  if (opened >= 0 && InBusy(e.path)) {
    // Written to again since it was listed, or still open for writing.
    const Settled settled = SettledOf(e, closed_check_.count(e.path) > 0);
    if (settled == Settled::kNo || (settled == Settled::kIfClosed && OpenForWriting(opened))) {
      deferred_.push_back(e.path);
      ++summary_.deferred;
      return db::kOk;
    }
  }
  int rc = StoreContent(e, fd.get(), have_prev ? &prev : nullptr, now);
  if (rc >= 0) rc = StoreMacAttr(e, fd.get(), have_prev ? &prev : nullptr, now);
  if (rc < 0) return rc;
  const bool new_mac = now.mac_file_id != 0 && (!have_prev || now.mac_file_id != prev.mac_file_id);
  const bool is_dir = e.file_type == db::kFileTypeDir;
  const bool changed = !have_prev || now.hash != prev.hash || now.size != prev.size ||
                       now.ver_type != prev.ver_type || now.uid != prev.uid ||
                       now.gid != prev.gid || now.mode != prev.mode || now.acl != prev.acl ||
                       now.mac_hash != prev.mac_hash ||
                       (!is_dir && now.mtime_ns / 1000000000 != prev.mtime_ns / 1000000000);
  now.node_id = node_id;
  if (!changed) {
    // Keep the inode and exact times so the next scan needs no read.
    if (!SameStat(prev, now) || prev.ctime_ns != now.ctime_ns) {
      state_.Put(target_.view_id, now);
      recorded_[node_id] = now;
    }
    return db::kOk;
  }
  db::NewVersion v;
  v.path = e.path;
  v.file_type = e.file_type;
  v.size = now.size;
  v.hash = now.hash;
  v.ctime = options_.at;
  v.mtime = static_cast<uint32_t>(e.st.st_mtim.tv_sec);
  v.uid = now.uid;
  v.gid = now.gid;
  v.mode = now.mode;
  v.acl = now.acl;
  v.ver_type = now.ver_type;
  v.file_id = now.file_id;
  v.file_uuid = now.file_uuid;
  v.mac_attr_file_id = now.mac_file_id;
  v.mac_attr_uuid = now.mac_uuid;
  v.mac_attr_hash = now.mac_hash;
  v.client_id = options_.client_id;
  v.encrypted = opened >= 0 && IsProtectedDocument(e, fd.get());
  db::Node node;
  if ((rc = view_.AddVersion(v, node)) < 0) {
    LOG_ERROR("scan: cannot record %s (%d)\n", e.abs_path.c_str(), rc);
    if (now.file_id != 0 && (!have_prev || now.file_id != prev.file_id))
      store_.Release(now.file_id);
    if (new_mac) store_.Release(now.mac_file_id);
    return rc;
  }
  now.node_id = node.getNodeId();
  state_.Put(target_.view_id, now);
  recorded_[now.node_id] = now;
  if (node_id == 0) {
    node_of_[i] = now.node_id;
    live_[now.node_id] = Live{now.node_id, e.path, e.file_type, true};
    at_path_[e.path] = now.node_id;
    ++summary_.added;
    Log(db::kLogNodeAdd, now.node_id, e.file_type, {e.path, options_.client_id});
  } else {
    ++summary_.modified;
    Log(db::kLogNodeModify, now.node_id, e.file_type, {e.path, options_.client_id});
  }
  Rotate(now.node_id, e.path, e.file_type);
  return db::kOk;
}

void ViewScan::RemoveLive(uint64_t node_id) {
  Live& live = live_[node_id];
  const int rc = view_.RemoveNode(node_id, options_.at, options_.client_id);
  if (rc < 0) {
    LOG_ERROR("scan: cannot remove %s (%d)\n", live.path.c_str(), rc);
    ++summary_.failed;
    return;
  }
  std::vector<Live*> subtree = {&live};
  if (live.type == db::kFileTypeDir) {
    for (auto& [id, other] : live_)
      if (!other.gone && IsUnder(other.path, live.path)) subtree.push_back(&other);
  }
  for (Live* each : subtree) {
    each->gone = true;
    at_path_.erase(each->path);
    state_.Forget(target_.view_id, each->id);
    recorded_.erase(each->id);
    Rotate(each->id, each->path, each->type);
  }
  ++summary_.removed;
  Log(db::kLogNodeRemove, node_id, live.type, {live.path, options_.client_id});
}

// Versions the view's rule drops go, and with them stored content that no
// remaining version of the node still points at.
void ViewScan::Rotate(uint64_t node_id, const std::string& path, int32_t type) {
  if (rule_.count <= 0 && rule_.days <= 0) return;
  std::vector<db::Version> all;
  if (view_.Reader().ListVersion(node_id, all, db::ViewManager::kListVersionAll) < 0) return;
  std::vector<uint32_t> ctimes;
  ctimes.reserve(all.size());
  for (const db::Version& v : all) ctimes.push_back(v.getVerCreatedTime());
  const std::vector<size_t> drop = VersionsToDrop(ctimes, rule_, options_.at);
  if (drop.empty()) return;
  std::vector<uint64_t> sync_ids;
  std::set<size_t> dropped(drop.begin(), drop.end());
  for (size_t i : drop) sync_ids.push_back(all[i].getSyncId());
  std::vector<db::Version> removed;
  if (view_.DropVersions(node_id, sync_ids, removed) <= 0) return;
  std::set<uint64_t> in_use;
  for (size_t i = 0; i < all.size(); ++i) {
    if (dropped.count(i) != 0) continue;
    in_use.insert(all[i].getFileId());
    in_use.insert(all[i].getMacAttributeFileId());
  }
  for (const db::Version& v : removed) {
    Log(db::kLogVersionRotate, node_id, type, {path});
    if (v.getMacAttributeFileId() != 0 && v.getMacAttributeUuid() == store_.uuid() &&
        in_use.insert(v.getMacAttributeFileId()).second)
      store_.Release(v.getMacAttributeFileId());
    if (v.getFileId() == 0 || v.getVerType() != db::kVerTypeStored ||
        v.getFileUuid() != store_.uuid() || !in_use.insert(v.getFileId()).second)
      continue;
    store_.Release(v.getFileId());
  }
  summary_.rotated += static_cast<unsigned>(removed.size());
}

void ViewScan::RotateAll() {
  std::vector<db::HistoryNode> nodes;
  if (view_.ListNodesToRotate(rule_.count, RotateCutoff(rule_, options_.at), nodes) < 0) {
    LOG_ERROR("scan: cannot list the histories of view %llu to rotate\n",
              static_cast<unsigned long long>(target_.view_id));
    return;
  }
  for (const db::HistoryNode& node : nodes) Rotate(node.node_id, node.path, node.file_type);
}

void ViewScan::Log(uint32_t type, uint64_t node_id, int32_t file_type,
                   const std::vector<std::string>& s_args, bool with_source_id) {
  if (!db::LogManager::IsInitialized()) return;
  db::Log log;
  log.setType(type);
  log.setTime(options_.at);
  log.setViewId(target_.view_id);
  log.setShareName(target_.owner);
  log.setShareType(target_.owner_type);
  if (target_.owner_type != db::kShareTypeShare) {
    log.setUserName(target_.owner);
    log.setUserId(target_.uid);
  }
  log.pushArg(node_id, false);
  log.pushArg(static_cast<unsigned long long>(file_type), false);
  if (with_source_id) log.pushArg(node_id, false);
  for (const std::string& s : s_args) log.pushArg(s, true);
  if (db::LogManager::InsertLog(log) != 0) LOG_WARNING("scan: cannot write a log record\n");
}

}  // namespace scan
