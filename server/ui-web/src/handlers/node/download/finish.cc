// Node.Download finish, in order: answer errors as a download expects,
// wait (up to a second) for the task to be done, check the task id, mark
// the record as sending by this process, choose a file or an archive, drop
// the record. The folder is named for removal on every way out; the bridge
// removes it after the answer.
#include "finish.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "bridge/run-as.h"
#include "fs-beneath.h"
#include "handlers/node/node-params.h"
#include "hvos-task.h"
#include "logger.h"
#include "sync-service.h"
#include "task-record.h"
#include "util/librestore/restore-item.h"

using tidepool::restore::Item;

namespace {

constexpr int kReadyWaitMs = 1000;

// Waits for the child to mark the task finished.
bool WaitUntilDone(HVOS::Task& task) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadyWaitMs);
  for (;;) {
    task.reload();
    if (task.isFinished() && task.hasProperty("data")) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// Only a folder that start made is sent and removed as root.
bool IsDownloadFolder(const std::string& path) {
  SyncConfigMgr config;
  if (SyncGetConf(config) < 0) return false;
  const std::string base = config.GetSysShareBin() + "/@tmp/";
  if (path.compare(0, base.size(), base) != 0) return false;
  const std::string name = path.substr(base.size());
  return fsb::IsPlainName(name) && name.compare(0, 9, "Tidepool.") == 0;
}

// The folder is root's and private.
bool IsRegularIn(const std::string& folder, const std::string& name) {
  if (!fsb::IsPlainName(name)) return false;
  IF_RUN_AS(0, 0) {
    const fsb::UniqueFd dir(fsb::OpenNoSymlinks(folder, O_DIRECTORY | O_RDONLY));
    struct stat st {};
    return dir.valid() && fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(st.st_mode);
  }
  LOG_ERROR("Fail to switch to root\n");
  return false;
}

}  // namespace

NodeDownloadFinishHandler::NodeDownloadFinishHandler() {
  SetRequiredDatabase(kUserDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessEnabledUser);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Node.Download", "finish", 0, 0);
}

NodeDownloadFinishHandler::~NodeDownloadFinishHandler() {
  if (temp_folder.empty()) return;
  IF_RUN_AS(0, 0) {
    if (fsb::RemovePathNoSymlinks(temp_folder) < 0 && errno != ENOENT) {
      LOG_ERROR("cannot remove %s: %s\n", temp_folder.c_str(), strerror(errno));
    }
  }
  else {
    LOG_ERROR("Failed to run as root\n");
  }
}

std::string NodeDownloadFinishHandler::OutputFileName(const std::string& outname,
                                                      const std::string& name) {
  return Item::TransformExtension(outname) + "." + Item::GetExtension(name);
}

int NodeDownloadFinishHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                                      BridgeResponse& response) {
  temp_folder.clear();
  const int rc = Finish(auth, request, response);
  response.AddAutoRemovePath(temp_folder);
  temp_folder.clear();
  return rc;
}

int NodeDownloadFinishHandler::Finish(const RequestAuthentication& auth, BridgeRequest& request,
                                      BridgeResponse& response) {
  const Json::Value nodes = request.GetParamRef("nodes", Json::Value(Json::arrayValue));
  const std::string outname = node_params::String(request, "outname", "Tidepool");
  const int32_t task_id = node_params::Int32(request, "task_id", 0);
  // Errors from here on reach the browser as a download's error.
  response.SetType(BridgeResponse::kFile);
  if (!HVOS::TaskUtil::checkTaskExists(auth.user, kDownloadTaskName)) {
    LOG_ERROR("cannot wait for data ready.\n");
    return RESPONSE_FAIL(response, 401, "download task is not yet done");
  }
  HVOS::Task task(auth.user, kDownloadTaskName);
  if (!WaitUntilDone(task)) {
    LOG_ERROR("cannot wait for data ready.\n");
    task.remove();
    return RESPONSE_FAIL(response, 401, "download task is not yet done");
  }
  Json::Value data = task.getProperty("data");
  const Json::Value& stored_id = data["task_id"];
  if (!stored_id.isInt() || stored_id.asInt() != task_id) {
    LOG_ERROR("current task pid %d is different from request task_id %d\n",
              stored_id.isInt() ? stored_id.asInt() : 0, task_id);
    return RESPONSE_FAIL(response, 401, "invalid task id");
  }
  const std::string folder = data["temp_folder"].isString() ? data["temp_folder"].asString() : "";
  if (!IsDownloadFolder(folder)) {
    LOG_ERROR("download record names no download folder: '%s'\n", folder.c_str());
    task.remove();
    return RESPONSE_FAIL(response, 401, "malformed task information");
  }
  temp_folder = folder;
  if (task.hasProperty("error")) {
    const Json::Value error = task.getProperty("error");
    const Json::Value& code = error.isObject() ? error["code"] : Json::Value::nullSingleton();
    task.remove();
    return RESPONSE_FAIL(response, code.isInt() && code.asInt() != 0 ? code.asInt() : 401,
                         "download task failed");
  }
  task.beginUpdate();
  data["status"] = "sending";
  data["last_update_time"] = Json::Int64(time(nullptr));
  task.setProperty("data", data);
  task.setCreatePid(getpid());
  if (task.endUpdate() == 0) LOG_ERROR("failed to write property to task\n");

  const Json::Value& first = nodes.isArray() && !nodes.empty() ? nodes[0] : Json::Value();
  const bool one_file = nodes.isArray() && nodes.size() == 1 && first.isObject() &&
                        first["file_type"].isInt() && first["file_type"].asInt() == 0 &&
                        first["name"].isString();
  if (one_file) {
    const std::string name = first["name"].asString();
    // An office document leaves the folder in its exported form when the
    // office service made one, else as it is stored.
    std::string found = Item::TransformExtension(name);
    if (!IsRegularIn(temp_folder, found)) found = name;
    if (!IsRegularIn(temp_folder, found)) {
      LOG_ERROR("no file '%s' in the download\n", name.c_str());
      task.remove();
      return RESPONSE_FAIL(response, 401, "download task failed");
    }
    response.SetFileResponse(OutputFileName(outname, found), temp_folder + "/" + found, true, true);
  } else {
    response.SetArchiveResponse(outname + ".zip", temp_folder, "", true);
  }
  task.remove();
  return 0;
}
