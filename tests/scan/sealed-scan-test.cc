// Encrypted shares and Mac attributes through real scans: what the restore
// engine will find in the store (PatchFile, GetFilePath, EncryptFile,
// MacAttributeUnpack) must give back the bytes and attributes of each
// version, and nothing of an encrypted share may lie in the store in plain.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <filesystem>
#include <map>

#include "appliance.h"
#include "content.h"
#include "control.h"
#include "db/manager.h"
#include "file-util.h"
#include "hv-file-utility.h"
#include "hvos-service.h"
#include "process.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

const std::string kHome = "/volume1/homes/alice/Tidepool";
const std::string kStore = "/volume1/@tidepool/@sync";
const std::string kWork = "/volume1/work";
const std::string kPassphrase = "low tide";

using scantest::Control;
using scantest::Scan;

std::string ShareKey(const std::string& name) {
  HVOSService::ShareService service(true);
  HVOSService::Share share;
  std::string key;
  if (service.GetShare(name, share) < 0 || share.getUniqueKey(key) != 1) return "";
  return key;
}

// Every byte the store keeps outside its databases.
std::string StoredBytes() {
  std::string all;
  for (const char* sub : {"/repo", "/delta", "/node_delta"}) {
    if (!fs::exists(kStore + sub)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(kStore + sub))
      if (entry.is_regular_file()) all += tptest::ReadFile(entry.path());
  }
  return all;
}

class SealedScanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    {
      auto host = hostaccounts::HostAccounts::Open();
      hostaccounts::Share vault;
      vault.name = "Vault";
      vault.volume = "/volume1";
      ASSERT_EQ(host->AddEncryptedShare(vault, kPassphrase), 0);
    }
    ASSERT_EQ(Control({"user", "--enable", "alice"}).exit_status, 0);
    for (const char* share : {"Docs", "Vault"})
      ASSERT_EQ(Control({"share", "--enable", share}).exit_status, 0);
    fs::create_directories(kHome);
    fs::create_directories(kWork);
    ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(db::Manager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite"), 0);
  }
  void TearDown() override {
    db::Manager::Destroy();
    UserManager::Destroy();
  }

  uint64_t ViewOf(const std::string& owner) {
    UserInfo info;
    if (owner == "alice") {
      EXPECT_GT(UserManager::GetUser(owner, info, 0), 0);
    } else {
      EXPECT_GE(UserManager::GetShareUser(owner, info), 0);
    }
    return info.view_id;
  }
  // Versions of the live node at `path`, oldest first; none when absent.
  std::vector<db::Version> Versions(const std::string& owner, const std::string& path) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(ViewOf(owner), view), 0);
    db::Node node;
    std::vector<db::Version> out;
    if (view->QueryNode(path, node, db::ViewManager::kQueryAny) < 0 || node.isRemoved()) return out;
    EXPECT_GE(view->ListVersion(node.getNodeId(), out, db::ViewManager::kListVersionAll), 0);
    return out;
  }
  // The version's content as the restore engine rebuilds it.
  static std::string Patched(const db::Version& v, const std::string& key) {
    db::FileDBInterface files;
    if (db::Manager::GetFileDB(v.getFileUuid(), files, false, "") < 0) return "<no db>";
    std::string origin, out;
    std::vector<std::string> patches;
    if (files->GetPatchFiles(v.getFileId(), origin, patches) < 0) return "<no chain>";
    if (HVFileUtility::PatchFile(origin, patches, key, kWork, out) != 0) return "<failed>";
    std::string content = tptest::ReadFile(out);
    fs::remove(out);
    return content;
  }
};

