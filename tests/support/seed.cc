#include "seed.h"

#include <gtest/gtest.h>

#include "host-accounts.h"
#include "logger-impl.h"
#include "sandbox.h"
#include "sync-service.h"
#include "user-manager.h"

namespace tptest {

void SeedDemoSystem() {
  ResetSandboxData();
  WriteFile(SyncConfigMgr::kPath, "repo_volume=\"/volume1\"\ndb_backend=\"sqlite\"\n");
  SetServiceStatus("enabled");
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  for (const char* volume : {"/volume1", "/volume2"}) {
    hostaccounts::Volume v;
    v.path = volume;
    ASSERT_GE(accounts->AddVolume(v), 0);
  }
  ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
  for (const auto& user : kDemoUsers) {
    ASSERT_GE(accounts->AddUser(user.name, user.password), 0);
    if (user.admin) {
      ASSERT_GE(accounts->AddGroupMember(hostaccounts::kAdministratorsGroup, user.name), 0);
    }
    hostaccounts::User record;
    ASSERT_GE(accounts->GetUser(user.name, record), 0);
    ASSERT_GE(UserManager::EnableUser(user.name, record.uid, 0,
                                      std::string("/volume1/homes/") + user.name + "/Tidepool"),
              0);
  }
  UserManager::Destroy();
}

void AddHostUser(const std::string& name, const std::string& password) {
  auto accounts = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(accounts);
  ASSERT_GE(accounts->AddUser(name, password), 0);
}

uint32_t UidOf(const std::string& name) {
  auto accounts = hostaccounts::HostAccounts::Open();
  hostaccounts::User record;
  if (!accounts || accounts->GetUser(name, record) < 0) return 0;
  return record.uid;
}

void SetServiceStatus(const std::string& word) { ASSERT_GE(ServiceStatusSet(word), 0); }

void EnableDebugLog() {
  WriteFile("/var/packages/Tidepool/target/etc/syncfolder.debug", "default_component=7\n");
  // Levels are read once per process; this process may have logged already.
  Logger::TEST_ResetLevels();
}

std::string ReadPackageLog() { return ReadFile("/var/packages/Tidepool/var/log/tidepool.log"); }

}  // namespace tptest
