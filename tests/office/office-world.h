// The office package as the tests install it (office-module.cc): its
// documents and the outcome of its calls, what it was asked, and a history
// of office documents in alice's home to restore, download and dry-run.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "restore-world.h"

namespace otest {

// alice's home: "docs/" with report.tdoc (plain, two versions),
// secret.tdoc (protected by kPassword, two versions), notes.txt,
// SHOUT.TDOC (an office header, but not an office name), gone.tdoc
// (protected, removed at kT1) and "docs/sub/deep.tsheet" (protected).
inline constexpr const char* kPassword = "opensesame";
std::string Doc(const std::string& body, bool is_protected);
const std::vector<rtest::Moment>& OfficeHistory();

// Installs the test module in the runtime's module index (or removes it),
// and makes an office call give up after two seconds.
void InstallOfficeModule();
void UninstallOfficeModule();

// One document the office package knows: its place and its versions,
// (time, content) oldest first.
struct OfficeDoc {
  std::string permanent_id;
  std::string path;
  std::vector<std::pair<uint32_t, std::string>> versions;
};
// Writes the fixture: the outcome of every call and the documents.
void SetOffice(const std::string& outcome, const std::vector<OfficeDoc>& docs);
// The documents of OfficeHistory, by the permanent ids alice's list shows.
std::vector<OfficeDoc> HistoryDocs(const std::string& sid);

// The calls the office package received, oldest first: api, method, user,
// params. ClearCalls forgets them.
std::vector<Json::Value> Calls();
void ClearCalls();

// A download from start to finish: the task's error code (0 for none) and
// the finish answer.
struct DownloadRun {
  tptest::WebAnswer start;
  int error = 0;
  tptest::WebAnswer finish;
};
DownloadRun Download(const std::string& sid, const std::vector<Json::Value>& nodes,
                     rtest::Params extra = {});
// The names and contents of a zip answer.
rtest::Tree Unzip(const std::string& zip);

}  // namespace otest