TEST_F(SealedScanTest, EveryVersionRebuildsPlainOrSealed) {
  const std::string key = ShareKey("Vault");
  ASSERT_EQ(key.size(), 64u);
  EXPECT_EQ(ShareKey("Docs"), "");
  const std::map<std::string, std::string> roots = {{"Docs", "/volume1/Docs"},
                                                    {"Vault", "/volume1/Vault"}};
  const std::vector<size_t> sizes = {0, 5000, 150000};
  constexpr int kRounds = 4;
  // contents[share][size][round]
  std::map<std::string, std::map<size_t, std::vector<std::string>>> contents;
  for (int round = 0; round < kRounds; ++round) {
    for (const auto& [share, root] : roots) {
      for (size_t size : sizes) {
        auto& history = contents[share][size];
        // Each round keeps most of the last and changes some: deltas, not copies.
        const uint32_t seed = static_cast<uint32_t>(size) + (share == "Vault" ? 1 : 0);
        std::string next = history.empty() ? tptest::RandomBytes(size, seed) : history.back();
        if (round > 0) next += "round " + std::to_string(round) + " of " + share;
        history.push_back(next);
        tptest::WriteFile(root + "/f" + std::to_string(size), next);
      }
    }
    Scan(1700000000 + static_cast<uint32_t>(round) * 100);
  }
  for (const auto& [share, root] : roots) {
    for (size_t size : sizes) {
      SCOPED_TRACE(share + " f" + std::to_string(size));
      const auto versions = Versions(share, "/f" + std::to_string(size));
      ASSERT_EQ(versions.size(), static_cast<size_t>(kRounds));
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(Patched(versions[round], share == "Vault" ? key : ""),
                  contents[share][size][round])
            << "round " << round;
      }
      // The other share's key (or none) never gives the content.
      EXPECT_NE(Patched(versions.back(), share == "Vault" ? "" : key),
                contents[share][size].back());
    }
  }
  // The plain share's text is in the store; none of the sealed one's.
  const std::string stored = StoredBytes();
  EXPECT_NE(stored.find("round 3 of Docs"), std::string::npos);
  EXPECT_EQ(stored.find("of Vault"), std::string::npos);
  EXPECT_EQ(stored.find(contents["Vault"][150000][0].substr(1000, 64)), std::string::npos);
}

TEST_F(SealedScanTest, ALockedShareIsLeftAloneUntilUnlocked) {
  tptest::WriteFile("/volume1/Vault/secret.txt", "the tide tables");
  {
    auto host = hostaccounts::HostAccounts::Open();
    ASSERT_EQ(host->LockShare("Vault"), 0);
  }
  EXPECT_EQ(ShareKey("Vault"), "");
  Scan(1700000000);
  EXPECT_TRUE(Versions("Vault", "/secret.txt").empty());
  EXPECT_EQ(StoredBytes().find("tide tables"), std::string::npos);

  {
    auto host = hostaccounts::HostAccounts::Open();
    EXPECT_EQ(host->UnlockShare("Vault", "high tide"), hostaccounts::kErrInvalid);
    EXPECT_EQ(ShareKey("Vault"), "");
    ASSERT_EQ(host->UnlockShare("Vault", kPassphrase), 0);
  }
  Scan(1700000100);
  const auto versions = Versions("Vault", "/secret.txt");
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(Patched(versions[0], ShareKey("Vault")), "the tide tables");
  EXPECT_EQ(StoredBytes().find("tide tables"), std::string::npos);
}

// Names and values of the Mac attributes of `path`.
std::map<std::string, std::string> MacAttrs(const std::string& path) {
  std::map<std::string, std::string> out;
  char names[4096];
  const ssize_t n = llistxattr(path.c_str(), names, sizeof names);
  for (ssize_t pos = 0; pos < n; pos += static_cast<ssize_t>(strlen(names + pos)) + 1) {
    const std::string name = names + pos;
    char value[4096];
    const ssize_t len = lgetxattr(path.c_str(), name.c_str(), value, sizeof value);
    if (name.rfind("user.com.apple.", 0) == 0 && len >= 0) out[name] = std::string(value, len);
  }
  return out;
}

bool SetAttr(const std::string& path, const std::string& name, const std::string& value) {
  return lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0;
}

