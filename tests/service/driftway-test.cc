// The sync service as processes: driftway-control starts and stops the
// daemon, and clients talk to it over the control socket.
#include <json/value.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "appliance.h"
#include "driftway-client.h"
#include "driftway-protocol.h"
#include "process.h"
#include "user-manager.h"

namespace {

using tptest::HostUid;
using tptest::OwnerOf;
using tptest::ReadFile;
using tptest::RunProcess;

constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";
constexpr const char* kStatusFile = "/var/packages/Tidepool/etc/enable_status";

tptest::ProcessResult Control(std::vector<std::string> args) {
  args.insert(args.begin(), kControl);
  return RunProcess(args);
}

// A raw connection for what the client library would never send.
class RawConnection {
 public:
  RawConnection() {
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, driftway::kSocketPath);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const timeval timeout{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~RawConnection() { close(fd_); }
  bool connected() const { return connected_; }
  void Send(const std::string& data) {
    ASSERT_EQ(send(fd_, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
  }
  // Everything up to the end of the stream (or the timeout).
  std::string ReadToEnd() {
    std::string all;
    char buffer[4096];
    ssize_t n;
    while ((n = recv(fd_, buffer, sizeof buffer, 0)) > 0) all.append(buffer, n);
    return all;
  }
  std::string ReadLine() {
    std::string line;
    char c;
    while (recv(fd_, &c, 1, 0) == 1 && c != '\n') line.push_back(c);
    return line;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

int ErrorCodeOf(const std::string& line) {
  Json::Value answer;
  if (!driftway::DecodeLine(line, answer)) return -1;
  return answer["success"].asBool() ? 0 : answer["error"]["code"].asInt();
}

struct QueryCase {
  const char* user;
  const char* sudo_user;
  int error;  // 0: answered
  const char* name;
  bool is_admin;
};

class DriftwayTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::SeedAppliance(); }
  void TearDown() override { Control({"service", "--stop"}); }

  static void Start() {
    const auto started = Control({"service", "--start"});
    ASSERT_EQ(started.exit_status, 0) << started.out << started.err;
  }
};

TEST_F(DriftwayTest, StartQueryStop) {
  // A socket left by a daemon that died does not stop a new one.
  {
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, driftway::kSocketPath);
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(stale);
  }
  EXPECT_EQ(Control({"service", "--status"}).exit_status, 3);
  Start();
  EXPECT_EQ(ReadFile(kStatusFile).substr(0, 7), "enabled");
  const auto status = Control({"service", "--status"});
  EXPECT_EQ(status.exit_status, 0);
  EXPECT_NE(status.out.find("enabled"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("running"), std::string::npos) << status.out;
  // Starting twice keeps the one daemon.
  EXPECT_EQ(Control({"service", "--start"}).exit_status, 0);

  Driftway client;
  Json::Value answer;
  ASSERT_EQ(client.QueryStatus(answer), 0) << client.GetLastErrorMessage();
  EXPECT_EQ(answer["status"].asString(), "enabled");
  const int pid = answer["pid"].asInt();
  EXPECT_EQ(std::stoi(ReadFile(driftway::kPidFile)), pid);

  const QueryCase cases[] = {
      {"admin", "alice", 0, "alice", false},
      {"admin", "", 0, "admin", true},
      {"alice", "", 0, "alice", false},
      {"alice", "alice", 0, "alice", false},
      {"alice", "ALICE", 0, "alice", false},
      {"alice", "bob", driftway::kErrPermission, nullptr, false},
      {"alice", "admin", driftway::kErrPermission, nullptr, false},
      {"carol", "", driftway::kErrNotFound, nullptr, false},
      {"admin", "carol", driftway::kErrNotFound, nullptr, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.user) + " as '" + c.sudo_user + "'");
    Driftway query;
    query.SetServer("unix:/tmp/driftway-syncservice", 0);
    query.SetUser(c.user, "", "");
    query.SetSudoUser(c.sudo_user);
    query.SetServerVersion(11061);
    query.SetTimeout(30);
    Driftway::UserInfo info;
    info.name = "untouched";
    const int rc = query.QueryUser(info, true);
    if (c.error == 0) {
      ASSERT_EQ(rc, 0) << query.GetLastErrorMessage();
      EXPECT_EQ(info.name, c.name);
      EXPECT_EQ(info.uid, HostUid(c.name));
      EXPECT_EQ(info.is_admin, c.is_admin);
    } else {
      EXPECT_LT(rc, 0);
      EXPECT_EQ(query.GetLastError(), c.error) << query.GetLastErrorMessage();
      EXPECT_EQ(info.name, "untouched");
    }
  }
  {
    Driftway query;
    query.SetUser("alice", "", "");
    query.SetSudoUser("bob");
    Driftway::UserInfo info;
    ASSERT_LT(query.QueryUser(info, true), 0);
    EXPECT_EQ(query.GetLastErrorMessage(), "permission denied");
  }

  const auto stopped = Control({"service", "--stop"});
  EXPECT_EQ(stopped.exit_status, 0) << stopped.err;
  EXPECT_EQ(ReadFile(kStatusFile).substr(0, 8), "disabled");
  EXPECT_FALSE(std::filesystem::exists(driftway::kSocketPath));
  EXPECT_FALSE(std::filesystem::exists(driftway::kPidFile));
  EXPECT_EQ(kill(pid, 0) == 0 && std::filesystem::exists("/proc/" + std::to_string(pid) + "/exe"),
            false);
  EXPECT_EQ(Control({"service", "--status"}).exit_status, 3);

  // Without the service a client fails with a reason.
  Driftway::UserInfo info;
  EXPECT_LT(client.QueryUser(info, true), 0);
  EXPECT_EQ(client.GetLastError(), driftway::kErrTransport);
  EXPECT_FALSE(client.GetLastErrorMessage().empty());
  EXPECT_EQ(Control({"service", "--stop"}).exit_status, 0) << "stopping twice is fine";
}

TEST_F(DriftwayTest, HostileClients) {
  Start();
  // Garbage gets an error answer and the connection ends.
  for (const std::string garbage : {"not json\n", "[1,2]\n", "{\"op\": 7}\n", "{\"op\":\n"}) {
    SCOPED_TRACE(garbage);
    RawConnection raw;
    ASSERT_TRUE(raw.connected());
    raw.Send(garbage + "{\"op\":\"status\"}\n");
    const std::string all = raw.ReadToEnd();
    EXPECT_EQ(ErrorCodeOf(all.substr(0, all.find('\n'))), driftway::kErrBadRequest) << all;
    EXPECT_EQ(all.find('\n'), all.size() - 1) << "nothing answered after garbage";
  }
  {
    // An unknown op is an error, not a reason to hang up; requests may
    // follow one another on one connection.
    RawConnection raw;
    raw.Send("{\"op\":\"frobnicate\"}\n{\"op\":\"status\"}\n");
    EXPECT_EQ(ErrorCodeOf(raw.ReadLine()), driftway::kErrUnknownOp);
    EXPECT_EQ(ErrorCodeOf(raw.ReadLine()), 0);
  }
  {
    // A line past the size bound.
    RawConnection raw;
    raw.Send(std::string(driftway::kMaxLine + 10, 'x'));
    EXPECT_EQ(ErrorCodeOf(raw.ReadLine()), driftway::kErrBadRequest);
  }
  {
    // Only root and the service account may talk to the daemon.
    const pid_t child = fork();
    if (child == 0) {
      if (setresuid(65534, 65534, 65534) != 0) _exit(10);
      RawConnection raw;
      if (!raw.connected()) _exit(11);
      // The refusal comes unasked, before any request.
      if (ErrorCodeOf(raw.ReadLine()) != driftway::kErrPermission) _exit(12);
      Driftway client;
      Json::Value answer;
      if (client.QueryStatus(answer) == 0) _exit(13);
      _exit(client.GetLastError() == driftway::kErrPermission ? 0 : 14);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  // The daemon survived all of it.
  Driftway client;
  Json::Value answer;
  EXPECT_EQ(client.QueryStatus(answer), 0) << client.GetLastErrorMessage();
}

TEST_F(DriftwayTest, EnablingUsersAndShares) {
  // Without the daemon the tool writes the user database itself.
  auto enabled = Control({"user", "--enable", "alice", "bob"});
  EXPECT_EQ(enabled.exit_status, 0) << enabled.err;
  for (const char* user : {"alice", "bob"}) {
    const std::string home = std::string("/volume1/homes/") + user + "/Tidepool";
    EXPECT_EQ(OwnerOf(home), HostUid(user)) << home;
  }
  const auto unknown = Control({"user", "--enable", "carol"});
  EXPECT_EQ(unknown.exit_status, 1);
  EXPECT_NE(unknown.err.find("carol"), std::string::npos) << unknown.err;
  EXPECT_EQ(Control({"share", "--enable", "Music"}).exit_status, 1);
  EXPECT_EQ(Control({"share", "--enable", "photos"}).exit_status, 0);
  EXPECT_EQ(Control({"user", "--disable", "bob"}).exit_status, 0);
  EXPECT_EQ(Control({"user"}).exit_status, 2);

  // With the daemon running, through the control channel of the module.
  Start();
  EXPECT_EQ(SendUserControl(0, "admin", HostUid("admin"), 32, "fifo", 0), 0);
  EXPECT_LT(SendUserControl(0, "carol", 0, 32, "fifo", 0), 0);
  EXPECT_LT(SendUserControl(0, "alice", HostUid("bob"), 32, "fifo", 0), 0) << "uid mismatch";
  EXPECT_EQ(SendUserControl(1, "Docs", 0, 10, "smart", 30), 0);
  EXPECT_EQ(SendUserControl(4, "Photos", 0, 32, "fifo", 0), 0);
  EXPECT_EQ(SendUserControl(3, "alice", 0, 32, "fifo", 0), 0);
  EXPECT_LT(SendUserControl(2, "alice", 0, 32, "fifo", 0), 0) << "no such operation";

  ASSERT_EQ(UserManager::Initialize("/volume1/@tidepool", "sqlite"), 0);
  UserInfo info;
  EXPECT_EQ(UserManager::GetUser("alice", info, 0), 0) << "disabled";
  EXPECT_EQ(UserManager::GetUser("bob", info, 0), 0) << "disabled";
  ASSERT_EQ(UserManager::GetUser("admin", info, 0), 1);
  EXPECT_TRUE(info.isEnabled());
  EXPECT_EQ(info.root_path, "/volume1/homes/admin/Tidepool");
  EXPECT_EQ(UserManager::GetUser("carol", info, 0), 0);
  ASSERT_EQ(UserManager::GetShareUser("Photos", info), 0);
  EXPECT_TRUE(info.name.empty()) << "disabled";
  std::list<UserInfo> all;
  ASSERT_EQ(UserManager::EnumAllUser(all), 0);
  EXPECT_EQ(all.size(), 5u) << "alice, photos, bob, admin, Docs";
  ASSERT_EQ(UserManager::GetShareUser("Docs", info), 1);
  EXPECT_TRUE(info.isEnabled());
  int count = 0, days = 0;
  std::string policy;
  ASSERT_EQ(UserManager::QueryRotateSettingTable(info.view_id, count, policy, days), 1);
  EXPECT_EQ(count, 10);
  EXPECT_EQ(policy, "smart");
  EXPECT_EQ(days, 30);
  UserManager::Destroy();
}

// A server that answers every request with a forged success, as a local
// user could run at the socket's path while the service is down.
class ImpostorServer {
 public:
  explicit ImpostorServer(uid_t uid) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      if (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0) _exit(10);
      const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      strcpy(address.sun_path, driftway::kSocketPath);
      if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
          listen(listener, 8) != 0 || write(ready[1], "r", 1) != 1) {
        _exit(11);
      }
      const std::string forged =
          "{\"success\":true,\"name\":\"admin\",\"uid\":0,"
          "\"is_admin\":true,\"status\":\"enabled\"}\n";
      for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) continue;
        char buffer[4096];
        [[maybe_unused]] ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        n = send(fd, forged.data(), forged.size(), MSG_NOSIGNAL);
        close(fd);
      }
    }
    close(ready[1]);
    char byte;
    ready_ = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~ImpostorServer() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    unlink(driftway::kSocketPath);
  }
  bool ready() const { return ready_; }

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
};

