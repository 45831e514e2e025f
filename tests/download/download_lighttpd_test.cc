// Downloads through lighttpd, as a browser gets them: the whole answer of a
// finish, and a client that goes away in the middle of a big archive.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "job-queue.h"
#include "job-store.h"
#include "lighttpd.h"
#include "process.h"
#include "restore-world.h"
#include "sandbox.h"
#include "url-encode.h"

namespace fs = std::filesystem;
namespace jq = tidepool::core::job_queue;
using namespace rtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.Node.Download";

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

// The finish of a download as a browser posts it through lighttpd.
std::string FinishRequest(const tptest::Session& session, int task_id, const Json::Value& nodes) {
  const std::string body = "api=" + std::string(kApi) +
                           "&method=finish&version=1&task_id=" + std::to_string(task_id) +
                           "&nodes=" + UrlEncode(Compact(nodes)) + "&outname=%22pack%22";
  return "POST /webapi/entry.cgi HTTP/1.0\r\nHost: 127.0.0.1\r\nCookie: id=" + session.sid +
         "\r\nX-Tidepool-Token: " + session.token +
         "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Starts a download of `nodes` and waits until its child marked it done.
int StartAndWait(const std::string& sid, const Json::Value& nodes) {
  const auto start = Call(kApi, "start", {{"target", "mine"}, {"nodes", nodes}}, sid);
  EXPECT_TRUE(start.success()) << start.body;
  EXPECT_TRUE(tptest::Eventually([] {
    Json::Value record;
    std::ifstream in("/tmp/tidepool-tasks/alice/dftw_download_progress.json");
    return Json::Reader().parse(in, record) && record["finished"].asBool();
  }));
  return start.json["data"]["task_id"].asInt();
}

// The CGIs of this test's own sandbox: other tests on the machine run theirs
// in mount namespaces of their own.
std::vector<pid_t> RunningCgis() {
  std::vector<pid_t> pids;
  std::error_code error;
  const auto own_namespace = fs::read_symlink("/proc/self/ns/mnt", error);
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream comm(entry.path() / "comm");
    std::string command;
    if (!(comm >> command) || command != "entry.cgi") continue;
    if (fs::read_symlink(entry.path() / "ns" / "mnt", error) != own_namespace) continue;
    pids.push_back(std::stoi(name));
  }
  return pids;
}

class DownloadLighttpdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedRestoreWorld();
    // 48 MiB in 12 files: more than lighttpd, the pipe and the socket hold.
    std::vector<Entry> files = {Entry("big/", "", 0750)};
    for (int i = 0; i < 12; ++i) {
      files.emplace_back("big/part-" + std::to_string(i), tptest::RandomBytes(4 << 20, 40 + i));
    }
    BuildHistory(kAliceHome, {{kT0, files, {}}});
    session_ = tptest::LoginWithToken("alice", "alice-demo");
    ASSERT_FALSE(session_.sid.empty());
    nodes_.append(Browse(session_.sid, "mine", "/big"));
    ASSERT_NE(server_.port(), 0) << "lighttpd did not start";
  }

  tptest::Lighttpd server_;
  tptest::Session session_;
  Json::Value nodes_{Json::arrayValue};
};

TEST_F(DownloadLighttpdTest, TheArchiveArrivesWholeThroughTheWebServer) {
  const int task_id = StartAndWait(session_.sid, nodes_);
  const std::string raw = server_.Exchange(FinishRequest(session_, task_id, nodes_));
  const size_t split = raw.find("\r\n\r\n");
  ASSERT_NE(split, std::string::npos) << raw.substr(0, 400);
  const std::string head = raw.substr(0, split);
  EXPECT_NE(head.find("HTTP/1.0 200"), std::string::npos) << head;
  EXPECT_NE(head.find("Content-Disposition: attachment; filename=\"pack.zip\""), std::string::npos)
      << head;
  tptest::WriteFile("/tmp/pack.zip", raw.substr(split + 4));
  const auto test = tptest::RunProcess({"/usr/bin/unzip", "-tq", "/tmp/pack.zip"});
  EXPECT_EQ(test.exit_status, 0) << test.out << test.err;
  fs::create_directories("/tmp/pack");
  ASSERT_EQ(
      tptest::RunProcess({"/usr/bin/unzip", "-q", "/tmp/pack.zip", "-d", "/tmp/pack"}).exit_status,
      0);
  for (int i = 0; i < 12; ++i) {
    const std::string name = "big/part-" + std::to_string(i);
    EXPECT_EQ(tptest::Sha256Hex(tptest::ReadFile("/tmp/pack/" + name)),
              tptest::Sha256Hex(tptest::RandomBytes(4 << 20, 40 + i)))
        << name;
  }
}

// A browser that closes the connection early ends the writer: no CGI is
// left writing, and the folder is still queued for removal.
TEST_F(DownloadLighttpdTest, AClientThatGoesAwayStopsTheWriter) {
  const int task_id = StartAndWait(session_.sid, nodes_);
  const std::string folder = [] {
    Json::Value record;
    std::ifstream in("/tmp/tidepool-tasks/alice/dftw_download_progress.json");
    Json::Reader().parse(in, record);
    return record["properties"]["data"]["temp_folder"].asString();
  }();
  ASSERT_FALSE(folder.empty());
  const int fd = server_.Connect();
  ASSERT_GE(fd, 0);
  const std::string request = FinishRequest(session_, task_id, nodes_);
  ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string first;
  char buffer[65536];
  while (first.size() < (1u << 20)) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    first.append(buffer, n);
  }
  ASSERT_GE(first.size(), 1u << 20) << first.substr(0, 300);
  ASSERT_FALSE(RunningCgis().empty()) << "the archive was written before the client went away";
  // Gone without reading on: a reset, as when a tab is closed.
  linger abort{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close(fd);

  EXPECT_TRUE(tptest::Eventually([] { return RunningCgis().empty(); }));
  const auto removals = QueuedRemovals();
  EXPECT_NE(std::find(removals.begin(), removals.end(), folder), removals.end())
      << "queued: " << removals.size();
}

}  // namespace
