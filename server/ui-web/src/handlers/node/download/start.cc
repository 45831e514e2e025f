// Node.Download start, in order: switch to the view's user, take root,
// refuse while the caller's previous download still runs (a record not
// finished whose worker lives; any other record is dropped), resolve the
// target and open its view, read the nodes strictly, check that each
// node_id names the node of its permanent_id and that the caller may read
// each node as it stood, make the task's folder, write the record, read the
// passwords and fork. A start that fails after making the folder or the
// record removes both again.
//
// The child supervises a worker. The worker rebuilds the nodes side by side
// in the folder with the restore engine; the child polls the record, and
// when the record is gone or names another task (a stop, or a new start),
// it kills the worker and removes the folder, within a second. Otherwise it
// waits for the worker and marks the record finished. The worker dies with
// its supervisor and never writes a record that was removed under it.
#include "start.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "bridge/run-as.h"
#include "fs-beneath.h"
#include "handlers/node/node-params.h"
#include "handlers/node/node-request.h"
#include "hvos-task.h"
#include "logger.h"
#include "sync-service.h"
#include "task-record.h"
#include "user-manager.h"
#include "util/librestore/file.h"
#include "util/librestore/restore-item.h"
#include "util/librestore/rights.h"
#include "util/librestore/task-actor.h"
#include "util/librestore/task-nodes.h"
#include "util/librestore/view.h"
#include "util/webapi-util.h"

using tidepool::restore::DecryptMap;
using tidepool::restore::Item;
using tidepool::restore::ItemList;
using tidepool::restore::Rights;
using tidepool::restore::TaskActor;
using tidepool::restore::TaskDesc;
using tidepool::restore::View;

namespace {

constexpr useconds_t kWatchIntervalUs = 200000;

void (*g_worker_hook)() = nullptr;

bool DownloadRunning(const std::string& owner) {
  if (!HVOS::TaskUtil::checkTaskExists(owner, kDownloadTaskName)) return false;
  HVOS::Task task(owner, kDownloadTaskName);
  const pid_t pid = task.getCreatePid();
  if (!task.isFinished() && pid > 0 && kill(pid, 0) == 0) return true;
  task.remove();
  return false;
}

// The folder of one download: <system volume>/@tmp/Tidepool.XXXXXX, made by
// root with mode 0700. 0 with `folder`, or -1 (logged).
int CreateDownloadFolder(std::string& folder) {
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) {
    LOG_ERROR("cannot get conf mgr\n");
    return -1;
  }
  char base[256];
  snprintf(base, sizeof base, "%s/%s", config.GetSysShareBin().c_str(), "@tmp");
  if (mkdir(base, 0777) < 0 && errno != EEXIST) {
    LOG_ERROR("mkdir(%s): %s (%d)\n", base, strerror(errno), errno);
    return -1;
  }
  return MakePrivateTempFolder(base, folder);
}

// True while the record is this task's: a stop removes it, a new start
// replaces it.
bool RecordIsOurs(const std::string& owner, int32_t task_id) {
  Json::Value properties;
  if (!HVOS::TaskUtil::peekTask(owner, kDownloadTaskName, properties)) return false;
  const Json::Value& id = properties["data"]["task_id"];
  return id.isInt() && id.asInt() == task_id;
}

// The names the nodes had at the versions downloaded, made unique across
// the list: what the client sent names nothing on disk.
void NameFromVersions(View& view, std::vector<TaskDesc>& descs) {
  for (TaskDesc& desc : descs) {
    db::Version version;
    if (Item::ChooseVersion(*view.GetVif().get(), desc.permanent_id, desc.sync_id, version) < 0) {
      continue;  // the item fails on its own, with its error
    }
    desc.name = version.getNodeId() == view.GetVif()->getRootNodeId() ? view.GetName()
                                                                      : version.record().name;
  }
}

}  // namespace

void NodeDownloadStartHandler::TEST_SetWorkerHook(void (*hook)()) { g_worker_hook = hook; }

NodeDownloadStartHandler::NodeDownloadStartHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase | kDataDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Download", "start", 0, 0);
}

int NodeDownloadStartHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                     BridgeResponse& response) {
  const std::string target = node_params::String(request, "target");
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
    if (DownloadRunning(auth.user)) {
      LOG_ERROR("Another download task processing\n");
      return RESPONSE_FAIL(response, 405, "another download task is processing");
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
    std::vector<TaskDesc>& descs = opened.descs;
    std::vector<db::Node> claimed;
    if (tidepool::restore::ResolveClaimedNodes(view, descs, claimed) < 0) {
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
    // Rights are the caller's own, whoever's view is shown: reading is all
    // a download needs, and the engine judges every node below the
    // selected folders again as it reads them.
    Rights rights;
    if (!auth.is_admin) {
      UserInfo login;
      if (GetUserInfoByTarget(auth, response, "", login, true) < 0 ||
          Rights::ForCaller(auth.user, login.view_id == user_info.view_id, false, rights) < 0) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
      view.SetRights(rights);
      if (!tidepool::restore::MayHaveAll(view, descs)) {
        return RESPONSE_FAIL(response, 403, "no privilege");
      }
    }
    NameFromVersions(view, descs);

    std::string temp_folder;
    if (CreateDownloadFolder(temp_folder) < 0) {
      LOG_ERROR("Fail to CreateDownloadFolder\n");
      return RESPONSE_FAIL(response, 401, "failed to create download folder");
    }
    // The folder and the record go again on any failure from here on.
    HVOS::Task task(auth.user, kDownloadTaskName);
    auto undo = [&] {
      task.remove();
      RemoveDownloadFolder(temp_folder);
    };
    // Drawn as a 32-bit number and kept signed: finish reads it as an int.
    const int32_t task_id = static_cast<int32_t>(GetRandomInt());
    Json::Value data(Json::objectValue);
    data["task_id"] = task_id;
    data["status"] = "preparing";
    data["last_update_time"] = Json::Int64(time(nullptr));
    data["temp_folder"] = temp_folder;
    data["current"] = 0;
    data["total"] = 1;
    task.beginUpdate();
    task.setProperty("data", data);
    if (task.endUpdate() == 0) {
      undo();
      LOG_ERROR("Cannot write the task record\n");
      return RESPONSE_FAIL(response, 401, "failed to write task record");
    }
    DecryptMap decrypt_map;
    if (tidepool::restore::ParseDecryptMap(decrypt, decrypt_map) < 0) {
      undo();
      return RESPONSE_FAIL(response, 401, "Decrypt Info format error");
    }
    const int pid = Fork(1);
    if (pid < 0) {
      undo();
      LOG_ERROR("Failed to fork\n");
      return RESPONSE_FAIL(response, 401, "failed to fork");
    }
    if (pid == 0) {
      RunDownload(auth, task_id, std::move(descs), decrypt_map, rights, temp_folder,
                  include_removed);
      _exit(0);
    }
    Json::Value answer(Json::objectValue);
    answer["task_id"] = task_id;
    response.SetJsonResponse(answer);
    return 0;
  }
  LOG_ERROR("Fail to switch to root\n");
  return RESPONSE_FAIL(response, 401, "failed to switch to root");
}

void NodeDownloadStartHandler::RunDownload(const RequestAuthentication& auth, int32_t task_id,
                                           std::vector<TaskDesc> descs,
                                           const DecryptMap& decrypt_map, const Rights& rights,
                                           const std::string& temp_folder, bool include_removed) {
  HVOS::Task task(auth.user, kDownloadTaskName);
  // Nothing in this process brings back a record that a stop removed.
  task.keepRemoved();
  task.setCreatePid(getpid());
  const pid_t supervisor = getpid();
  const pid_t worker = fork();
  if (worker == 0) {
    // The worker must not outlive its supervisor, which alone cleans up.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != supervisor) _exit(1);
    Json::Value error(Json::objectValue);
    bool began = false;
    View view(descs.empty() ? 0u : descs.front().view_id);
    view.SetRights(rights);
    ItemList items;
    unsigned long long total = 0;
    if (!descs.empty() && !view.Init()) {
      syslog(LOG_ERR, "%s:%d Failed to load view [%u]", __FILE__, __LINE__, view.GetViewId());
    } else {
      tidepool::restore::TaskDescToItemList(view, descs, decrypt_map, &task, items);
      if (tidepool::restore::CountFromItemList(items, include_removed, total) < 0) {
        syslog(LOG_ERR, "%s:%d Failed to count # of nodes", __FILE__, __LINE__);
      } else {
        began = true;
      }
    }
    if (began) {
      task.beginUpdate();
      Json::Value data = task.getProperty("data");
      data["total"] = Json::UInt64(total);
      data["last_update_time"] = Json::Int64(time(nullptr));
      task.setProperty("data", data);
      if (task.endUpdate() == 0) LOG_ERROR("failed to write property to task\n");
    }
    IF_RUN_AS(0, 0) {
      const fsb::UniqueFd root(fsb::OpenNoSymlinks(temp_folder, O_DIRECTORY | O_RDONLY));
      struct stat st {};
      // The folder is the destination and the working folder at once.
      if (began && root.valid() && fstat(root.get(), &st) == 0 && st.st_uid == 0 &&
          fchdir(root.get()) == 0) {
        if (g_worker_hook != nullptr) g_worker_hook();
        TaskActor actor(TaskActor::ACTION_DOWNLOAD, auth.user, auth.uid);
        actor.SetCopyRoot(root.get(), temp_folder);
        int flags = tidepool::restore::PREPARE_IGNORE_INVALID_DECRYPT;
        if (include_removed) flags |= tidepool::restore::PREPARE_INCLUDE_REMOVED;
        const int rc = tidepool::restore::PrepareFromItemList(items, ".", "", actor, flags);
        tidepool::restore::FlushProgress(&task);
        tidepool::restore::CloseFileDatabases();
        if (rc < 0) {
          syslog(LOG_ERR, "%s:%d Failed to prepare files for nodes...", __FILE__, __LINE__);
          SetTaskErrDataByItemRc(rc, error);
          task.setProperty("error", error);
        }
        _exit(rc < 0 ? 1 : 0);
      }
    }
    else {
      syslog(LOG_ERR, "%s:%d Failed to run as root\n", __FILE__, __LINE__);
    }
    // The task could not even begin; the record says so with no code.
    task.setProperty("error", Json::Value());
    _exit(1);
  }
  if (worker < 0) {
    task.setProperty("error", Json::Value());
    task.finish(false);
    return;
  }
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(worker, &status, WNOHANG);
    if (done == worker) break;
    if (done < 0 && errno != EINTR) break;
    if (!RecordIsOurs(auth.user, task_id)) {
      // Stopped, or replaced by a new start: nothing of this task stays.
      kill(worker, SIGKILL);
      while (waitpid(worker, &status, 0) < 0 && errno == EINTR) {
      }
      RemoveDownloadFolder(temp_folder);
      return;
    }
    usleep(kWatchIntervalUs);
  }
  // A worker that died without a word failed all the same.
  if (!(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
    task.reload();
    if (!task.hasProperty("error")) task.setProperty("error", Json::Value());
  }
  task.finish(false);
  // A stop that came before the record said finished found a child to
  // clean up: this one.
  if (!RecordIsOurs(auth.user, task_id)) RemoveDownloadFolder(temp_folder);
}
