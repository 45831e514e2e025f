// The module's entry: the API table the runtime reads, and Process, which
// handles one request with a fresh bridge and a fresh set of handlers.
#include <kstx/webapi-module.h>

#include "bridge/webapi-bridge.h"
#include "handlers/check-user.h"
#include "handlers/config/get.h"
#include "handlers/config/set.h"
#include "handlers/dbusage/get.h"
#include "handlers/dbusage/start.h"
#include "handlers/dbusage/status.h"
#include "handlers/dbusage/stop.h"
#include "handlers/delete-database.h"
#include "handlers/get-client-link.h"
#include "handlers/get-directory-service-status.h"
#include "handlers/get-extension.h"
#include "handlers/get-status.h"
#include "handlers/log/delete.h"
#include "handlers/log/export.h"
#include "handlers/log/list.h"
#include "handlers/node/activity.h"
#include "handlers/node/delete/start.h"
#include "handlers/node/delete/status.h"
#include "handlers/node/download/finish.h"
#include "handlers/node/download/start.h"
#include "handlers/node/download/status.h"
#include "handlers/node/download/stop.h"
#include "handlers/node/dryrun.h"
#include "handlers/node/list-parent.h"
#include "handlers/node/list-version.h"
#include "handlers/node/list.h"
#include "handlers/node/restore/finish.h"
#include "handlers/node/restore/start.h"
#include "handlers/node/restore/status.h"
#include "handlers/privilege/list.h"
#include "handlers/privilege/set.h"
#include "handlers/privilege/status.h"
#include "handlers/profile/delete.h"
#include "handlers/profile/list.h"
#include "handlers/profile/set.h"
#include "handlers/resume-freeze.h"
#include "handlers/share/list-active.h"
#include "handlers/share/list.h"
#include "handlers/share/set.h"
#include "logger.h"

extern "C" void Process(KSTX::APIRequest* request, KSTX::APIResponse* response);

namespace {

constexpr const char* kDebugSettingsPath = "/var/packages/Tidepool/target/etc/syncfolder.debug";

}  // namespace

