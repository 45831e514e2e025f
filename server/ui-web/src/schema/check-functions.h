// The parameter check functions of the module's methods, one per method with
// parameters and one shared by the methods without. The runtime calls them
// through gCheckTable before Process; nothing in the module calls them.
//
// Each returns true to let the request go on, or sets error 120 with
// {"name": parameter, "reason": "required" | "type" | "condition"} on the
// response and returns false.
#pragma once

#include <kstx/webapi-module.h>
#include <kstx/webapi.h>

// Exported from the module beside GetAPICheckTable, which returns it.
extern "C" {
__attribute__((visibility("default"))) extern const KSTXAPICheckTableRow gCheckTable[];
}

namespace tidepool::schema {

// Methods without parameters, or that read and test them in the handler.
bool CheckNothing(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckGetClientLink(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckNodeList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeListParent(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeListVersion(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeActivity(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeDryRun(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckNodeRestoreStart(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeDownloadStart(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeDownloadFinish(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckNodeDeleteStart(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckProfileSet(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckProfileDelete(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckShareList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckShareSet(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckLogList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckLogExport(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckConfigSet(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckConnectionList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckConnectionDelete(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckPrivilegeList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckPrivilegeSet(KSTX::APIRequest* request, KSTX::APIResponse* response);

bool CheckKeyList(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckKeyGet(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckKeySet(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckKeyDelete(KSTX::APIRequest* request, KSTX::APIResponse* response);
bool CheckKeyImport(KSTX::APIRequest* request, KSTX::APIResponse* response);

}  // namespace tidepool::schema
