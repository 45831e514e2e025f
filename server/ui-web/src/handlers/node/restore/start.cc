// Node.Restore start, in order: switch to the view's user, take root, make
// sure no other restore is alive (a record renewed within ten seconds, or
// whose creator still runs), resolve the target and open its view, read the
// nodes strictly, open copy_to (no link on the way) and check the caller's
// write rights on that very folder, check that each node_id names the node
// of its permanent_id and that the caller may read (in place: write) each
// node as it stood at the restore point, read the office passwords, write
// the task record (with its owner) and fork. The child gets the open
// copy_to folder as a descriptor, counts the items, restores each, and
// leaves either finished progress or an error code in the record.
#include "start.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <memory>

#include "bridge/run-as.h"
#include "db/view-manager.h"
#include "file-util.h"
#include "fs-beneath.h"
#include "handlers/node/node-params.h"
#include "handlers/node/node-request.h"
#include "hvos-task.h"
#include "logger.h"
#include "sdk-path.h"
#include "sync-target.h"
#include "task-record.h"
#include "user-manager.h"
#include "util/librestore/file.h"
#include "util/librestore/restore-item.h"
#include "util/librestore/task-actor.h"
#include "util/librestore/task-nodes.h"
#include "util/librestore/view.h"
#include "util/webapi-util.h"

using tidepool::restore::DecryptMap;
using tidepool::restore::Item;
using tidepool::restore::Rights;
using tidepool::restore::TaskActor;
using tidepool::restore::TaskDesc;
using tidepool::restore::View;

namespace {

// Every bit of write data, read attributes and ACL, write attributes.
constexpr int kCopyToNeeds = 0x58A;

bool AnotherRestoreRunning() {
  if (!HVOS::TaskUtil::checkTaskExists(kRestoreTaskOwner, kRestoreTaskName)) return false;
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  const pid_t pid = task.getCreatePid();
  if (pid > 0 && kill(pid, 0) == 0) {
    LOG_DEBUG("kill ret 0\n");
    return true;
  }
  if (!task.waitForDataReady("data", 1000)) {
    LOG_ERROR("cannot wait for data ready.\n");
    task.remove();
    return false;
  }
  const Json::Value data = task.getProperty("data");
  const Json::Value last = data.isObject() ? data["last_update_time"] : Json::Value();
  const int64_t updated = last.isInt64() ? last.asInt64() : 0;
  if (time(nullptr) - updated < kRestoreStaleSeconds) return true;
  LOG_ERROR("Task timeout (10 sec), just remove\n");
  task.remove();
  return false;
}

// The same folder, reached again by its path with no link on the way: the
// rights just checked by path were checked on the folder held open.
bool SameFolder(int fd, const std::string& path) {
  const fsb::UniqueFd again(fsb::OpenNoSymlinks(path, O_DIRECTORY | O_PATH));
  struct stat a {
  }, b{};
  return again.valid() && fstat(fd, &a) == 0 && fstat(again.get(), &b) == 0 &&
         a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool MayWriteShare(const std::string& share, const std::string& user) {
  const int level = SDK::GetSharePrivilege(share, user);
  return level == SDK::kShareFull || level == SDK::kShareReadWrite;
}

}  // namespace

NodeRestoreStartHandler::NodeRestoreStartHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Restore", "start", 0, 0);
}

int NodeRestoreStartHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                    BridgeResponse& response) {
  return Start(auth, request, response);
}

bool NodeRestoreStartHandler::MayWriteTo(const RequestAuthentication& auth,
                                         BridgeResponse& response, const std::string& copy_to) {
  const std::string share = SDK::PathGetShareName(copy_to);
  if (share.empty()) {
    LOG_ERROR("Failed to get share name from path '%s'.\n", copy_to.c_str());
    return false;
  }
  UserInfo login;
  if (GetUserInfoByTarget(auth, response, "", login, true) < 0) {
    LOG_ERROR("Failed to get login user info: login as '%s'\n", auth.user.c_str());
    return false;
  }
  if (share != "homes" && !MayWriteShare(share, auth.user)) {
    LOG_ERROR("User has no write permission on share '%s'\n", share.c_str());
    return false;
  }
  SDK::GroupCache cache;
  const int rights = SDK::GetPathAclPrivilege(auth.user, copy_to, cache);
  if (rights < 0 || (rights & kCopyToNeeds) != kCopyToNeeds) {
    LOG_ERROR("User has no full write permission on path '%s'\n", copy_to.c_str());
    return false;
  }
  return true;
}