// Whoever answers at the path must be root or the service account; the
// forged answers of anyone else never reach the caller.
TEST_F(DriftwayTest, ImpostorServersAreRefused) {
  struct Case {
    const char* who;
    uid_t uid;
    bool trusted;
  };
  const passwd* service = getpwnam(driftway::kServiceAccount);
  ASSERT_NE(service, nullptr);
  for (const Case& c :
       {Case{"nobody", 65534, false}, Case{"alice", HostUid("alice"), false}, Case{"root", 0, true},
        Case{"the service account", service->pw_uid, true}}) {
    SCOPED_TRACE(c.who);
    ImpostorServer impostor(c.uid);
    ASSERT_TRUE(impostor.ready());
    Driftway client;
    client.SetUser("alice", "", "");
    client.SetSudoUser("admin");
    Driftway::UserInfo info;
    info.name = "untouched";
    const int rc = client.QueryUser(info, true);
    if (c.trusted) {
      // The forgery is believed here, which shows what the check prevents.
      EXPECT_EQ(rc, 0) << client.GetLastErrorMessage();
      EXPECT_EQ(info.name, "admin");
      continue;
    }
    EXPECT_LT(rc, 0);
    EXPECT_EQ(client.GetLastError(), driftway::kErrUntrustedServer);
    EXPECT_NE(client.GetLastErrorMessage().find("uid " + std::to_string(c.uid)), std::string::npos)
        << client.GetLastErrorMessage();
    EXPECT_EQ(info.name, "untouched");
  }
}

