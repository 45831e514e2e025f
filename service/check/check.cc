#include "check.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "db/errors.h"
#include "db/manager.h"
#include "file-store.h"
#include "hvos-service.h"
#include "sync-service.h"
#include "user-manager.h"

namespace check {
namespace {

namespace fs = std::filesystem;

struct Owner {
  uint64_t view_id = 0;
  std::string label;  // "user alice", "share Vault"
  std::string share;  // whose key opens the view's pieces: the share, or "homes"
  bool encrypted = false;
};

// Opens what the caller has not opened, and closes only that.
class Databases {
 public:
  Databases() = default;
  Databases(const Databases&) = delete;
  Databases& operator=(const Databases&) = delete;
  ~Databases() {
    if (opened_views_) db::Manager::Destroy();
    if (opened_users_) UserManager::Destroy();
  }
  int Open(const CheckOptions& options) {
    std::string connect = options.connect_param;
    std::string backend = options.backend;
    if (connect.empty()) {
      SyncConfigMgr config;
      if (SyncGetConf(config) < 0) return db::kErrCannotOpen;
      connect = config.GetDbConnectParam();
      backend = config.GetDBBackendString();
    }
    if (!db::Manager::IsInitialized()) {
      const int rc = db::Manager::InitializeReadOnly(connect, backend);
      if (rc < 0) return rc;
      opened_views_ = true;
    }
    if (!UserManager::IsInitialized()) {
      // Its opener makes a missing database; a check must not.
      struct stat st;
      if (stat((connect + "/user-db.sqlite").c_str(), &st) != 0) return db::kErrCannotOpen;
      if (UserManager::Initialize(connect, backend) < 0) return db::kErrCannotOpen;
      opened_users_ = true;
    }
    return db::kOk;
  }

 private:
  bool opened_views_ = false;
  bool opened_users_ = false;
};

int Owners(std::vector<Owner>& out) {
  std::list<UserInfo> users, shares;
  if (UserManager::EnumAllUser(users) < 0 || UserManager::EnumShareUser(shares, "") < 0)
    return db::kErrGeneral;
  std::unordered_set<uint64_t> seen;
  for (const std::list<UserInfo>* list : {&users, &shares}) {
    for (const UserInfo& u : *list) {
      if (u.view_id == 0 || (list == &users && u.isShareUser())) continue;
      if (!seen.insert(u.view_id).second) continue;
      const bool share = u.isShareUser();
      out.push_back(Owner{u.view_id, (share ? "share " : "user ") + u.name,
                          share ? u.name : "homes", u.isEncryptionShare()});
    }
  }
  return db::kOk;
}

// 1 with `key`, 0 while the share is locked, negative when it cannot be asked.
int ShareKey(const Owner& owner, std::string& key) {
  HVOSService::ShareService service(false);
  HVOSService::Share found;
  const int rc = service.GetShare(owner.share, found);
  if (rc < 0) return rc;
  if (!found.isEncryption()) return db::kErrInvalid;
  return found.getUniqueKey(key);
}

// One volume's store and what the views said of it.
struct Store {
  std::string volume;
  std::unique_ptr<filestore::FileStore> files;
  // Outcome per file id, read once: empty when sound, else the problem.
  std::unordered_map<uint64_t, std::string> verified;
  std::unordered_map<uint64_t, std::string> present;  // pieces alone (locked)
  std::unordered_set<uint64_t> referenced;
};

class Stores {
 public:
  void Open(CheckReport& report) {
    std::map<std::string, std::string> volumes;
    if (db::Manager::EnumVolumeTable(volumes) < 0) {
      report.problems.push_back("the volume table cannot be read");
      return;
    }
    for (const auto& [volume, folder] : volumes) {
      auto store = std::make_unique<Store>();
      store->volume = volume;
      const int rc = filestore::FileStore::OpenReadOnly(folder, store->files);
      if (rc < 0) {
        report.problems.push_back("store of " + volume + " (" + folder +
                                  ") cannot be opened: " + db::GetErrMsg(rc));
        continue;
      }
      const std::string uuid = store->files->uuid();
      by_uuid_[uuid] = std::move(store);
    }
  }
  Store* Find(const std::string& uuid) {
    const auto it = by_uuid_.find(uuid);
    return it == by_uuid_.end() ? nullptr : it->second.get();
  }
  // Every store opens one view's sealed pieces at a time.
  int SetKey(const std::string& key) {
    for (auto& [uuid, store] : by_uuid_)
      if (store->files->SetKey(key) < 0) return db::kErrInvalid;
    return db::kOk;
  }
  std::map<std::string, std::unique_ptr<Store>>& all() { return by_uuid_; }

