// Downloading old versions over HTTP as the web front-end does it: browse,
// pick nodes, start, follow status, finish, and look at what arrives.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "content.h"
#include "db/manager.h"
#include "job-queue.h"
#include "job-store.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
namespace jq = tidepool::core::job_queue;
using namespace rtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.Node.Download";
constexpr const char* kRecord = "/tmp/tidepool-tasks/alice/dftw_download_progress.json";

// alice's home: a folder with an empty folder, a file with three versions,
// a name that needs UTF-8 and quoting, a link out of the home, and a file
// deleted at the last moment.
const std::vector<Moment>& History() {
  static const std::vector<Moment> kHistory = {
      {kT0,
       {Entry("docs/", "", 0750), Entry("docs/report.txt", "report, first\n"),
        Entry("docs/empty/", "", 0750), Entry("docs/caf\xc3\xa9 \"menu\".txt", "soup\n"),
        Entry("docs/out", "/etc/hostname").Link(), Entry("docs/gone.txt", "gone soon\n"),
        Entry("other/", "", 0750), Entry("other/report.txt", "another report\n"),
        Entry("page.html", "<script>alert(1)</script>\n")},
       {}},
      {kT1, {Entry("docs/report.txt", "report, second\n")}, {}},
      {kT2, {Entry("docs/report.txt", "report, third\n")}, {"docs/gone.txt"}},
  };
  return kHistory;
}

// One download from start to finish.
struct Download {
  tptest::WebAnswer start;
  tptest::WebAnswer finish;
  int status_error = 0;  // the code status answered with, when the task failed
};

Json::Value Array(const std::vector<Json::Value>& nodes) {
  Json::Value array(Json::arrayValue);
  for (const auto& node : nodes) array.append(node);
  return array;
}

Download RunDownload(const std::string& sid, const std::string& target,
                     const std::vector<Json::Value>& nodes, Params extra = {},
                     const std::string& outname = "x") {
  Download d;
  extra.emplace_back("target", target);
  extra.emplace_back("nodes", Array(nodes));
  d.start = Call(kApi, "start", extra, sid);
  if (!d.start.success()) return d;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    const auto status = Call(kApi, "status", {}, sid);
    if (!status.success()) {
      d.status_error = status.code();
      break;
    }
    const Json::Value& data = status.json["data"];
    if (data["current"].asUInt64() >= data["total"].asUInt64()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  d.finish = Call(
      kApi, "finish",
      {{"task_id", d.start.json["data"]["task_id"]}, {"nodes", Array(nodes)}, {"outname", outname}},
      sid);
  return d;
}

std::string Header(const tptest::WebAnswer& answer, const std::string& name) {
  const std::string key = name + ": ";
  size_t at = answer.headers.find(key);
  if (at == std::string::npos) return "";
  at += key.size();
  const size_t end = answer.headers.find_first_of("\r\n", at);
  return answer.headers.substr(at, end - at);
}

// The tree an archive holds, extracted by `tool` ("unzip" or "7z").
Tree Extract(const std::string& zip, const std::string& tool) {
  const std::string out = "/tmp/extract-" + tool;
  fs::remove_all(out);
  fs::create_directories(out);
  tptest::WriteFile("/tmp/answer.zip", zip);
  const auto run =
      tool == "unzip"
          ? tptest::RunProcess({"/usr/bin/unzip", "-q", "/tmp/answer.zip", "-d", out})
          : tptest::RunProcess({"/usr/bin/7z", "x", "-y", "-o" + out, "/tmp/answer.zip"});
  EXPECT_EQ(run.exit_status, 0) << tool << ": " << run.out << run.err;
  return TreeOf(out);
}

std::set<std::string> DownloadFolders() {
  std::set<std::string> names;
  if (!fs::exists("/volume1/@tmp")) return names;
  for (const auto& entry : fs::directory_iterator("/volume1/@tmp")) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// A record as a download child leaves it, owned by the process `pid`.
void WriteRecord(pid_t pid, bool finished) {
  fs::create_directories("/tmp/tidepool-tasks/alice");
  fs::permissions("/tmp/tidepool-tasks", fs::perms::owner_all);
  fs::permissions("/tmp/tidepool-tasks/alice", fs::perms::owner_all);
  tptest::WriteFile(kRecord, "{\"create_pid\":" + std::to_string(pid) +
                                 ",\"finished\":" + (finished ? "true" : "false") +
                                 ",\"properties\":{\"data\":{\"task_id\":7,\"status\":"
                                 "\"preparing\",\"current\":0,\"total\":1,\"temp_folder\":"
                                 "\"/volume1/@tmp/Tidepool.gone00\"}}}");
}

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    BuildHistory(kAliceHome, History());
    alice_ = LoginAs("alice");
  }
  std::string alice_;
};

