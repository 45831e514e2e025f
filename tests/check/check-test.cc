// driftway-control check over a repository built by real scans: a home
// with a delta chain, a plain share and an encrypted one. Each fault a
// crash or a bad disk could leave must fail the check with a line naming
// the file; undone, the check passes again.
#include <SQLiteCpp/Database.h>
#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <filesystem>
#include <functional>
#include <map>
#include <sstream>

#include "appliance.h"
#include "check.h"
#include "content.h"
#include "control.h"
#include "db/manager.h"
#include "file-store.h"
#include "process.h"
#include "user-manager.h"

namespace fs = std::filesystem;

namespace {

const std::string kHome = "/volume1/homes/alice/Tidepool";
const std::string kStore = "/volume1/@tidepool/@sync";

using scantest::Control;
using scantest::Scan;

struct Outcome {
  int exit_status = -1;
  std::vector<std::string> problems;  // every line but notes and the summary
  std::string out;
};

Outcome Check(std::vector<std::string> args = {}) {
  args.insert(args.begin(), "check");
  const auto r = Control(args);
  Outcome o{r.exit_status, {}, r.out + r.err};
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("note: ", 0) != 0 && line.rfind("checked ", 0) != 0 &&
        line.find("skipped (locked)") == std::string::npos)
      o.problems.push_back(line);
  return o;
}

// The fault is named: each problem line is about `path`, and there is one.
void ExpectNamed(const Outcome& o, const std::string& path, const std::string& words) {
  EXPECT_EQ(o.exit_status, 1) << o.out;
  ASSERT_FALSE(o.problems.empty()) << o.out;
  for (const std::string& line : o.problems) {
    EXPECT_NE(line.find(": " + path + ": "), std::string::npos) << line;
    EXPECT_NE(line.find(words), std::string::npos) << line;
  }
}

// The hash of every database file, to prove the check wrote none.
std::map<std::string, std::string> Databases() {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator("/volume1/@tidepool")) {
    const std::string p = e.path().string();
    // Readers leave marks in the shared-memory index, and SQLite gives a
    // reader an empty log where there was none: neither holds data.
    if (e.is_regular_file() && p.find(".sqlite") != std::string::npos && !p.ends_with("-shm") &&
        e.file_size() > 0)
      out[p] = tptest::Sha256Hex(tptest::ReadFile(p));
  }
  return out;
}

class CheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::SeedAppliance();
    {
      auto host = hostaccounts::HostAccounts::Open();
      hostaccounts::Share vault;
      vault.name = "Vault";
      vault.volume = "/volume1";
      ASSERT_EQ(host->AddEncryptedShare(vault, "low tide"), 0);
    }
    ASSERT_EQ(Control({"user", "--enable", "alice"}).exit_status, 0);
    for (const char* share : {"Docs", "Vault"})
      ASSERT_EQ(Control({"share", "--enable", share}).exit_status, 0);
    // plan.txt and secret.bin get three versions each: an origin and deltas.
    std::string plan = tptest::RandomBytes(40 << 10, 1);
    std::string secret = tptest::RandomBytes(32 << 10, 2);
    for (uint32_t round = 0; round < 3; ++round) {
      // Each round inserts a few bytes: a new size, so the scan reads it again.
      plan.insert(1000 * (round + 1), "edit" + std::to_string(round));
      secret.insert(2000 * (round + 1), "edit" + std::to_string(round));
      tptest::WriteFile(kHome + "/projects/plan.txt", plan);
      tptest::WriteFile("/volume1/Vault/secret.bin", secret);
      if (round == 0) {
        tptest::WriteFile(kHome + "/notes.txt", "a small note");
        const std::string tag = "bplist00 tide";
        ASSERT_EQ(lsetxattr((kHome + "/notes.txt").c_str(), "user.com.apple.FinderInfo", tag.data(),
                            tag.size(), 0),
                  0);
        tptest::WriteFile("/volume1/Docs/report.bin", tptest::RandomBytes(20 << 10, 3));
      }
      Scan(1700000000 + round * 100);
    }
    ASSERT_GE(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
    ASSERT_GE(db::Manager::Initialize("/volume1/@tidepool", "/volume1/@tidepool", "sqlite"), 0);
  }
  void TearDown() override {
    db::Manager::Destroy();
    UserManager::Destroy();
  }

  static uint64_t ViewOf(const std::string& owner) {
    UserInfo info;
    if (owner == "alice") {
      EXPECT_GT(UserManager::GetUser(owner, info, 0), 0);
    } else {
      EXPECT_GE(UserManager::GetShareUser(owner, info), 0);
    }
    return info.view_id;
  }
  // The file id of the `index`-th version (oldest first) of `path`, or of
  // its Mac attributes.
  static uint64_t FileId(const std::string& owner, const std::string& path, size_t index,
                         bool mac = false) {
    db::ViewDBInterface view;
    EXPECT_GE(db::Manager::GetViewDB(ViewOf(owner), view), 0);
    db::Node node;
    std::vector<db::Version> versions;
    EXPECT_GE(view->QueryNode(path, node, db::ViewManager::kQueryAny), 0);
    EXPECT_GE(view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
    if (index >= versions.size()) return 0;
    return mac ? versions[index].getMacAttributeFileId() : versions[index].getFileId();
  }
  static filestore::FileRow Row(uint64_t file_id) {
    std::unique_ptr<filestore::FileStore> store;
    filestore::FileRow row;
    EXPECT_GE(filestore::FileStore::OpenReadOnly(kStore, store), 0);
    EXPECT_GE(store->GetRow(file_id, row), 0);
    return row;
  }
  static std::string Piece(uint64_t file_id) {
    return filestore::ContentPath(kStore, Row(file_id));
  }
  static std::string OriginPiece(uint64_t file_id) {
    filestore::FileRow row = Row(file_id);
    while (row.base_id != 0) row = Row(row.base_id);
    return filestore::ContentPath(kStore, row);
  }
  static void SetColumn(uint64_t file_id, const std::string& assignment) {
    SQLite::Database files(kStore + "/file-db.sqlite", SQLite::OPEN_READWRITE);
    files.exec("UPDATE file SET " + assignment + " WHERE file_id = " + std::to_string(file_id));
  }
};

