// Exporting the activity log as an administrator's browser does: records
// are written straight into the log database, KSTX.Tidepool.Log export is
// called over HTTP, and the file that arrives is read as text and through
// Python's csv reader.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "db/log-manager.h"
#include "job-queue.h"
#include "job-store.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
namespace jq = tidepool::core::job_queue;
using namespace rtest;

namespace {

constexpr uint32_t kShare = db::kShareTypeShare;
constexpr uint32_t kHome = db::kShareTypeLocalHome;

// A record as a writer stores it, at a time of its own.
struct Rec {
  uint32_t type;
  std::vector<std::string> p;
  std::vector<std::string> s;
  std::string owner = "alice";  // the share, or the user of the home
  uint32_t owner_kind = kHome;
  std::string user = "alice";
  uint64_t view_id = 0;
};

void Put(const Rec& r, uint32_t time) {
  db::Log log;
  log.setType(r.type);
  log.setTime(time);
  log.setUserName(r.user);
  log.setShareName(r.owner);
  log.setShareType(r.owner_kind);
  log.setViewId(r.view_id);
  for (const auto& v : r.p) log.pushArg(v, false);
  for (const auto& v : r.s) log.pushArg(v, true);
  ASSERT_EQ(db::LogManager::InsertLog(log), 0);
}

tptest::WebAnswer Export(const std::string& sid, Params params = {{"type", "csv"}}) {
  return Call("KSTX.Tidepool.Log", "export", params, sid);
}

std::string Header(const tptest::WebAnswer& answer, const std::string& name) {
  const std::string key = name + ": ";
  size_t at = answer.headers.find(key);
  if (at == std::string::npos) return "";
  at += key.size();
  return answer.headers.substr(at, answer.headers.find_first_of("\r\n", at) - at);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
    lines.push_back(text.substr(start, nl - start));
  }
  EXPECT_EQ(start, text.size()) << "the file does not end with a line end";
  return lines;
}

// The rows as Python's csv module reads the file.
std::vector<std::vector<std::string>> ReadWithPython(const std::string& csv) {
  tptest::WriteFile("/tmp/export.csv", csv);
  const auto run =
      tptest::RunProcess({"/usr/bin/python3", "-c",
                          "import csv, json, sys\n"
                          "with open(sys.argv[1], newline='', encoding='utf-8') as f:\n"
                          "    print(json.dumps(list(csv.reader(f, strict=True))))\n",
                          "/tmp/export.csv"});
  EXPECT_EQ(run.exit_status, 0) << run.err;
  Json::Value rows;
  EXPECT_TRUE(Json::Reader().parse(run.out, rows)) << run.out;
  std::vector<std::vector<std::string>> out;
  for (const auto& row : rows) {
    out.emplace_back();
    for (const auto& cell : row) out.back().push_back(cell.asString());
  }
  return out;
}

const std::string kHeader =
    R"("Date Time","Operator","Action","Related Path","Related User","Related Share",)"
    R"("Device Name","Additional")";

class LogExportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    ASSERT_GE(db::LogManager::DeleteLog(), 0);
    admin_ = LoginAs("admin");
  }
  std::string admin_;
};

