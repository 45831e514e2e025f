#include "move-world.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "process.h"
#include "sync-service.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace mtest {

void SeedMoveWorld() {
  rtest::SeedRestoreWorld();
  rtest::BuildHistory(rtest::kAliceHome,
                      {{rtest::kT0, {rtest::Entry("notes.txt", kOldContent)}, {}},
                       {rtest::kT1, {rtest::Entry("notes.txt", kNewContent)}, {}}});
  rtest::BuildHistory(rtest::kTeam, {{rtest::kT2, {rtest::Entry("plan.txt", "plan\n")}, {}}});
  db::LogManager::Destroy();
  db::Manager::Destroy();
  UserManager::Destroy();
}

std::string RepoVolume() {
  SyncConfigMgr config;
  return config.GetSysShareBin();
}

std::string Status() {
  std::string status;
  ServiceStatusGet(status, false);
  return status;
}

int RunMover(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
  std::vector<std::string> argv{kMover};
  argv.insert(argv.end(), args.begin(), args.end());
  std::map<std::string, std::string> full{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}};
  full.insert(env.begin(), env.end());
  return tptest::RunProcess(argv, full).exit_status;
}

std::vector<std::vector<std::string>> Records(const std::string& volume, uint32_t type) {
  const std::string repo = volume + "/@tidepool";
  std::vector<std::vector<std::string>> out;
  if (db::LogManager::Initialize(repo, repo, "sqlite", true) < 0) return out;
  db::LogFilter filter;
  filter.types = {static_cast<int32_t>(type)};
  filter.oldest_first = true;
  std::vector<db::Log> logs;
  db::LogManager::SearchLog(filter, logs);
  for (const db::Log& log : logs) out.push_back(log.getPArg());
  db::LogManager::Destroy();
  return out;
}

bool MoveEnded() {
  return tptest::Eventually([] { return Status() != "moving_db"; });
}

std::string CheckServes(const std::string& volume) {
  if (RepoVolume() != volume) return "the repository is on " + RepoVolume();
  if (Status() != "enabled") return "status " + Status();
  if (!fs::exists(volume + "/@tidepool/user-db.sqlite")) return "no user database on " + volume;
  const std::string alice = rtest::LoginAs("alice");
  // Browsing lists every folder on the way, as the file list does.
  if (rtest::Browse(alice, "mine", "/notes.txt")["node_id"].isNull()) return "alice's list failed";
  const Json::Value first = rtest::BrowseVersion(alice, "mine", "/notes.txt", 1);
  const std::string dest = rtest::kAliceHome + "/back-" + std::to_string(rand());
  rtest::MakeDir(dest, "alice", 0700);
  const auto run = rtest::RestoreAndFinish(alice, "mine", {first}, {{"copy_to", dest}});
  if (!run.done) return "restore: " + run.start.body + run.last_status;
  const rtest::Seen copy = rtest::Look(dest + "/notes.txt");
  if (copy.sha != tptest::Sha256Hex(kOldContent)) return "the restored file differs";
  return "";
}

}  // namespace mtest
