#include "purge.h"

#include <dirent.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <vector>

#include "db/errors.h"
#include "db/log-manager.h"
#include "db/log-types.h"
#include "db/manager.h"
#include "file-store.h"
#include "logger.h"
#include "scan-state.h"
#include "sync-service.h"
#include "user-manager.h"
#include "view-lock.h"

namespace purge {
namespace {

std::function<void()> TEST_after_commit;
std::function<void()> TEST_after_unlink;

// Every view that has a database, by the files in "<connect>/views".
std::vector<uint64_t> AllViews(const std::string& connect) {
  std::vector<uint64_t> out;
  DIR* dir = opendir((connect + "/views").c_str());
  if (!dir) return out;
  while (const dirent* e = readdir(dir)) {
    const std::string name = e->d_name;
    const size_t dot = name.find(".sqlite");
    if (dot == std::string::npos || dot == 0 || dot + 7 != name.size()) continue;
    char* end = nullptr;
    const unsigned long long id = strtoull(name.c_str(), &end, 10);
    if (end == name.c_str() + dot && id > 0) out.push_back(id);
  }
  closedir(dir);
  std::sort(out.begin(), out.end());
  return out;
}

bool ReadId(const Json::Value& v, uint64_t& out) {
  // Whole numbers only: no text, no fractions, nothing negative.
  if ((v.type() != Json::intValue && v.type() != Json::uintValue) || !v.isUInt64()) return false;
  out = v.asUInt64();
  return out > 0;
}

// The stores of the volumes, opened once per run, by uuid.
class Stores {
 public:
  filestore::FileStore* For(const std::string& uuid) {
    if (!loaded_) Load();
    const auto it = stores_.find(uuid);
    return it == stores_.end() ? nullptr : it->second.get();
  }

 private:
  void Load() {
    loaded_ = true;
    std::map<std::string, std::string> volumes;
    if (db::Manager::EnumVolumeTable(volumes) < 0) return;
    const filestore::Options options = filestore::LoadOptions(SyncConfigMgr::kPath);
    for (const auto& [volume, folder] : volumes) {
      std::unique_ptr<filestore::FileStore> store;
      if (filestore::FileStore::Open(folder, false, options, store) < 0) {
        LOG_WARNING("purge: the store of %s cannot be opened\n", volume.c_str());
        continue;
      }
      if (TEST_after_unlink) store->TEST_SetAfterUnlinkHook(TEST_after_unlink);
      const std::string uuid = store->uuid();
      stores_[uuid] = std::move(store);
    }
  }
  bool loaded_ = false;
  std::map<std::string, std::unique_ptr<filestore::FileStore>> stores_;
};

class Purger {
 public:
  Purger(const std::string& connect, const Request& request, Summary& summary)
      : connect_(connect), request_(request), summary_(summary) {}

  int PurgeView(uint64_t view_id, bool explicit_view) {
    // A view that was never made is nothing to purge (and gets no lock file).
    struct stat st;
    if (lstat((connect_ + "/views/" + std::to_string(view_id) + ".sqlite").c_str(), &st) != 0) {
      LOG_WARNING("purge: there is no view %llu; dropped\n",
                  static_cast<unsigned long long>(view_id));
      return db::kErrNotFound;
    }
    scan::ViewLock lock;
    if (lock.Acquire(connect_, view_id) < 0) return db::kErrCannotOpen;
    std::unique_ptr<db::ViewWriter> view;
    int rc = db::Manager::GetViewWriter(view_id, view);
    if (rc < 0) return rc;
    // What an earlier purge of this view left in its journal goes first.
    if ((rc = ReleasePending(view_id, *view)) < 0) return rc;
    std::vector<db::PurgedNode> purged;
    rc = request_.node_id ? view->PurgeNode(*request_.node_id, purged) : view->PurgeRemoved(purged);
    if (rc < 0) {
      if (rc == db::kErrNotFound || rc == db::kErrInvalid)
        LOG_WARNING("purge: view %llu has no node %llu to purge; dropped\n",
                    static_cast<unsigned long long>(view_id),
                    static_cast<unsigned long long>(request_.node_id.value_or(0)));
      return rc == db::kErrInvalid ? db::kErrNotFound : rc;
    }
    if (TEST_after_commit) TEST_after_commit();
    summary_.nodes += static_cast<unsigned>(purged.size());
    if (!purged.empty() || explicit_view) ++summary_.views;
    Forget(view_id, purged);
    if (!purged.empty() || explicit_view) WriteLog(view_id, purged);
    return ReleasePending(view_id, *view);
  }

 private:
  // The scan's record of purged nodes goes too: their file ids are no
  // base for a next version any more. A record left by a crash here is
  // harmless, as the scan reads records of live nodes only.
  void Forget(uint64_t view_id, const std::vector<db::PurgedNode>& purged) {
    if (purged.empty()) return;
    if (!state_open_) {
      if (state_.Open(connect_) < 0) return;
      state_open_ = true;
    }
    state_.Begin();
    for (const db::PurgedNode& node : purged) state_.Forget(view_id, node.node_id);
    state_.Commit();
  }

