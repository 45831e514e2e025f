// A stand-in for the office package, for tests only (never installed by the
// product): KSTX.Office.Node.Version "restore" and KSTX.Office.Export
// "save" over a simple document format,
//
//   KSTXOFFICE/1[ protected]\n
//   password: TEXT\n          (protected documents only)
//   BODY
//
// Its documents, their versions and the outcome of every call come from
// the fixture /tmp/office-test/fixture.json, which a test writes:
//
//   {"outcome": "success" | "disabled" | "password_needed" |
//               "password_refused" | "failure" | "garbage" | "hang",
//    "documents": {"PERMANENT_ID": {"path": "/volume1/...",
//                                   "versions": [[TIME, CONTENT], ...]}}}
//
// Each call is appended to /tmp/office-test/calls.jsonl (api, method, user,
// params) so that a test sees what the engine asked for. An export writes
// "EXPORT <extension>\n" and the body.
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "kstx/webapi-module.h"
#include "kstx/webapi.h"

namespace {

constexpr const char* kFixture = "/tmp/office-test/fixture.json";
constexpr const char* kCalls = "/tmp/office-test/calls.jsonl";

// The office package works as root; the runner hands it the service
// account's effective ids with root kept as the real one.
struct AsRoot {
  AsRoot() : uid(geteuid()), gid(getegid()) {
    (void)!seteuid(0);
    (void)!setegid(0);
  }
  ~AsRoot() {
    (void)!setegid(gid);
    (void)!seteuid(uid);
  }
  uid_t uid;
  gid_t gid;
};

Json::Value ReadFixture() {
  std::ifstream in(kFixture);
  Json::Value fixture;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!in || !Json::parseFromStream(builder, in, &fixture, &errors)) return Json::objectValue;
  return fixture;
}

void Record(KSTX::APIRequest* request) {
  Json::Value call(Json::objectValue);
  call["api"] = request->GetAPIClass();
  call["method"] = request->GetAPIMethod();
  call["user"] = request->GetLoginUserName();
  call["params"] = request->GetParams();
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  std::ofstream(kCalls, std::ios::app) << Json::writeString(writer, call) << "\n";
}

void Fail(KSTX::APIResponse* response, int code) {
  Json::Value errors(Json::objectValue);
  errors["message"] = "office test module";
  response->SetError(code, errors);
}

struct Document {
  bool is_protected = false;
  std::string password;
  std::string body;
};

Document Parse(const std::string& content) {
  Document doc;
  std::istringstream in(content);
  std::string header;
  std::getline(in, header);
  doc.is_protected = header == "KSTXOFFICE/1 protected";
  if (doc.is_protected) {
    std::string line;
    std::getline(in, line);
    if (line.rfind("password: ", 0) == 0) doc.password = line.substr(10);
  }
  std::ostringstream rest;
  rest << in.rdbuf();
  doc.body = rest.str();
  return doc;
}

// The document's content at `time` (its newest version by then), or its
// newest version without one.
bool ContentAt(const Json::Value& document, const Json::Value& time, std::string& out) {
  const Json::Value& versions = document["versions"];
  bool found = false;
  for (const Json::Value& version : versions) {
    if (time.isIntegral() && version[0].asUInt64() > time.asUInt64()) continue;
    out = version[1].asString();
    found = true;
  }
  return found;
}

// The outcomes that do not depend on the document; false when the call
// is to go on.
bool Switched(const std::string& outcome, KSTX::APIResponse* response) {
  if (outcome == "disabled") return Fail(response, 102), true;
  if (outcome == "password_needed") return Fail(response, 57365), true;
  if (outcome == "password_refused") return Fail(response, 57373), true;
  if (outcome == "failure") return Fail(response, 1200), true;
  if (outcome == "garbage") {
    response->SetEnableOutput(false);
    std::fputs("<html>not an answer</html>\n", stdout);
    return true;
  }
  if (outcome == "hang") {
    for (;;) pause();
  }
  return false;
}

// 0, or the code that refuses the password given.
int CheckPassword(const Document& doc, const Json::Value& params) {
  if (!doc.is_protected) return 0;
  if (!params["password"].isString() || params["password"].asString().empty()) return 57365;
  return params["password"].asString() == doc.password ? 0 : 57373;
}

bool WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  return static_cast<bool>(out);
}

void Restore(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  AsRoot root;
  Record(request);
  const Json::Value fixture = ReadFixture();
  if (Switched(fixture["outcome"].asString(), response)) return;
  const Json::Value& params = request->GetParams();
  const std::string id = params["path"].asString();
  const Json::Value& document = fixture["documents"][id.rfind("id:", 0) == 0 ? id.substr(3) : ""];
  std::string content;
  if (!document.isObject() || !ContentAt(document, params["version_time"], content)) {
    return Fail(response, 1404);
  }
  const std::string place = document["path"].asString();
  std::string dest = place;
  if (params.isMember("to_parent_folder")) {
    // A duplicate is made as it is; no password is asked for.
    dest = params["to_parent_folder"].asString().substr(8) + place.substr(place.rfind('/'));
  } else if (const int refused = CheckPassword(Parse(content), params)) {
    return Fail(response, refused);
  }
  struct stat st {};
  if (lstat(dest.c_str(), &st) == 0 && params["conflict_action"].asString() != "overwrite") {
    return Fail(response, 1409);
  }
  if (!WriteFile(dest, content)) return Fail(response, 1500);
  response->SetSuccess(Json::Value(Json::objectValue));
}

void Save(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  AsRoot root;
  Record(request);
  const Json::Value fixture = ReadFixture();
  if (Switched(fixture["outcome"].asString(), response)) return;
  const Json::Value& params = request->GetParams();
  const std::string id = params["path"].asString();
  const Json::Value& document = fixture["documents"][id.rfind("id:", 0) == 0 ? id.substr(3) : ""];
  std::string content;
  if (!document.isObject() || !ContentAt(document, params["version_time"], content)) {
    return Fail(response, 1404);
  }
  const Document doc = Parse(content);
  if (const int refused = CheckPassword(doc, params)) return Fail(response, refused);
  const std::string to = params["to_path"].asString();
  if (!WriteFile(to, "EXPORT " + to.substr(to.rfind('.') + 1) + "\n" + doc.body)) {
    return Fail(response, 1500);
  }
  response->SetSuccess(Json::Value(Json::objectValue));
}

bool CheckNothing(KSTX::APIRequest*, KSTX::APIResponse*) { return true; }

const KSTXAPITableRow kTable[] = {{"KSTX.Office.Node.Version", 1, "restore", Restore},
                                  {"KSTX.Office.Export", 1, "save", Save},
                                  {nullptr, 0, nullptr, nullptr}};
const KSTXAPICheckTableRow kCheckTable[] = {
    {"KSTX.Office.Node.Version", 1, "restore", CheckNothing, nullptr, nullptr},
    {"KSTX.Office.Export", 1, "save", CheckNothing, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

extern "C" const KSTXAPITableRow* GetAPITable() { return kTable; }
extern "C" const KSTXAPICheckTableRow* GetAPICheckTable() { return kCheckTable; }
