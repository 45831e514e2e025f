#include "office-world.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "content.h"
#include "hlibc.h"
#include "process.h"
#include "sandbox.h"
#include "sync-service.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace otest {

namespace {

constexpr const char* kDir = "/tmp/office-test";
constexpr const char* kIndex = "/usr/kstx/webapi/modules.d/office-test.index";

Json::Value Array(const std::vector<Json::Value>& nodes) {
  Json::Value array(Json::arrayValue);
  for (const auto& node : nodes) array.append(node);
  return array;
}

}  // namespace

std::string Doc(const std::string& body, bool is_protected) {
  return is_protected ? std::string("KSTXOFFICE/1 protected\npassword: ") + kPassword + "\n" + body
                      : "KSTXOFFICE/1\n" + body;
}

const std::vector<Moment>& OfficeHistory() {
  static const std::vector<Moment> kHistory = {
      {kT0,
       {Entry("docs/", "", 0750), Entry("docs/report.tdoc", Doc("report, first\n", false)),
        Entry("docs/secret.tdoc", Doc("secret, first\n", true)), Entry("docs/notes.txt", "notes\n"),
        Entry("docs/SHOUT.TDOC", Doc("shout\n", true)),
        Entry("docs/gone.tdoc", Doc("gone\n", true)), Entry("docs/sub/", "", 0750),
        Entry("docs/sub/deep.tsheet", Doc("deep\n", true))},
       {}},
      {kT1,
       {Entry("docs/report.tdoc", Doc("report, second\n", false)),
        Entry("docs/secret.tdoc", Doc("secret, second\n", true))},
       {"docs/gone.tdoc"}},
  };
  return kHistory;
}

void InstallOfficeModule() {
  fs::create_directories("/usr/kstx/webapi/modules.d");
  const auto indexed =
      tptest::RunProcess({OFFICE_INDEX_TOOL, OFFICE_TEST_MODULE, OFFICE_TEST_MODULE, kIndex});
  ASSERT_EQ(indexed.exit_status, 0) << indexed.err;
  ASSERT_EQ(HLIBCFileSetKeyValue(SyncConfigMgr::kPath, "office_timeout_s", "2"), 0);
  fs::create_directories(kDir);
  fs::permissions(kDir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                            fs::perms::others_read | fs::perms::others_exec);
  ClearCalls();
}

void UninstallOfficeModule() { fs::remove(kIndex); }

void SetOffice(const std::string& outcome, const std::vector<OfficeDoc>& docs) {
  Json::Value fixture(Json::objectValue);
  fixture["outcome"] = outcome;
  fixture["documents"] = Json::objectValue;
  for (const OfficeDoc& doc : docs) {
    Json::Value& entry = fixture["documents"][doc.permanent_id];
    entry["path"] = doc.path;
    entry["versions"] = Json::arrayValue;
    for (const auto& [time, content] : doc.versions) {
      Json::Value version(Json::arrayValue);
      version.append(Json::UInt(time));
      version.append(content);
      entry["versions"].append(version);
    }
  }
  tptest::WriteFile(std::string(kDir) + "/fixture.json", fixture.toStyledString());
  fs::permissions(std::string(kDir) + "/fixture.json",
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read |
                      fs::perms::group_read);
}

std::vector<OfficeDoc> HistoryDocs(const std::string& sid) {
  const std::string docs = kAliceHome + "/docs/";
  auto id = [&](const std::string& path, uint32_t at) {
    return Browse(sid, "mine", path, at)["permanent_id"].asString();
  };
  return {
      {id("/docs/report.tdoc", 0),
       docs + "report.tdoc",
       {{kT0, Doc("report, first\n", false)}, {kT1, Doc("report, second\n", false)}}},
      {id("/docs/secret.tdoc", 0),
       docs + "secret.tdoc",
       {{kT0, Doc("secret, first\n", true)}, {kT1, Doc("secret, second\n", true)}}},
      {id("/docs/gone.tdoc", kT0), docs + "gone.tdoc", {{kT0, Doc("gone\n", true)}}},
      {id("/docs/sub/deep.tsheet", 0), docs + "sub/deep.tsheet", {{kT0, Doc("deep\n", true)}}},
  };
}

std::vector<Json::Value> Calls() {
  std::vector<Json::Value> calls;
  std::ifstream in(std::string(kDir) + "/calls.jsonl");
  std::string line;
  Json::CharReaderBuilder builder;
  while (std::getline(in, line)) {
    Json::Value call;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(line.data(), line.data() + line.size(), &call, &errors)) {
      calls.push_back(call);
    }
  }
  return calls;
}

void ClearCalls() { fs::remove(std::string(kDir) + "/calls.jsonl"); }

DownloadRun Download(const std::string& sid, const std::vector<Json::Value>& nodes, Params extra) {
  constexpr const char* kApi = "KSTX.Tidepool.Node.Download";
  DownloadRun run;
  extra.emplace_back("target", "mine");
  extra.emplace_back("nodes", Array(nodes));
  run.start = Call(kApi, "start", extra, sid);
  if (!run.start.success()) return run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    const auto status = Call(kApi, "status", {}, sid);
    if (!status.success()) {
      run.error = status.code();
      break;
    }
    const Json::Value& data = status.json["data"];
    if (data["current"].asUInt64() >= data["total"].asUInt64()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  run.finish = Call(
      kApi, "finish",
      {{"task_id", run.start.json["data"]["task_id"]}, {"nodes", Array(nodes)}, {"outname", "x"}},
      sid);
  return run;
}

Tree Unzip(const std::string& zip) {
  const std::string out = "/tmp/office-unzip";
  fs::remove_all(out);
  fs::create_directories(out);
  tptest::WriteFile("/tmp/office-answer.zip", zip);
  const auto run =
      tptest::RunProcess({"/usr/bin/unzip", "-q", "/tmp/office-answer.zip", "-d", out});
  EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
  return TreeOf(out);
}

}  // namespace otest
