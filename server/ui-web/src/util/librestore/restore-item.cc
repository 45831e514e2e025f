// The fixed sequence of every item:
//   0. Place: where the node stood at the restore point. In place, the
//      destination is the node's own folder in the view database then,
//      never a path from the client; the chain of its ancestors' rights
//      comes from the same walk.
//   1. InitVersion: the version asked for, or the newest that is not a
//      deletion, and a check that it is the kind of node the item rebuilds.
//   2. Rights: a caller who may not read the node (or, in place, write it)
//      has it left out and counted as skipped; nothing of it is touched.
//   3. CreateDestDir: the parent folder, opened beneath the task's root with
//      no link on the way, made if missing (owned by the version's owner in
//      place or by the actor on a copy).
//   4. CheckDestEnv: whatever stands at the target must be of the same kind;
//      a restore never puts a folder where a file is, or the reverse.
//   5. PrepareImpl: the subclass builds the node in the working folder (on
//      the destination's volume) and moves it to the target by one rename.
// Owner, mode, ACL and time go onto a node before it becomes visible. Every
// path handed to a library call goes through a descriptor of an open
// folder, so a link planted in a user's folder never steers root.
#include "restore-item.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "db/log-manager.h"
#include "db/log-types.h"
#include "db/manager.h"
#include "dir-item.h"
#include "file-util.h"
#include "fs.h"
#include "hv-file-utility.h"
#include "hvos-task.h"
#include "office-item.h"
#include "regular-item.h"
#include "rights.h"
#include "sdk-path.h"

