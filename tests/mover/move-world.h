// A repository with a history on /volume1, ready to be moved, and what a user
// checks afterwards: that the service answers, every view lists and an old
// version restores byte for byte.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "restore-world.h"

namespace mtest {

inline constexpr const char* kMover = "/var/packages/Tidepool/target/ui/DFTWVolChange";
inline const std::string kOldContent = "first words\n";
inline const std::string kNewContent = "second words, longer\n";

// The restore world with alice's history, the databases of this process
// closed (a move waits until nobody holds them).
void SeedMoveWorld();
// repo_volume of setting.conf and the status word.
std::string RepoVolume();
std::string Status();
// The mover, waited for; env adds to a plain environment.
int RunMover(const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env = {});
// Empty when the repository on `volume` serves: alice and the team's views
// list, and the first version of notes.txt restores byte for byte to a new
// folder. Otherwise what went wrong.
std::string CheckServes(const std::string& volume);
// The P arguments of the records of `type` in the log of the repository on
// `volume`, oldest first.
std::vector<std::vector<std::string>> Records(const std::string& volume, uint32_t type);
// Waits until the status is no longer "moving_db" (at most a minute).
bool MoveEnded();

}  // namespace mtest