// One file arrives as itself, under outname with its own extension; the
// folder it was built in is queued for removal and the record is gone.
TEST_F(DownloadTest, OneFileArrivesAsItselfUnderTheChosenName) {
  const Json::Value first = BrowseVersion(alice_, "mine", "/docs/report.txt", 2);
  const Download d = RunDownload(alice_, "mine", {first}, {}, "x");
  ASSERT_TRUE(d.start.success()) << d.start.body;
  EXPECT_TRUE(d.start.json["data"]["task_id"].isInt()) << d.start.body;
  EXPECT_EQ(d.status_error, 0);
  EXPECT_EQ(d.finish.body, "report, first\n") << d.finish.headers;
  EXPECT_EQ(Header(d.finish, "Content-Disposition"),
            "attachment; filename=\"x.txt\"; filename*=utf-8''x.txt");
  EXPECT_EQ(Header(d.finish, "Content-Type"), "application/octet-stream");
  EXPECT_EQ(Header(d.finish, "X-Download-Options"), "noopen");
  EXPECT_EQ(Header(d.finish, "Content-Length"), "14");
  EXPECT_FALSE(fs::exists(kRecord));

  // The file and its folder wait for the daemon's worker, a minute on.
  const auto removals = QueuedRemovals();
  ASSERT_EQ(removals.size(), 2u);
  EXPECT_TRUE(removals[1].starts_with("/volume1/@tmp/Tidepool.")) << removals[1];
  EXPECT_EQ(removals[0], removals[1] + "/report.txt");
  EXPECT_TRUE(fs::exists(removals[0]));

  // A file without extension keeps a trailing dot; the HTML page is bytes.
  const Json::Value page = Browse(alice_, "mine", "/page.html");
  const Download html = RunDownload(alice_, "mine", {page}, {}, "pa\"ge");
  EXPECT_EQ(html.finish.body, "<script>alert(1)</script>\n");
  EXPECT_EQ(Header(html.finish, "Content-Disposition"),
            "attachment; filename=\"pa%22ge.html\"; filename*=utf-8''pa%22ge.html");
}

// A folder comes as <outname>.zip holding the tree as it stood: empty
// folders kept, names in UTF-8, links as links, removed children only when
// asked for. unzip and 7z agree on every byte.
TEST_F(DownloadTest, AFolderArrivesAsAZipOfTheTreeAsItStood) {
  const Json::Value docs_then = Browse(alice_, "mine", "/docs", kT1);
  const Download d = RunDownload(alice_, "mine", {docs_then}, {}, "pack");
  ASSERT_TRUE(d.start.success()) << d.start.body;
  EXPECT_EQ(Header(d.finish, "Content-Disposition"),
            "attachment; filename=\"pack.zip\"; filename*=utf-8''pack.zip");
  const Tree expected = {
      {"docs", "dir"},
      {"docs/empty", "dir"},
      {"docs/report.txt", tptest::Sha256Hex("report, second\n")},
      {"docs/caf\xc3\xa9 \"menu\".txt", tptest::Sha256Hex("soup\n")},
      {"docs/gone.txt", tptest::Sha256Hex("gone soon\n")},
      {"docs/out", "link -> /etc/hostname"},
  };
  EXPECT_EQ(Extract(d.finish.body, "unzip"), expected);
  // 7z moves absolute link targets below its output folder; the link is
  // still a link.
  Tree by_7z = Extract(d.finish.body, "7z");
  EXPECT_EQ(by_7z["docs/out"], "link -> /tmp/extract-7z/etc/hostname");
  by_7z["docs/out"] = expected.at("docs/out");
  EXPECT_EQ(by_7z, expected);

  // Now the deleted file is gone, unless removed children are asked for.
  const Json::Value docs_now = Browse(alice_, "mine", "/docs");
  Tree now = expected;
  now.erase("docs/gone.txt");
  now["docs/report.txt"] = tptest::Sha256Hex("report, third\n");
  EXPECT_EQ(Extract(RunDownload(alice_, "mine", {docs_now}).finish.body, "unzip"), now);
  now["docs/gone.txt"] = tptest::Sha256Hex("gone soon\n");
  EXPECT_EQ(
      Extract(RunDownload(alice_, "mine", {docs_now}, {{"include_removed", true}}).finish.body,
              "unzip"),
      now);

  // Two selected files of one name both arrive.
  const Json::Value mine = Browse(alice_, "mine", "/docs/report.txt");
  const Json::Value other = Browse(alice_, "mine", "/other/report.txt");
  const Tree both = Extract(RunDownload(alice_, "mine", {mine, other}).finish.body, "7z");
  EXPECT_EQ(both, (Tree{{"report.txt", tptest::Sha256Hex("report, third\n")},
                        {"report (2).txt", tptest::Sha256Hex("another report\n")}}));
}

