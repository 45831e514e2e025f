// The table through which the runtime finds the check function of each
// method. It serves the same API and method pairs as gTable; the order of the
// rows carries no meaning.
#include "check-functions.h"

namespace {

using namespace tidepool::schema;

constexpr char kTidepool[] = "KSTX.Tidepool";
constexpr char kNode[] = "KSTX.Tidepool.Node";
constexpr char kRestore[] = "KSTX.Tidepool.Node.Restore";
constexpr char kDownload[] = "KSTX.Tidepool.Node.Download";
constexpr char kDelete[] = "KSTX.Tidepool.Node.Delete";
constexpr char kProfile[] = "KSTX.Tidepool.Profile";
constexpr char kShare[] = "KSTX.Tidepool.Share";
constexpr char kLog[] = "KSTX.Tidepool.Log";
constexpr char kConfig[] = "KSTX.Tidepool.Config";
constexpr char kConnection[] = "KSTX.Tidepool.Connection";
constexpr char kPrivilege[] = "KSTX.Tidepool.Privilege";
constexpr char kDBUsage[] = "KSTX.Tidepool.DBUsage";
constexpr char kKey[] = "KSTX.Tidepool.KeyManagement";

}  // namespace

extern "C" {

const KSTXAPICheckTableRow gCheckTable[] = {
    {kTidepool, 1, "get_status", CheckNothing, nullptr, nullptr},
    {kTidepool, 1, "get_directory_service_status", CheckNothing, nullptr, nullptr},
    {kTidepool, 1, "get_client_link", CheckGetClientLink, nullptr, nullptr},
    {kTidepool, 1, "check_user", CheckNothing, nullptr, nullptr},
    {kTidepool, 1, "get_extension", CheckNothing, nullptr, nullptr},
    {kTidepool, 1, "delete_database", CheckNothing, nullptr, nullptr},
    {kTidepool, 1, "resume_freeze", CheckNothing, nullptr, nullptr},
    {kNode, 1, "list", CheckNodeList, nullptr, nullptr},
    {kNode, 1, "list_parent", CheckNodeListParent, nullptr, nullptr},
    {kNode, 1, "list_version", CheckNodeListVersion, nullptr, nullptr},
    {kNode, 1, "activity", CheckNodeActivity, nullptr, nullptr},
    {kNode, 1, "dry_run", CheckNodeDryRun, nullptr, nullptr},
    {kRestore, 1, "start", CheckNodeRestoreStart, nullptr, nullptr},
    {kRestore, 1, "status", CheckNothing, nullptr, nullptr},
    {kRestore, 1, "finish", CheckNothing, nullptr, nullptr},
    {kDownload, 1, "start", CheckNodeDownloadStart, nullptr, nullptr},
    {kDownload, 1, "status", CheckNothing, nullptr, nullptr},
    {kDownload, 1, "stop", CheckNothing, nullptr, nullptr},
    {kDownload, 1, "finish", CheckNodeDownloadFinish, nullptr, nullptr},
    {kDelete, 1, "start", CheckNodeDeleteStart, nullptr, nullptr},
    {kDelete, 1, "status", CheckNothing, nullptr, nullptr},
    {kProfile, 1, "list", CheckNothing, nullptr, nullptr},
    {kProfile, 1, "set", CheckProfileSet, nullptr, nullptr},
    {kProfile, 1, "delete", CheckProfileDelete, nullptr, nullptr},
    {kShare, 1, "list_active", CheckNothing, nullptr, nullptr},
    {kShare, 1, "list", CheckShareList, nullptr, nullptr},
    {kShare, 1, "set", CheckShareSet, nullptr, nullptr},
    {kLog, 1, "list", CheckLogList, nullptr, nullptr},
    {kLog, 1, "delete", CheckNothing, nullptr, nullptr},
    {kLog, 1, "export", CheckLogExport, nullptr, nullptr},
    {kConfig, 1, "get", CheckNothing, nullptr, nullptr},
    {kConfig, 1, "set", CheckConfigSet, nullptr, nullptr},
    {kConnection, 1, "list", CheckConnectionList, nullptr, nullptr},
    {kConnection, 1, "delete", CheckConnectionDelete, nullptr, nullptr},
    {kPrivilege, 1, "list", CheckPrivilegeList, nullptr, nullptr},
    {kPrivilege, 1, "set", CheckPrivilegeSet, nullptr, nullptr},
    {kPrivilege, 1, "status", CheckNothing, nullptr, nullptr},
    {kDBUsage, 1, "start", CheckNothing, nullptr, nullptr},
    {kDBUsage, 1, "status", CheckNothing, nullptr, nullptr},
    {kDBUsage, 1, "stop", CheckNothing, nullptr, nullptr},
    {kDBUsage, 1, "get", CheckNothing, nullptr, nullptr},
    {kKey, 1, "list", CheckKeyList, nullptr, nullptr},
    {kKey, 1, "get", CheckKeyGet, nullptr, nullptr},
    {kKey, 1, "set", CheckKeySet, nullptr, nullptr},
    {kKey, 1, "delete", CheckKeyDelete, nullptr, nullptr},
    {kKey, 1, "export", CheckNothing, nullptr, nullptr},
    {kKey, 1, "import", CheckKeyImport, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
};

__attribute__((visibility("default"))) const KSTXAPICheckTableRow* GetAPICheckTable() {
  return gCheckTable;
}

}  // extern "C"
