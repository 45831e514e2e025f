// OfficeItem::PrepareImpl:
//   0. If an earlier call of this task found no office package, the
//      document comes back as its stored bytes, as any file.
//   1. The document's node as it stood in the chosen version.
//   2. A private copy of the actor; `under` when the destination lies in a
//      synced folder, where the office package must make the document
//      itself so that the sync service learns of it.
//   3. A removed document cannot be put back in place, only duplicated
//      anew: the private actor copies.
//   4. The office package addresses a document by identity: "id:" and its
//      permanent id.
//   5. Under a synced folder and copying: Duplicate, with no password; the
//      office package copies the document as it is.
//   6. Otherwise a protected document with no password from the client is
//      left out (logged) and counts as done.
//   7. Under a synced folder (restoring in place): Duplicate with the
//      password, possibly empty.
//   8. Elsewhere: Export to a common format (".docx", ".xlsx", ".pptx") in
//      a private temporary folder, then into place beside the other items.
// A call that finds the office web API not installed (the runtime's
// "no such API") makes the whole task treat documents as plain files from
// then on, with one log line. Passwords leave only as a call's parameter:
// no log line holds them, and a failed call logs its answer, never its
// parameters.
#include "office-item.h"

#include <errno.h>
#include <fcntl.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fs-beneath.h"
#include "hlibc.h"
#include "sdk-path.h"
#include "sync-service.h"
#include "util/webapi-util.h"

