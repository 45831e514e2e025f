#include "restore-world.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <thread>

#include "content.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "hvos-task.h"
#include "job-queue.h"
#include "job-store.h"
#include "process.h"
#include "sandbox.h"
#include "seed.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace rtest {
namespace {

constexpr const char* kAdmin = "/usr/kstx/bin/kstx-admin";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kRepo = "/volume1/@tidepool";
constexpr const char* kRestoreApi = "KSTX.Tidepool.Node.Restore";

void Run(const std::vector<std::string>& argv) {
  const auto r = tptest::RunProcess(argv);
  ASSERT_EQ(r.exit_status, 0) << argv[0] << " " << (argv.size() > 1 ? argv[1] : "") << ": " << r.out
                              << r.err;
}

// "u:bob:r--" with bob's uid in place of his name.
std::string AclWithIds(const std::string& text) {
  std::string out, entry;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    entry = text.substr(start, comma - start);
    const size_t a = entry.find(':'), b = entry.find(':', a + 1);
    if (a != std::string::npos && b != std::string::npos && b > a + 1 &&
        (entry[0] == 'u' || entry[0] == 'g')) {
      const std::string name = entry.substr(a + 1, b - a - 1);
      if (!isdigit(static_cast<unsigned char>(name[0])) && entry[0] == 'u') {
        entry = entry.substr(0, a + 1) + std::to_string(Uid(name)) + entry.substr(b);
      }
    }
    out += (out.empty() ? "" : ",") + entry;
    start = comma + 1;
  }
  return out;
}

void PutEntry(const std::string& root, const Entry& e) {
  const bool folder = e.path.back() == '/';
  const std::string path = root + "/" + (folder ? e.path.substr(0, e.path.size() - 1) : e.path);
  const std::string parent = fs::path(path).parent_path().string();
  if (!fs::exists(parent)) MakeDir(parent, e.owner, 0755);
  if (folder) {
    fs::create_directories(path);
  } else if (e.link) {
    fs::remove(path);
    fs::create_symlink(e.content, path);
  } else {
    fs::remove(path);  // a new inode, as an editor's save makes
    tptest::WriteFile(path, e.content);
  }
  ASSERT_EQ(lchown(path.c_str(), Uid(e.owner), e.gid), 0) << path;
  if (!e.link) {
    ASSERT_EQ(chmod(path.c_str(), e.mode), 0) << path;
  }
  if (!e.acl.empty()) Run({"/usr/bin/setfacl", "-m", AclWithIds(e.acl), path});
  for (const auto& [name, value] : e.xattrs) {
    if (value) {
      ASSERT_EQ(lsetxattr(path.c_str(), name.c_str(), value->data(), value->size(), 0), 0)
          << path << " " << name;
    } else if (lremovexattr(path.c_str(), name.c_str()) != 0) {
      ASSERT_EQ(errno, ENODATA) << path << " " << name;
    }
  }
}

