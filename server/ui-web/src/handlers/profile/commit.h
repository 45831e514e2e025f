// Writing profiles: the store, then the running service, which must learn of
// every change at once.
#pragma once

#include <vector>

#include "user-manager.h"

// 0, or -1 when the store or the reload failed (the store may have changed
// by then).
int CommitProfiles(const std::vector<ProfileInfoWithUserIds>& profiles,
                   const std::vector<unsigned long long>& removed);
