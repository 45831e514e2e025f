// The whole chain once, as a browser reaches it, by both paths lighttpd may
// take to the module: tidepool-webapi's forked processes, and entry.cgi run
// for each request in a CGI-only setup.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "lighttpd.h"
#include "sandbox.h"
#include "seed.h"

namespace {

struct HttpAnswer {
  std::string head;
  Json::Value json;
};

// One HTTP/1.0 GET; the connection closes after the answer.
HttpAnswer HttpGet(const tptest::Lighttpd& server, const std::string& path,
                   const std::string& cookie = "") {
  HttpAnswer answer;
  std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n";
  if (!cookie.empty()) request += "Cookie: " + cookie + "\r\n";
  request += "\r\n";
  const std::string raw = server.Exchange(request);
  const size_t split = raw.find("\r\n\r\n");
  if (split == std::string::npos) return answer;
  answer.head = raw.substr(0, split);
  const std::string body = raw.substr(split + 4);
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(body.data(), body.data() + body.size(), &answer.json, &errors)) {
    answer.json = Json::Value();
  }
  return answer;
}

class LighttpdSmokeTest : public ::testing::TestWithParam<tptest::WebApiPath> {
 protected:
  void SetUp() override {
    tptest::SeedDemoSystem();
    unlink("/tmp/lighttpd/stream-go");  // the word of an earlier run
    server_ = std::make_unique<tptest::Lighttpd>(GetParam());
    ASSERT_NE(server_->port(), 0) << "lighttpd did not start";
  }
  std::unique_ptr<tptest::Lighttpd> server_;
};

TEST_P(LighttpdSmokeTest, LoginAndCheckUserThroughTheWebServer) {
  ASSERT_NE(HttpGet(*server_, "/").head.find("200"), std::string::npos) << "lighttpd is not up";
  auto login = HttpGet(
      *server_,
      "/webapi/entry.cgi?api=KSTX.API.Auth&method=login&version=1&account=alice&passwd=alice-demo");
  ASSERT_TRUE(login.json["success"].asBool()) << login.head;
  const std::string sid = login.json["data"]["sid"].asString();
  EXPECT_NE(login.head.find("Set-Cookie: id=" + sid), std::string::npos) << login.head;

  auto check = HttpGet(*server_, "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1",
                       "id=" + sid);
  EXPECT_TRUE(check.json["success"].asBool());
  EXPECT_NE(check.head.find("application/json"), std::string::npos);

  auto info = HttpGet(*server_, "/webapi/entry.cgi?api=KSTX.API.Info&method=query&version=1");
  EXPECT_EQ(info.json["data"]["KSTX.Tidepool.Node.Restore"]["maxVersion"].asInt(), 1);

  auto anonymous =
      HttpGet(*server_, "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1");
  EXPECT_EQ(anonymous.json["error"]["code"].asInt(), 105);
}

// A download must leave as the CGI writes it: lighttpd holding the body until
// the CGI ends would delay the first byte of a 1 GiB archive to its end and
// keep the whole of it in lighttpd. The probe writes one line, then waits
// for the test's word before it writes the second, so the first line can only
// arrive early if lighttpd passes it on at once.
TEST_P(LighttpdSmokeTest, CgiBodyReachesTheClientBeforeTheCgiEnds) {
  // The wait is bounded so that a broken server cannot leave the probe behind.
  tptest::WriteFile("/usr/kstx/webapi/stream-probe.cgi", R"(#!/bin/sh
printf 'Content-Type: text/plain\r\n\r\nfirst\n'
i=0
while [ ! -e /tmp/lighttpd/stream-go ] && [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
printf 'second\n'
)");
  ASSERT_EQ(chmod("/usr/kstx/webapi/stream-probe.cgi", 0755), 0);

  const int fd = server_->Connect();
  ASSERT_GE(fd, 0);
  // Only a guard against a hang: a buffering server shows as no first line.
  timeval guard{30, 0};
  ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard), 0);
  const std::string request = "GET /webapi/stream-probe.cgi HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
  ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));

  std::string raw;
  char buffer[4096];
  ssize_t n;
  while (raw.find("\r\n\r\nfirst\n") == std::string::npos &&
         (n = read(fd, buffer, sizeof buffer)) > 0) {
    raw.append(buffer, n);
  }
  EXPECT_NE(raw.find("\r\n\r\nfirst\n"), std::string::npos)
      << "the first line did not come while the CGI was still running: " << raw;
  EXPECT_EQ(raw.find("second"), std::string::npos) << raw;

  tptest::WriteFile("/tmp/lighttpd/stream-go", "");
  while ((n = read(fd, buffer, sizeof buffer)) > 0) raw.append(buffer, n);
  close(fd);
  EXPECT_NE(raw.find("200"), std::string::npos) << raw;
  EXPECT_EQ(raw.substr(raw.find("\r\n\r\n") + 4), "first\nsecond\n");
}

INSTANTIATE_TEST_SUITE_P(Paths, LighttpdSmokeTest,
                         ::testing::Values(tptest::WebApiPath::kForked, tptest::WebApiPath::kCgi),
                         [](const auto& info) {
                           return info.param == tptest::WebApiPath::kForked ? "Forked" : "Cgi";
                         });

}  // namespace