// A fault and how to take it back; the check must name `path`.
struct Fault {
  std::string name;
  std::string path;
  std::string words;
  std::function<void()> make;
  std::function<void()> undo;
};

// Saves a piece, then changes it; restoring it undoes the fault.
Fault OnPiece(std::string name, std::string path, std::string words, std::string piece,
              std::function<void(std::string&)> change) {
  auto saved = std::make_shared<std::string>();
  return Fault{name, path, words,
               [=] {
                 *saved = tptest::ReadFile(piece);
                 std::string bytes = *saved;
                 change(bytes);
                 if (bytes == "<removed>") {
                   fs::remove(piece);
                 } else {
                   tptest::WriteFile(piece, bytes);
                 }
               },
               [=] { tptest::WriteFile(piece, *saved); }};
}

TEST_F(CheckTest, FaultsAreNamedAndASoundRepositoryPasses) {
  const auto before = Databases();
  const Outcome sound = Check();
  EXPECT_EQ(sound.exit_status, 0) << sound.out;
  EXPECT_TRUE(sound.problems.empty()) << sound.out;
  // plan.txt 3, secret.bin 3, notes.txt and report.bin 1 each.
  EXPECT_NE(sound.out.find("checked 8 versions of 3 views: 0 problems"), std::string::npos)
      << sound.out;
  EXPECT_EQ(Databases(), before);

  // The same answer in process, with the caller's databases open.
  check::CheckReport report;
  ASSERT_EQ(check::CheckRepository(check::CheckOptions{}, report), 0);
  EXPECT_TRUE(report.ok()) << (report.problems.empty() ? "" : report.problems[0]);
  EXPECT_EQ(report.versions, 8u);

  const uint64_t plan_tip = FileId("alice", "/projects/plan.txt", 2);
  const uint64_t secret_tip = FileId("Vault", "/secret.bin", 2);
  const uint64_t report_id = FileId("Docs", "/report.bin", 0);
  const uint64_t notes_id = FileId("alice", "/notes.txt", 0);
  ASSERT_NE(Row(plan_tip).base_id, 0u) << "the newest plan.txt is a delta";
  ASSERT_NE(Row(secret_tip).base_id, 0u) << "the newest secret.bin is a delta";
  ASSERT_TRUE(Row(secret_tip).encrypted);
  const std::string notes_hash = Row(notes_id).hash;

  const auto flip = [](size_t at) { return [at](std::string& b) { b[at % b.size()] ^= 0x20; }; };
  std::vector<Fault> faults = {
      OnPiece("delta removed", "/projects/plan.txt", "is missing", Piece(plan_tip),
              [](std::string& b) { b = "<removed>"; }),
      OnPiece("origin truncated", "/projects/plan.txt", "", OriginPiece(plan_tip),
              [](std::string& b) { b.resize(b.size() / 2); }),
      OnPiece("Mac attributes removed", "/notes.txt", "Mac attributes: piece",
              Piece(FileId("alice", "/notes.txt", 0, true)),
              [](std::string& b) { b = "<removed>"; }),
      OnPiece("byte flipped", "/report.bin", "does not match its hash", Piece(report_id),
              flip(12345)),
      OnPiece("sealed delta flipped", "/secret.bin", "does not open", Piece(secret_tip), flip(40)),
      OnPiece("sealed origin flipped", "/secret.bin", "does not open", OriginPiece(secret_tip),
              flip(9000)),
      Fault{"row hash altered", "/notes.txt", "does not match its hash",
            [=] { SetColumn(notes_id, "hash = '" + std::string(64, '0') + "'"); },
            [=] { SetColumn(notes_id, "hash = '" + notes_hash + "'"); }},
      Fault{"row released", "/notes.txt", "was released",
            [=] { SetColumn(notes_id, "released = 1"); },
            [=] { SetColumn(notes_id, "released = 0"); }},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    fault.make();
    ExpectNamed(Check(), fault.path, fault.words);
    fault.undo();
    const Outcome again = Check();
    EXPECT_EQ(again.exit_status, 0) << again.out;
  }
}