namespace tidepool::restore {

namespace {

constexpr const char* kVersionApi = "KSTX.Office.Node.Version";
constexpr const char* kExportApi = "KSTX.Office.Export";
constexpr int kNoSuchApi = 103;
// How long one office call may take, unless setting.conf names another
// (office_timeout_s): a large export is slow, a module that never answers
// must not hold the task for ever.
constexpr int kDefaultTimeoutSeconds = 120;

// A task runs in a process of its own, so this is the task's memory that
// the office package is not installed.
bool g_office_missing = false;

int CallTimeoutMs() {
  char value[32] = {};
  if (HLIBCFileGetKeyValue(SyncConfigMgr::kPath, "office_timeout_s", value, sizeof value) > 0) {
    char* end = nullptr;
    const long seconds = strtol(value, &end, 10);
    if (end != value && *end == '\0' && seconds > 0 && seconds <= 86400) {
      return static_cast<int>(seconds * 1000);
    }
  }
  return kDefaultTimeoutSeconds * 1000;
}

void NoteOfficeMissing() {
  if (g_office_missing) return;
  g_office_missing = true;
  RESTORE_ERR("The office web API is not installed: office documents are restored as stored");
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

// The system volume's folder of temporary files for the volume of `path`:
// "/volume1/@tmp" for anything under "/volume1".
std::string TempBaseOf(const std::string& path) {
  std::string volume;
  Item::FindToken(path, 0, volume);
  return volume.empty() ? "" : "/" + volume + "/@tmp";
}

}  // namespace

void OfficeItem::TEST_ResetOfficeMissing() { g_office_missing = false; }

int OfficeItem::OfficeWebAPI::operator()(const Json::Value& params, Json::Value& response,
                                         const std::string& user) const {
  const int rc = SDK::WebApiRunnerExec(api, method, 1, params, response, user, CallTimeoutMs());
  if (rc < 0) {
    RESTORE_ERR("error when running %s.%s", InfoStr().c_str(),
                rc == SDK::kRunnerTimedOut ? " (no answer in time)" : "");
    return RC_GENERAL;
  }
  if (response["success"].asBool()) return RC_OK;
  RESTORE_ERR("%s office webapi failure, response: %s\n", InfoStr().c_str(),
              Compact(response).c_str());
  const Json::Value& details = response["error"];
  const Json::Value code = details.isObject() ? details["code"] : Json::Value();
  const int error = code.isInt() ? code.asInt() : 0;
  if (error == kNoSuchApi) return kOfficeMissing;
  if (error == kErrDisabled) {
    RESTORE_ERR("office package is disabled");
    return RC_GENERAL;
  }
  if (error == kErrPasswordNeeded || error == kErrPasswordRefused) {
    RESTORE_ERR("no password given or wrong password");
    if (!ignore_invalid_decrypt) return RC_BAD_PASSWORD;
    RESTORE_ERR("regarded as ok since ignore_invalid_decrypt was set");
    return RC_DECRYPT_IGNORED;
  }
  RESTORE_ERR("office webapi failure");
  return RC_GENERAL;
}

int OfficeItem::QueryNode(db::Node& node, bool include_removed) {
  db::ViewDBInterface& vif = view.GetVif();
  if (!vif) return -1;
  // Sync id 0 names the newest version that is not a deletion, which only
  // the version list can tell.
  if (sync_id == 0 && !version_ready && InitVersion() < 0) return -1;
  const unsigned long long wanted = sync_id != 0 ? sync_id : version.getSyncId();
  const int query =
      include_removed ? db::ViewManager::kQueryWithRemoved : db::ViewManager::kQueryExisting;
  return vif->QueryNodeByPermanentIdAndSyncId(permanent_id, wanted, node, query);
}

int OfficeItem::ListEncrypted(std::vector<db::Node>& out, bool include_removed) {
  db::Node node;
  if (QueryNode(node, include_removed) < 0) {
    RESTORE_ERR("Failed to QueryNodeByPermanentIdAndSyncId(), permanent_id = %llu, sync_id = %llu",
                permanent_id, sync_id);
    return -1;
  }
  if (node.isEncrypted()) out.push_back(std::move(node));
  return 0;
}

int OfficeItem::QueryDecryptByPermanentId(std::string& password) const {
  const auto it = decrypt_map.find(permanent_id);
  if (it == decrypt_map.end()) return -1;
  password = it->second;
  return 0;
}

Json::Value OfficeItem::VersionTime() const {
  // The office package keeps its own history and finds a version by time.
  // A client that chose a version by its sync id alone sends no bound; the
  // version's own time then names it, so that the version asked for, not
  // the newest, comes back.
  return Json::UInt64(ctime_ub != 0 ? ctime_ub : version.getVerCreatedTime());
}

int OfficeItem::PrepareImpl(const std::string& work_dir, const Target& target,
                            const TaskActor& actor, int flags) {
  if (g_office_missing) return AsStored(work_dir, target, actor, flags);
  db::Node node;
  if (QueryNode(node, (flags & PREPARE_INCLUDE_REMOVED) != 0) < 0) {
    RESTORE_ERR("Failed to QueryNodeByPermanentIdAndSyncId(), %s", InfoString().c_str());
    return RC_GENERAL;
  }
  const TaskActor office_actor = OfficeActor(node, actor);
  const std::string dest_dir = target.root_path + target.dir;
  const bool under = IsDestUnderTidepool(dest_dir) == 0;
  const std::string id_path = "id:" + std::to_string(permanent_id);
  int rc;
  if (under && !office_actor.IsRestoring()) {
    rc = Duplicate(id_path, dest_dir, office_actor, flags, "");
  } else {
    std::string password;
    if (node.isEncrypted() && QueryDecryptByPermanentId(password) < 0) {
      RESTORE_ERR("Skipped prepare '%s' since decrypt is not provided", name.c_str());
      IncProg();
      return RC_OK;
    }
    rc = under ? Duplicate(id_path, dest_dir, office_actor, flags, password)
               : Export(id_path, work_dir, target, office_actor, flags, password);
  }
  if (rc != kOfficeMissing) return rc;
  NoteOfficeMissing();
  return AsStored(work_dir, target, actor, flags);
}

TaskActor OfficeItem::OfficeActor(const db::Node& node, const TaskActor& actor) {
  TaskActor office_actor = actor;
  // The version asked for may be one from before the deletion, so the
  // node's present state decides as well.
  db::Node present;
  if (node.isRemoved() || view.GetVif()->QueryNode(version.getNodeId(), present,
                                                   db::ViewManager::kQueryExisting) != 0) {
    office_actor.SetAction(TaskActor::ACTION_COPY);
  }
  return office_actor;
}

int OfficeItem::AsStored(const std::string& work_dir, const Target& target, const TaskActor& actor,
                         int flags) {
  return RegularItem::PrepareImpl(work_dir, target, actor, flags);
}

int OfficeItem::Duplicate(const std::string& id_path, const std::string& dest_dir,
                          const TaskActor& actor, int flags, const std::string& password) {
  Json::Value params(Json::objectValue);
  params["path"] = id_path;
  if (actor.IsCopying()) {
    params["to_parent_folder"] = "/volumes" + dest_dir;
  } else {
    params["password"] = password;
  }
  params["version_time"] = VersionTime();
  if (flags & PREPARE_OVERWRITE) params["conflict_action"] = "overwrite";
  Json::Value response;
  // In place the document goes back as the office package's own act; a
  // copy is made in the name of whoever asked for it.
  const OfficeWebAPI call(kVersionApi, "restore", (flags & PREPARE_IGNORE_INVALID_DECRYPT) != 0);
  const int rc = call(params, response, actor.IsCopying() ? actor.GetUser() : "admin");
  if (rc == RC_OK) {
    IncProg();
    return RC_OK;
  }
  if (rc != kOfficeMissing) {
    RESTORE_ERR("%s office file %s, %s failed", actor.IsCopying() ? "Duplicating" : "Restoring",
                id_path.c_str(), InfoString().c_str());
  }
  // RC_DECRYPT_IGNORED leaves here as a failure: only an export forgives it.
  return rc;
}

int OfficeItem::Export(const std::string& id_path, const std::string& work_dir,
                       const Target& target, const TaskActor& actor, int flags,
                       const std::string& password) {
  const std::string converted = TransformExtension(target.name);
  struct stat st {};
  if (fstatat(target.dir_fd, converted.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      !(flags & PREPARE_OVERWRITE)) {
    IncProg();
    return RC_OK;
  }
  // A private folder per call rather than one fixed name in the volume's
  // @tmp: two exports of one document (a download beside a restore, or two
  // users) would otherwise write the same file.
  const std::string base = TempBaseOf(view.GetUserInfo().root_path);
  std::string folder;
  if (base.empty() || (mkdir(base.c_str(), 0777) < 0 && errno != EEXIST) ||
      MakePrivateTempFolder(base, folder) < 0) {
    RESTORE_ERR("Cannot make a temporary folder for exporting %s", InfoString().c_str());
    return RC_GENERAL;
  }
  const std::string temp_path = folder + "/" + converted;
  Json::Value params(Json::objectValue);
  params["path"] = id_path;
  params["to_path"] = temp_path;
  params["version_time"] = VersionTime();
  if (!password.empty()) params["password"] = password;
  Json::Value response;
  const OfficeWebAPI call(kExportApi, "save", (flags & PREPARE_IGNORE_INVALID_DECRYPT) != 0);
  int rc = call(params, response, "root");
  if (rc == RC_DECRYPT_IGNORED) {
    // A download simply lacks the document it had no right password for.
    IncProg();
    rc = RC_OK;
  } else if (rc == RC_OK) {
    rc = PlaceExport(temp_path, work_dir, target, converted, actor);
    if (rc == RC_OK) IncProg();
  } else if (rc != kOfficeMissing) {
    RESTORE_ERR("Export office file %s, %s failed", id_path.c_str(), InfoString().c_str());
  }
  if (fsb::RemovePathNoSymlinks(folder) < 0) {
    RESTORE_ERR("Cannot remove the export folder '%s': %s", folder.c_str(), strerror(errno));
  }
  return rc;
}

int OfficeItem::PlaceExport(const std::string& export_path, const std::string& work_dir,
                            const Target& target, const std::string& final_name,
                            const TaskActor& actor) {
  const fsb::UniqueFd source(fsb::OpenNoSymlinks(export_path, O_RDONLY));
  struct stat st {};
  if (!source.valid() || fstat(source.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    RESTORE_ERR("The office package left no export at '%s'", export_path.c_str());
    return RC_GENERAL;
  }
  // A name of its own: in a download the working folder is the
  // destination too, where a file of the final name may already stand.
  std::string staged = work_dir + "/.export.XXXXXX";
  const fsb::UniqueFd dest(mkostemp(staged.data(), O_CLOEXEC));
  if (!dest.valid()) {
    RESTORE_ERR("Cannot stage '%s': %s", final_name.c_str(), strerror(errno));
    return RC_GENERAL;
  }
  off_t left = st.st_size;
  while (left > 0) {
    const ssize_t n =
        copy_file_range(source.get(), nullptr, dest.get(), nullptr, static_cast<size_t>(left), 0);
    if (n <= 0) {
      const int error = n < 0 ? errno : EIO;
      RESTORE_ERR("Fail to move File '%s' -> '%s'. %s.\n", export_path.c_str(),
                  target.Shown().c_str(), strerror(error));
      unlink(staged.c_str());
      return error == ENOSPC || error == EDQUOT ? RC_NO_SPACE : RC_GENERAL;
    }
    left -= n;
  }
  if (ApplyPrivilege(staged, actor) < 0) {
    RESTORE_ERR("Failed to FSChown for '%s'", staged.c_str());
  }
  if (renameat(AT_FDCWD, staged.c_str(), target.dir_fd, final_name.c_str()) < 0) {
    RESTORE_ERR("Fail to move File '%s' -> '%s'. %s.\n", staged.c_str(), target.Shown().c_str(),
                strerror(errno));
    unlink(staged.c_str());
    return RC_GENERAL;
  }
  return RC_OK;
}

}  // namespace tidepool::restore
