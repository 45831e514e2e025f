// Restores that depend on what the store seals and packs: versions of an
// encrypted share (and what a locked one refuses), Mac attributes coming
// back with their version, and a restore child killed part-way through a
// folder, which must leave each file either as it was or as restored.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <set>

#include "content.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kAdminTool = "/usr/kstx/bin/kstx-admin";
constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
const std::string kVault2 = "/volume1/vault2";
const std::string kPassphrase = "slack water";
const std::string kFinderInfo = "user.com.apple.FinderInfo";
const std::string kResourceFork = "user.com.apple.ResourceFork";
const std::string kWhereFroms = "user.com.apple.metadata:kMDItemWhereFroms";

void Tool(const std::vector<std::string>& argv) {
  const auto r = tptest::RunProcess(argv);
  ASSERT_EQ(r.exit_status, 0) << argv[1] << " " << argv[2] << ": " << r.out << r.err;
}

// `bytes` with `length` bytes from `at` replaced by other random bytes.
std::string Rewritten(std::string bytes, size_t at, size_t length, uint32_t seed) {
  bytes.replace(at, length, tptest::RandomBytes(length, seed));
  return bytes;
}

// Every byte the version store keeps outside its databases.
std::string StoredBytes() {
  std::string all;
  for (const char* sub : {"/repo", "/delta", "/node_delta"}) {
    const std::string dir = std::string("/volume1/@tidepool/@sync") + sub;
    if (!fs::exists(dir)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      if (entry.is_regular_file()) all += tptest::ReadFile(entry.path().string());
    }
  }
  return all;
}

class RestoreSealedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    alice_ = LoginAs("alice");
    admin_ = LoginAs("admin");
  }

  // The encrypted share "vault2", unlocked, alice may write, versioned.
  static void AddVault2() {
    Tool({kAdminTool, "share", "add", "vault2", "--volume", "/volume1", "--encrypted",
          "--passphrase", kPassphrase});
    Tool({kAdminTool, "share", "perm", "vault2", "alice", "rw"});
    MakeDir(kVault2, "alice", 0775);
    Tool({kControl, "share", "--enable", "vault2"});
  }

  // A fresh folder of the share "drop" for copies.
  static std::string DropFolder(const std::string& name) {
    const std::string path = "/volume1/drop/" + name;
    fs::create_directories(path);
    fs::permissions(path, fs::perms::all);
    return path;
  }

  std::string alice_, admin_;
};

