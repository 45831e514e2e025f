// Users' privileges over HTTP. A batch answers at once and its progress
// shows in `status` while it runs: the test serves the control socket
// itself, so it can hold the batch at a chosen user and look. Against the
// real daemon, enabling a user makes their home and view, and disabling
// them stops their versioning. Every refusal leaves everything as it was.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "host-accounts.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace rtest;

namespace {

constexpr const char* kSocket = "/tmp/driftway-syncservice";
constexpr const char* kPrivilege = "KSTX.Tidepool.Privilege";

struct Request {
  std::string op;
  std::string name;
};

// The control socket served in place of the daemon: every request is
// recorded, and answered with success once fewer than the allowed number
// have been answered.
class FakeService {
 public:
  FakeService() {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket);
    unlink(kSocket);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 64), 0);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeService() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
    close(fd_);
    unlink(kSocket);
  }
  // Answers `n` requests in all, then holds the next one.
  void HoldAfter(size_t n) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      limit_ = n;
    }
    changed_.notify_all();
  }
  void Release() { HoldAfter(SIZE_MAX); }
  std::vector<Request> Requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  size_t Received() { return Requests().size(); }

 private:
  void Serve() {
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_) return;
      }
      pollfd ready{fd_, POLLIN, 0};
      if (poll(&ready, 1, 50) <= 0) continue;
      const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      std::string line;
      char c;
      while (read(client, &c, 1) == 1 && c != '\n') line += c;
      Json::Value request;
      Json::Reader().parse(line, request);
      std::unique_lock<std::mutex> lock(mutex_);
      requests_.push_back({request["op"].asString(), request["name"].asString()});
      changed_.wait_for(lock, std::chrono::seconds(60),
                        [&] { return stop_ || answered_ < limit_; });
      ++answered_;
      lock.unlock();
      const std::string answer = "{\"success\":true}\n";
      (void)!write(client, answer.data(), answer.size());
      close(client);
    }
  }

  int fd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Request> requests_;
  size_t answered_ = 0;
  size_t limit_ = SIZE_MAX;
  bool stop_ = false;
};

struct Progress {
  std::string mode;
  int done = -1;
  int total = -1;
  bool operator==(const Progress& o) const {
    return mode == o.mode && done == o.done && total == o.total;
  }
};

std::ostream& operator<<(std::ostream& out, const Progress& p) {
  return out << p.mode << " " << p.done << "/" << p.total;
}

Json::Value UserList(const std::vector<std::pair<std::string, bool>>& users) {
  Json::Value list(Json::arrayValue);
  for (const auto& [name, enable] : users) {
    Json::Value entry(Json::objectValue);
    entry["name"] = name;
    entry["enable"] = enable;
    list.append(entry);
  }
  return list;
}

// [{"name": 5, "enable": true}]
Json::Value NamelessUser() {
  Json::Value entry(Json::objectValue);
  entry["name"] = 5;
  entry["enable"] = true;
  Json::Value list(Json::arrayValue);
  list.append(entry);
  return list;
}

class PrivilegeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    admin_ = LoginAs("admin");
  }

  tptest::WebAnswer Set(const std::string& mode, const Json::Value& users = Json::Value()) {
    tptest::Params params = {{"auth_type", "local"}, {"batch_mode", mode}};
    if (!users.isNull()) params.push_back({"user_list", users});
    return Call(kPrivilege, "set", params, admin_);
  }
  Progress Status() {
    const auto answer = Call(kPrivilege, "status", {}, admin_);
    EXPECT_TRUE(answer.success()) << answer.body;
    const Json::Value& data = answer.json["data"];
    return {data["batch_mode"].asString(), data["progress"].asInt(), data["total"].asInt()};
  }
  bool Idle() { return Status() == Progress{"none", 0, 0}; }
  tptest::WebAnswer List(tptest::Params params) { return Call(kPrivilege, "list", params, admin_); }
  // name -> the listed object, with `additional`.
  std::map<std::string, Json::Value> Listed() {
    const auto answer = List({{"additional", Json::Value(Json::arrayValue)}});
    EXPECT_TRUE(answer.success()) << answer.body;
    std::map<std::string, Json::Value> users;
    for (const Json::Value& user : answer.json["data"]["users"])
      users[user["name"].asString()] = user;
    return users;
  }

  std::string admin_;
};

