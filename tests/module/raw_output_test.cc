// Raw answers of the bridge as a browser receives them: the header block and
// body of a file, the type a file is sent under, the download error forms
// and an archive.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <kstx/webapi.h>
#include <unistd.h>

#include <filesystem>

#include "content.h"
#include "process.h"
#include "sandbox.h"
#include "webapi-bridge.h"

namespace fs = std::filesystem;

namespace {

struct Raw {
  std::string headers;
  std::string body;
  std::string Header(const std::string& name) const {
    const std::string key = "\n" + name + ": ";
    const std::string all = "\n" + headers;
    size_t at = all.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    return all.substr(at, all.find("\r\n", at) - at);
  }
};

// What SetResponse writes to standard output for `response`, as `user`.
Raw Answer(const BridgeResponse& response, const std::string& user = "alice") {
  KSTX::RequestContext ctx;
  ctx.api = "KSTX.Tidepool.Node.Download";
  ctx.method = "finish";
  ctx.version = 1;
  ctx.login_user = user;
  KSTX::APIRequest api_request(ctx);
  KSTX::APIResponse api_response;
  const std::string capture = "/tmp/raw-answer";
  fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  FILE* file = fopen(capture.c_str(), "w");
  dup2(fileno(file), STDOUT_FILENO);
  {
    WebAPIBridge bridge(&api_request, &api_response);
    bridge.SetResponse(response);
    fflush(stdout);
  }
  dup2(saved, STDOUT_FILENO);
  close(saved);
  fclose(file);
  const std::string text = tptest::ReadFile(capture);
  const size_t end = text.find("\r\n\r\n");
  if (end == std::string::npos) return {text, ""};
  return {text.substr(0, end + 2), text.substr(end + 4)};
}

class RawOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    tptest::ResetSandboxData();
    // No job queue: removals happen at once.
    fs::create_directories("/volume1/@tmp/dl");
  }
};

// The type comes from the name: media, PDF and images keep theirs, except
// SVG; HTML, XML and scripts go as plain text; forcing a download always
// sends bytes. The length and the body are the file's.
TEST_F(RawOutputTest, FilesGoOutUnderATypeThatCannotRunInTheBrowser) {
  struct Case {
    const char* name;
    bool force;
    const char* type;
    const char* disposition;
  };
  const Case cases[] = {
      {"page.html", false, "text/plain", "inline"},
      {"page.xhtml", false, "text/plain", "inline"},
      {"data.xml", false, "text/plain", "inline"},
      {"note.txt", false, "text/plain", "inline"},
      {"tool.js", false, "application/octet-stream", "inline"},
      {"logo.svg", false, "application/octet-stream", "inline"},
      {"photo.PNG", false, "image/png", "inline"},
      {"photo.png", true, "application/octet-stream", "attachment"},
      {"paper.pdf", false, "application/pdf", "inline"},
      {"song.mp3", false, "audio/mpeg", "inline"},
      {"film.mp4", false, "video/mp4", "inline"},
      {"archive.zip", false, "application/octet-stream", "inline"},
      {"README", false, "application/octet-stream", "inline"},
  };
  tptest::WriteFile("/volume1/@tmp/dl/file", "<b>bytes</b>\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BridgeResponse response;
    response.SetHeader("X-Extra", "1");
    response.SetFileResponse(c.name, "/volume1/@tmp/dl/file", c.force, false);
    const Raw raw = Answer(response);
    EXPECT_EQ(raw.Header("Content-Type"), c.type);
    EXPECT_EQ(raw.Header("Content-Disposition"), std::string(c.disposition) + "; filename=\"" +
                                                     c.name + "\"; filename*=utf-8''" + c.name);
    EXPECT_EQ(raw.Header("Content-Length"), "13");
    EXPECT_EQ(raw.body, "<b>bytes</b>\n");
    // The handler's own headers come first, then the download's, in order.
    EXPECT_EQ(raw.headers.find("X-Extra: 1\r\nX-Download-Options: noopen\r\nContent-Disposition: "),
              0u)
        << raw.headers;
    EXPECT_NE(raw.headers.find("\r\nAccept-Ranges: none\r\n"), std::string::npos);
  }

  // A name with quotes, a line break and non-ASCII letters cannot break
  // the header: both forms carry it encoded.
  BridgeResponse odd;
  odd.SetFileResponse("a\"b\r\nX: y \xc3\xa9.txt", "/volume1/@tmp/dl/file", true, true);
  const Raw raw = Answer(odd);
  EXPECT_EQ(raw.Header("Content-Disposition"),
            "attachment; filename=\"a%22b%0D%0AX%3A%20y%20%C3%A9.txt\"; "
            "filename*=utf-8''a%22b%0D%0AX%3A%20y%20%C3%A9.txt");
  EXPECT_EQ(raw.Header("X"), "");
  // Marked for removal: gone after the answer, here without a queue.
  EXPECT_FALSE(fs::exists("/volume1/@tmp/dl/file"));
}