// The daemon replaces a socket someone left at its path, but a link or a
// file there stops it, and the link's target is left as it was.
TEST_F(DriftwayTest, WhatTheDaemonFindsAtItsPath) {
  tptest::WriteFile("/tmp/victim", "keep\n");
  ASSERT_EQ(chmod("/tmp/victim", 0600), 0);
  ASSERT_EQ(symlink("/tmp/victim", driftway::kSocketPath), 0);
  EXPECT_NE(Control({"service", "--start"}).exit_status, 0);
  struct stat st {};
  ASSERT_EQ(lstat("/tmp/victim", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(ReadFile("/tmp/victim"), "keep\n");
  ASSERT_EQ(lstat(driftway::kSocketPath, &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(unlink(driftway::kSocketPath), 0);

  // A socket bound by another user and left behind.
  {
    const pid_t child = fork();
    if (child == 0) {
      if (setresuid(65534, 65534, 65534) != 0) _exit(10);
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      strcpy(address.sun_path, driftway::kSocketPath);
      _exit(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : 11);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  Start();
  ASSERT_EQ(lstat(driftway::kSocketPath, &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  Driftway client;
  Json::Value answer;
  EXPECT_EQ(client.QueryStatus(answer), 0) << client.GetLastErrorMessage();
}

}  // namespace
