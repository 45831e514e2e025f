// Running one call in the module that serves it: load the module, find the
// method's row and its check function, check the parameters, process.
#pragma once

#include "kstx/webapi-module.h"

#include "module-index.h"

namespace kstxentry {

// Errors go to stderr prefixed with `program`, and to the response as the
// runtime's codes (100 unloadable module, 103 no such method, 120 bad
// parameters when the check function set no error of its own).
void ServeModule(const ApiIndexEntry& entry, KSTX::APIRequest& request, KSTX::APIResponse& response,
                 const char* program);

}  // namespace kstxentry
