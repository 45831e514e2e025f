// Decoding of requests: what a module would find in its parameters, or the
// error code the caller would get.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "kstx/request-decoder.h"
#include "sandbox.h"

namespace {

constexpr const char* kTarget = "api=KSTX.Test&method=echo";

Json::Value Parse(const std::string& text) {
  Json::Value v;
  EXPECT_TRUE(KSTX::ParseStrictJson(text, v)) << text;
  return v;
}

std::string Repeat(const std::string& piece, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += piece;
  return out;
}

// "&p0=0&p1=1..." with `n` parameters.
std::string ManyParams(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += "&p" + std::to_string(i) + "=" + std::to_string(i);
  return out;
}

struct DecodeCase {
  const char* name;
  std::string query;
  std::string content_type;
  std::string body;
  int rc;              // 0 or the negated error code
  std::string expect;  // members the parameters must hold, as JSON
  unsigned version = 1;
};

TEST(RequestDecoder, ParametersAndErrors) {
  const std::string deep = Repeat("[", 70) + Repeat("]", 70);
  const DecodeCase cases[] = {
      {"query values that are JSON become JSON",
       std::string(kTarget) + "&a=12&b=hello&c=%22q%22&d=true&e=%5B1%2C2%5D&f=a+b%26c&g=&h", "", "",
       0, R"({"a":12,"b":"hello","c":"q","d":true,"e":[1,2],"f":"a b&c","g":"","h":""})"},
      {"text that only looks numeric stays text", std::string(kTarget) + "&z=0123&y=1e&x=-", "", "",
       0, R"({"z":"0123","y":"1e","x":"-"})"},
      {"explicit version", std::string(kTarget) + "&version=3", "", "", 0, "{}", 3},
      {"urlencoded body replaces the query", std::string(kTarget) + "&a=1",
       "application/x-www-form-urlencoded; charset=UTF-8", "a=2&b=%7B%22k%22%3A1%7D", 0,
       R"({"a":2,"b":{"k":1}})"},
      {"JSON body", "", "application/json",
       R"({"api":"KSTX.Test","method":"echo","version":2,"n":"5","o":{"x":[1]}})", 0,
       R"({"n":"5","o":{"x":[1]}})", 2},
      {"unknown type without a body", kTarget, "text/plain", "", 0, "{}"},
      {"deep nesting in a form value is text", std::string(kTarget) + "&d=" + deep, "", "", 0,
       "{\"d\":\"" + deep + "\"}"},
      {"256 parameters", std::string(kTarget) + ManyParams(254), "", "", 0, R"({"p253":253})"},
      {"name of 256 bytes", std::string(kTarget) + "&" + std::string(256, 'n') + "=1", "", "", 0,
       "{}"},

      {"no api", "method=echo", "", "", -101, ""},
      {"no method", "api=KSTX.Test", "", "", -101, ""},
      {"version not a number", std::string(kTarget) + "&version=x", "", "", -101, ""},
      {"negative version", std::string(kTarget) + "&version=-1", "", "", -101, ""},
      {"broken escape", std::string(kTarget) + "&a=%zz", "", "", -101, ""},
      {"cut escape", std::string(kTarget) + "&a=%4", "", "", -101, ""},
      {"empty name", std::string(kTarget) + "&=1", "", "", -101, ""},
      {"JSON body not an object", kTarget, "application/json", "[1]", -101, ""},
      {"JSON body broken", kTarget, "application/json", "{\"a\":", -101, ""},
      {"JSON body with trailing garbage", kTarget, "application/json", "{} x", -101, ""},
      {"JSON body with comments", kTarget, "application/json", "{/*c*/}", -101, ""},
      {"JSON body nested too deep", kTarget, "application/json", "{\"a\":" + deep + "}", -101, ""},
      {"unknown type with a body", kTarget, "text/plain", "hello", -101, ""},
      {"no type with a body", kTarget, "", "a=1", -101, ""},
      {"257 parameters", std::string(kTarget) + ManyParams(255), "", "", -102, ""},
      {"name of 257 bytes", std::string(kTarget) + "&" + std::string(257, 'n') + "=1", "", "", -102,
       ""},
      {"query over 1 MiB", std::string(kTarget) + "&a=" + std::string(1 << 20, 'x'), "", "", -102,
       ""},
      {"query and body over 1 MiB together", std::string(kTarget) + std::string(600000, '&'),
       "application/x-www-form-urlencoded", std::string(600000, '&'), -102, ""},
  };
  for (const DecodeCase& c : cases) {
    SCOPED_TRACE(c.name);
    KSTX::RequestContext ctx;
    EXPECT_EQ(KSTX::DecodeRequest(c.query, c.content_type, c.body, ctx), c.rc);
    if (c.rc != 0) continue;
    EXPECT_EQ(ctx.api, "KSTX.Test");
    EXPECT_EQ(ctx.method, "echo");
    EXPECT_EQ(ctx.version, c.version);
    EXPECT_FALSE(ctx.is_upload);
    if (ctx.params.isMember("a") && !ctx.params["a"].isString()) {
      EXPECT_TRUE(ctx.form_text["a"].isString());  // the text as sent, for credentials
    }
    const Json::Value expect = Parse(c.expect);
    for (const std::string& key : expect.getMemberNames()) {
      EXPECT_EQ(ctx.params[key], expect[key]) << key;
    }
  }
}

std::string Part(const std::string& headers, const std::string& content) {
  return "--XyZ\r\n" + headers + "\r\n\r\n" + content + "\r\n";
}

size_t UploadsInTmp() {
  size_t n = 0;
  for (const auto& e : std::filesystem::directory_iterator("/tmp")) {
    n += e.path().filename().string().rfind("kstx-upload-", 0) == 0;
  }
  return n;
}

TEST(RequestDecoder, MultipartUpload) {
  const std::string type = "multipart/form-data; boundary=XyZ";
  const std::string content = std::string("key\r\n--Xy\0bytes", 16);
  const std::string body =
      Part("Content-Disposition: form-data; name=\"api\"", "KSTX.Test") +
      Part("Content-Disposition: form-data; name=\"method\"", "echo") +
      Part("Content-Disposition: form-data; name=\"n\"", "7") +
      Part(
          "Content-Disposition: form-data; name=\"upload_key\"; filename=\"keys.7z\"\r\n"
          "Content-Type: application/octet-stream",
          content) +
      "--XyZ--\r\n";
  KSTX::RequestContext ctx;
  ASSERT_EQ(KSTX::DecodeRequest("version=1", type, body, ctx), 0);
  EXPECT_TRUE(ctx.is_upload);
  EXPECT_EQ(ctx.params["n"], 7);
  EXPECT_EQ(ctx.params["upload_key"], "keys.7z");
  EXPECT_EQ(ctx.upload_fields["n"], 7);
  const std::string path = ctx.upload_file_path;
  ASSERT_EQ(path.rfind("/tmp/kstx-upload-", 0), 0u) << path;
  EXPECT_EQ(ctx.params["upload_key_tmp"], path);
  EXPECT_EQ(ctx.params["file_tmp"], path);
  EXPECT_EQ(tptest::ReadFile(path), content);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  KSTX::APIRequest request(ctx);
  KSTX::APIUpload upload(&request);
  Json::Value file, params;
  EXPECT_EQ(upload.GetUploadFile(file), 1);
  EXPECT_EQ(file["file_tmp"], path);
  EXPECT_EQ(upload.GetUploadParam(params), 1);
  EXPECT_EQ(params["postParam"]["n"], 7);
  KSTX::RemoveUploadFile(ctx);
  EXPECT_FALSE(std::filesystem::exists(path));

  // Broken multipart bodies fail and leave no stored file behind.
  const size_t before = UploadsInTmp();
  const std::string file_part =
      Part("Content-Disposition: form-data; name=\"f\"; filename=\"a\"", "data");
  const struct {
    const char* name;
    std::string type;
    std::string body;
    int rc;
  } bad[] = {
      {"no boundary", "multipart/form-data", body, -101},
      {"boundary too long", "multipart/form-data; boundary=" + std::string(71, 'b'), body, -101},
      {"boundary not in the body", "multipart/form-data; boundary=other", body, -101},
      {"no closing delimiter", type,
       Part("Content-Disposition: form-data; name=\"api\"", "x") + file_part + "--XyZ", -101},
      {"second file", type, file_part + file_part + "--XyZ--", -101},
      {"part without a name", type, Part("Content-Disposition: form-data", "x") + "--XyZ--", -101},
      {"part without a disposition", type, Part("Content-Type: text/plain", "x") + "--XyZ--", -101},
      {"unterminated header block", type, "--XyZ\r\nContent-Disposition: form-data", -101},
      {"over 64 MiB", type, std::string((64u << 20) + 1, 'x'), -102},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.name);
    KSTX::RequestContext bad_ctx;
    EXPECT_EQ(KSTX::DecodeRequest(kTarget, c.type, c.body, bad_ctx), c.rc);
    EXPECT_TRUE(bad_ctx.upload_file_path.empty());
  }
  EXPECT_EQ(UploadsInTmp(), before);
}

