// Results of the sync databases: 0 or more on success, one of these on
// failure. Storage errors are translated to them in one place.
#pragma once

namespace db {

enum Result : int {
  kOk = 0,
  kErrGeneral = -1,
  kErrBusy = -2,         // locked by another process past the busy timeout
  kErrNotFound = -3,     // no such node (QueryNode)
  kErrCorrupt = -4,      // the file is damaged or not a database of ours
  kErrCannotOpen = -5,   // missing file, no permission
  kErrInvalid = -6,      // a bad argument
  kErrNewerSchema = -7,  // written by a newer version of the service
};

// A text for log lines.
const char* GetErrMsg(int result);

}  // namespace db