extern "C" {

const KSTXAPITableRow gTable[] = {
    {"KSTX.Tidepool", 1, "get_status", Process},
    {"KSTX.Tidepool", 1, "get_directory_service_status", Process},
    {"KSTX.Tidepool", 1, "get_client_link", Process},
    {"KSTX.Tidepool", 1, "check_user", Process},
    {"KSTX.Tidepool", 1, "get_extension", Process},
    {"KSTX.Tidepool", 1, "delete_database", Process},
    {"KSTX.Tidepool", 1, "resume_freeze", Process},
    {"KSTX.Tidepool.Node", 1, "list", Process},
    {"KSTX.Tidepool.Node", 1, "list_parent", Process},
    {"KSTX.Tidepool.Node", 1, "list_version", Process},
    {"KSTX.Tidepool.Node", 1, "activity", Process},
    {"KSTX.Tidepool.Node", 1, "dry_run", Process},
    {"KSTX.Tidepool.Node.Restore", 1, "start", Process},
    {"KSTX.Tidepool.Node.Restore", 1, "status", Process},
    {"KSTX.Tidepool.Node.Restore", 1, "finish", Process},
    {"KSTX.Tidepool.Node.Download", 1, "start", Process},
    {"KSTX.Tidepool.Node.Download", 1, "status", Process},
    {"KSTX.Tidepool.Node.Download", 1, "stop", Process},
    {"KSTX.Tidepool.Node.Download", 1, "finish", Process},
    {"KSTX.Tidepool.Node.Delete", 1, "start", Process},
    {"KSTX.Tidepool.Node.Delete", 1, "status", Process},
    {"KSTX.Tidepool.Profile", 1, "list", Process},
    {"KSTX.Tidepool.Profile", 1, "set", Process},
    {"KSTX.Tidepool.Profile", 1, "delete", Process},
    {"KSTX.Tidepool.Share", 1, "list_active", Process},
    {"KSTX.Tidepool.Share", 1, "list", Process},
    {"KSTX.Tidepool.Share", 1, "set", Process},
    {"KSTX.Tidepool.Log", 1, "list", Process},
    {"KSTX.Tidepool.Log", 1, "delete", Process},
    {"KSTX.Tidepool.Log", 1, "export", Process},
    {"KSTX.Tidepool.Config", 1, "get", Process},
    {"KSTX.Tidepool.Config", 1, "set", Process},
    {"KSTX.Tidepool.Connection", 1, "list", Process},
    {"KSTX.Tidepool.Connection", 1, "delete", Process},
    {"KSTX.Tidepool.Privilege", 1, "list", Process},
    {"KSTX.Tidepool.Privilege", 1, "set", Process},
    {"KSTX.Tidepool.Privilege", 1, "status", Process},
    {"KSTX.Tidepool.DBUsage", 1, "start", Process},
    {"KSTX.Tidepool.DBUsage", 1, "status", Process},
    {"KSTX.Tidepool.DBUsage", 1, "stop", Process},
    {"KSTX.Tidepool.DBUsage", 1, "get", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "list", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "get", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "set", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "delete", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "export", Process},
    {"KSTX.Tidepool.KeyManagement", 1, "import", Process},
    {nullptr, 0, nullptr, nullptr},
};

const KSTXAPITableRow* GetAPITable() { return gTable; }

// Handlers are registered in a fixed order. A method of the table whose
// handler is not built yet has no registration and answers "no such API or
// method", as any method without a handler does.
void Process(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  WebAPIBridge bridge(request, response);
  Logger::Initialize(0, "", kDebugSettingsPath, 50, 1);
  bridge.AddHandler(new ResumeFreezeHandler);
  bridge.AddHandler(new DeleteDatabaseHandler);
  bridge.AddHandler(new GetExtensionHandler);
  bridge.AddHandler(new GetClientLinkHandler);
  bridge.AddHandler(new GetStatusHandler);
  bridge.AddHandler(new CheckUserHandler);
  bridge.AddHandler(new GetDirectoryServiceStatusHandler);
  bridge.AddHandler(new NodeListHandler);
  bridge.AddHandler(new NodeListParentHandler);
  bridge.AddHandler(new NodeListVersionHandler);
  bridge.AddHandler(new NodeActivityHandler);
  bridge.AddHandler(new NodeDryrunHandler);
  bridge.AddHandler(new NodeRestoreStartHandler);
  bridge.AddHandler(new NodeRestoreStatusHandler);
  bridge.AddHandler(new NodeRestoreFinishHandler);
  bridge.AddHandler(new NodeDeleteStartHandler);
  bridge.AddHandler(new NodeDeleteStatusHandler);
  bridge.AddHandler(new NodeDownloadStartHandler);
  bridge.AddHandler(new NodeDownloadStatusHandler);
  bridge.AddHandler(new NodeDownloadStopHandler);
  bridge.AddHandler(new NodeDownloadFinishHandler);
  bridge.AddHandler(new LogListHandler);
  bridge.AddHandler(new LogDeleteHandler);
  bridge.AddHandler(new LogExportHandler);
  bridge.AddHandler(new DBUsageStartHandler);
  bridge.AddHandler(new DBUsageStatusHandler);
  bridge.AddHandler(new DBUsageStopHandler);
  bridge.AddHandler(new DBUsageGetHandler);
  bridge.AddHandler(new ShareListActiveHandler);
  bridge.AddHandler(new ShareListHandler);
  bridge.AddHandler(new ShareSetHandler);
  bridge.AddHandler(new ConfigGetHandler);
  bridge.AddHandler(new ConfigSetHandler);
  bridge.AddHandler(new ProfileListHandler);
  bridge.AddHandler(new ProfileSetHandler);
  bridge.AddHandler(new ProfileDeleteHandler);
  bridge.AddHandler(new PrivilegeListHandler);
  bridge.AddHandler(new PrivilegeSetHandler);
  bridge.AddHandler(new PrivilegeStatusHandler);
  bridge.Process();
}

}  // extern "C"