 private:
  std::map<std::string, std::unique_ptr<Store>> by_uuid_;
};

// The versions of one view against the stores.
class ViewCheck {
 public:
  ViewCheck(const Owner& owner, db::ViewManager& view, Stores& stores, bool locked,
            CheckReport& report)
      : owner_(owner), view_(view), stores_(stores), locked_(locked), report_(report) {}

  int Run() {
    const int rc = view_.ForEachVersion([this](const db::Version& v) {
      Visit(v);
      return 0;
    });
    if (rc < 0) {
      report_.problems.push_back("view " + std::to_string(owner_.view_id) + " (" + owner_.label +
                                 "): its versions cannot be read: " + db::GetErrMsg(rc));
    }
    return rc;
  }

 private:
  void Visit(const db::Version& v) {
    const bool content = v.getVerType() == db::kVerTypeStored && v.getFileId() != 0;
    const bool mac = v.getMacAttributeFileId() != 0;
    if (!content && !mac) return;
    ++report_.versions;
    if (content) Piece(v, v.getFileUuid(), v.getFileId(), v.getHash(), "");
    if (mac) {
      Piece(v, v.getMacAttributeUuid(), v.getMacAttributeFileId(), v.getMacAttributeHash(),
            "Mac attributes: ");
    }
  }

  void Piece(const db::Version& v, const std::string& uuid, uint64_t file_id,
             const std::string& hash, const std::string& what) {
    Store* store = stores_.Find(uuid);
    if (!store) {
      Problem(v, what + "names no known store (" + (uuid.empty() ? "none" : uuid) + ")");
      return;
    }
    store->referenced.insert(file_id);
    std::string problem = Outcome(*store, file_id);
    filestore::FileRow row;
    if (problem.empty() && store->files->GetRow(file_id, row) >= 0 && row.hash != hash)
      problem = "its recorded hash is not the stored content's";
    if (!problem.empty()) Problem(v, what + problem);
  }

  const std::string& Outcome(Store& store, uint64_t file_id) {
    auto& done = locked_ ? store.present : store.verified;
    const auto it = done.find(file_id);
    if (it != done.end()) return it->second;
    std::string problem;
    const int rc = locked_ ? store.files->CheckPieces(file_id, problem)
                           : store.files->Verify(file_id, problem);
    if (rc >= 0) problem.clear();
    if (rc < 0 && problem.empty()) problem = db::GetErrMsg(rc);
    return done.emplace(file_id, std::move(problem)).first->second;
  }

  void Problem(const db::Version& v, const std::string& what) {
    report_.problems.push_back(
        "view " + std::to_string(owner_.view_id) + " node " + std::to_string(v.getNodeId()) +
        " version " + std::to_string(v.getSyncId()) + ": " + PathOf(v.getNodeId()) + ": " + what);
  }

  const std::string& PathOf(uint64_t node_id) {
    if (node_id != path_node_) {
      db::Node node;
      path_node_ = node_id;
      path_ = view_.QueryNode(node_id, node, db::ViewManager::kQueryWithRemoved) >= 0
                  ? node.getPath()
                  : "(node without a path)";
    }
    return path_;
  }

  const Owner& owner_;
  db::ViewManager& view_;
  Stores& stores_;
  bool locked_;
  CheckReport& report_;
  uint64_t path_node_ = 0;
  std::string path_;
};

// What lies in a store's folders that no row names, and what a live row
// needs that is not there.
class StoreSweep {
 public:
  StoreSweep(Store& store, CheckReport& report) : store_(store), report_(report) {}

  void Run() {
    const int rc = store_.files->ForEachRow([this](const filestore::FileRow& row) {
      Row(row);
      return 0;
    });
    if (rc < 0) {
      report_.problems.push_back("store of " + store_.volume +
                                 ": its rows cannot be read: " + db::GetErrMsg(rc));
      return;
    }
    const unsigned long long stray = StrayFiles();
    Note(unreferenced_, "file rows", "are referenced by no version");
    Note(stray, "files", "belong to no file row");
    Note(missing_signatures_, "signatures", "are missing; their next versions are stored whole");
  }

 private:
  static constexpr uint8_t kOrigin = 1, kDelta = 2, kSignature = 4;

  void Row(const filestore::FileRow& row) {
    const bool signature = row.has_signature && !row.released;
    expected_[row.file_id] = (row.base_id == 0 ? kOrigin : kDelta) | (signature ? kSignature : 0);
    if (signature) {
      struct stat st;
      if (lstat(filestore::SignaturePath(store_.files->folder(), row.file_id).c_str(), &st) != 0)
        ++missing_signatures_;
    }
    if (row.released || store_.referenced.count(row.file_id) != 0) return;
    ++unreferenced_;
    // Unreferenced rows are not read through, but their pieces must be there.
    std::string problem;
    if (store_.files->CheckPieces(row.file_id, problem) < 0) {
      report_.problems.push_back("store of " + store_.volume + " file " +
                                 std::to_string(row.file_id) + ": " + problem);
    }
  }

