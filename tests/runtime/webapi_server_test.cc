// tidepool-webapi behind lighttpd, as a browser reaches it: the same answers
// as entry.cgi, nothing carried from one request to the next, and what a
// crash, a hang, a long download, a client that leaves and a dead parent
// look like from outside.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host-accounts.h"
#include "kstx/webapi.h"
#include "lighttpd.h"
#include "process.h"
#include "sandbox.h"

namespace fs = std::filesystem;

namespace {

struct Reply {
  std::string status;  // "200", "503", ...
  std::string body;
  Json::Value json;  // null unless the body is JSON
};

Reply Parse(const std::string& raw) {
  Reply reply;
  if (raw.size() > 12) reply.status = raw.substr(9, 3);
  const size_t split = raw.find("\r\n\r\n");
  if (split == std::string::npos) return reply;
  reply.body = raw.substr(split + 4);
  if (raw.substr(0, split).find("application/json") != std::string::npos) {
    reply.json = KSTX::WebAPIUtil::ParseJson(reply.body);
  }
  return reply;
}

Reply Fetch(const tptest::Lighttpd& server, const std::string& query,
            const std::string& cookie = "") {
  std::string request = "GET /webapi/entry.cgi?" + query + " HTTP/1.0\r\nHost: 127.0.0.1\r\n";
  if (!cookie.empty()) request += "Cookie: " + cookie + "\r\n";
  return Parse(server.Exchange(request + "\r\n"));
}

// Sends a request and leaves the connection open for the caller.
int Send(const tptest::Lighttpd& server, const std::string& query) {
  const int fd = server.Connect();
  const std::string request =
      "GET /webapi/entry.cgi?" + query + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
  if (fd >= 0 && write(fd, request.data(), request.size()) != ssize_t(request.size())) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads until `enough` says so or the server closes.
std::string ReadUntil(int fd, const std::function<bool(const std::string&)>& enough) {
  std::string raw;
  char buffer[65536];
  for (ssize_t n; !enough(raw) && (n = read(fd, buffer, sizeof buffer)) > 0;) raw.append(buffer, n);
  return raw;
}

// The processes tidepool-webapi has forked: those running requests, and the
// spares waiting for one.
std::vector<std::string> Children(pid_t parent) {
  std::string list = tptest::ReadFile("/proc/" + std::to_string(parent) + "/task/" +
                                      std::to_string(parent) + "/children");
  std::vector<std::string> pids;
  std::istringstream in(list);
  for (std::string pid; in >> pid;) pids.push_back(pid);
  return pids;
}

uid_t ServiceUid() {
  const passwd* pw = getpwnam("tidepool");
  return pw != nullptr ? pw->pw_uid : 0;
}

class WebApiServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tptest::ResetSandboxData();
    fs::remove_all("/tmp/lighttpd");
    auto accounts = hostaccounts::HostAccounts::Open();
    ASSERT_NE(accounts, nullptr);
    ASSERT_GE(accounts->AddUser("alice", "alice-pw"), 0);
    fs::create_directories("/usr/kstx/webapi/modules.d");
    const auto indexed = tptest::RunProcess(
        {INDEX_TOOL, TEST_MODULE, TEST_MODULE, "/usr/kstx/webapi/modules.d/test.index"});
    ASSERT_EQ(indexed.exit_status, 0) << indexed.err;
  }

  static std::string Login(const tptest::Lighttpd& server) {
    const Reply login =
        Fetch(server, "api=KSTX.API.Auth&method=login&version=1&account=alice&passwd=alice-pw");
    return "id=" + login.json["data"]["sid"].asString();
  }
};