// Body reading as entry.cgi does it, from a pipe.
int ReadBody(const std::string& sent, const char* length, const std::string& type,
             std::string& body, size_t query_bytes = 0) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  EXPECT_EQ(write(fds[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  close(fds[1]);
  const int rc = KSTX::ReadRequestBody(fds[0], length, type, query_bytes, body);
  close(fds[0]);
  return rc;
}

TEST(RequestDecoder, BodyReading) {
  std::string body;
  EXPECT_EQ(ReadBody("a=1&b=2", "7", "application/x-www-form-urlencoded", body), 0);
  EXPECT_EQ(body, "a=1&b=2");
  EXPECT_EQ(ReadBody("a=1&b=2", "3", "application/x-www-form-urlencoded", body), 0);
  EXPECT_EQ(body, "a=1");
  EXPECT_EQ(ReadBody("", nullptr, "", body), 0);
  EXPECT_EQ(body, "");

  const struct {
    const char* name;
    const char* length;
    std::string type;
    size_t query_bytes;
    int rc;
  } bad[] = {
      {"body shorter than announced", "8", "application/x-www-form-urlencoded", 0, -101},
      {"length with a sign", "+7", "application/json", 0, -101},
      {"length with a space", "7 ", "application/json", 0, -101},
      {"form over 1 MiB", "1048577", "application/x-www-form-urlencoded", 0, -102},
      {"form over 1 MiB with the query", "1048000", "application/json", 1000, -102},
      {"upload over 64 MiB", "67108865", "multipart/form-data; boundary=b", 0, -102},
      {"absurd length", "99999999999999999999999999", "multipart/form-data; boundary=b", 0, -102},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ReadBody("a=1&b=2", c.length, c.type, body, c.query_bytes), c.rc);
  }
}

}  // namespace