// Versions of an encrypted share rebuild through sealed deltas, in place
// and as copies; while the share is locked a restore is refused before it
// touches anything, and works again once unlocked.
TEST_F(RestoreSealedTest, EncryptedShareRestoresWhileUnlockedOnly) {
  AddVault2();
  if (HasFatalFailure()) return;
  const std::string v0 = tptest::RandomBytes(256 << 10, 21);
  const std::string v1 = Rewritten(v0, 64 << 10, 32 << 10, 22);
  const std::string v2 = Rewritten(v1, 160 << 10, 32 << 10, 23) + "tail";
  const std::string n0 = "vault note, first\n", n1 = "vault note, second\n";
  BuildHistory(kVault2, {{kT0, {Entry("big.bin", v0), Entry("note.txt", n0)}, {}},
                         {kT1, {Entry("big.bin", v1), Entry("note.txt", n1)}, {}},
                         {kT2, {Entry("big.bin", v2)}, {}}});
  if (HasFatalFailure()) return;

  // Nothing of any version lies in the store in plain.
  const std::string stored = StoredBytes();
  ASSERT_GT(stored.size(), 256u << 10);
  for (const std::string& sample :
       {v0.substr(70000, 64), v1.substr(70000, 64), v2.substr(170000, 64), v0.substr(0, 64)}) {
    EXPECT_EQ(stored.find(sample), std::string::npos);
  }
  EXPECT_EQ(stored.find("vault note"), std::string::npos);

  const Json::Value big0 = BrowseVersion(admin_, "@vault2", "/big.bin", 2);
  const Json::Value big1 = BrowseVersion(admin_, "@vault2", "/big.bin", 1);
  const Json::Value note0 = BrowseVersion(admin_, "@vault2", "/note.txt", 1);
  RestoreRun run = RestoreAndFinish(alice_, "@vault2", {big0, note0});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(Look(kVault2 + "/big.bin").sha, tptest::Sha256Hex(v0));
  EXPECT_EQ(Look(kVault2 + "/note.txt").sha, tptest::Sha256Hex(n0));
  EXPECT_EQ(Look(kVault2 + "/big.bin").mtime, DefaultMtime(kT0));

  const std::string copies = DropFolder("sealed");
  run = RestoreAndFinish(alice_, "@vault2", {big1}, {{"copy_to", copies}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(TreeOf(copies), Expect({{"big.bin", v1}}));
  EXPECT_EQ(Look(copies + "/big.bin").uid, Uid("alice"));

  // Locked: the view has no key, so neither in place nor as a copy.
  Tool({kAdminTool, "share", "lock", "vault2"});
  const std::string locked = DropFolder("locked");
  const Tree before = EverythingBut("");
  for (const bool in_place : {true, false}) {
    SCOPED_TRACE(in_place ? "in place" : "copy");
    Params params;
    if (!in_place) params.push_back({"copy_to", locked});
    const auto start = StartRestore(alice_, "@vault2", {big1}, params);
    EXPECT_FALSE(start.success()) << start.body;
    EXPECT_EQ(start.code(), 401) << start.body;
    EXPECT_EQ(start.message(), "failed to open view db");
    EXPECT_FALSE(RecordExists());
    EXPECT_EQ(EverythingBut(""), before);
  }

  Tool({kAdminTool, "share", "unlock", "vault2", "--passphrase", kPassphrase});
  run = RestoreAndFinish(alice_, "@vault2", {big1}, {{"copy_to", locked}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(TreeOf(locked), Expect({{"big.bin", v1}}));
  run = RestoreAndFinish(alice_, "@vault2", {big1});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(Look(kVault2 + "/big.bin").sha, tptest::Sha256Hex(v1));
}

// A restored file or folder carries the Mac attributes of its version, and
// only those: later changes are undone, attributes the version lacked are
// not there, and other extended attributes are never kept in the store.
TEST_F(RestoreSealedTest, MacAttributesComeBackWithTheirVersion) {
  const std::string finder1 = "TEXTttxt" + std::string(8, '\x01') + std::string(16, '\0');
  const std::string finder2 = "BINAbina" + std::string(8, '\x02') + std::string(16, '\0');
  const std::string fork1 = "fork one", fork2 = std::string(3000, 'r');
  using Attrs = std::map<std::string, std::string>;
  const Attrs mac0 = {{kFinderInfo, finder1}, {kWhereFroms, "the harbour"}, {kResourceFork, fork1}};
  const Attrs mac1 = {{kFinderInfo, finder2}, {kResourceFork, fork2}};
  const Attrs folder0 = {{kFinderInfo, finder1}, {kWhereFroms, "folder harbour"}};
  BuildHistory(
      kAliceHome,
      {{kT0,
        {Entry("m.txt", "mac one\n")
             .Xattr(kFinderInfo, finder1)
             .Xattr(kWhereFroms, "the harbour")
             .Xattr(kResourceFork, fork1)
             .Xattr("user.other", "not a Mac attribute"),
         Entry("plain.txt", "plain one\n").Xattr("user.other", "nor this"),
         Entry("d/", "", 0750).Xattr(kFinderInfo, finder1).Xattr(kWhereFroms, "folder harbour"),
         Entry("d/in.txt", "inside\n").Xattr(kFinderInfo, finder1)},
        {}},
       {kT1,
        {Entry("m.txt", "mac two\n").Xattr(kFinderInfo, finder2).Xattr(kResourceFork, fork2),
         Entry("plain.txt", "plain two\n").Xattr(kFinderInfo, finder2),
         Entry("d/", "", 0750).Xattr(kFinderInfo, finder2).DropXattr(kWhereFroms),
         // The attribute alone changes.
         Entry("d/in.txt", "inside\n").Xattr(kFinderInfo, finder2)},
        {}}});
  if (HasFatalFailure()) return;
  ASSERT_EQ(UserXattrs(kAliceHome + "/m.txt"), mac1);
  ASSERT_EQ(UserXattrs(kAliceHome + "/d").count(kWhereFroms), 0u);

  const std::vector<Json::Value> at_t0 = {BrowseVersion(alice_, "mine", "/m.txt", 1),
                                          BrowseVersion(alice_, "mine", "/plain.txt", 1),
                                          Browse(alice_, "mine", "/d", kT0)};
  const std::string copy0 = DropFolder("mac0");
  RestoreRun run = RestoreAndFinish(alice_, "mine", at_t0, {{"copy_to", copy0}});
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  run = RestoreAndFinish(alice_, "mine", at_t0);
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  for (const std::string& root : {copy0, kAliceHome}) {
    SCOPED_TRACE(root);
    EXPECT_EQ(tptest::ReadFile(root + "/m.txt"), "mac one\n");
    EXPECT_EQ(UserXattrs(root + "/m.txt"), mac0);
    EXPECT_EQ(tptest::ReadFile(root + "/plain.txt"), "plain one\n");
    EXPECT_EQ(UserXattrs(root + "/plain.txt"), Attrs());
    EXPECT_EQ(UserXattrs(root + "/d"), folder0);
    EXPECT_EQ(UserXattrs(root + "/d/in.txt"), Attrs({{kFinderInfo, finder1}}));
  }

  // The later version has what was removed since gone.
  const std::string copy1 = DropFolder("mac1");
  run = RestoreAndFinish(alice_, "mine", {BrowseVersion(alice_, "mine", "/m.txt", 0)},
                         {{"copy_to", copy1}});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  EXPECT_EQ(tptest::ReadFile(copy1 + "/m.txt"), "mac two\n");
  EXPECT_EQ(UserXattrs(copy1 + "/m.txt"), mac1);

  // On an encrypted share the packed attributes are sealed and still open.
  AddVault2();
  if (HasFatalFailure()) return;
  BuildHistory(kVault2,
               {{kT2,
                 {Entry("s.txt", "sealed\n")
                      .Xattr(kFinderInfo, finder1)
                      .Xattr(kWhereFroms, "sealed harbour")},
                 {}},
                {kT2 + 600, {Entry("s.txt", "sealed\n").Xattr(kFinderInfo, finder2)}, {}}});
  if (HasFatalFailure()) return;
  EXPECT_EQ(StoredBytes().find("sealed harbour"), std::string::npos);
  const std::string sealed = DropFolder("sealed-mac");
  const Json::Value s0 = BrowseVersion(admin_, "@vault2", "/s.txt", 1);
  run = RestoreAndFinish(alice_, "@vault2", {s0}, {{"copy_to", sealed}});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  run = RestoreAndFinish(alice_, "@vault2", {s0});
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  for (const std::string& root : {sealed, kVault2}) {
    SCOPED_TRACE(root);
    EXPECT_EQ(UserXattrs(root + "/s.txt"),
              Attrs({{kFinderInfo, finder1}, {kWhereFroms, "sealed harbour"}}));
  }
}

// ---- A restore child killed part-way ----

constexpr int kManyFiles = 300;
constexpr size_t kManySize = 64 << 10;

std::string ManyName(int i) {
  char name[32];
  snprintf(name, sizeof name, "many/f%03d.bin", i);
  return name;
}
std::string OldCopy(int i) { return tptest::RandomBytes(kManySize, 5000 + i); }
std::string Version0(int i) { return tptest::RandomBytes(kManySize, 1000 + i); }

// The restore children of this sandbox: entry.cgi processes in this mount
// namespace (other sandboxes on the host run their own).
std::vector<pid_t> RestoreChildren() {
  std::vector<pid_t> out;
  std::error_code ec;
  const fs::path own_ns = fs::read_symlink("/proc/self/ns/mnt", ec);
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t pid = std::stoi(name);
    if (pid == getpid()) continue;
    std::error_code e1, e2;
    if (fs::read_symlink(entry.path() / "ns/mnt", e1) != own_ns || e1) continue;
    if (fs::read_symlink(entry.path() / "exe", e2).filename() != "entry.cgi" || e2) continue;
    out.push_back(pid);
  }
  return out;
}

// The restore record, straight from its file: opening it through
// HVOS::Task while a start replaces it could make a record owned by this
// process. `init` until the child has counted its items.
struct Progress {
  bool exists = false;
  pid_t creator = 0;
  bool init = true;
};
Progress ReadProgress() {
  Progress p;
  const std::string path = "/tmp/tidepool-tasks/admin/dftw_restore_progress.json";
  if (!fs::exists(path)) return p;
  Json::Value record;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string text = tptest::ReadFile(path);
  if (!reader->parse(text.data(), text.data() + text.size(), &record, nullptr) ||
      !record.isObject()) {
    return p;
  }
  const Json::Value& data = record["properties"]["data"];
  p.exists = true;
  p.creator = record["create_pid"].asInt();
  p.init = !data.isObject() || data["init"].asBool();
  return p;
}

bool Gone(pid_t pid) {
  if (kill(pid, 0) != 0) return true;
  const std::string stat = tptest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t paren = stat.rfind(')');
  return paren == std::string::npos || stat.substr(paren + 2, 1) == "Z";
}

class RestoreKilledTest : public RestoreSealedTest {
 protected:
  void SetUp() override {
    RestoreSealedTest::SetUp();
    if (HasFatalFailure()) return;
    std::vector<Entry> first = {Entry("many/", "", 0750)}, second;
    for (int i = 0; i < kManyFiles; ++i) {
      first.emplace_back(ManyName(i), Version0(i));
      second.emplace_back(ManyName(i), OldCopy(i));
    }
    BuildHistory(kAliceHome, {{kT0, first, {}}, {kT1, second, {}}});
    dest_ = DropFolder("killed");
  }

  // Every file of the destination back to the older copy.
  void ResetDestination() {
    for (int i = 0; i < kManyFiles; ++i) tptest::WriteFile(dest_ + "/" + ManyName(i), OldCopy(i));
  }

  // The inode of each destination file, to tell when the restore put its
  // own file in place.
  std::vector<ino_t> Inodes() const {
    std::vector<ino_t> out;
    for (int i = 0; i < kManyFiles; ++i) {
      struct stat st {};
      out.push_back(stat((dest_ + "/" + ManyName(i)).c_str(), &st) == 0 ? st.st_ino : 0);
    }
    return out;
  }

  // Waits for the restore child started after the record of `stale` (one a
  // killed run left), and once `at_least` destination files have been
  // replaced, kills it. Gives how many were replaced before the kill.
  uint64_t KillWhenReplaced(size_t at_least, pid_t stale, const std::vector<ino_t>& before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::vector<pid_t> children;
    while (std::chrono::steady_clock::now() < deadline) {
      if (children.empty()) {
        // The child has written its count once the record is no longer new.
        const Progress p = ReadProgress();
        if (!p.exists || p.creator == stale || p.init) {
          usleep(200);
          continue;
        }
        children = RestoreChildren();
        // The request that started it may still be about to answer.
        std::erase(children, p.creator);
        if (children.size() != 1u) {
          ADD_FAILURE() << "no single restore child: " << children.size();
          return 0;
        }
      }
      const std::vector<ino_t> now = Inodes();
      size_t replaced = 0;
      for (int i = 0; i < kManyFiles; ++i) replaced += now[i] != before[i];
      if (replaced < at_least) continue;
      kill(children[0], SIGKILL);
      for (int i = 0; i < 5000 && !Gone(children[0]); ++i) usleep(1000);
      EXPECT_TRUE(Gone(children[0])) << children[0];
      return replaced;
    }
    ADD_FAILURE() << "the restore did not reach " << at_least << " files";
    return 0;
  }

  // Each file is the older copy or the whole restored version, at least
  // `restored` of them restored but not all; nothing else but the engine's
  // staging.
  void ExpectOldOrRestored(uint64_t restored) {
    const Tree tree = TreeOf(dest_);
    std::set<std::string> names;
    for (const auto& [path, state] : tree) names.insert(path);
    std::set<std::string> expected = {"many"};
    for (int i = 0; i < kManyFiles; ++i) expected.insert(ManyName(i));
    EXPECT_EQ(names, expected);
    uint64_t done = 0;
    for (int i = 0; i < kManyFiles; ++i) {
      const auto it = tree.find(ManyName(i));
      if (it == tree.end()) continue;
      const std::string old_sha = tptest::Sha256Hex(OldCopy(i));
      const std::string new_sha = tptest::Sha256Hex(Version0(i));
      EXPECT_TRUE(it->second == old_sha || it->second == new_sha) << ManyName(i) << " is partial";
      done += it->second == new_sha;
    }
    EXPECT_GE(done, restored);
    EXPECT_LT(done, static_cast<uint64_t>(kManyFiles)) << "the restore ended before the kill";
    // Staging lives in <dest>/@eaDir/@tmp/Tidepool.XXXXXX only.
    for (auto it = fs::recursive_directory_iterator(dest_);
         it != fs::recursive_directory_iterator(); ++it) {
      const std::string rel = fs::relative(it->path(), dest_).string();
      if (it->path().filename() == "@eaDir") {
        EXPECT_EQ(rel, "@eaDir");
      } else if (rel.starts_with("@eaDir/")) {
        EXPECT_TRUE(rel == "@eaDir/@tmp" || rel.starts_with("@eaDir/@tmp/Tidepool.")) << rel;
      }
    }
  }

  std::string dest_;
};

// The child is killed after the first, the 100th and the 200th file has
// landed (progress reaches the record only every 250 ms, too coarse to time
// a kill in a restore this short).
TEST_F(RestoreKilledTest, AKilledChildLeavesWholeFilesAndBlocksUntilItsRecordIsStale) {
  const Json::Value many = Browse(alice_, "mine", "/many", kT0);
  const Params params = {{"copy_to", dest_}, {"override", true}};
  for (const uint64_t at : {1u, 100u, 200u}) {
    SCOPED_TRACE("killed at " + std::to_string(at));
    ResetDestination();
    const pid_t stale = ReadProgress().creator;
    const std::vector<ino_t> old_inodes = Inodes();
    auto start = std::async(std::launch::async,
                            [&] { return StartRestore(alice_, "mine", {many}, params); });
    const uint64_t seen = KillWhenReplaced(at, stale, old_inodes);
    const auto answer = start.get();
    ASSERT_TRUE(answer.success()) << answer.body;
    if (HasFailure()) return;
    ExpectOldOrRestored(seen);

    // The silent record holds off a new restore for eleven seconds.
    const Tree before = TreeOf(dest_);
    for (const int age : {0, 8}) {
      if (age != 0) AgeRecord(age);
      const auto refused = StartRestore(alice_, "mine", {many}, params);
      EXPECT_EQ(refused.code(), 406) << "age " << age << ": " << refused.body;
      EXPECT_EQ(refused.message(), "another restore task is processing");
    }
    EXPECT_EQ(TreeOf(dest_), before);
    AgeRecord(11);
  }

  ResetDestination();
  const RestoreRun run = RestoreAndFinish(alice_, "mine", {many}, params);
  ASSERT_TRUE(run.started) << run.start.body;
  EXPECT_TRUE(run.done) << "error " << run.error << ": " << run.last_status;
  std::vector<std::pair<std::string, std::string>> expected = {{"many/", ""}};
  for (int i = 0; i < kManyFiles; ++i) expected.emplace_back(ManyName(i), Version0(i));
  EXPECT_EQ(TreeOf(dest_), Expect(expected));
  EXPECT_FALSE(RecordExists());
}

}  // namespace