// An error on a file or archive answer: a header block with the code and
// no body, or, when asked for, the failure object as plain text. An error
// before the handler chose a download is an ordinary JSON answer.
TEST_F(RawOutputTest, ErrorsOfADownloadComeInTheDownloadForm) {
  BridgeResponse file;
  file.SetType(BridgeResponse::kFile);
  file.SetError(401, "download task is not yet done", 12);
  Raw raw = Answer(file);
  EXPECT_EQ(raw.headers,
            "Cache-control: no-store\r\nX-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE: 401\r\n"
            "Status: 400 Bad Request\r\n");
  EXPECT_EQ(raw.body, "");

  BridgeResponse archive;
  archive.SetArchiveResponse("x.zip", "/volume1/@tmp/dl", "", false);
  archive.SetOutputJsonError(true);
  archive.SetError(117, "no archiver", 3);
  raw = Answer(archive);
  EXPECT_EQ(raw.headers,
            "Cache-control: no-store\r\nContent-Type: text/plain; charset=\"UTF-8\"\r\n"
            "Status: 200 OK\r\n");
  Json::Value failure;
  ASSERT_TRUE(Json::Reader().parse(raw.body, failure)) << raw.body;
  EXPECT_EQ(failure["success"], false);
  EXPECT_EQ(failure["error"]["code"], 117);
  EXPECT_EQ(failure["error"]["errors"]["message"], "no archiver");
  EXPECT_EQ(failure["error"]["errors"]["line"], 3);
  EXPECT_EQ(raw.body.find('\n'), std::string::npos);

  BridgeResponse json;
  json.SetError(403, "no privilege", 9);
  EXPECT_EQ(Answer(json).headers, "");  // the runtime answers it, not the module
}

// An archive is always an attachment of bytes, and holds the folder's
// contents: a real unzip reads it back. The user's codepage comes from the
// web settings when the handler names none.
TEST_F(RawOutputTest, ArchivesHoldTheFolderAndFollowTheUsersCodepage) {
  tptest::WriteFile("/volume1/@tmp/dl/a/one.txt", "one\n");
  tptest::WriteFile("/volume1/@tmp/dl/\xe6\x96\x87.txt", "two\n");
  fs::create_directories("/volume1/@tmp/dl/empty");
  for (const char* settings :
       {"", R"({"KSTX.UIS.App.PersonalSettings.Instance":{"codepage":"big5"}})"}) {
    SCOPED_TRACE(settings);
    if (*settings) tptest::WriteFile("/usr/kstx/etc/usersettings/alice.json", settings);
    BridgeResponse response;
    response.SetArchiveResponse("pack.zip", "/volume1/@tmp/dl", "ignored", false);
    const Raw raw = Answer(response);
    EXPECT_EQ(raw.Header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(raw.Header("Content-Disposition"),
              "attachment; filename=\"pack.zip\"; filename*=utf-8''pack.zip");
    tptest::WriteFile("/tmp/pack.zip", raw.body);
    const auto listing = tptest::RunProcess({"/usr/bin/unzip", "-Z1", "/tmp/pack.zip"});
    EXPECT_EQ(listing.exit_status, 0) << listing.err;
    const bool big5 = *settings != '\0';
    // The name in Big5 is 0xA4 0xE5; in UTF-8 the three bytes above.
    EXPECT_EQ(listing.out.find(big5 ? "\xa4\xe5.txt" : "\xe6\x96\x87.txt") != std::string::npos,
              true)
        << listing.out;
    EXPECT_NE(listing.out.find("a/one.txt"), std::string::npos);
    EXPECT_NE(listing.out.find("empty/"), std::string::npos);
  }
}

}  // namespace
