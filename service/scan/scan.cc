#include "scan.h"

#include <sys/stat.h>

#include <cstring>

#include <algorithm>
#include <ctime>
#include <list>
#include <map>
#include <memory>

#include "db/errors.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "file-store.h"
#include "hvos-service.h"
#include "logger.h"
#include "private-files.h"
#include "scan-state.h"
#include "sync-service.h"
#include "user-manager.h"
#include "view-lock.h"
#include "view-scan.h"

namespace scan {
namespace {

// "/volume1/homes/alice/Tidepool" -> "/volume1".
std::string VolumeOf(const std::string& path) {
  if (path.size() < 2 || path[0] != '/') return "";
  return path.substr(0, path.find('/', 1));
}

}  // namespace

namespace {

// The rules that apply to each user number, and those of everyone in no
// profile (the hidden default profile's).
struct ProfileRules {
  std::map<uint32_t, const UploadFilter*> of_user;
  std::map<uint64_t, UploadFilter> of_profile;
  UploadFilter fallback;

  int Load() {
    std::vector<ProfileInfo> profiles;
    std::vector<std::pair<unsigned long long, unsigned long long>> pairs;
    if (UserManager::GetAllProfiles(profiles) < 0 || UserManager::GetUserProfileMap(pairs) < 0)
      return db::kErrGeneral;
    for (const ProfileInfo& profile : profiles) {
      UploadFilter filter = UploadFilter::FromDescription(profile.description);
      if (profile.isHidden() && fallback.empty()) fallback = filter;
      of_profile.emplace(profile.id, std::move(filter));
    }
    for (const auto& [uid, profile_id] : pairs) {
      const auto it = of_profile.find(profile_id);
      if (it != of_profile.end() && uid <= UINT32_MAX)
        of_user[static_cast<uint32_t>(uid)] = &it->second;
    }
    return db::kOk;
  }
  const UploadFilter& For(uint32_t uid) const {
    const auto it = of_user.find(uid);
    return it != of_user.end() ? *it->second : fallback;
  }
};

}  // namespace

int EnabledTargets(std::vector<ScanTarget>& out) {
  std::list<UserInfo> users, shares;
  if (UserManager::EnumAllUser(users) < 0 || UserManager::EnumShareUser(shares, "") < 0)
    return db::kErrGeneral;
  ProfileRules rules;
  if (rules.Load() < 0) return db::kErrGeneral;
  for (const std::list<UserInfo>* list : {&users, &shares}) {
    for (const UserInfo& u : *list) {
      if (!u.isEnabled() || u.view_id == 0 || u.root_path.empty()) continue;
      if (list == &users && u.isShareUser()) continue;
      out.push_back(ScanTarget{u.view_id, u.name, u.user_type, u.uid, u.root_path,
                               u.isEncryptionShare(),
                               u.isShareUser() ? UploadFilter() : rules.For(u.uid)});
    }
  }
  return db::kOk;
}

namespace {

// The process-wide databases of one run, closed in reverse order.
struct Databases {
  ~Databases() {
    db::LogManager::Destroy();
    db::Manager::Destroy();
    UserManager::Destroy();
  }
  int Open(const SyncConfigMgr& config) {
    const std::string repo = config.GetSystemRepoLocation();
    const std::string connect = config.GetDbConnectParam();
    const std::string backend = config.GetDBBackendString();
    // Repositories made by older installs are narrowed once.
    tpsys::SecureRepository(repo);
    if (connect != repo) tpsys::SecureRepository(connect);
    tpsys::MakePrivateDir(repo);
    int rc = UserManager::Initialize(connect, backend);
    if (rc >= 0) rc = db::Manager::Initialize(repo, connect, backend);
    if (rc >= 0) rc = db::LogManager::Initialize(repo, connect, backend, false);
    if (rc >= 0) rc = state.Open(connect);
    return rc;
  }
  ScanState state;
};

class Stores {
 public:
  explicit Stores(filestore::Options options) : options_(options) {}
  // The volume's store, made and registered on first use.
  filestore::FileStore* For(const std::string& volume) {
    auto it = stores_.find(volume);
    if (it != stores_.end()) return it->second.get();
    const std::string folder = volume + "/@tidepool/@sync";
    tpsys::SecureRepository(volume + "/@tidepool");
    tpsys::MakePrivateDir(volume + "/@tidepool");
    std::unique_ptr<filestore::FileStore> store;
    int rc = filestore::FileStore::Open(folder, true, options_, store);
    if (rc >= 0) rc = db::Manager::RegisterVolume(volume, store->uuid(), folder);
    if (rc < 0) {
      LOG_ERROR("scan: cannot open the file store of %s (%d)\n", volume.c_str(), rc);
      return nullptr;
    }
    return (stores_[volume] = std::move(store)).get();
  }

