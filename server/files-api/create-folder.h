// KSTX.Tidepool.Files "create" (version 1): makes a folder as the calling
// user.
//
//   path  "/volumes" followed by the absolute path of the new folder
//   type  "folder"
//
// The parent must exist, and the caller must be allowed to write in it by
// its share and by the parent's own mode and ACL. The folder belongs to the
// caller and the caller's primary group; the sync service is told about it.
// A folder that exists already is success.
#pragma once

namespace KSTX {
class APIRequest;
class APIResponse;
}  // namespace KSTX

namespace filesapi {

// Errors of this API besides the runtime's (120 for parameters).
enum Error {
  kErrParameter = 120,
  kErrFailed = 401,
  kErrNoPrivilege = 403,
};

// The parameter check the runtime runs before CreateFolder: false (with the
// 120 answer set) for a missing or malformed path or type.
bool CheckCreate(KSTX::APIRequest* request, KSTX::APIResponse* response);
void CreateFolder(KSTX::APIRequest* request, KSTX::APIResponse* response);

}  // namespace filesapi