TEST_F(PrivilegeTest, ABatchReportsItsProgressUntilItIsDone) {
  auto host = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(host);
  for (int i = 0; i < 247; ++i) {
    char name[16];
    snprintf(name, sizeof name, "user%03d", i);
    ASSERT_GT(host->AddUser(name, ""), 0);
  }
  const auto all = List({});
  ASSERT_TRUE(all.success()) << all.body;
  const int total = all.json["data"]["total"].asInt();
  ASSERT_EQ(total, 250) << all.body;
  std::vector<std::string> names;
  for (const Json::Value& user : all.json["data"]["users"]) {
    EXPECT_EQ(user.getMemberNames(), std::vector<std::string>{"name"});
    names.push_back(user["name"].asString());
  }
  EXPECT_TRUE(Idle());

  FakeService service;
  // Held at the 151st user: the last report is the one at 100.
  service.HoldAfter(150);
  ASSERT_TRUE(Set("enable_all").success());
  ASSERT_TRUE(tptest::Eventually([&] { return service.Received() == 151; }));
  EXPECT_EQ(Status(), (Progress{"enable_all", 100, total}));
  service.HoldAfter(220);
  ASSERT_TRUE(tptest::Eventually([&] { return service.Received() == 221; }));
  EXPECT_EQ(Status(), (Progress{"enable_all", 200, total}));
  service.Release();
  ASSERT_TRUE(tptest::Eventually([&] { return Idle(); }));
  // Every user once, in the directory's order; never a report of 250.
  const auto requests = service.Requests();
  ASSERT_EQ(requests.size(), names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(requests[i].op, "enable_user");
    EXPECT_EQ(requests[i].name, names[i]);
  }

  // A list of users, in order, disabling and enabling; an unknown mode is
  // a list. Held at its first user, it shows its start.
  service.HoldAfter(requests.size());
  ASSERT_TRUE(Set("sideways", UserList({{"alice", false}, {"nobody", true}})).success());
  ASSERT_TRUE(tptest::Eventually([&] { return service.Received() == requests.size() + 1; }));
  EXPECT_EQ(Status(), (Progress{"normal", 0, 2}));
  // A second batch meanwhile is not refused: its report is the last one.
  ASSERT_TRUE(Set("disable_all").success());
  EXPECT_EQ(Status(), (Progress{"disable_all", 0, total}));
  service.Release();
  ASSERT_TRUE(tptest::Eventually(
      [&] { return service.Received() == requests.size() + 2 + names.size() && Idle(); }));
  std::map<std::string, int> disabled, enabled;
  for (size_t i = requests.size(); i < service.Received(); ++i) {
    const Request r = service.Requests()[i];
    (r.op == "disable_user" ? disabled : enabled)[r.name]++;
  }
  EXPECT_EQ(disabled["alice"], 2);
  EXPECT_EQ(enabled["nobody"], 1);
  EXPECT_EQ(disabled.size(), names.size());

  // A list without users is an empty batch, done at once.
  const size_t before = service.Received();
  ASSERT_TRUE(Set("normal").success());
  ASSERT_TRUE(tptest::Eventually([&] { return Idle(); }));
  EXPECT_EQ(service.Received(), before);
}

