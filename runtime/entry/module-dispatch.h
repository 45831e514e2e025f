// Running one call in the module that serves it: load the module, find the
// method's row and its check function, check the parameters, process.
#pragma once

#include <vector>

#include "kstx/webapi-module.h"

#include "module-index.h"

namespace kstxentry {

// For a process whose children serve the requests (tidepool-webapi): reads
// the module index and loads every module in it, with all its symbols bound,
// once. Later look-ups in this process and its children use both. Modules
// that cannot be loaded are reported on stderr and answer as ServeModule
// answers them.
void PreloadModules();

// The index of installed modules: the preloaded one, else read now.
const std::vector<ApiIndexEntry>& ModuleIndex();

// Errors go to stderr prefixed with `program`, and to the response as the
// runtime's codes (100 unloadable module, 103 no such method, 120 bad
// parameters when the check function set no error of its own).
void ServeModule(const ApiIndexEntry& entry, KSTX::APIRequest& request, KSTX::APIResponse& response,
                 const char* program);

}  // namespace kstxentry