TEST_F(WebApiServerTest, BothPathsGiveTheSameAnswers) {
  const std::vector<std::string> queries = {
      "api=KSTX.Test&method=echo&version=2&n=4&text=a%20b",
      "api=KSTX.Test&method=echo&n=%22x%22",
      "api=KSTX.Test&method=throw",
      "api=KSTX.Test&method=crash",
      "api=KSTX.Test&method=crash&after_raw=true",
      "api=KSTX.Test&method=raw",
      "api=KSTX.Test&method=nothing",
      "api=KSTX.API.Info&method=query&version=1",
      "method=echo",
  };
  std::vector<Reply> answers[2];
  Json::Value alice[2];
  for (int i = 0; i < 2; ++i) {
    tptest::Lighttpd server(i == 0 ? tptest::WebApiPath::kCgi : tptest::WebApiPath::kForked);
    ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
    for (const std::string& query : queries) answers[i].push_back(Fetch(server, query));
    alice[i] = Fetch(server, "api=KSTX.Test&method=echo", Login(server)).json["data"];
  }
  for (size_t q = 0; q < queries.size(); ++q) {
    SCOPED_TRACE(queries[q]);
    EXPECT_EQ(answers[1][q].status, answers[0][q].status);
    EXPECT_EQ(answers[1][q].body, answers[0][q].body);
  }
  EXPECT_EQ(alice[1], alice[0]);
  EXPECT_EQ(alice[1]["user"], "alice");
  EXPECT_EQ(alice[1]["euid"].asUInt(), ServiceUid());

  // What the answers are, whichever path gave them.
  EXPECT_EQ(answers[1][0].json["data"]["params"]["text"], "a b");
  for (size_t crash : {2, 3}) {
    EXPECT_EQ(answers[1][crash].json["error"]["code"], 100) << answers[1][crash].body;
    EXPECT_EQ(answers[1][crash].json["error"]["errors"]["message"], "unexpected failure");
  }
  // Once a module's own output has begun, nothing is added to it.
  EXPECT_EQ(answers[1][4].body, "partial");
  EXPECT_EQ(answers[1][5].body, "raw body");
  EXPECT_EQ(answers[1][6].json["error"]["code"], 103);
}

TEST_F(WebApiServerTest, NothingOfARequestReachesTheNext) {
  tptest::Lighttpd server;
  ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
  const std::string cookie = Login(server);
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(Fetch(server, "api=KSTX.Test&method=dirty", cookie).json["data"], true);
    const Json::Value seen = Fetch(server, "api=KSTX.Test&method=hygiene").json["data"];
    EXPECT_EQ(seen["dirty_calls"], 0);
    EXPECT_EQ(seen["open_fds"], Json::Value(Json::arrayValue));
    EXPECT_EQ(seen["umask"].asUInt(), 022u);
    EXPECT_EQ(seen["cwd"], "/");
    EXPECT_EQ(seen["euid"].asUInt(), ServiceUid());
    EXPECT_EQ(seen["env_leaked"], false);
    const Json::Value anonymous = Fetch(server, "api=KSTX.Test&method=echo").json["data"];
    EXPECT_EQ(anonymous["uid"].asUInt(), 4294967295u);
    EXPECT_EQ(anonymous["user"], "");
  }

  // The parent stays root, with nothing open beyond what it was started
  // with, its socket, its signals and its children's word: no file, no
  // database.
  const std::string proc = "/proc/" + std::to_string(server.webapi_pid());
  EXPECT_NE(tptest::ReadFile(proc + "/status").find("Uid:\t0\t0\t0\t0"), std::string::npos);
  for (const auto& fd : fs::directory_iterator(proc + "/fd")) {
    if (std::stoi(fd.path().filename()) <= 2) continue;
    const std::string target = fs::read_symlink(fd.path()).string();
    EXPECT_TRUE(target.rfind("socket:", 0) == 0 || target.rfind("pipe:", 0) == 0 ||
                target == "anon_inode:[signalfd]")
        << fd.path() << " -> " << target;
  }
}

TEST_F(WebApiServerTest, AHungRequestIsEndedAndADownloadIsNot) {
  tptest::Lighttpd server(tptest::WebApiPath::kForked, {"--time-limit", "1", "--spares", "1"});
  ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
  const Reply hung = Fetch(server, "api=KSTX.Test&method=hang");
  EXPECT_EQ(hung.json["error"]["code"], 100) << hung.status << hung.body;

  // One that does not let its own timer end it is killed by the parent.
  const Reply deaf = Fetch(server, "api=KSTX.Test&method=hang&deaf=true");
  EXPECT_FALSE(deaf.json["success"].asBool()) << deaf.body;
  EXPECT_NE(tptest::ReadFile(tptest::kWebApiLog).find("outlived its time limit"),
            std::string::npos);

  // Four seconds of download, well past the limit and the parent's grace.
  const Reply download = Fetch(server, "api=KSTX.Test&method=stream&chunks=4&pause_ms=1000");
  EXPECT_EQ(download.status, "200");
  EXPECT_EQ(download.body.size(), 4u * 65536 + 4);
  EXPECT_EQ(download.body.substr(download.body.size() - 4), "end\n");
  EXPECT_TRUE(tptest::Eventually([&] { return Children(server.webapi_pid()).size() == 1; }));
}