namespace tidepool::restore {

namespace {

// The version store keeps the unix mode as it is; the map below is written
// over its octal digits, one nibble each (0755 reads 0x755).
uint32_t OctalDigitsAsNibbles(uint32_t mode) {
  uint32_t nibbles = 0;
  for (int shift = 0; shift < 16; shift += 4) {
    nibbles |= (mode & 7u) << shift;
    mode >>= 3;
  }
  return nibbles;
}

// Progress reaches the task record at most every kProgressInterval: a
// record rewrite for each of thousands of small files would cost more than
// restoring them. The interval is far below the ten seconds after which a
// silent task counts as dead.
constexpr auto kProgressInterval = std::chrono::milliseconds(250);

struct PendingProgress {
  HVOS::Task* task = nullptr;
  uint64_t steps = 0;
  uint64_t skipped = 0;
  std::chrono::steady_clock::time_point written;
};

PendingProgress& Pending() {
  static PendingProgress pending;
  return pending;
}

// The pending progress of `task`, after writing out another task's.
PendingProgress& PendingOf(HVOS::Task* task) {
  PendingProgress& pending = Pending();
  if (pending.task != task) {
    (void)FlushProgress(pending.task);
    pending = PendingProgress{task, 0, 0, {}};
  }
  return pending;
}

// The children of one folder go to the same place one after another: the
// folder opened for the first serves the rest.
struct LastDestDir {
  int root = -1;
  std::string dir;
  std::shared_ptr<const fsb::UniqueFd> fd;
};

LastDestDir& LastDest() {
  static LastDestDir last;
  return last;
}

}  // namespace

const std::map<uint32_t, uint32_t> Item::unix_mode_map = {
    {0x400, 0x100}, {0x200, 0x80}, {0x100, 0x40}, {0x40, 0x20},    {0x20, 0x10},    {0x10, 0x8},
    {0x4, 0x4},     {0x2, 0x2},    {0x1, 0x1},    {0x4000, 0x800}, {0x2000, 0x400}, {0x1000, 0x200},
};
const std::set<std::string> Item::office_ext_set = {"tdoc", "tsheet", "tslides"};
const std::map<std::string, std::string> Item::ext_map = {
    {"tdoc", "docx"}, {"tsheet", "xlsx"}, {"tslides", "pptx"}};

Item::Item(View& view, unsigned long long permanent_id, unsigned long long sync_id,
           unsigned long long ctime_ub, const std::string& name, const std::string& path,
           const DecryptMap& decrypt_map, HVOS::Task* task)
    : view(view),
      permanent_id(permanent_id),
      sync_id(sync_id),
      ctime_ub(ctime_ub),
      name(name),
      path(path),
      decrypt_map(decrypt_map),
      task(task) {}

std::unique_ptr<Item> Item::ItemFactory(bool is_dir, View& view, unsigned long long permanent_id,
                                        unsigned long long sync_id, unsigned long long ctime_ub,
                                        const std::string& name, const std::string& path,
                                        const DecryptMap& decrypt_map, HVOS::Task* task) {
  if (is_dir) {
    return std::make_unique<DirItem>(view, permanent_id, sync_id, ctime_ub, name, path, decrypt_map,
                                     task);
  }
  // Exact and case-sensitive, on the destination name: REPORT.TDOC is a
  // plain file.
  if (IsOfficeItemByExtension(GetExtension(name))) {
    return std::make_unique<OfficeItem>(view, permanent_id, sync_id, ctime_ub, name, path,
                                        decrypt_map, task);
  }
  return std::make_unique<RegularItem>(view, permanent_id, sync_id, ctime_ub, name, path,
                                       decrypt_map, task);
}

void Item::SetParent(std::shared_ptr<const ACL_API::ACL> parent_chain, std::string folder) {
  parents = std::move(parent_chain);
  view_folder = std::move(folder);
  child = true;
}

int Item::Place() {
  if (parents) return 0;
  if (!version_ready && InitVersion() < 0) return RC_GENERAL;
  auto ancestors = std::make_shared<ACL_API::ACL>();
  if (AncestryAt(*view.GetVif().get(), version, RestorePoint(), view.GetRights(), *ancestors,
                 view_folder) < 0) {
    RESTORE_ERR("Cannot place %s at its restore point", InfoString().c_str());
    return RC_GENERAL;
  }
  parents = std::move(ancestors);
  return 0;
}

int Item::RootFd(const TaskActor& actor) {
  return actor.IsCopying() ? actor.GetCopyRootFd() : view.RootFd();
}

std::string Item::RootPath(const TaskActor& actor) const {
  return actor.IsCopying() ? actor.GetCopyRootPath() : view.GetUserInfo().root_path;
}

std::string Item::DestName(const TaskActor& actor) const {
  // A child's name was made unique within its folder from the database's
  // own names; a top-level node keeps the name it had.
  if (child) return name;
  const bool is_root = version.getNodeId() == view.GetVif()->getRootNodeId();
  if (actor.IsDownloading() && !name.empty()) return name;
  if (!is_root) return version.record().name;
  return actor.IsCopying() ? view.GetName() : "";
}

int Item::Restore(const TaskActor& actor, int flags) {
  const int rc = PrepareBeneath(view.RootFd(), true, actor, flags);
  if (rc < 0) return rc;
  (void)LogRestoreDone(actor);
  return RC_OK;
}

int Item::CopyTo(const std::string& /*dest*/, const TaskActor& actor, int flags) {
  // The destination is the folder the request opened and handed down as a
  // descriptor; its path is only shown. A copy writes no log record.
  return PrepareBeneath(actor.GetCopyRootFd(), false, actor, flags);
}

int Item::PrepareBeneath(int root_fd, bool in_place, const TaskActor& actor, int flags) {
  if (Place() < 0) return RC_GENERAL;
  WorkDir work;
  if (work.Create(root_fd) < 0) return RC_GENERAL;
  const std::string work_dir = work.Enter();
  if (work_dir.empty()) return RC_GENERAL;
  const int rc = Prepare(work_dir, in_place ? view_folder : "", actor, flags);
  if (rc < 0) return rc;
  work.RemoveIfEmpty();
  return RC_OK;
}

int Item::Prepare(const std::string& work_dir, const std::string& dest_dir, const TaskActor& actor,
                  int flags) {
  int rc = Place();
  if (rc < 0) return rc;
  if ((rc = InitVersion()) < 0) return rc;
  Target target;
  target.name = DestName(actor);
  if ((!target.name.empty() && !fsb::IsPlainName(target.name)) ||
      !IsPathSafe(dest_dir + "/" + target.name)) {
    RESTORE_ERR("Target path name '%s/%s' is not safe", dest_dir.c_str(), target.name.c_str());
    return RC_GENERAL;
  }
  const bool is_root = version.getNodeId() == view.GetVif()->getRootNodeId();
  const std::string view_path = is_root ? "" : view_folder + "/" + version.record().name;
  const Rights& rights = view.GetRights();
  bool allowed;
  if (child && !version.isDir()) {
    // Its folder passed already: a file needs only its own level judged.
    allowed = rights.AllowsChild(*parents, version, view_path);
  } else {
    // A folder hands its whole chain down to its children.
    chain = std::make_shared<ACL_API::ACL>(rights.ChainOf(*parents, version, view_path));
    allowed = rights.Allows(*chain);
  }
  if (!allowed) {
    // Left out without a trace at the destination; only the count shows it.
    return SkipProg(flags);
  }
  if ((rc = CreateDestDir(dest_dir, actor, target)) < 0) return rc;
  if ((rc = CheckDestEnv(target)) < 0) return rc;
  return PrepareImpl(work_dir, target, actor, flags);
}

int Item::ListEncrypted(std::vector<db::Node>& /*out*/, bool /*include_removed*/) { return 0; }

int Item::Count(unsigned long long& count, bool /*include_removed*/) {
  ++count;
  return 0;
}

int WorkDir::Create(int root_fd) {
  if (root_fd < 0) return -1;
  // A new top-level item may have a new root behind a reused descriptor.
  LastDest().fd.reset();  // a Target that borrowed it keeps its share
  root_.reset(fcntl(root_fd, F_DUPFD_CLOEXEC, 0));
  ea_.reset(fsb::MakeDirsBeneath(root_fd, "@eaDir", 0, 0, 0755));
  if (ea_.valid()) tmp_.reset(fsb::MakeDirsBeneath(ea_.get(), "@tmp", 0, 0, 0755));
  struct stat st {};
  if (!tmp_.valid() || fstat(tmp_.get(), &st) != 0) {
    RESTORE_ERR("Cannot open @eaDir/@tmp: %s (%d)\n", strerror(errno), errno);
    return -1;
  }
  // A folder someone else made could be emptied or filled behind our back.
  if (st.st_uid != 0) {
    RESTORE_ERR("@eaDir/@tmp belongs to uid %u, not root; refused\n", st.st_uid);
    return -1;
  }
  if ((st.st_mode & 022) != 0) (void)fchmod(tmp_.get(), 0755);
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (int attempt = 0; attempt < 64; ++attempt) {
    unsigned char random[6];
    if (getrandom(random, sizeof random, 0) != sizeof random) return -1;
    name_ = "Tidepool.";
    for (unsigned char c : random) name_ += kChars[c % (sizeof kChars - 1)];
    if (mkdirat(tmp_.get(), name_.c_str(), 0700) == 0) {
      dir_.reset(fsb::OpenBeneath(tmp_.get(), name_, O_DIRECTORY | O_RDONLY));
      return dir_.valid() ? 0 : -1;
    }
    if (errno != EEXIST) break;
  }
  RESTORE_ERR("mkdtemp(@eaDir/@tmp/Tidepool.XXXXXX): %s (%d)\n", strerror(errno), errno);
  return -1;
}

WorkDir::~WorkDir() {
  if (previous_.valid()) (void)!fchdir(previous_.get());
}

std::string WorkDir::Enter() {
  previous_.reset(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!previous_.valid() || fchdir(dir_.get()) != 0) {
    RESTORE_ERR("Cannot enter the working folder: %s", strerror(errno));
    return "";
  }
  return ".";
}

void WorkDir::RemoveIfEmpty() {
  // Everything built here has been moved out by rename once an item
  // succeeded. Only empty folders go, so a failed item's leftovers and a
  // concurrent task's folder stay.
  if (!tmp_.valid() || unlinkat(tmp_.get(), name_.c_str(), AT_REMOVEDIR) != 0) return;
  if (unlinkat(ea_.get(), "@tmp", AT_REMOVEDIR) != 0) return;
  (void)unlinkat(root_.get(), "@eaDir", AT_REMOVEDIR);
}

int Item::CheckDestEnv(Target& target) {
  struct stat st {};
  const int rc = target.name.empty()
                     ? fstat(target.dir_fd, &st)
                     : fstatat(target.dir_fd, target.name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
  if (rc != 0) {
    if (errno == ENOENT) return 0;
    RESTORE_ERR("Fail to get file info '%s'.\n", target.Shown().c_str());
    return -1;
  }
  target.exists = true;
  if (version.isDir() && !S_ISDIR(st.st_mode)) {
    RESTORE_ERR("Restore a dir but local is not '%s', abort.\n", target.Shown().c_str());
    return -1;
  }
  if (version.isFile() && !S_ISREG(st.st_mode)) {
    RESTORE_ERR("Restore a file but local is not '%s', abort.\n", target.Shown().c_str());
    return -1;
  }
  if (version.isSymlink() && !S_ISLNK(st.st_mode)) {
    RESTORE_ERR("Restore a symlink but local is not '%s', abort.\n", target.Shown().c_str());
    return -1;
  }
  return 0;
}

int Item::CreateDestDir(const std::string& dest_dir, const TaskActor& actor, Target& target) {
  const bool copying = actor.IsCopying();
  const unsigned int uid = copying ? actor.GetUid() : version.getUserId();
  const unsigned int gid = copying ? actor.GetGid() : version.getGroupId();
  target.root_fd = RootFd(actor);
  target.root_path = RootPath(actor);
  target.dir = dest_dir == "/" ? "" : dest_dir;
  LastDestDir& last = LastDest();
  if (target.root_fd >= 0 && last.fd && last.root == target.root_fd && last.dir == target.dir) {
    target.dir_hold = last.fd;
    target.dir_fd = last.fd->get();
    return 0;
  }
  last.fd.reset();
  target.dir_fd =
      target.root_fd < 0 ? -1 : fsb::MakeDirsBeneath(target.root_fd, target.dir, uid, gid, 0755);
  if (target.dir_fd >= 0) {
    // Shared, so that the folder stays open for this item while its
    // children move the cache on.
    target.dir_hold = std::make_shared<const fsb::UniqueFd>(target.dir_fd);
    last.root = target.root_fd;
    last.dir = target.dir;
    last.fd = target.dir_hold;
  }
  if (target.dir_fd < 0) {
    // A link or a way out on the path ends the item here, before anything
    // is written.
    RESTORE_ERR("Failed to create dest dir '%s': %s", (target.root_path + target.dir).c_str(),
                strerror(errno));
    return -1;
  }
  return 0;
}

int Item::ChooseVersion(db::ViewManager& vif, unsigned long long permanent_id,
                        unsigned long long sync_id, db::Version& out) {
  if (sync_id != 0) {
    if (vif.OpenVersionByPermanentId(permanent_id, sync_id, out) < 0) {
      RESTORE_ERR("OpenVersionByPermanentId(%llu, %llu) failed", permanent_id, sync_id);
      return -1;
    }
    return 0;
  }
  std::vector<db::Version> versions;
  if (vif.ListVersionByPermanentId(permanent_id, versions, db::ViewManager::kListVersionAll) < 0) {
    RESTORE_ERR("ListVersionByPermanentId failed.\n");
    return -1;
  }
  if (versions.empty()) {
    RESTORE_ERR("versions empty.\n");
    return -1;
  }
  if (versions.size() == 1 && versions.back().isRemoved()) {
    RESTORE_ERR("Only deleted version.\n");
    return -1;
  }
  // The newest entry of a deleted node is the deletion; the one before it
  // is what was deleted.
  out = versions.back().isRemoved() ? versions[versions.size() - 2] : versions.back();
  return 0;
}

int Item::InitVersion() {
  db::ViewDBInterface& vif = view.GetVif();
  if (!vif) return -1;
  if (version_ready) return 0;
  if (ChooseVersion(*vif.get(), permanent_id, sync_id, version) < 0 || VersionCheck() < 0) {
    return -1;
  }
  version_ready = true;
  return 0;
}

int Item::ApplyPrivilege(const std::string& target, const TaskActor& actor) {
  const bool copying = actor.IsCopying();
  const unsigned int uid = copying ? actor.GetUid() : version.getUserId();
  const unsigned int gid = copying ? actor.GetGid() : version.getGroupId();
  const int64_t mtime = version.getVerModifiedTime();
  if (FSChown(target, uid, gid) < 0) {
    RESTORE_ERR("FSChown(%s, %d, %d): %s (%d)\n", target.c_str(), static_cast<int>(uid),
                static_cast<int>(gid), strerror(errno), errno);
  }
  const uint32_t stored = OctalDigitsAsNibbles(version.getUnixMode());
  mode_t mode = 0;
  for (const auto& [stored_bit, fs_bit] : unix_mode_map) {
    if (stored & stored_bit) mode |= fs_bit;
  }
  if (!version.isSymlink()) {
    if (chmod(target.c_str(), mode) < 0) {
      RESTORE_ERR("chown(%s, %u): %s (%d)", target.c_str(), static_cast<unsigned>(mode),
                  strerror(errno), errno);
    }
    SDK::ACL acl;
    if (acl.set(version.getAcl()) < 0 || acl.write(target) < 0) {
      RESTORE_ERR("failed to set ACL");
      return -1;
    }
  }
  (void)FSUTime(target, mtime, mtime);
  return 0;
}

int Item::PrepareMacAttr(const std::string& work_dir, const std::string& key,
                         const std::string& target) {
  const std::string source =
      db::Manager::GetFilePath(version.getMacAttributeUuid(), version.getMacAttributeFileId());
  std::string packed = source;
  if (view.GetUserInfo().isEncryptionShare()) {
    std::string temp;
    if (FSMktemp(work_dir, temp) < 0) {
      RESTORE_ERR("Failed to FSMktemp for decrypted mac attr.");
    } else if (HVFileUtility::EncryptFile(source, temp, key, false) < 0) {
      if (HVFileUtility::GetError() == RC_NO_SPACE) {
        RESTORE_ERR("Failed to decrypt mac attr from %s to %s. Space not enough", source.c_str(),
                    temp.c_str());
        unlink(temp.c_str());
        return RC_NO_SPACE;
      }
      RESTORE_ERR("Failed to decrypt mac attr from %s to %s.", source.c_str(), temp.c_str());
    }
    packed = temp;
  }
  if (ApplyMacAttr(packed, target) < 0) {
    RESTORE_ERR("Failed to ApplyMacAttr '%s'\n", target.c_str());
  }
  if (packed != source && !packed.empty()) unlink(packed.c_str());
  return 0;
}

int Item::ApplyMacAttr(const std::string& packed, const std::string& target) {
  // Read once for the whole task rather than once per file; it lives as
  // long as the task's process.
  static BlackList2 black_list;
  static const BlackListFilter* const filter = black_list.GetFilter();
  if (MacAttributeUnpack(packed, target, filter) < 0) {
    RESTORE_ERR("ApplyMacAttr: Failed to Mac2KstxEAConvert.");
    return -1;
  }
  return 0;
}

std::string Item::AppendNameIndex(const std::string& name, int index) {
  const std::string suffix = " (" + std::to_string(index) + ")";
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot == name.size() - 1) return name + suffix;
  return name.substr(0, dot) + suffix + name.substr(dot);
}

std::string Item::CalcAppendedName(const std::string& name, NameCount& seen) {
  auto [it, inserted] = seen.try_emplace(name, 1);
  if (inserted) return name;
  return AppendNameIndex(name, ++it->second);
}

int Item::FindToken(const std::string& path, int pos, std::string& token) {
  size_t at = static_cast<size_t>(pos < 0 ? 0 : pos);
  while (at < path.size() && path[at] == '/') ++at;
  if (at >= path.size()) {
    token.clear();
    return static_cast<int>(path.size());
  }
  const size_t end = path.find('/', at);
  const size_t stop = end == std::string::npos ? path.size() : end;
  token = path.substr(at, stop - at);
  return static_cast<int>(stop);
}

bool Item::IsPathSafe(const std::string& path) {
  std::string token;
  int pos = 0;
  for (;;) {
    pos = FindToken(path, pos, token);
    if (token.empty()) return true;
    if (token == "." || token == ".." || token.find('\\') != std::string::npos) return false;
  }
}

std::string Item::GetExtension(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return name.substr(dot + 1);
}

std::string Item::TransformExtension(const std::string& name) {
  const auto it = ext_map.find(GetExtension(name));
  if (it == ext_map.end()) return name;
  return name.substr(0, name.rfind('.') + 1) + it->second;
}

bool Item::IsOfficeItemByExtension(const std::string& ext) { return office_ext_set.count(ext) > 0; }

int Item::IsDestUnderTidepoolByUIList(const std::string& path, const std::list<UserInfo>& users) {
  for (const UserInfo& user : users) {
    const std::string& root = user.root_path;
    // A plain prefix test, with no regard to a "/" boundary.
    if (!root.empty() && root.size() <= path.size() && path.compare(0, root.size(), root) == 0) {
      return 0;
    }
  }
  return -1;
}

int Item::IsDestUnderTidepool(const std::string& path) {
  std::string volume, share;
  int pos = FindToken(path, 0, volume);
  pos = FindToken(path, pos, share);
  std::list<UserInfo> users;
  if (share != "homes") {
    if (UserManager::EnumShareUser(users, "") < 0) {
      RESTORE_ERR("Failed to enum share users");
      return -1;
    }
    return IsDestUnderTidepoolByUIList(path, users);
  }
  std::string user, folder;
  pos = FindToken(path, pos, user);
  FindToken(path, pos, folder);
  if (folder == "Tidepool") return 0;
  if (SDK::IsLdapHomeServiceEnabled()) {
    if (UserManager::EnumUserByType(2, users) < 0) {
      RESTORE_ERR("Failed to enum ldap users");
    } else if (IsDestUnderTidepoolByUIList(path, users) == 0) {
      return 0;
    }
  }
  if (SDK::IsDomainHomeServiceEnabled()) {
    users.clear();
    if (UserManager::EnumUserByType(3, users) < 0) {
      RESTORE_ERR("Failed to enum domain users");
      return -1;
    }
    return IsDestUnderTidepoolByUIList(path, users);
  }
  return -1;
}

int Item::IncProg() {
  if (task == nullptr) return 0;
  PendingProgress& pending = PendingOf(task);
  ++pending.steps;
  if (std::chrono::steady_clock::now() - pending.written < kProgressInterval) return 0;
  return FlushProgress(task);
}

int Item::SkipProg(int flags) {
  unsigned long long units = 0;
  if (Count(units, (flags & PREPARE_INCLUDE_REMOVED) != 0) < 0) units = 1;
  RESTORE_INFO("Skipped %llu node(s) the caller may not have: %s", units, InfoString().c_str());
  if (task == nullptr) return RC_OK;
  PendingProgress& pending = PendingOf(task);
  pending.steps += units;
  pending.skipped += units;
  return RC_OK;
}

int FlushProgress(HVOS::Task* task) {
  PendingProgress& pending = Pending();
  if (task == nullptr || pending.task != task || pending.steps == 0) return 0;
  const uint64_t steps = pending.steps;
  const uint64_t skipped = pending.skipped;
  pending.steps = 0;
  pending.skipped = 0;
  pending.written = std::chrono::steady_clock::now();
  if (!task->hasProperty("data")) return -1;
  Json::Value data = task->getProperty("data");
  const Json::Value& current = data["current"];
  data["current"] = Json::UInt64((current.isUInt64() ? current.asUInt64() : 0) + steps);
  if (skipped > 0) {
    const Json::Value& before = data["skipped"];
    data["skipped"] = Json::UInt64((before.isUInt64() ? before.asUInt64() : 0) + skipped);
  }
  data["last_update_time"] = Json::Int64(time(nullptr));
  task->setProperty("data", data);
  return 0;
}

int Item::LogRestoreDone(const TaskActor& actor) {
  db::Log log;
  log.clear();
  log.setType(db::kLogRestore);
  log.setViewId(view.GetViewId());
  log.setShareName(view.GetUserInfo().name);
  log.setShareType(view.GetUserInfo().getShareType());
  log.pushArg(static_cast<unsigned long long>(version.getNodeId()), false);
  log.pushArg(static_cast<unsigned long long>(version.getFileType()), false);
  log.pushArg(view_folder + "/" + version.record().name, true);
  log.setUserId(actor.GetUid());
  log.setUserName(actor.GetUser());
  if (db::LogManager::InsertLog(log) != 0) {
    RESTORE_ERR("Failed to write restore log '%s'", path.c_str());
    return -1;
  }
  return 0;
}

std::string Item::InfoString() const {
  return "permanent_id: " + std::to_string(permanent_id) + ", sync_id: " + std::to_string(sync_id) +
         ", name: " + name + ", path: " + path;
}

}  // namespace tidepool::restore
