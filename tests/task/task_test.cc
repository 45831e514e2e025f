// Task records as processes share them: progress written by a child and
// read by its parent, changes of two writers that must both survive, and
// records that must never escape their folder.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "hvos-task.h"
#include "sandbox.h"

namespace {

// Runs `body` in a child process and gives its exit status.
template <typename Body>
int InChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(TaskTest, ARecordIsSharedBetweenProcesses) {
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists("alice", "restore"));
  HVOS::Task task("alice", "restore");
  EXPECT_TRUE(HVOS::TaskUtil::checkTaskExists("alice", "restore"));
  EXPECT_EQ(task.getCreatePid(), getpid());
  EXPECT_FALSE(task.hasProperty("data"));
  EXPECT_EQ(task.waitForDataReady("data", 50), 0);

  // A child reports progress; the parent waits for it and sees it.
  const pid_t parent = getpid();
  ASSERT_EQ(InChild([&] {
              HVOS::Task child("alice", "restore");
              if (child.getCreatePid() != parent) return 1;
              child.setCreatePid(getpid());
              Json::Value data;
              data["current"] = 3;
              data["total"] = 10;
              child.setProperty("data", data);
              return 0;
            }),
            0);
  ASSERT_EQ(task.waitForDataReady("data", 1000), 1);
  EXPECT_EQ(task.getProperty("data")["current"].asInt(), 3);
  EXPECT_NE(task.getCreatePid(), getpid());

  task.beginUpdate();
  Json::Value error;
  error["code"] = 600;
  task.setProperty("error", error);
  EXPECT_EQ(task.endUpdate(), 1);
  task.finish(false);
  HVOS::Task other("alice", "restore");
  EXPECT_EQ(other.getProperty("error")["code"].asInt(), 600);
  EXPECT_EQ(other.getProperty("data")["total"].asInt(), 10);
  EXPECT_TRUE(other.isFinished());

  other.remove();
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists("alice", "restore"));
  // Another owner or name is another record.
  HVOS::Task bob("bob", "restore");
  EXPECT_FALSE(bob.hasProperty("data"));
}

TEST(TaskTest, WritersOfDifferentPropertiesKeepBoth) {
  HVOS::Task task("admin", "usage");
  auto writer = [](const char* key) {
    return [key] {
      HVOS::Task mine("admin", "usage");
      for (int i = 1; i <= 100; ++i) mine.setProperty(key, i);
      return 0;
    };
  };
  const pid_t a = fork();
  if (a == 0) _exit(writer("data")());
  const pid_t b = fork();
  if (b == 0) _exit(writer("cancel")());
  int status = 0;
  waitpid(a, &status, 0);
  waitpid(b, &status, 0);
  task.reload();
  EXPECT_EQ(task.getProperty("data").asInt(), 100);
  EXPECT_EQ(task.getProperty("cancel").asInt(), 100);
}

TEST(TaskTest, BadNamesAndDamagedRecords) {
  for (const auto& [owner, name] : std::vector<std::pair<std::string, std::string>>{
           {"..", "x"}, {"alice", "../../etc/x"}, {"", "x"}, {"alice", ""}, {"a/b", "x"}}) {
    HVOS::Task task(owner, name);
    task.beginUpdate();
    task.setProperty("data", 1);
    EXPECT_EQ(task.endUpdate(), 0) << owner << "/" << name;
    EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists(owner, name));
  }
  EXPECT_FALSE(std::filesystem::exists("/tmp/etc"));

  // A record damaged on disk reads as a new one and is written anew.
  { HVOS::Task task("alice", "download"); }
  tptest::WriteFile("/tmp/tidepool-tasks/alice/download.json", "{\"properties\": [1,");
  HVOS::Task task("alice", "download");
  EXPECT_FALSE(task.hasProperty("data"));
  EXPECT_EQ(task.getCreatePid(), getpid());
  task.setProperty("data", "ok");
  HVOS::Task again("alice", "download");
  EXPECT_EQ(again.getProperty("data").asString(), "ok");
}

}  // namespace