void SetTimes(const std::string& path, uint32_t t) {
  const timespec times[2] = {{static_cast<time_t>(t), 0}, {static_cast<time_t>(t), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string StateOf(const fs::directory_entry& entry) {
  if (entry.is_symlink()) return "link -> " + fs::read_symlink(entry.path()).string();
  if (entry.is_directory()) return "dir";
  return tptest::Sha256Hex(tptest::ReadFile(entry.path().string()));
}

uint64_t Now() { return static_cast<uint64_t>(time(nullptr)); }

}  // namespace

uint32_t Uid(const std::string& user) {
  if (user == "root") return 0;
  const uint32_t uid = tptest::UidOf(user);
  EXPECT_NE(uid, 0u) << user;
  return uid;
}

void MakeDir(const std::string& path, const std::string& user, mode_t mode) {
  fs::create_directories(path);
  ASSERT_EQ(chown(path.c_str(), Uid(user), kUsersGid), 0) << path;
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void SeedRestoreWorld() {
  db::LogManager::Destroy();
  db::Manager::Destroy();
  UserManager::Destroy();
  tptest::SeedDemoSystem();
  for (const char* share : {"team", "drop", "vault"}) {
    Run({kAdmin, "share", "add", share, "--volume", "/volume1"});
  }
  Run({kAdmin, "share", "perm", "team", "alice", "rw"});
  Run({kAdmin, "share", "perm", "team", "bob", "ro"});
  Run({kAdmin, "share", "perm", "drop", "alice", "rw"});
  Run({kAdmin, "share", "perm", "drop", "bob", "none"});
  Run({kAdmin, "share", "perm", "vault", "alice", "ro"});
  MakeDir(kTeam, "alice", 0775);
  // Open to everyone on disk: only the share's permissions tell users apart.
  MakeDir("/volume1/drop", "root", 0777);
  MakeDir("/volume1/vault", "root", 0777);
  MakeDir("/volume1/homes", "root", 0755);
  for (const char* user : {"admin", "alice", "bob"}) {
    MakeDir(std::string("/volume1/homes/") + user, user, 0700);
    MakeDir(std::string("/volume1/homes/") + user + "/Tidepool", user, 0700);
  }
  Run({kControl, "share", "--enable", "team"});
  ASSERT_GE(UserManager::Initialize(kRepo, "sqlite"), 0);
  ASSERT_GE(db::Manager::Initialize(kRepo, kRepo, "sqlite"), 0);
  ASSERT_GE(db::LogManager::Initialize(kRepo, kRepo, "sqlite", true), 0);
}

void Scan(uint32_t at) { Run({kControl, "scan", "--at", std::to_string(at)}); }

void BuildHistory(const std::string& root, const std::vector<Moment>& moments) {
  for (const Moment& m : moments) {
    for (const std::string& gone : m.remove) fs::remove_all(root + "/" + gone);
    for (const Entry& e : m.put) {
      PutEntry(root, e);
      if (::testing::Test::HasFatalFailure()) return;
    }
    // Deepest first, so that a folder's time is not moved by its children.
    std::vector<const Entry*> order;
    for (const Entry& e : m.put) order.push_back(&e);
    std::stable_sort(order.begin(), order.end(), [](const Entry* a, const Entry* b) {
      return std::count(a->path.begin(), a->path.end(), '/') - (a->path.back() == '/' ? 1 : 0) >
             std::count(b->path.begin(), b->path.end(), '/') - (b->path.back() == '/' ? 1 : 0);
    });
    for (const Entry* e : order) {
      std::string path = root + "/" + e->path;
      if (path.back() == '/') path.pop_back();
      SetTimes(path, e->mtime ? e->mtime : DefaultMtime(m.at));
    }
    Scan(m.at);
  }
}

Tree TreeOf(const std::string& root) {
  Tree tree;
  if (!fs::exists(root)) return tree;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    if (it->path().filename() == "@eaDir") {
      it.disable_recursion_pending();
      continue;
    }
    // Lexically: a link must name itself, not what it points to.
    tree[it->path().lexically_relative(root).string()] = StateOf(*it);
  }
  return tree;
}

Tree Expect(const std::vector<std::pair<std::string, std::string>>& entries) {
  Tree tree;
  for (const auto& [path, content] : entries) {
    if (path.back() == '/') {
      tree[path.substr(0, path.size() - 1)] = "dir";
    } else if (content.starts_with("link -> ")) {
      tree[path] = content;
    } else {
      tree[path] = tptest::Sha256Hex(content);
    }
  }
  return tree;
}

Tree EverythingBut(const std::string& except) {
  Tree tree;
  for (const char* volume : {"/volume1", "/volume2"}) {
    if (!fs::exists(volume)) continue;
    for (auto it = fs::recursive_directory_iterator(volume);
         it != fs::recursive_directory_iterator(); ++it) {
      const std::string path = it->path().string();
      // The engine's working folders (@eaDir) are kept by design.
      const auto name = it->path().filename();
      if (path == except || name == "@tidepool" || name == "@eaDir" || name == "lost+found") {
        it.disable_recursion_pending();
        continue;
      }
      struct stat st;
      if (lstat(path.c_str(), &st) != 0) continue;
      tree[path] = StateOf(*it) + " " + std::to_string(st.st_uid) + ":" +
                   std::to_string(st.st_gid) + " " + std::to_string(st.st_mode & 07777);
    }
  }
  return tree;
}

Seen Look(const std::string& path) {
  Seen seen;
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return seen;
  seen.exists = true;
  seen.uid = st.st_uid;
  seen.gid = st.st_gid;
  seen.mode = st.st_mode & 07777;
  seen.mtime = st.st_mtim.tv_sec;
  seen.atime = st.st_atim.tv_sec;
  if (S_ISLNK(st.st_mode)) {
    seen.link = fs::read_symlink(path).string();
    return seen;
  }
  if (S_ISREG(st.st_mode)) seen.sha = tptest::Sha256Hex(tptest::ReadFile(path));
  seen.acl = tptest::RunProcess({"/usr/bin/getfacl", "-n", "--omit-header", path}).out;
  return seen;
}

tptest::WebAnswer Call(const std::string& api, const std::string& method, const Params& params,
                       const std::string& sid) {
  return tptest::CallApi(api, method, params, sid);
}

std::string LoginAs(const std::string& user) {
  const std::string sid = tptest::Login(user, user + "-demo");
  EXPECT_FALSE(sid.empty()) << user;
  return sid;
}

Json::Value Browse(const std::string& sid, const std::string& target, const std::string& path,
                   uint32_t at) {
  // Folder by folder from the top, as a user clicks through the file list.
  std::string folder = "/";
  Json::Value folder_id;
  std::vector<std::string> names;
  for (const auto& part : fs::path(path)) {
    if (part != "/" && !part.empty()) names.push_back(part.string());
  }
  for (size_t i = 0; i < names.size(); ++i) {
    Params params = {{"target", target},
                     {"path", folder},
                     {"sort_by", "name"},
                     {"sort_direction", "ASC"},
                     {"list_removed", true}};
    if (!folder_id.isNull()) params.push_back({"node_id", folder_id});
    if (at != 0) params.push_back({"ver_ctime_upper_bound", Json::UInt64(at)});
    const auto answer = Call("KSTX.Tidepool.Node", "list", params, sid);
    EXPECT_TRUE(answer.success()) << "list " << folder << ": " << answer.body;
    // A live node wins over a removed one of the same name.
    Json::Value found;
    for (const Json::Value& item : answer.json["data"]["items"]) {
      if (item["name"].asString() != names[i]) continue;
      if (found.isNull() || found["is_removed"].asBool()) found = item;
    }
    if (found.isNull()) {
      ADD_FAILURE() << path << ": " << names[i] << " is not listed in " << folder << " at " << at
                    << ": " << answer.body;
      return Json::Value(Json::objectValue);
    }
    if (i + 1 < names.size()) {
      folder = found["path"].asString();
      folder_id = Json::UInt64(std::stoull(found["node_id"].asString()));
      continue;
    }
    Json::Value node(Json::objectValue);
    for (const char* key :
         {"node_id", "permanent_id", "sync_id", "file_type", "path", "name", "is_removed"}) {
      node[key] = found[key];
    }
    node["ver_ctime_upper_bound"] = Json::UInt64(at);
    return node;
  }
  ADD_FAILURE() << "nothing to browse in " << path;
  return Json::Value(Json::objectValue);
}

Json::Value BrowseVersion(const std::string& sid, const std::string& target,
                          const std::string& path, int newest_index) {
  Json::Value node = Browse(sid, target, path);
  const auto answer =
      Call("KSTX.Tidepool.Node", "list_version", {{"target", target}, {"path", path}}, sid);
  EXPECT_TRUE(answer.success()) << "list_version " << path << ": " << answer.body;
  const Json::Value& items = answer.json["data"]["items"];
  if (newest_index >= static_cast<int>(items.size())) {
    ADD_FAILURE() << path << " has no version " << newest_index << ": " << answer.body;
    return node;
  }
  const Json::Value& version = items[newest_index];
  node["sync_id"] = std::to_string(version["sync_id"].asUInt64());
  node["ver_ctime_upper_bound"] = version["create_time"];
  return node;
}

std::map<std::string, std::string> UserXattrs(const std::string& path) {
  std::map<std::string, std::string> out;
  const ssize_t size = llistxattr(path.c_str(), nullptr, 0);
  if (size <= 0) return out;
  std::string names(static_cast<size_t>(size), '\0');
  const ssize_t got = llistxattr(path.c_str(), names.data(), names.size());
  for (size_t pos = 0; got > 0 && pos < static_cast<size_t>(got);) {
    const std::string name = names.c_str() + pos;
    pos += name.size() + 1;
    if (!name.starts_with("user.")) continue;
    const ssize_t len = lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
    std::string value(static_cast<size_t>(std::max<ssize_t>(len, 0)), '\0');
    if (len > 0 && lgetxattr(path.c_str(), name.c_str(), value.data(), value.size()) != len) {
      ADD_FAILURE() << path << ": " << name << " changed while read";
    }
    out[name] = value;
  }
  return out;
}

tptest::WebAnswer Status(const std::string& sid) { return Call(kRestoreApi, "status", {}, sid); }
tptest::WebAnswer Finish(const std::string& sid) { return Call(kRestoreApi, "finish", {}, sid); }

bool RecordExists() { return HVOS::TaskUtil::checkTaskExists("admin", "dftw_restore_progress"); }

tptest::WebAnswer StartRestore(const std::string& sid, const std::string& target,
                               const std::vector<Json::Value>& nodes, Params params) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& node : nodes) list.append(node);
  params.insert(params.begin(), {"nodes", list});
  params.insert(params.begin(), {"target", target});
  return Call(kRestoreApi, "start", params, sid);
}