TEST_F(SealedScanTest, MacAttributesTravelWithVersions) {
  const std::string file = kHome + "/m.txt", folder = kHome + "/d", plain = kHome + "/p.txt";
  const std::string sealed = "/volume1/Vault/m.txt";
  for (const std::string& f : {file, plain, sealed}) tptest::WriteFile(f, "content of " + f);
  fs::create_directories(folder);
  const std::string finder(32, '\x07');
  if (!SetAttr(file, "user.com.apple.FinderInfo", finder))
    GTEST_SKIP() << "no user extended attributes on this file system";
  ASSERT_TRUE(SetAttr(file, "user.com.apple.metadata:kMDItemWhereFroms", "the harbour"));
  ASSERT_TRUE(SetAttr(file, "user.other", "not a Mac attribute"));
  ASSERT_TRUE(SetAttr(folder, "user.com.apple.FinderInfo", finder));
  ASSERT_TRUE(SetAttr(sealed, "user.com.apple.FinderInfo", finder));
  Scan(1700000000);

  // Unpacked onto a new file, the stored attributes are the file's own.
  auto unpacked = [&](const db::Version& v, const std::string& key) {
    const std::string stored =
        db::Manager::GetFilePath(v.getMacAttributeUuid(), v.getMacAttributeFileId());
    EXPECT_TRUE(fs::is_regular_file(stored)) << stored;
    std::string packed = stored;
    if (!key.empty()) {
      packed = kWork + "/opened";
      EXPECT_EQ(HVFileUtility::EncryptFile(stored, packed, key, false), 0);
    }
    const std::string target = kWork + "/target";
    fs::remove(target);
    tptest::WriteFile(target, "");
    EXPECT_EQ(MacAttributeUnpack(packed, target), 0);
    return MacAttrs(target);
  };
  auto versions = Versions("alice", "/m.txt");
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(versions[0].getMacAttributeHash().size(), 64u);
  EXPECT_EQ(unpacked(versions[0], ""), MacAttrs(file));
  EXPECT_EQ(MacAttrs(file).size(), 2u);
  const auto dir = Versions("alice", "/d");
  ASSERT_EQ(dir.size(), 1u);
  EXPECT_EQ(unpacked(dir[0], ""), MacAttrs(folder));
  const auto none = Versions("alice", "/p.txt");
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(none[0].getMacAttributeHash(), "");
  EXPECT_EQ(none[0].getMacAttributeFileId(), 0u);

  // On the encrypted share the stored file is sealed: it opens with the key.
  const auto vault = Versions("Vault", "/m.txt");
  ASSERT_EQ(vault.size(), 1u);
  const std::string sealed_path =
      db::Manager::GetFilePath(vault[0].getMacAttributeUuid(), vault[0].getMacAttributeFileId());
  tptest::WriteFile(kWork + "/target", "");
  EXPECT_EQ(MacAttributeUnpack(sealed_path, kWork + "/target"), -1);
  EXPECT_EQ(unpacked(vault[0], ShareKey("Vault")), MacAttrs(sealed));

  // Nothing changed: no version. An attribute changed alone: a version.
  // Content changed alone: the attribute file is shared with the last one.
  Scan(1700000100);
  EXPECT_EQ(Versions("alice", "/m.txt").size(), 1u);
  ASSERT_TRUE(SetAttr(file, "user.com.apple.metadata:kMDItemWhereFroms", "the open sea"));
  Scan(1700000200);
  versions = Versions("alice", "/m.txt");
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_NE(versions[1].getMacAttributeHash(), versions[0].getMacAttributeHash());
  EXPECT_EQ(unpacked(versions[1], "")["user.com.apple.metadata:kMDItemWhereFroms"], "the open sea");
  EXPECT_EQ(Patched(versions[1], ""), "content of " + file);
  tptest::WriteFile(file, "new content");
  Scan(1700000300);
  versions = Versions("alice", "/m.txt");
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions[2].getMacAttributeFileId(), versions[1].getMacAttributeFileId());
  EXPECT_EQ(Patched(versions[2], ""), "new content");
}

}  // namespace