TEST_F(PrivilegeTest, EnablingMakesTheHomeAndDisablingStopsItsVersioning) {
  auto host = hostaccounts::HostAccounts::Open();
  ASSERT_TRUE(host);
  ASSERT_GT(host->AddUser("carol", "carol-demo"), 0);
  std::ofstream("/var/packages/Tidepool/etc/setting.conf", std::ios::app)
      << "watch_quiet_ms=\"300\"\nfreeze_free_mb=\"0\"\n";
  ASSERT_EQ(tptest::RunControl({"service", "--start"}).exit_status, 0);
  const std::string home = "/volume1/homes/carol/Tidepool";

  auto listed = Listed();
  ASSERT_TRUE(listed.count("carol"));
  EXPECT_FALSE(listed["carol"]["enabled"].asBool());
  EXPECT_EQ(listed["carol"]["status"].asString(), "normal");
  EXPECT_TRUE(listed["alice"]["enabled"].asBool());
  EXPECT_FALSE(fs::exists(home));
  // An expired account is listed as disabled, whatever the service says.
  ASSERT_EQ(tptest::RunProcess({"/usr/kstx/bin/kstx-admin", "user", "expire", "bob", "2001-01-01"})
                .exit_status,
            0);
  listed = Listed();
  EXPECT_EQ(listed["bob"]["status"].asString(), "disabled");
  EXPECT_TRUE(listed["bob"]["enabled"].asBool());

  ASSERT_TRUE(Set("normal", UserList({{"carol", true}, {"ghost", true}})).success());
  ASSERT_TRUE(tptest::Eventually([&] { return Idle(); }));
  struct stat st {};
  ASSERT_EQ(stat(home.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, Uid("carol"));
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_TRUE(Listed()["carol"]["enabled"].asBool());
  EXPECT_FALSE(Listed().count("ghost"));

  // Her home is watched at once.
  const std::string carol = LoginAs("carol");
  std::ofstream(home + "/hello.txt") << "hello\n";
  ASSERT_TRUE(tptest::Eventually([&] {
    const auto versions = Call("KSTX.Tidepool.Node", "list_version",
                               {{"target", "mine"}, {"path", "/hello.txt"}}, carol);
    return versions.success() && versions.json["data"]["items"].size() == 1;
  }));

  // Disabled: nothing she writes is versioned any more, and she is refused.
  ASSERT_TRUE(Set("normal", UserList({{"carol", false}})).success());
  ASSERT_TRUE(tptest::Eventually([&] { return Idle(); }));
  std::ofstream(home + "/after.txt") << "too late\n";
  std::ofstream(home + "/hello.txt", std::ios::app) << "more\n";
  usleep(1500 * 1000);
  ASSERT_TRUE(tptest::Eventually([] {
    const std::string out = tptest::RunControl({"service", "--status"}).out;
    return out.find("versioning: none") != std::string::npos;
  }));
  for (const LogSeen& log : Logs(13))
    for (const std::string& arg : log.s) EXPECT_EQ(arg.find("after.txt"), std::string::npos);
  for (const LogSeen& log : Logs(15))
    for (const std::string& arg : log.s) EXPECT_EQ(arg.find("hello.txt"), std::string::npos);
  const auto refused = Call("KSTX.Tidepool.Node", "list", {{"target", "mine"}}, carol);
  EXPECT_EQ(refused.code(), 105) << refused.body;
  EXPECT_FALSE(Listed()["carol"]["enabled"].asBool());
  tptest::RunControl({"service", "--stop"});
}

TEST_F(PrivilegeTest, RefusalsChangeNothing) {
  const std::string alice = LoginAs("alice");
  const Json::Value empty(Json::arrayValue);
  const struct {
    const char* what;
    std::string api, method;
    tptest::Params params;
    std::string sid;
    int code;
  } kCases[] = {
      {"list by a user", kPrivilege, "list", {}, alice, 105},
      {"status by a user", kPrivilege, "status", {}, alice, 105},
      {"set by a user",
       kPrivilege,
       "set",
       {{"auth_type", "local"}, {"batch_mode", "disable_all"}},
       alice,
       105},
      {"set without a mode", kPrivilege, "set", {{"auth_type", "local"}}, admin_, 120},
      {"set with a list that is no array",
       kPrivilege,
       "set",
       {{"auth_type", "local"}, {"batch_mode", "normal"}, {"user_list", "alice"}},
       admin_,
       120},
      {"set with a user that is no name",
       kPrivilege,
       "set",
       {{"auth_type", "local"}, {"batch_mode", "normal"}, {"user_list", NamelessUser()}},
       admin_,
       120},
      {"list of an unknown directory", kPrivilege, "list", {{"auth_type", "nis"}}, admin_, 120},
      {"profiles listed by a user", "KSTX.Tidepool.Profile", "list", {}, alice, 105},
      {"profiles set by a user", "KSTX.Tidepool.Profile", "set", {{"profiles", empty}}, alice, 105},
      {"profiles deleted by a user",
       "KSTX.Tidepool.Profile",
       "delete",
       {{"id", empty}},
       alice,
       105},
      {"profiles that are no list",
       "KSTX.Tidepool.Profile",
       "set",
       {{"profiles", "all"}},
       admin_,
       120},
      {"a profile id that is no number",
       "KSTX.Tidepool.Profile",
       "delete",
       {{"id", Json::Value("1")}},
       admin_,
       120},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    const auto answer = Call(c.api, c.method, c.params, c.sid);
    EXPECT_FALSE(answer.success()) << answer.body;
    EXPECT_EQ(answer.code(), c.code) << answer.body;
  }
  // A writing call by GET, without the request token.
  const auto get = tptest::Get(
      "api=KSTX.Tidepool.Privilege&method=set&version=1&auth_type=local&batch_mode=disable_all",
      admin_);
  EXPECT_EQ(get.json["error"]["code"].asInt(), 105) << get.body;
  EXPECT_TRUE(Idle());
  EXPECT_TRUE(Listed()["alice"]["enabled"].asBool());
  EXPECT_TRUE(Listed()["bob"]["enabled"].asBool());
  // Profiles cannot be written while the service is down: the store may
  // have them, but the service would not apply them.
  const auto down = Call("KSTX.Tidepool.Profile", "set", {{"profiles", empty}}, admin_);
  EXPECT_EQ(down.code(), 401) << down.body;
  EXPECT_EQ(down.message(), "failed to update profiles");
}

}  // namespace