int NodeRestoreStartHandler::Start(const RequestAuthentication& auth, BridgeRequest& request,
                                   BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
  const std::string copy_to = node_params::String(request, "copy_to");
  const bool override_existing = node_params::Bool(request, "override", true);
  const bool include_removed = node_params::Bool(request, "include_removed", false);
  const std::string view_role = node_params::String(request, "view_role");
  const uint64_t ctime_ub_default = node_params::UInt64(request, "ver_ctime_upper_bound", 0);
  const Json::Value decrypt = request.GetParamRef("decrypt", Json::Value(Json::arrayValue));
  const Json::Value nodes = request.GetParamRef("nodes", Json::Value(Json::arrayValue));

  RequestAuthentication local_auth = auth;
  if (!view_role.empty() && SwitchAuth(auth, view_role, local_auth) < 0) {
    LOG_ERROR("Failed to switch auth for user %s\n", view_role.c_str());
    return RESPONSE_FAIL(response, 402, "Failed to switch auth");
  }
  IF_RUN_AS(0, 0) {
    if (AnotherRestoreRunning()) {
      LOG_ERROR("Another restore task processing\n");
      return RESPONSE_FAIL(response, 406, "another restore task is processing");
    }
    if (!IsValidTarget(target)) {
      LOG_ERROR("Share is not mounted\n");
      return RESPONSE_FAIL(response, 603, "share is not mounted");
    }
    NodeRequest opened;
    if (OpenNodeRequest(local_auth, response, target, nodes, ctime_ub_default, opened) < 0) {
      return -1;
    }
    const UserInfo& user_info = opened.user_info;
    View& view = *opened.view;
    std::vector<TaskDesc>& requested = opened.descs;
    // Rights are the caller's own, whoever's view is shown.
    fsb::UniqueFd copy_root;
    if (!copy_to.empty()) {
      copy_root.reset(fsb::OpenNoSymlinks(copy_to, O_DIRECTORY | O_RDONLY));
      if (!copy_root.valid()) {
        LOG_ERROR("Cannot open '%s' without following links: %s\n", copy_to.c_str(),
                  strerror(errno));
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
      if (!MayWriteTo(auth, response, copy_to) || !SameFolder(copy_root.get(), copy_to)) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
    } else if (!auth.is_admin && SyncIsShareReq(target) &&
               !MayWriteShare(SyncTargetNameGet(target), auth.user)) {
      LOG_ERROR("User has no write permission on share '%s'\n", target.c_str());
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
    std::vector<db::Node> claimed;
    if (tidepool::restore::ResolveClaimedNodes(view, requested, claimed) < 0) {
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
    std::vector<TaskDesc> descs;
    for (size_t i = 0; i < requested.size(); ++i) {
      // In place, the deletion itself has nothing to bring back.
      if (copy_to.empty() && claimed[i].isRemoved() &&
          claimed[i].getSyncId() == requested[i].sync_id) {
        continue;
      }
      descs.push_back(std::move(requested[i]));
    }
    Rights rights;
    if (!auth.is_admin) {
      UserInfo login;
      if (GetUserInfoByTarget(auth, response, "", login, true) < 0 ||
          Rights::ForCaller(auth.user, login.view_id == user_info.view_id, copy_to.empty(),
                            rights) < 0) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
      view.SetRights(rights);
      if (!tidepool::restore::MayHaveAll(view, descs)) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
    }
    DecryptMap decrypt_map;
    if (tidepool::restore::ParseDecryptMap(decrypt, decrypt_map) < 0) {
      return RESPONSE_FAIL(response, 401, "malformed decrypt information");
    }

    const uint32_t task_id = GetRandomInt();
    {
      HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
      Json::Value data(Json::objectValue);
      data["init"] = true;
      data["task_id"] = Json::UInt(task_id);
      data["last_update_time"] = Json::Int64(time(nullptr));
      data["current"] = 0;
      data["total"] = 1;
      Json::Value owner(Json::objectValue);
      owner["uid"] = Json::UInt(auth.uid);
      owner["user"] = auth.user;
      task.beginUpdate();
      task.setProperty("data", data);
      task.setProperty("owner", owner);
      if (task.endUpdate() == 0) {
        LOG_ERROR("Cannot write the task record\n");
        return RESPONSE_FAIL(response, 401, "failed to write task record");
      }
    }
    const int pid = Fork(1);
    if (pid < 0) {
      LOG_ERROR("Failed to fork\n");
      return RESPONSE_FAIL(response, 401, "failed to fork");
    }
    if (pid == 0) {
      RunRestore(auth, descs, decrypt_map, copy_to, copy_root.get(), rights, override_existing,
                 include_removed);
      _exit(0);
    }
    Json::Value answer(Json::objectValue);
    answer["task_id"] = Json::UInt(task_id);
    response.SetJsonResponse(answer);
    return 0;
  }
  LOG_ERROR("Fail to switch to root\n");
  return RESPONSE_FAIL(response, 401, "failed to switch to root");
}

void NodeRestoreStartHandler::RunRestore(const RequestAuthentication& auth,
                                         const std::vector<TaskDesc>& descs,
                                         const DecryptMap& decrypt_map, const std::string& copy_to,
                                         int copy_fd, const Rights& rights, bool override_existing,
                                         bool include_removed) {
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  Json::Value error(Json::objectValue);
  TaskActor actor(copy_to.empty() ? TaskActor::ACTION_RESTORE : TaskActor::ACTION_COPY, auth.user,
                  auth.uid);
  if (!copy_to.empty()) actor.SetCopyRoot(copy_fd, copy_to);
  IF_RUN_AS(0, 0) {
    int flags = tidepool::restore::PREPARE_MAC_ATTR;
    if (override_existing) flags |= tidepool::restore::PREPARE_OVERWRITE;
    if (include_removed) flags |= tidepool::restore::PREPARE_INCLUDE_REMOVED;
    std::map<uint32_t, std::shared_ptr<View>> views;
    tidepool::restore::ItemList items;
    bool loaded = true;
    for (const TaskDesc& desc : descs) {
      std::shared_ptr<View>& view = views[desc.view_id];
      if (!view) {
        view = std::make_shared<View>(desc.view_id);
        view->SetRights(rights);
      }
      if (!view->Init()) {
        syslog(LOG_ERR, "%s:%d Failed to load view [%llu]", __FILE__, __LINE__,
               static_cast<unsigned long long>(desc.view_id));
        loaded = false;
        break;
      }
      items.push_back(Item::ItemFactory(desc.file_type == 1, *view, desc.permanent_id, desc.sync_id,
                                        desc.ver_ctime_upper_bound, desc.name, desc.path,
                                        decrypt_map, &task));
    }
    unsigned long long total = 0;
    if (loaded && tidepool::restore::CountFromItemList(items, include_removed, total) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to get total # of items to be restored\n", __FILE__, __LINE__);
      loaded = false;
    }
    if (loaded) {
      task.beginUpdate();
      Json::Value data(Json::objectValue);
      data["init"] = false;
      data["last_update_time"] = Json::Int64(time(nullptr));
      data["current"] = 0;
      data["total"] = Json::UInt64(total);
      task.setProperty("data", data);
      task.endUpdate();
      for (const auto& item : items) {
        const int rc =
            copy_to.empty() ? item->Restore(actor, flags) : item->CopyTo(copy_to, actor, flags);
        if (rc < 0) {
          SetTaskErrDataByItemRc(rc, error);
          break;
        }
      }
      tidepool::restore::FlushProgress(&task);
      tidepool::restore::CloseFileDatabases();
      if (error.empty()) {
        task.finish(false);
        return;
      }
    }
  }
  else {
    syslog(LOG_ERR, "%s:%d Fail to run as root\n", __FILE__, __LINE__);
  }
  // No code means the task could not even begin; the record says so.
  task.setProperty("error", error.empty() ? Json::Value() : error);
  task.finish(false);
}