 private:
  filestore::Options options_;
  std::map<std::string, std::unique_ptr<filestore::FileStore>> stores_;
};

// The content key of an encrypted owner's share: 1 with `key`, 0 while the
// share is locked, negative when it cannot be asked.
int ShareKey(const ScanTarget& target, std::string& key) {
  const std::string share = target.owner_type == db::kShareTypeShare ? target.owner : "homes";
  HVOSService::ShareService service(false);
  HVOSService::Share found;
  int rc = service.GetShare(share, found);
  if (rc < 0) return rc;
  if (!found.isEncryption()) return db::kErrInvalid;  // the two directories disagree
  return found.getUniqueKey(key);
}

// The key leaves the store and memory once the view is done.
class KeyScope {
 public:
  KeyScope(filestore::FileStore& store, std::string& key) : store_(store), key_(key) {}
  ~KeyScope() {
    store_.SetKey("");
    explicit_bzero(key_.data(), key_.size());
  }
  int Set() { return store_.SetKey(key_); }

 private:
  filestore::FileStore& store_;
  std::string& key_;
};

}  // namespace

int ScanAll(const SyncConfigMgr& config, const ScanOptions& given, ScanSummary& summary) {
  ScanOptions options = given;
  if (options.at == 0) options.at = static_cast<uint32_t>(time(nullptr));
  Databases dbs;
  int rc = dbs.Open(config);
  if (rc < 0) return rc;
  std::vector<ScanTarget> targets;
  if ((rc = EnabledTargets(targets)) < 0) return rc;
  Stores stores(filestore::LoadOptions(SyncConfigMgr::kPath));
  for (const ScanTarget& target : targets) {
    if (!options.views.empty() && std::find(options.views.begin(), options.views.end(),
                                            target.view_id) == options.views.end()) {
      continue;
    }
    struct stat st;
    if (stat(target.root_path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      // A missing root is not an empty tree: nothing is removed.
      LOG_WARNING("scan: %s has no folder %s\n", target.owner.c_str(), target.root_path.c_str());
      continue;
    }
    std::string key;
    if (target.encrypted) {
      // Nothing of an encrypted share is stored unless it can be sealed.
      const int got = ShareKey(target, key);
      if (got != 1) {
        LOG_WARNING("scan: %s is an encrypted share %s; skipped\n", target.owner.c_str(),
                    got == 0 ? "that is locked" : "whose key cannot be read");
        ++summary.skipped;
        continue;
      }
    }
    filestore::FileStore* store = stores.For(VolumeOf(target.root_path));
    std::unique_ptr<db::ViewWriter> view;
    if (!store || db::Manager::CreateView(target.view_id) < 0 ||
        db::Manager::GetViewWriter(target.view_id, view) < 0) {
      LOG_ERROR("scan: cannot open the view of %s\n", target.owner.c_str());
      explicit_bzero(key.data(), key.size());
      ++summary.failed;
      continue;
    }
    KeyScope key_scope(*store, key);
    if (key_scope.Set() < 0) {
      LOG_ERROR("scan: the key of %s is not usable; skipped\n", target.owner.c_str());
      ++summary.failed;
      continue;
    }
    ViewLock lock;
    if (lock.Acquire(config.GetDbConnectParam(), target.view_id) < 0) {
      ++summary.failed;
      continue;
    }
    ++summary.views;
    if (ViewScan(target, *view, *store, dbs.state, options, summary).Run() < 0) ++summary.failed;
  }
  return db::kOk;
}

}  // namespace scan
