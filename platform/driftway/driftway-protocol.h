// The control socket's protocol, shared by the client library, the daemon and
// driftway-control: one JSON object per line each way.
//
//   request  {"op": "<name>", ...}
//   answer   {"success": true, ...} or
//            {"success": false, "error": {"code": N, "message": "..."}}
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace driftway {

constexpr const char* kSocketPath = "/tmp/driftway-syncservice";
constexpr const char* kPidFile = "/var/packages/Tidepool/var/run/driftway.pid";
constexpr const char* kDaemonPath = "/var/packages/Tidepool/target/bin/driftway";
// A line longer than this is not a request.
constexpr size_t kMaxLine = 64 * 1024;
// Answers may be longer: the status of a service that watches tens of
// thousands of homes lists every one of them.
constexpr size_t kMaxAnswer = 64 * 1024 * 1024;

// Codes of error answers; kErrTransport is the client's own.
enum ErrorCode : int {
  kErrTransport = 1,   // no service, or the socket failed or timed out
  kErrBadRequest = 2,  // not a JSON object with an "op", or too long
  kErrUnknownOp = 3,
  kErrPermission = 4,
  kErrNotFound = 5,  // no such user or share
  kErrFailed = 6,    // the operation failed on the service's side
  // The client's own: the socket is served by a process that is neither
  // root's nor the service account's.
  kErrUntrustedServer = 7,
};

// The account the service may run as besides root.
constexpr const char* kServiceAccount = "tidepool";

// Removes what is at `path` only when it is a socket (a link is never
// followed): 1 removed, 0 nothing there, -1 something else is there (errno
// EEXIST) or the removal failed.
int RemoveSocketFile(const std::string& path);

// Operation names of SendUserControl's numbers; null for an unknown number.
const char* UserControlOp(int operation);

Json::Value ErrorAnswer(int code, const std::string& message);
// Compact text of `value` with the closing newline.
std::string EncodeLine(const Json::Value& value);
// Parses one line (without its newline) into an object; false otherwise.
bool DecodeLine(const std::string& line, Json::Value& out);

}  // namespace driftway
