// Office documents restored and downloaded over HTTP, with the test office
// package installed (or not): which calls the engine makes for each
// destination, what lands on disk, and what the task reports for each
// outcome of the office package.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "office-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;
using namespace otest;

namespace {

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class OfficeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, OfficeHistory());
    InstallOfficeModule();
    alice_ = LoginAs("alice");
    docs_ = HistoryDocs(alice_);
    SetOffice("success", docs_);
  }

  static std::string Folder(const std::string& path) {
    fs::create_directories(path);
    fs::permissions(path, fs::perms::all);
    return path;
  }

  std::string alice_;
  std::vector<OfficeDoc> docs_;
};

// Each outcome of the office package against what the user sees: a
// restore in place reports the task's code (800 for a password problem),
// a download forgives a password problem by leaving the document out.
TEST_F(OfficeTest, EveryOfficeOutcomeGivesItsTaskCode) {
  struct Row {
    const char* outcome;
    int restore_error;
    int download_error;
    bool exported;
  };
  const Row rows[] = {
      {"success", 0, 0, true},
      {"disabled", 401, 401, false},
      {"password_needed", 800, 0, false},
      {"password_refused", 800, 0, false},
      {"failure", 401, 401, false},
      {"garbage", 401, 401, false},
      {"hang", 401, 401, false},
  };
  const Json::Value report_v1 = BrowseVersion(alice_, "mine", "/docs/report.tdoc", 1);
  const Json::Value notes = Browse(alice_, "mine", "/docs/notes.txt");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.outcome);
    SetOffice(row.outcome, docs_);
    const RestoreRun restore = RestoreAndFinish(alice_, "mine", {report_v1});
    ASSERT_TRUE(restore.started) << restore.start.body;
    EXPECT_EQ(restore.error, row.restore_error) << restore.last_status;
    EXPECT_EQ(restore.done, row.restore_error == 0);

    const DownloadRun download = Download(alice_, {report_v1, notes});
    ASSERT_TRUE(download.start.success()) << download.start.body;
    EXPECT_EQ(download.error, row.download_error);
    if (row.download_error != 0) continue;
    Tree expected = {{"notes.txt", tptest::Sha256Hex("notes\n")}};
    if (row.exported) expected["report.docx"] = tptest::Sha256Hex("EXPORT docx\nreport, first\n");
    EXPECT_EQ(Unzip(download.finish.body), expected);
  }
  // The document went back to its first version the one time the office
  // package said yes.
  EXPECT_EQ(Read(kAliceHome + "/docs/report.tdoc"), Doc("report, first\n", false));
}

