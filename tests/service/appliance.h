// A small appliance for the sync service's tests: the host directory with
// admin (an administrator), alice and bob, the shares Photos and Docs, and
// the repository on /volume1.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "host-accounts.h"
#include "sandbox.h"

namespace tptest {

inline void SeedAppliance() {
  ResetSandboxData();
  WriteFile("/var/packages/Tidepool/etc/setting.conf", "repo_volume=\"/volume1\"\n");
  auto host = hostaccounts::HostAccounts::Open();
  ASSERT_NE(host, nullptr);
  for (const char* name : {"admin", "alice", "bob"}) ASSERT_GE(host->AddUser(name, "secret"), 0);
  ASSERT_GE(host->AddGroupMember(hostaccounts::kAdministratorsGroup, "admin"), 0);
  for (const char* share : {"Photos", "Docs"}) {
    hostaccounts::Share record;
    record.name = share;
    record.volume = "/volume1";
    record.path = std::string("/volume1/") + share;
    ASSERT_GE(host->AddShare(record), 0);
  }
}

inline uint32_t HostUid(const std::string& name) {
  hostaccounts::User user;
  auto host = hostaccounts::HostAccounts::Open();
  return host && host->GetUser(name, user) >= 0 ? user.uid : 0;
}

// Owner of a path, or -1 when it does not exist.
inline long long OwnerOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_uid) : -1;
}

}  // namespace tptest