// Bad input is refused with the answer a client can act on, and leaves no
// record and no folder behind.
TEST_F(DownloadTest, BadInputIsRefusedAndLeavesNothingBehind) {
  const Json::Value report = Browse(alice_, "mine", "/docs/report.txt");
  const auto folders_before = DownloadFolders();

  // finish with no task: the download error form.
  auto finish = Call(kApi, "finish", {{"task_id", 5}, {"nodes", Array({report})}}, alice_);
  EXPECT_EQ(Header(finish, "X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE"), "401") << finish.headers;
  EXPECT_EQ(Header(finish, "Status"), "400 Bad Request");
  EXPECT_TRUE(finish.body.empty());

  // Malformed passwords: 401, and neither folder nor record stays.
  auto start =
      Call(kApi, "start",
           {{"target", "mine"}, {"nodes", Array({report})}, {"decrypt", Array({"x"})}}, alice_);
  EXPECT_EQ(start.code(), 401) << start.body;
  EXPECT_EQ(start.message(), "Decrypt Info format error");
  EXPECT_FALSE(fs::exists(kRecord));
  EXPECT_EQ(DownloadFolders(), folders_before);

  // A node_id that is not the node of its permanent_id: 403.
  Json::Value forged = report;
  forged["node_id"] = Browse(alice_, "mine", "/other/report.txt")["node_id"];
  EXPECT_EQ(Call(kApi, "start", {{"target", "mine"}, {"nodes", Array({forged})}}, alice_).code(),
            403);

  // A wrong task id: 401 "invalid task id", and the task stays for the
  // right one.
  const Download d = RunDownload(alice_, "mine", {report});
  ASSERT_TRUE(d.start.success());
  // (RunDownload has finished it; start another and finish it wrongly.)
  const auto again = Call(kApi, "start", {{"target", "mine"}, {"nodes", Array({report})}}, alice_);
  ASSERT_TRUE(again.success()) << again.body;
  const int id = again.json["data"]["task_id"].asInt();
  tptest::Eventually([&] {
    const auto s = Call(kApi, "status", {}, alice_);
    return s.json["data"]["current"] == s.json["data"]["total"];
  });
  finish = Call(kApi, "finish", {{"task_id", id ^ 1}, {"nodes", Array({report})}}, alice_);
  EXPECT_EQ(Header(finish, "X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE"), "401");
  EXPECT_TRUE(fs::exists(kRecord));
  finish = Call(kApi, "finish", {{"task_id", id}, {"nodes", Array({report})}}, alice_);
  EXPECT_EQ(finish.body, "report, third\n");

  // Another download of the same user still running: 405. One whose
  // worker died is replaced at once.
  WriteRecord(getpid(), false);
  start = Call(kApi, "start", {{"target", "mine"}, {"nodes", Array({report})}}, alice_);
  EXPECT_EQ(start.code(), 405) << start.body;
  EXPECT_EQ(start.message(), "another download task is processing");
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  WriteRecord(dead, false);
  EXPECT_TRUE(RunDownload(alice_, "mine", {report}).start.success());
}

