// The whole chain once, as a browser reaches it: lighttpd runs entry.cgi,
// which loads the module.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "sandbox.h"
#include "seed.h"

namespace {

struct HttpAnswer {
  std::string head;
  Json::Value json;
};

// One HTTP/1.0 GET on loopback; the connection closes after the answer.
HttpAnswer HttpGet(int port, const std::string& path, const std::string& cookie = "") {
  HttpAnswer answer;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return answer;
  }
  std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n";
  if (!cookie.empty()) request += "Cookie: " + cookie + "\r\n";
  request += "\r\n";
  if (write(fd, request.data(), request.size()) < 0) ADD_FAILURE() << "write failed";
  std::string raw;
  char buffer[8192];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) raw.append(buffer, n);
  close(fd);
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

class LighttpdSmokeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::SeedDemoSystem();
    port_ = 20000 + static_cast<int>(std::random_device{}() % 20000);
    std::string conf = tptest::ReadFile("/var/packages/Tidepool/target/etc/lighttpd.conf.in");
    ASSERT_FALSE(conf.empty());
    for (auto [key, value] : {std::pair<std::string, std::string>{"@PORT@", std::to_string(port_)},
                              {"@LOGDIR@", "/tmp/lighttpd"}}) {
      for (size_t at; (at = conf.find(key)) != std::string::npos;)
        conf.replace(at, key.size(), value);
    }
    tptest::WriteFile("/tmp/lighttpd/lighttpd.conf", conf);
    // lighttpd opens its error log after giving up root.
    const passwd* www = getpwnam("www-data");
    ASSERT_NE(www, nullptr);
    ASSERT_EQ(chown("/tmp/lighttpd", www->pw_uid, www->pw_gid), 0);
    server_ = fork();
    if (server_ == 0) {
      execl("/usr/sbin/lighttpd", "lighttpd", "-D", "-f", "/tmp/lighttpd/lighttpd.conf", nullptr);
      _exit(127);
    }
    for (int i = 0; i < 200 && HttpGet(port_, "/").head.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
  }
  void TearDown() override {
    if (server_ > 0) {
      kill(server_, SIGTERM);
      waitpid(server_, nullptr, 0);
    }
  }
  int port_ = 0;
  pid_t server_ = -1;
};

TEST_F(LighttpdSmokeTest, LoginAndCheckUserThroughTheWebServer) {
  ASSERT_NE(HttpGet(port_, "/").head.find("200"), std::string::npos) << "lighttpd is not up";
  auto login = HttpGet(
      port_,
      "/webapi/entry.cgi?api=KSTX.API.Auth&method=login&version=1&account=alice&passwd=alice-demo");
  ASSERT_TRUE(login.json["success"].asBool()) << login.head;
  const std::string sid = login.json["data"]["sid"].asString();
  EXPECT_NE(login.head.find("Set-Cookie: id=" + sid), std::string::npos) << login.head;

  auto check = HttpGet(port_, "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1",
                       "id=" + sid);
  EXPECT_TRUE(check.json["success"].asBool());
  EXPECT_NE(check.head.find("application/json"), std::string::npos);

  auto info = HttpGet(port_, "/webapi/entry.cgi?api=KSTX.API.Info&method=query&version=1");
  EXPECT_EQ(info.json["data"]["KSTX.Tidepool.Node.Restore"]["maxVersion"].asInt(), 1);

  auto anonymous =
      HttpGet(port_, "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1");
  EXPECT_EQ(anonymous.json["error"]["code"].asInt(), 105);
}

}  // namespace