// In place, the office package restores the document itself, in the name
// of "admin", with the password (empty for a plain document); a protected
// document without a password from the client is left as it is.
TEST_F(OfficeTest, InPlaceRestoreAsksTheOfficePackageWithThePassword) {
  const Json::Value report_v1 = BrowseVersion(alice_, "mine", "/docs/report.tdoc", 1);
  const Json::Value secret_v1 = BrowseVersion(alice_, "mine", "/docs/secret.tdoc", 1);
  const RestoreRun run = RestoreAndFinish(alice_, "mine", {report_v1, secret_v1});
  ASSERT_TRUE(run.done) << run.error << " " << run.last_status;
  EXPECT_EQ(run.total, 2u);
  EXPECT_EQ(Read(kAliceHome + "/docs/report.tdoc"), Doc("report, first\n", false));
  EXPECT_EQ(Read(kAliceHome + "/docs/secret.tdoc"), Doc("secret, second\n", true));
  std::vector<Json::Value> calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["api"].asString(), "KSTX.Office.Node.Version");
  EXPECT_EQ(calls[0]["method"].asString(), "restore");
  EXPECT_EQ(calls[0]["user"].asString(), "admin");
  const Json::Value& params = calls[0]["params"];
  EXPECT_EQ(params["path"].asString(), "id:" + docs_[0].permanent_id);
  EXPECT_EQ(params["password"], Json::Value(""));
  EXPECT_FALSE(params.isMember("to_parent_folder"));
  EXPECT_EQ(params["version_time"].asUInt(), kT0);
  EXPECT_EQ(params["conflict_action"].asString(), "overwrite");

  // With its password the protected document comes back too; the password
  // reaches the office package and nothing else: not the task record.
  ClearCalls();
  const Json::Value bad = [&] {
    Json::Value entry(Json::objectValue);
    entry["permanent_id"] = Json::UInt64(std::stoull(docs_[1].permanent_id));
    entry["decrypt"] = kPassword;
    return entry;
  }();
  // A numeric id or a password that is not text is refused before anything
  // starts.
  Json::Value good = bad;
  good["permanent_id"] = docs_[1].permanent_id;
  Json::Value not_text = good;
  not_text["decrypt"] = 5;
  for (const Json::Value& entry : {bad, not_text}) {
    Json::Value malformed(Json::arrayValue);
    malformed.append(entry);
    const auto refused = StartRestore(alice_, "mine", {secret_v1}, {{"decrypt", malformed}});
    EXPECT_EQ(refused.code(), 401) << refused.body;
  }
  EXPECT_FALSE(RecordExists());
  const std::string log = Read("/var/packages/Tidepool/var/log/tidepool.log");
  EXPECT_NE(log.find("Malformed decrypt_info"), std::string::npos);
  EXPECT_EQ(log.find(kPassword), std::string::npos);
  Json::Value decrypt(Json::arrayValue);
  decrypt.append(good);
  const tptest::WebAnswer start = StartRestore(alice_, "mine", {secret_v1}, {{"decrypt", decrypt}});
  ASSERT_TRUE(start.success()) << start.body;
  for (int i = 0; i < 100 && Read(kAliceHome + "/docs/secret.tdoc") != Doc("secret, first\n", true);
       ++i) {
    usleep(100000);
  }
  EXPECT_EQ(Read(kAliceHome + "/docs/secret.tdoc"), Doc("secret, first\n", true));
  for (const auto& entry : fs::recursive_directory_iterator("/tmp/tidepool-tasks")) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(Read(entry.path()).find(kPassword), std::string::npos) << entry.path();
    }
  }
  Finish(alice_);
  calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["params"]["password"].asString(), kPassword);
  EXPECT_EQ(calls[0]["user"].asString(), "admin");
}

// A copy into a synced folder is a duplicate made by the office package in
// the caller's name, with no password; a copy anywhere else is an export,
// run as root into a private folder that is gone afterwards, and placed as
// the caller's file in a common format.
TEST_F(OfficeTest, CopiesDuplicateInsideSyncedFoldersAndExportOutside) {
  const Json::Value secret_v1 = BrowseVersion(alice_, "mine", "/docs/secret.tdoc", 1);
  const Json::Value report_v1 = BrowseVersion(alice_, "mine", "/docs/report.tdoc", 1);
  const std::string synced = Folder(kTeam + "/in");
  RestoreRun run = RestoreAndFinish(alice_, "mine", {secret_v1}, {{"copy_to", synced}});
  ASSERT_TRUE(run.done) << run.error << " " << run.last_status;
  EXPECT_EQ(Read(synced + "/secret.tdoc"), Doc("secret, first\n", true));
  std::vector<Json::Value> calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["user"].asString(), "alice");
  EXPECT_EQ(calls[0]["params"]["to_parent_folder"].asString(), "/volumes" + synced);
  EXPECT_FALSE(calls[0]["params"].isMember("password"));

  ClearCalls();
  const std::string outside = Folder("/volume1/drop/out");
  run = RestoreAndFinish(alice_, "mine", {report_v1}, {{"copy_to", outside}});
  ASSERT_TRUE(run.done) << run.error << " " << run.last_status;
  const Seen exported = Look(outside + "/report.docx");
  EXPECT_EQ(exported.sha, tptest::Sha256Hex("EXPORT docx\nreport, first\n"));
  EXPECT_EQ(exported.uid, Uid("alice"));
  EXPECT_FALSE(fs::exists(outside + "/report.tdoc"));
  calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["api"].asString(), "KSTX.Office.Export");
  EXPECT_EQ(calls[0]["user"].asString(), "root");
  const std::string to_path = calls[0]["params"]["to_path"].asString();
  EXPECT_EQ(fs::path(to_path).filename(), "report.docx");
  EXPECT_TRUE(to_path.starts_with("/volume1/@tmp/")) << to_path;
  EXPECT_FALSE(fs::exists(fs::path(to_path).parent_path())) << to_path;

  // Again without overwrite: the export there stays, and nothing is asked.
  ClearCalls();
  run = RestoreAndFinish(alice_, "mine", {report_v1}, {{"copy_to", outside}, {"override", false}});
  ASSERT_TRUE(run.done) << run.error;
  EXPECT_TRUE(Calls().empty());
}