  unsigned long long StrayFiles() {
    const std::string& folder = store_.files->folder();
    unsigned long long stray = 0;
    for (const char* kind : {"repo", "delta", "node_delta"}) {
      std::error_code ec;
      fs::recursive_directory_iterator it(folder + "/" + kind, ec), end;
      for (; !ec && it != end; it.increment(ec)) {
        if (it->is_directory(ec)) continue;
        if (!Expected(kind, it->path().string())) ++stray;
      }
    }
    return stray;
  }

  bool Expected(const std::string& kind, const std::string& path) {
    std::string name = fs::path(path).filename().string();
    const bool signature = kind == "node_delta";
    if (signature) {
      if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".sig") != 0) return false;
      name.resize(name.size() - 4);
    }
    if (name.empty() || name.size() > 20 || name.find_first_not_of("0123456789") != name.npos)
      return false;
    filestore::FileRow row;
    row.file_id = std::stoull(name);
    row.base_id = kind == "delta" ? 1 : 0;
    const auto it = expected_.find(row.file_id);
    if (it == expected_.end()) return false;
    const std::string& folder = store_.files->folder();
    if (signature) {
      return (it->second & kSignature) != 0 &&
             filestore::SignaturePath(folder, row.file_id) == path;
    }
    const uint8_t want = kind == "delta" ? kDelta : kOrigin;
    return (it->second & want) != 0 && filestore::ContentPath(folder, row) == path;
  }

  void Note(unsigned long long count, const char* what, const char* why) {
    if (count == 0) return;
    report_.notes.push_back("note: " + std::to_string(count) + " " + what + " of the store of " +
                            store_.volume + " " + why);
  }

  Store& store_;
  CheckReport& report_;
  std::unordered_map<uint64_t, uint8_t> expected_;
  unsigned long long unreferenced_ = 0;
  unsigned long long missing_signatures_ = 0;
};

// The key leaves the stores and memory once the view is done.
class KeyScope {
 public:
  explicit KeyScope(Stores& stores) : stores_(stores) {}
  ~KeyScope() {
    stores_.SetKey("");
    explicit_bzero(key.data(), key.size());
  }
  std::string key;

 private:
  Stores& stores_;
};

void CheckView(const Owner& owner, Stores& stores, CheckReport& report) {
  const std::string name = "view " + std::to_string(owner.view_id) + " (" + owner.label + ")";
  db::ViewDBInterface view;
  int rc = db::Manager::GetViewDB(owner.view_id, view);
  if (rc < 0) {
    report.problems.push_back(name + ": cannot be opened: " + db::GetErrMsg(rc));
    return;
  }
  ++report.views;
  KeyScope scope(stores);
  bool locked = false;
  if (owner.encrypted) {
    const int got = ShareKey(owner, scope.key);
    if (got == 0) {
      locked = true;
      ++report.locked;
      report.notes.push_back(name + ": skipped (locked)");
    } else if (got != 1 || stores.SetKey(scope.key) < 0) {
      locked = true;  // the pieces can still be counted
      report.problems.push_back(name + ": the share's key cannot be read");
    }
  }
  ViewCheck(owner, *view.get(), stores, locked, report).Run();
}

// Whether the owner's view has a database at all (never scanned: none).
bool HasView(const Owner& owner) {
  db::ViewDBInterface view;
  return db::Manager::GetViewDB(owner.view_id, view) != db::kErrCannotOpen;
}

}  // namespace

int CheckRepository(const CheckOptions& options, CheckReport& report) {
  report = CheckReport();
  Databases dbs;
  int rc = dbs.Open(options);
  if (rc < 0) return rc;
  std::vector<Owner> owners;
  if ((rc = Owners(owners)) < 0) return rc;
  if (options.view_id != 0) {
    std::erase_if(owners, [&](const Owner& o) { return o.view_id != options.view_id; });
    if (owners.empty() || !HasView(owners[0])) return db::kErrNotFound;
  }
  Stores stores;
  stores.Open(report);
  for (const Owner& owner : owners)
    if (options.view_id != 0 || HasView(owner)) CheckView(owner, stores, report);
  // Only a check of every view knows what no version refers to.
  if (options.view_id == 0)
    for (auto& [uuid, store] : stores.all()) StoreSweep(*store, report).Run();
  return db::kOk;
}

std::string SummaryLine(const CheckReport& report) {
  return "checked " + std::to_string(report.versions) + " versions of " +
         std::to_string(report.views) + " views: " + std::to_string(report.problems.size()) +
         " problems";
}

}  // namespace check
