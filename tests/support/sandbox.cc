#include "sandbox.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace tptest {
namespace {

// Refuse to run anywhere but in a sandbox: the tests write to fixed system
// paths.
class SandboxEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    if (!InSandbox()) {
      fprintf(stderr, "this test must run inside scripts/sandbox\n");
      _exit(2);
    }
  }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new SandboxEnvironment);

void ClearFolder(const fs::path& folder, const std::vector<std::string>& keep) {
  std::error_code ec;
  if (!fs::exists(folder, ec)) return;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    const std::string name = entry.path().filename();
    if (std::find(keep.begin(), keep.end(), name) != keep.end()) continue;
    fs::remove_all(entry.path(), ec);
  }
}

}  // namespace

bool InSandbox() { return access("/usr/kstx/.sandbox", F_OK) == 0; }

void ResetSandboxData() {
  ClearFolder("/volume1", {});
  ClearFolder("/volume2", {});
  ClearFolder("/usr/kstx/etc", {});
  ClearFolder("/var/packages/Tidepool/etc", {});
  ClearFolder("/var/packages/Tidepool/var", {});
  std::error_code ec;
  fs::remove("/var/packages/Tidepool/target/etc/syncfolder.debug", ec);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

}  // namespace tptest
