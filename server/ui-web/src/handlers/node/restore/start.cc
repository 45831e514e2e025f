// Node.Restore start, in order: switch to the view's user, take root, make
// sure no other restore is alive (a record renewed within ten seconds, or
// whose creator still runs), resolve the target and open its view, check
// the caller's write rights on copy_to and on the nodes, read the office
// passwords and the nodes, write the task record and fork. The child counts
// the items, restores each, and leaves either finished progress or an error
// code in the record.
#include "start.h"

#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <memory>

#include "bridge/run-as.h"
#include "db/view-manager.h"
#include "file-util.h"
#include "handlers/node/node-params.h"
#include "hvos-task.h"
#include "logger.h"
#include "sdk-path.h"
#include "task-record.h"
#include "user-manager.h"
#include "util/librestore/file.h"
#include "util/librestore/restore-item.h"
#include "util/librestore/task-actor.h"
#include "util/librestore/view.h"
#include "util/webapi-util.h"

using tidepool::restore::DecryptMap;
using tidepool::restore::Item;
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

std::string Text(const Json::Value& entry, const char* key, const std::string& fallback) {
  const Json::Value& value = entry[key];
  return value.isString() ? value.asString() : fallback;
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
  if (share != "homes") {
    const int level = SDK::GetSharePrivilege(share, auth.user);
    if (level != SDK::kShareFull && level != SDK::kShareReadWrite) {
      LOG_ERROR("User has no write permission on share '%s'\n", share.c_str());
      return false;
    }
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
    UserInfo user_info;
    if (GetUserInfoByTarget(local_auth, response, target, user_info, true) < 0) {
      LOG_ERROR("Fail to get Tidepool info: Retreiving target '%s', login as '%s'\n",
                target.c_str(), local_auth.user.c_str());
      return -1;
    }
    View view(static_cast<unsigned int>(user_info.view_id));
    if (!view.Init()) {
      LOG_ERROR("Failed to open view db with view_id %llu\n",
                static_cast<unsigned long long>(user_info.view_id));
      return RESPONSE_FAIL(response, 401, "failed to open view db");
    }
    // Rights are the caller's own, whoever's view is shown.
    if (!copy_to.empty() && !MayWriteTo(auth, response, copy_to)) {
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
    if (!auth.is_admin) {
      std::vector<uint64_t> ids;
      for (const Json::Value& entry : nodes) {
        ids.push_back(entry.isObject() ? std::stoull(Text(entry, "node_id", "")) : 0);
      }
      if (!CheckPrivilegeByNodeId(auth, response, view.GetVif(), user_info, ids, true)) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
    }
    DecryptMap decrypt_map;
    for (const Json::Value& entry : decrypt) {
      if (!entry.isObject() || !entry["permanent_id"].isString() || !entry["decrypt"].isString()) {
        LOG_ERROR("Malformed decrypt_info: %s\n", entry.toStyledString().c_str());
        return -1;
      }
      decrypt_map[std::stoull(entry["permanent_id"].asString())] = entry["decrypt"].asString();
    }
    std::vector<TaskDesc> descs;
    for (const Json::Value& entry : nodes) {
      if (!entry.isObject()) return RESPONSE_FAIL(response, 120, "invalid parameter");
      TaskDesc desc;
      desc.view_id = static_cast<uint32_t>(user_info.view_id);
      desc.permanent_id = std::stoull(Text(entry, "permanent_id", ""));
      desc.sync_id = std::stoull(Text(entry, "sync_id", "0"));
      const Json::Value& bound = entry["ver_ctime_upper_bound"];
      desc.ver_ctime_upper_bound = bound.isUInt64() ? bound.asUInt64() : ctime_ub_default;
      desc.file_type = entry["file_type"].isInt() ? entry["file_type"].asInt() : 0;
      desc.name = Text(entry, "name", "");
      desc.path = Text(entry, "path", "");
      db::Node node;
      // Removed nodes too: bringing back what was deleted is what a restore
      // is most often for.
      if (view.GetVif()->QueryNodeByPermanentId(desc.permanent_id, node,
                                                db::ViewManager::kQueryWithRemoved) < 0) {
        LOG_ERROR("QueryNodeByPermanentId with id %llu failed.\n",
                  static_cast<unsigned long long>(desc.permanent_id));
        return RESPONSE_FAIL(response, 401, "failed to query node");
      }
      desc.node_id = node.getNodeId();
      // In place, the deletion itself has nothing to bring back.
      if (copy_to.empty() && node.isRemoved() && node.getSyncId() == desc.sync_id) continue;
      descs.push_back(std::move(desc));
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
      task.setProperty("data", data);
    }
    const int pid = Fork(1);
    if (pid < 0) {
      LOG_ERROR("Failed to fork\n");
      return RESPONSE_FAIL(response, 401, "failed to fork");
    }
    if (pid == 0) {
      RunRestore(auth, descs, decrypt_map, copy_to, override_existing, include_removed);
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
                                         bool override_existing, bool include_removed) {
  HVOS::Task task(kRestoreTaskOwner, kRestoreTaskName);
  Json::Value error(Json::objectValue);
  const TaskActor actor(copy_to.empty() ? TaskActor::ACTION_RESTORE : TaskActor::ACTION_COPY,
                        auth.user, auth.uid);
  IF_RUN_AS(0, 0) {
    int flags = tidepool::restore::PREPARE_MAC_ATTR;
    if (override_existing) flags |= tidepool::restore::PREPARE_OVERWRITE;
    if (include_removed) flags |= tidepool::restore::PREPARE_INCLUDE_REMOVED;
    std::map<uint32_t, std::shared_ptr<View>> views;
    tidepool::restore::ItemList items;
    bool loaded = true;
    for (const TaskDesc& desc : descs) {
      std::shared_ptr<View>& view = views[desc.view_id];
      if (!view) view = std::make_shared<View>(desc.view_id);
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