// Each kind of record reads as its action, newest first, with its own
// columns; the hidden kind leaves no line, and an unknown one keeps who,
// when and where.
TEST_F(LogExportTest, EveryRecordReadsAsItsAction) {
  struct Case {
    Rec rec;
    std::string line;  // "" for no line
  };
  const std::vector<Case> cases = {
      {{0, {"1"}, {}, "", kHome, ""}, R"("system","Start service",,"",,,)"},
      {{0, {"0"}, {}, "", kHome, ""}, R"("system","Stop service",,"",,,)"},
      {{1, {"x"}, {"y"}}, ""},
      {{2, {"1"}, {"Team Folder"}, "team", kShare, "admin"},
       R"("admin","Enable share",,,"Team Folder",,)"},
      {{2, {"0"}, {"team"}, "team", kShare, "admin"}, R"("admin","Disable share",,,"team",,)"},
      {{3, {}, {"bob", "bob's phone"}, "bob", kHome, "admin"},
       R"("admin","Client unlink",,"bob",,"bob's phone",)"},
      {{4, {"12", "0"}, {"/docs/a.txt"}},
       R"("alice","Restore version","/homes/alice/Tidepool/docs/a.txt","alice",,,)"},
      {{5, {}, {"/docs/b.txt"}, "team", kShare},
       R"("alice","Delete all versions","/team/docs/b.txt",,"team",,)"},
      {{6, {}, {"*.tmp"}, "team", kShare},
       R"("alice","Delete all versions","/team/",,"team",,"{""filter"":""*.tmp""}")"},
      {{6, {}, {}, "alice", kHome},
       R"("alice","Delete all versions","/homes/alice/Tidepool/","alice",,,)"},
      {{7, {"32"}, {"team"}, "team", kShare, "admin"},
       R"("admin","Rotate version count",,,"team",,"{""count"":""32""}")"},
      {{7, {"8"}, {}, "alice", kHome, "admin"},
       R"("admin","Rotate version count",,"alice",,,"{""count"":""8""}")"},
      {{8, {"/volume1", "/volume2"}, {}, "", kHome, "admin"},
       R"("admin","Database volume location",,"",,,"{""new"":""/volume2"",""old"":""/volume1""}")"},
      {{9, {"1", "5000"}, {}, "", kHome, "admin"},
       R"("admin","Log rotate count enable",,"",,,"{""count"":""5000""}")"},
      {{9, {"0", "5000"}, {}, "", kHome, "admin"}, R"("admin","Log rotate count disable",,"",,,)"},
      {{10, {"1", "86400"}, {}, "", kHome, "admin"},
       R"("admin","Log rotate span enable",,"",,,"{""count"":""86400""}")"},
      {{10, {"0"}, {}, "", kHome, "admin"}, R"("admin","Log rotate span disable",,"",,,)"},
      {{11, {}, {}, "", kHome, "admin"}, R"("admin","Log delete",,"",,,)"},
      {{12, {}, {"laptop"}}, R"("alice","Client link",,"alice",,"laptop",)"},
      {{13, {"5", "0"}, {"/n.txt", "laptop"}},
       R"("alice","Add","/homes/alice/Tidepool/n.txt","alice",,"laptop",)"},
      {{14, {"5", "0"}, {"/n.txt", "laptop"}, "team", kShare},
       R"("alice","Remove","/team/n.txt",,"team","laptop",)"},
      {{15, {"5", "0"}, {"/n.txt", "laptop"}},
       R"("alice","Modify","/homes/alice/Tidepool/n.txt","alice",,"laptop",)"},
      {{16, {"5", "0"}, {"/n.txt"}},
       R"("alice","Version rotate","/homes/alice/Tidepool/n.txt","alice",,,)"},
      {{17, {"6", "0", "6"}, {"/a/c", "/a/b", "laptop"}},
       R"("alice","Rename","/homes/alice/Tidepool/a/b","alice",,"laptop",)"
       R"("{""new_name"":""c"",""old_name"":""b""}")"},
      {{17, {"6", "0", "6"}, {"/c/b", "/a/b", "laptop"}, "team", kShare},
       R"("alice","Move","/team/a/b",,"team","laptop","{""move_to"":""/team/c""}")"},
      {{18, {"7", "0", "6"}, {"/copy/b", "/a/b", "laptop"}},
       R"("alice","Copy","/homes/alice/Tidepool/a/b","alice",,"laptop",)"
       R"("{""copy_to"":""/homes/alice/Tidepool/copy/b""}")"},
      {{19, {"7", "0", "6"}, {"/old/b", "/a/b", "web"}, "team", kShare},
       R"("alice","Restore copy","/team/a/b",,"team","web","{""restore_to"":""/team/old/b""}")"},
      {{20, {"5", "0"}, {"/#recycle/x"}},
       R"("alice","Delete from recycle bin","/homes/alice/Tidepool/#recycle/x","alice",,,)"},
      {{21, {"5", "0"}, {"/x"}, "team", kShare},
       R"("alice","Restore from recycle bin","/team/x",,"team",,)"},
      {{22, {}, {}, "", kHome, "admin"}, R"("admin","Export logs",,"",,,)"},
      {{99, {"1"}, {"/x"}, "team", kShare}, R"("alice",,,,"team",,)"},
  };
  // One second apart from 2024-01-31T10:00:00Z, the first case the oldest.
  constexpr uint32_t kStart = 1706695200;
  for (size_t i = 0; i < cases.size(); ++i) Put(cases[i].rec, kStart + static_cast<uint32_t>(i));

  const auto answer = Export(admin_);
  ASSERT_EQ(Header(answer, "X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE"), "") << answer.headers;
  EXPECT_EQ(Header(answer, "Content-Disposition"),
            "attachment; filename=\"export.csv\"; filename*=utf-8''export.csv");
  EXPECT_EQ(Header(answer, "Content-Type"), "application/octet-stream");

  std::vector<std::string> expected = {kHeader};
  for (size_t i = cases.size(); i-- > 0;) {
    if (cases[i].line.empty()) continue;
    char when[64];
    snprintf(when, sizeof when, "\"2024-01-31T10:%02zu:%02zuZ\",", i / 60, i % 60);
    expected.push_back(when + cases[i].line);
  }
  EXPECT_EQ(Lines(answer.body), expected);
}

// Names with quotes, commas, line breaks and non-ASCII letters come back
// unchanged through a CSV reader, every row with eight fields, and the
// JSON of "Additional" keeps its line breaks escaped.
TEST_F(LogExportTest, HostileNamesSurviveACsvReader) {
  const std::string odd = "say \"hi\", then\nleave, caf\xc3\xa9";
  const std::string path = "/" + odd + "/\"q\".txt";
  Put({13, {"5", "0"}, {path, "dev,ice \"1\""}, "te\"am", kShare, "a,b"}, 1706695200);
  Put({6, {}, {"line one\nline \"two\""}, "alice", kHome, ""}, 1706695201);
  Put({3, {}, {"user\r\nname", ""}, "alice", kHome, "admin"}, 1706695202);

  const auto answer = Export(admin_);
  const auto rows = ReadWithPython(answer.body);
  ASSERT_EQ(rows.size(), 4u) << answer.body;
  for (const auto& row : rows) EXPECT_EQ(row.size(), 8u);
  using Row = std::vector<std::string>;
  EXPECT_EQ(rows[1], (Row{"2024-01-31T10:00:02Z", "admin", "Client unlink", "", "user\r\nname", "",
                          "", ""}));
  EXPECT_EQ(rows[2], (Row{"2024-01-31T10:00:01Z", "system", "Delete all versions",
                          "/homes/alice/Tidepool/", "alice", "", "", rows[2][7]}));
  EXPECT_EQ(rows[3], (Row{"2024-01-31T10:00:00Z", "a,b", "Add", "/te\"am" + path, "", "te\"am",
                          "dev,ice \"1\"", ""}));

  // The filter text, line breaks and all, is inside one JSON line.
  EXPECT_EQ(rows[2][7].find('\n'), std::string::npos) << rows[2][7];
  Json::Value extra;
  ASSERT_TRUE(Json::Reader().parse(rows[2][7], extra)) << rows[2][7];
  EXPECT_EQ(extra["filter"].asString(), "line one\nline \"two\"");
}

// The export leaves one record of its own, in the caller's name, which the
// next export shows; the file and its private folder are queued for
// removal. Bad requests answer as a failed download and log nothing.
TEST_F(LogExportTest, ExportIsLoggedAndFailuresAnswerAsDownloads) {
  Put({11, {}, {}, "", kHome, "admin"}, 1706695200);
  const auto first = Export(admin_);
  ASSERT_EQ(Lines(first.body).size(), 2u) << first.headers << first.body;
  const auto logged = Logs(22);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0].user, "admin");
  EXPECT_EQ(logged[0].uid, Uid("admin"));

  const auto second = Lines(Export(admin_).body);
  ASSERT_EQ(second.size(), 3u);
  EXPECT_NE(second[1].find(R"("admin","Export logs",,)"), std::string::npos) << second[1];

  const auto removals = QueuedRemovals();
  ASSERT_GE(removals.size(), 2u);
  const fs::path file = removals[0], folder = removals[1];
  EXPECT_EQ(file, folder / "export.csv");
  EXPECT_TRUE(folder.string().starts_with("/volume1/@tmp/Tidepool.")) << folder;
  struct stat st {};
  ASSERT_EQ(lstat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_mode & 07777, 0700u);

  // A share's records alone, for the bare share name.
  Put({13, {"5", "0"}, {"/t.txt", "pc"}, "team", kShare, "alice", ShareViewOf("team")}, 1706695300);
  const auto team = Lines(Export(admin_, {{"type", "csv"}, {"target", "team"}}).body);
  ASSERT_EQ(team.size(), 2u);
  EXPECT_NE(team[1].find("/team/t.txt"), std::string::npos) << team[1];

  const size_t exports = Logs(22).size();
  for (const Params& bad : {Params{{"type", "xls"}}, Params{{"type", "csv"}, {"target", "nope"}}}) {
    const auto answer = Export(admin_, bad);
    EXPECT_EQ(Header(answer, "X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE"), "401") << answer.headers;
    EXPECT_EQ(Header(answer, "Status"), "400 Bad Request");
    EXPECT_EQ(answer.body, "");
  }
  // Only administrators export.
  EXPECT_EQ(Export(LoginAs("alice")).code(), 105);
  EXPECT_EQ(Logs(22).size(), exports);
}

// An empty log gives the header line alone.
TEST_F(LogExportTest, EmptyLogGivesTheHeaderAlone) {
  EXPECT_EQ(Export(admin_).body, kHeader + "\n");
}

}  // namespace