// A removed document cannot go back in place as itself: the office package
// duplicates it into its folder, in the caller's name.
TEST_F(OfficeTest, RemovedDocumentIsDuplicatedBackInItsFolder) {
  const Json::Value gone = BrowseVersion(alice_, "mine", "/docs/gone.tdoc", 0);
  Json::Value decrypt(Json::arrayValue);
  Json::Value entry(Json::objectValue);
  entry["permanent_id"] = docs_[2].permanent_id;
  entry["decrypt"] = kPassword;
  decrypt.append(entry);
  const RestoreRun run = RestoreAndFinish(alice_, "mine", {gone}, {{"decrypt", decrypt}});
  ASSERT_TRUE(run.done) << run.error << " " << run.last_status;
  EXPECT_EQ(Read(kAliceHome + "/docs/gone.tdoc"), Doc("gone\n", true));
  const std::vector<Json::Value> calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0]["user"].asString(), "alice");
  EXPECT_EQ(calls[0]["params"]["to_parent_folder"].asString(), "/volumes" + kAliceHome + "/docs");
}

// A download exports a protected document with its password, and one
// named in upper case is no office document at all.
TEST_F(OfficeTest, DownloadExportsWithThePassword) {
  const Json::Value secret = Browse(alice_, "mine", "/docs/secret.tdoc");
  Json::Value decrypt(Json::arrayValue);
  Json::Value entry(Json::objectValue);
  entry["permanent_id"] = docs_[1].permanent_id;
  entry["decrypt"] = kPassword;
  decrypt.append(entry);
  const DownloadRun one = Download(alice_, {secret}, {{"decrypt", decrypt}});
  ASSERT_EQ(one.error, 0);
  EXPECT_EQ(one.finish.body, "EXPORT docx\nsecret, second\n");
  EXPECT_NE(one.finish.headers.find("x.docx"), std::string::npos) << one.finish.headers;

  // Without it the document is left out of the download.
  const DownloadRun missing = Download(alice_, {Browse(alice_, "mine", "/docs")});
  ASSERT_EQ(missing.error, 0);
  const Tree tree = Unzip(missing.finish.body);
  EXPECT_EQ(tree.count("docs/report.docx"), 1u);
  EXPECT_EQ(tree.count("docs/secret.docx"), 0u);
  EXPECT_EQ(tree.count("docs/sub/deep.xlsx"), 0u);
  EXPECT_EQ(tree.at("docs/SHOUT.TDOC"), tptest::Sha256Hex(Doc("shout\n", true)));
}

// Without the office package, documents are files: their stored bytes come
// back, protected or not, and nothing is skipped.
TEST_F(OfficeTest, WithoutTheOfficePackageDocumentsComeBackAsStored) {
  UninstallOfficeModule();
  const Json::Value report_v1 = BrowseVersion(alice_, "mine", "/docs/report.tdoc", 1);
  const Json::Value secret_v1 = BrowseVersion(alice_, "mine", "/docs/secret.tdoc", 1);
  const RestoreRun run = RestoreAndFinish(alice_, "mine", {report_v1, secret_v1});
  ASSERT_TRUE(run.done) << run.error << " " << run.last_status;
  EXPECT_EQ(Read(kAliceHome + "/docs/report.tdoc"), Doc("report, first\n", false));
  EXPECT_EQ(Read(kAliceHome + "/docs/secret.tdoc"), Doc("secret, first\n", true));

  const DownloadRun download = Download(alice_, {report_v1});
  ASSERT_EQ(download.error, 0);
  EXPECT_EQ(download.finish.body, Doc("report, first\n", false));
  EXPECT_NE(download.finish.headers.find("x.tdoc"), std::string::npos) << download.finish.headers;
  EXPECT_TRUE(Calls().empty());
}

}  // namespace
