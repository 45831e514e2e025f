// KSTX.Tidepool.Files "create" (version 1): makes a folder as the calling
// user.
//
//   path  "/volumes" followed by the absolute path of the new folder
//   type  "folder"
//
// The caller must be a known, enabled account with a live session. The
// parent must exist, and the caller must be allowed to write in it by its
// share and by the parent's own mode and ACL. The folder is made with the
// caller's ids, so it is the caller's; the sync service is told about it.
// A folder that exists already is success. No link is followed: a link in
// place of any part of the path fails the call and creates nothing.
#pragma once

#include <functional>

namespace KSTX {
class APIRequest;
class APIResponse;
}  // namespace KSTX

namespace filesapi {

// Errors of this API besides the runtime's (120 for parameters).
enum Error {
  kErrPermission = 105,  // no such or a disabled account
  kErrTimeout = 106,     // the session timed out
  kErrParameter = 120,
  kErrFailed = 401,
  kErrNoPrivilege = 403,
};

// The parameter check the runtime runs before CreateFolder: false (with the
// 120 answer set) for a missing or malformed path or type.
bool CheckCreate(KSTX::APIRequest* request, KSTX::APIResponse* response);
void CreateFolder(KSTX::APIRequest* request, KSTX::APIResponse* response);

// Runs `hook` after the checks and before the folder is made (empty: none),
// so a test can change the tree in between.
void TEST_SetBeforeCreateHook(std::function<void()> hook);

}  // namespace filesapi