// A download leaves as the module writes it, and a client that goes away
// ends its request's process.
TEST_F(WebApiServerTest, DownloadsStreamAndEndWithTheirClient) {
  tptest::Lighttpd server(tptest::WebApiPath::kForked, {"--spares", "1"});
  ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
  const std::string go = "/tmp/lighttpd/stream-go";
  const auto has_first_block = [](const std::string& raw) {
    const size_t body = raw.find("\r\n\r\n");
    return body != std::string::npos && raw.size() >= body + 4 + 65536;
  };

  int fd = Send(server, "api=KSTX.Test&method=stream&chunks=32&wait_for=" + go);
  ASSERT_GE(fd, 0);
  std::string raw = ReadUntil(fd, has_first_block);
  ASSERT_TRUE(has_first_block(raw)) << "the first block did not come before the module went on";
  EXPECT_EQ(raw.find('b', raw.find("\r\n\r\n")), std::string::npos);
  tptest::WriteFile(go, "");
  raw += ReadUntil(fd, [](const std::string&) { return false; });
  close(fd);
  const Reply whole = Parse(raw);
  EXPECT_EQ(whole.body.size(), 32u * 65536 + 4);
  EXPECT_EQ(whole.body.substr(31 * 65536, 65536), std::string(65536, 'a' + 31 % 26));
  fs::remove(go);

  // 2 GiB the client will never read.
  fd = Send(server, "api=KSTX.Test&method=stream&chunks=32768&wait_for=" + go);
  ASSERT_GE(fd, 0);
  raw = ReadUntil(fd, has_first_block);
  ASSERT_TRUE(has_first_block(raw));
  // The download's process and the spare forked when it took its request.
  EXPECT_TRUE(tptest::Eventually([&] { return Children(server.webapi_pid()).size() == 2; }));
  close(fd);
  tptest::WriteFile(go, "");
  EXPECT_TRUE(tptest::Eventually([&] { return Children(server.webapi_pid()).size() == 1; }));
  EXPECT_EQ(Fetch(server, "api=KSTX.Test&method=echo").json["success"], true);
}

TEST_F(WebApiServerTest, OnlyTheWebServerConnectsAndADeadParentIsA503) {
  tptest::Lighttpd server;
  ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
  const passwd* www = getpwnam("www-data");
  ASSERT_NE(www, nullptr);
  struct stat folder {
  }, socket_stat{};
  ASSERT_EQ(lstat("/tmp/tidepool-webapi", &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0750u);
  EXPECT_EQ(folder.st_uid, 0u);
  EXPECT_EQ(folder.st_gid, www->pw_gid);
  ASSERT_EQ(lstat(tptest::kWebApiSocket, &socket_stat), 0);
  EXPECT_EQ(socket_stat.st_mode & 0777, 0660u);

  // Any other account is turned away by the folder.
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  const pid_t probe = fork();
  if (probe == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) {
      _exit(2);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, tptest::kWebApiSocket);
    _exit(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(probe, &status, 0), probe);
  EXPECT_EQ(WEXITSTATUS(status), 1) << "nobody connected to the socket";

  server.StopWebApi();
  EXPECT_EQ(Fetch(server, "api=KSTX.Test&method=echo").status, "503");
  ASSERT_TRUE(server.RestartWebApi()) << tptest::ReadFile(tptest::kWebApiLog);
  EXPECT_TRUE(tptest::Eventually(
      [&] { return Fetch(server, "api=KSTX.Test&method=echo").json["success"] == true; }));
}

// A restart takes up what is installed now (here: the module's index gone),
// in the same process, and no request in between meets a closed door.
TEST_F(WebApiServerTest, ARestartTakesUpWhatIsInstalledWithoutAGap) {
  tptest::Lighttpd server;
  ASSERT_NE(server.port(), 0) << tptest::ReadFile(tptest::kWebApiLog);
  const pid_t parent = server.webapi_pid();
  EXPECT_EQ(tptest::ReadFile("/tmp/tidepool-webapi/webapi.pid"), std::to_string(parent) + "\n");
  fs::remove("/usr/kstx/webapi/modules.d/test.index");
  EXPECT_EQ(Fetch(server, "api=KSTX.Test&method=echo").json["success"], true);

  std::vector<std::string> statuses;
  std::thread client([&] {
    for (int i = 0; i < 60; ++i)
      statuses.push_back(Fetch(server, "api=KSTX.Test&method=echo").status);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto restarted = tptest::RunProcess(
      {"/var/packages/Tidepool/target/bin/driftway-control", "service", "--restart"});
  EXPECT_NE(restarted.out.find("restarted tidepool-webapi"), std::string::npos) << restarted.err;
  client.join();
  for (const std::string& status : statuses) EXPECT_EQ(status, "200");

  EXPECT_TRUE(tptest::Eventually(
      [&] { return Fetch(server, "api=KSTX.Test&method=echo").json["error"]["code"] == 103; }));
  EXPECT_EQ(kill(parent, 0), 0);
  EXPECT_EQ(tptest::ReadFile("/tmp/tidepool-webapi/webapi.pid"), std::to_string(parent) + "\n");
}

}  // namespace