TEST_F(CheckTest, ViewLimitsTheWorkToOneView) {
  fs::remove(Piece(FileId("alice", "/projects/plan.txt", 2)));
  const std::string docs = std::to_string(ViewOf("Docs"));
  const Outcome only_docs = Check({"--view", docs});
  EXPECT_EQ(only_docs.exit_status, 0) << only_docs.out;
  EXPECT_NE(only_docs.out.find("checked 1 versions of 1 views: 0 problems"), std::string::npos)
      << only_docs.out;
  ExpectNamed(Check({"--view", std::to_string(ViewOf("alice"))}), "/projects/plan.txt",
              "is missing");

  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {"--view", "999"}, {"--view", "x"}, {"--view"}, {"--all"}}) {
    EXPECT_EQ(Check(bad).exit_status, 2) << bad.back();
  }
}

TEST_F(CheckTest, ALockedShareIsSkippedButItsPiecesMustExist) {
  {
    auto host = hostaccounts::HostAccounts::Open();
    ASSERT_EQ(host->LockShare("Vault"), 0);
  }
  // Its content cannot be opened, so a damaged byte goes unseen...
  const std::string origin = OriginPiece(FileId("Vault", "/secret.bin", 0));
  std::string bytes = tptest::ReadFile(origin);
  bytes[100] ^= 1;
  tptest::WriteFile(origin, bytes);
  const Outcome locked = Check();
  EXPECT_EQ(locked.exit_status, 0) << locked.out;
  EXPECT_NE(locked.out.find("(share Vault): skipped (locked)"), std::string::npos) << locked.out;

  // ...but a missing piece does not.
  fs::remove(Piece(FileId("Vault", "/secret.bin", 1)));
  ExpectNamed(Check(), "/secret.bin", "is missing");
}

TEST_F(CheckTest, LeftoversAreNotedButMissingPiecesOfLiveRowsFail) {
  // What a purge in progress may leave: a file no row names, and a row (with
  // its piece) that no version names.
  tptest::WriteFile(kStore + "/repo/ff/999999", "stray");
  const uint64_t notes_id = FileId("alice", "/notes.txt", 0);
  filestore::FileRow copy = Row(notes_id);
  {
    SQLite::Database files(kStore + "/file-db.sqlite", SQLite::OPEN_READWRITE);
    files.exec(
        "INSERT INTO file(base_id, depth, size, stored_size, hash, has_signature) "
        "SELECT base_id, depth, size, stored_size, hash, 0 FROM file WHERE file_id = " +
        std::to_string(notes_id));
    copy.file_id = static_cast<uint64_t>(files.getLastInsertRowid());
  }
  tptest::WriteFile(filestore::ContentPath(kStore, copy), tptest::ReadFile(Piece(notes_id)));
  const Outcome o = Check();
  EXPECT_EQ(o.exit_status, 0) << o.out;
  EXPECT_NE(o.out.find("note: 1 files of the store of /volume1 belong to no file row"),
            std::string::npos)
      << o.out;
  EXPECT_NE(o.out.find("note: 1 file rows of the store of /volume1 are referenced by no version"),
            std::string::npos)
      << o.out;

  // A row that is not released still needs its piece.
  fs::remove(filestore::ContentPath(kStore, copy));
  const Outcome missing = Check();
  EXPECT_EQ(missing.exit_status, 1) << missing.out;
  ASSERT_EQ(missing.problems.size(), 1u) << missing.out;
  EXPECT_NE(missing.problems[0].find("file " + std::to_string(copy.file_id) + ": piece repo/"),
            std::string::npos)
      << missing.problems[0];
  EXPECT_NE(missing.problems[0].find("is missing"), std::string::npos) << missing.problems[0];
}

}  // namespace