  void WriteLog(uint64_t view_id, const std::vector<db::PurgedNode>& purged) {
    if (!db::LogManager::IsInitialized()) return;
    UserInfo owner;
    db::Log log;
    log.setTime(static_cast<uint32_t>(time(nullptr)));
    log.setUserName(request_.user);
    log.setUserId(request_.uid);
    log.setViewId(view_id);
    if (UserManager::GetUserByDefaultView(view_id, owner) >= 0) {
      log.setShareName(owner.name);
      log.setShareType(owner.getShareType());
    }
    if (request_.node_id) {
      log.setType(db::kLogPathPurge);
      // The purged node comes first among its subtree's paths.
      log.pushArg(purged.empty() ? std::string() : purged.front().path, true);
    } else {
      log.setType(db::kLogFilterPurge);
    }
    if (db::LogManager::InsertLog(log) != 0) LOG_WARNING("purge: cannot write its log record\n");
  }

  // Releases the content in the view's journal that no version of any view
  // names any more, store by store.
  int ReleasePending(uint64_t view_id, db::ViewWriter& view) {
    std::map<std::string, std::vector<uint64_t>> pending;
    int rc = view.PendingRelease(pending);
    if (rc < 0) return rc;
    for (auto& [uuid, ids] : pending) {
      filestore::FileStore* store = stores_.For(uuid);
      if (!store) {
        LOG_ERROR("purge: no store %s for the content of view %llu\n", uuid.c_str(),
                  static_cast<unsigned long long>(view_id));
        return db::kErrCannotOpen;
      }
      if ((rc = DropInUse(view_id, view.Reader(), uuid, ids)) < 0) return rc;
      if ((rc = store->ReleaseMany(ids)) < 0) return rc;
      summary_.pieces += static_cast<unsigned>(rc);
      if ((rc = view.ClearPendingRelease(uuid)) < 0) return rc;
    }
    return db::kOk;
  }

  int DropInUse(uint64_t view_id, db::ViewManager& own, const std::string& uuid,
                std::vector<uint64_t>& ids) {
    std::vector<uint64_t> in_use;
    int rc = own.ContentInUse(uuid, ids, in_use);
    if (rc < 0) return rc;
    Remove(ids, in_use);
    if (all_views_.empty()) all_views_ = AllViews(connect_);
    for (const uint64_t other : all_views_) {
      if (other == view_id || ids.empty()) continue;
      db::ViewDBInterface reader;
      if ((rc = db::Manager::GetViewDB(other, reader)) < 0) {
        // A view that cannot be read may name the content: keep it all.
        LOG_ERROR("purge: view %llu cannot be read (%d); content kept\n",
                  static_cast<unsigned long long>(other), rc);
        return rc;
      }
      if ((rc = reader->ContentInUse(uuid, ids, in_use)) < 0) return rc;
      Remove(ids, in_use);
    }
    return db::kOk;
  }

  static void Remove(std::vector<uint64_t>& ids, const std::vector<uint64_t>& in_use) {
    if (in_use.empty()) return;
    std::vector<uint64_t> left;
    std::sort(ids.begin(), ids.end());
    std::set_difference(ids.begin(), ids.end(), in_use.begin(), in_use.end(),
                        std::back_inserter(left));
    ids.swap(left);
  }

  const std::string& connect_;
  const Request& request_;
  Summary& summary_;
  Stores stores_;
  scan::ScanState state_;
  bool state_open_ = false;
  std::vector<uint64_t> all_views_;
};

}  // namespace

void TEST_SetHooks(std::function<void()> after_commit, std::function<void()> after_unlink) {
  TEST_after_commit = std::move(after_commit);
  TEST_after_unlink = std::move(after_unlink);
}

bool ParsePayload(const std::string& payload, Request& out) {
  Json::Value root;
  Json::CharReaderBuilder builder;
  builder["rejectDupKeys"] = true;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(payload.data(), payload.data() + payload.size(), &root, &errors) ||
      !root.isObject())
    return false;
  Request parsed;
  for (const std::string& key : root.getMemberNames()) {
    uint64_t id = 0;
    if (!ReadId(root[key], id)) return false;
    if (key == "view_id") {
      parsed.view_id = id;
    } else if (key == "node_id") {
      parsed.node_id = id;
    } else {
      return false;
    }
  }
  if (parsed.node_id && !parsed.view_id) return false;
  out.view_id = parsed.view_id;
  out.node_id = parsed.node_id;
  return true;
}

int Run(const std::string& connect, const Request& request, Summary& summary) {
  Purger purger(connect, request, summary);
  if (request.view_id) return purger.PurgeView(*request.view_id, true);
  int failed = db::kOk;
  for (const uint64_t view_id : AllViews(connect)) {
    const int rc = purger.PurgeView(view_id, false);
    // One view that fails does not keep the others full; the job is tried
    // again for it.
    if (rc < 0 && rc != db::kErrNotFound) failed = rc;
  }
  return failed;
}

}  // namespace purge