// Nodes the caller may not read are refused as a whole; what a user may
// read of a share comes, and the share's other user sees only her own
// record.
TEST_F(DownloadTest, OnlyWhatTheCallerMayReadLeaves) {
  BuildHistory(kTeam, {{kT2 + 10,
                        {Entry("open.txt", "for all\n", 0644),
                         Entry("private/", "", 0700).Owner("alice", kUsersGid),
                         Entry("private/secret.txt", "alice only\n", 0600)},
                        {}}});
  const std::string bob = LoginAs("bob");
  const std::string admin = LoginAs("admin");
  const Json::Value secret = Browse(admin, "@team", "/private/secret.txt");
  const auto refused = Call(kApi, "start", {{"target", "@team"}, {"nodes", Array({secret})}}, bob);
  EXPECT_EQ(refused.code(), 403) << refused.body;

  const Json::Value open = Browse(admin, "@team", "/open.txt");
  EXPECT_EQ(RunDownload(bob, "@team", {open}).finish.body, "for all\n");
  // bob's status knows nothing of alice's record.
  const Json::Value report = Browse(alice_, "mine", "/docs/report.txt");
  ASSERT_TRUE(
      Call(kApi, "start", {{"target", "mine"}, {"nodes", Array({report})}}, alice_).success());
  EXPECT_EQ(Call(kApi, "status", {}, bob).code(), 401);
}

// Versions of an encrypted share arrive decrypted; a version whose delta
// is missing fails the task with its code, and finish sends no archive.
TEST_F(DownloadTest, EncryptedVersionsArriveDecryptedAndBrokenOnesNotAtAll) {
  const auto run = [](std::vector<std::string> argv) {
    const auto r = tptest::RunProcess(argv);
    ASSERT_EQ(r.exit_status, 0) << argv[1] << ": " << r.out << r.err;
  };
  run({"/usr/kstx/bin/kstx-admin", "share", "add", "vault2", "--volume", "/volume1", "--encrypted",
       "--passphrase", "slack water"});
  run({"/usr/kstx/bin/kstx-admin", "share", "perm", "vault2", "alice", "rw"});
  MakeDir("/volume1/vault2", "alice", 0775);
  run({"/var/packages/Tidepool/target/bin/driftway-control", "share", "--enable", "vault2"});
  if (HasFatalFailure()) return;
  const std::string v0 = tptest::RandomBytes(256 << 10, 31);
  std::string v1 = v0;
  v1.replace(64 << 10, 4096, tptest::RandomBytes(4096, 32));
  BuildHistory("/volume1/vault2", {{kT0, {Entry("a.bin", v0), Entry("b.txt", "plain words\n")}, {}},
                                   {kT1, {Entry("a.bin", v1)}, {}}});
  const std::string admin = LoginAs("admin");
  const Json::Value a_then = BrowseVersion(admin, "@vault2", "/a.bin", 1);
  const Json::Value a_now = BrowseVersion(admin, "@vault2", "/a.bin", 0);
  const Json::Value b = Browse(admin, "@vault2", "/b.txt");
  const Download d = RunDownload(alice_, "@vault2", {a_then, b});
  EXPECT_EQ(Extract(d.finish.body, "unzip"), (Tree{{"a.bin", tptest::Sha256Hex(v0)},
                                                   {"b.txt", tptest::Sha256Hex("plain words\n")}}));
  EXPECT_EQ(RunDownload(alice_, "@vault2", {a_now}).finish.body, v1);

  // The newest version is a delta on the first: without it, nothing.
  db::ViewDBInterface view;
  ASSERT_GE(db::Manager::GetViewDB(ShareViewOf("vault2"), view), 0);
  db::Node node;
  ASSERT_EQ(view->QueryNode("/a.bin", node, db::ViewManager::kQueryAny), 0);
  std::vector<db::Version> versions;
  ASSERT_GE(view->ListVersion(node.getNodeId(), versions, db::ViewManager::kListVersionAll), 0);
  db::FileDBInterface files;
  ASSERT_GE(db::Manager::GetFileDB(versions.back().getFileUuid(), files, false, ""), 0);
  std::string origin;
  std::vector<std::string> patches;
  ASSERT_GE(files->GetPatchFiles(versions.back().getFileId(), origin, patches), 0);
  ASSERT_FALSE(patches.empty());
  ASSERT_TRUE(fs::remove(patches.back()));
  const Download broken = RunDownload(alice_, "@vault2", {b, a_now});
  EXPECT_EQ(broken.status_error, 401);
  EXPECT_EQ(Header(broken.finish, "X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE"), "401")
      << broken.finish.headers;
  EXPECT_TRUE(broken.finish.body.empty());
  EXPECT_FALSE(fs::exists(kRecord));
}

}  // namespace
