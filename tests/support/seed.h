// Builds the small system most tests start from: the service's settings, the
// host's accounts and volumes, and the users enabled in the sync service.
#pragma once

#include <cstdint>
#include <string>

namespace tptest {

struct DemoUser {
  const char* name;
  const char* password;
  bool admin;
};

// admin (administrators), alice, bob, with the passwords "<name>-demo".
inline constexpr DemoUser kDemoUsers[] = {
    {"admin", "admin-demo", true}, {"alice", "alice-demo", false}, {"bob", "bob-demo", false}};

// Resets the sandbox's data and seeds: setting.conf (repo on /volume1), the
// status word "enabled", volumes /volume1 and /volume2, the demo users, all
// enabled in the service with a home.
void SeedDemoSystem();

// A host account that the service does not know.
void AddHostUser(const std::string& name, const std::string& password);
uint32_t UidOf(const std::string& name);

void SetServiceStatus(const std::string& word);
// Debug level 7 for the module's component, so that tests can read DEBUG lines.
void EnableDebugLog();
std::string ReadPackageLog();

}  // namespace tptest
