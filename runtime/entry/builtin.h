// The APIs the runtime serves itself: KSTX.API.Auth (login, logout) and
// KSTX.API.Info (query).
#pragma once

#include <string>
#include <vector>

#include "kstx/webapi.h"
#include "module-index.h"

namespace kstxentry {

constexpr const char* kAuthApi = "KSTX.API.Auth";
constexpr const char* kInfoApi = "KSTX.API.Info";

// The runtime's own errors; each answer carries its message.
enum RuntimeError {
  kErrUnexpected = 100,
  kErrMalformed = 101,
  kErrTooLarge = 102,
  kErrNoSuchApi = 103,
  kErrParameter = 120,
  kErrBadLogin = 400,
  kErrDisabled = 408,
  kErrExpired = 409,
  kErrThrottled = 411,
};

void SetRuntimeError(KSTX::APIResponse& response, int code);

// The version range of a built-in API, or false for any other API.
bool BuiltinVersions(const std::string& api, unsigned& min_version, unsigned& max_version);

// Serves a request for a built-in API whose version is in range. `sid` is
// the session the request came with, empty for none.
void ServeBuiltin(KSTX::APIRequest& request, KSTX::APIResponse& response, const std::string& sid);

}  // namespace kstxentry