RestoreRun Restore(const std::string& sid, const std::string& target,
                   const std::vector<Json::Value>& nodes, Params params) {
  RestoreRun run;
  run.start = StartRestore(sid, target, nodes, std::move(params));
  run.started = run.start.success();
  if (!run.started) return run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    const auto status = Status(sid);
    run.last_status = status.body;
    if (!status.success()) {
      run.error = status.code();
      break;
    }
    run.current = status.json["data"]["current"].asUInt64();
    run.total = status.json["data"]["total"].asUInt64();
    if (run.current == run.total) {
      run.done = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (!run.done && run.error == 0) {
    ADD_FAILURE() << "the restore did not end within 60 s; last status: " << run.last_status;
    return run;
  }
  // The child still writes its log record and closes the record after the
  // last progress step; later steps of a test must not race it.
  const auto closing = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (RecordExists() && std::chrono::steady_clock::now() < closing) {
    HVOS::Task task("admin", "dftw_restore_progress");
    if (task.isFinished() || task.hasProperty("error")) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return run;
}

RestoreRun RestoreAndFinish(const std::string& sid, const std::string& target,
                            const std::vector<Json::Value>& nodes, Params params) {
  RestoreRun run = Restore(sid, target, nodes, std::move(params));
  const auto finished = Finish(sid);
  EXPECT_TRUE(finished.success()) << finished.body;
  return run;
}

void WriteOrphanRecord(int age_s) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  HVOS::Task task("admin", "dftw_restore_progress");
  task.setCreatePid(child);  // gone, as the request that started it
  Json::Value data(Json::objectValue);
  data["init"] = false;
  data["last_update_time"] = Json::UInt64(Now() - age_s);
  data["current"] = 1;
  data["total"] = 3;
  task.setProperty("data", data);
}

void AgeRecord(int age_s) {
  // Opening a missing record would make one owned by this process.
  ASSERT_TRUE(RecordExists());
  HVOS::Task task("admin", "dftw_restore_progress");
  task.beginUpdate();
  Json::Value data = task.getProperty("data");
  ASSERT_TRUE(data.isObject());
  data["last_update_time"] = Json::Int64(static_cast<int64_t>(Now()) - age_s);
  task.setProperty("data", data);
  ASSERT_EQ(task.endUpdate(), 1);
}

std::vector<LogSeen> Logs(uint32_t type) {
  db::LogFilter filter;
  filter.types = {static_cast<int32_t>(type)};
  filter.oldest_first = true;
  std::vector<db::Log> logs;
  EXPECT_GE(db::LogManager::SearchLog(filter, logs), 0);
  std::vector<LogSeen> out;
  for (const db::Log& l : logs) {
    out.push_back({l.getType(), l.getUserName(), l.getUserId(), l.getViewId(), l.getShareName(),
                   l.getPArg(), l.getSArg()});
  }
  return out;
}

std::vector<std::string> QueuedRemovals() {
  namespace jq = tidepool::core::job_queue;
  std::unique_ptr<jq::JobStore> store;
  std::vector<jq::JobRecord> jobs;
  std::vector<std::string> paths;
  if (jq::OpenJobStore(jq::ConfiguredQueueLocation(), store) < 0 || store->List(jobs) < 0) {
    return paths;
  }
  for (const auto& job : jobs) {
    Json::Value payload;
    if (job.name == jq::jobs::UnlinkJob::kName && Json::Reader().parse(job.payload, payload)) {
      paths.push_back(payload["path"].asString());
    }
  }
  return paths;
}

uint64_t HomeViewOf(const std::string& user) {
  UserInfo info;
  EXPECT_GT(UserManager::GetUser(user, info, UserManager::kQueryStored), 0) << user;
  return info.view_id;
}

uint64_t ShareViewOf(const std::string& share) {
  UserInfo info;
  EXPECT_GE(UserManager::GetShareUser(share, info), 0) << share;
  return info.view_id;
}

}  // namespace rtest
