#include "commit.h"

#include "driftway-client.h"

int CommitProfiles(const std::vector<ProfileInfoWithUserIds>& profiles,
                   const std::vector<unsigned long long>& removed) {
  if (UserManager::CommitProfiles(profiles, removed) < 0) return -1;
  if (ServiceReloadProfile() < 0) return -1;
  return 0;
}
