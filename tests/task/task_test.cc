// Task records as processes share them: progress written by a child and
// read by its parent, changes of two writers that must both survive,
// records that must never escape their folder, and folders and files that a
// local user planted under /tmp before root came.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "hvos-task.h"
#include "logger.h"
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
  // A file name that is not UTF-8 reads back byte for byte.
  const std::string latin1 = "r\xe9sum\xe9.txt";
  again.setProperty("data", latin1);
  EXPECT_EQ(HVOS::Task("alice", "download").getProperty("data").asString(), latin1);
}

}  // namespace

namespace {

constexpr uid_t kNobody = 65534;
const std::string kTasks = "/tmp/tidepool-tasks";
const std::string kVictim = "/tmp/victim";
const std::string kVictimText = "root:x:0:0:root:/root:/bin/bash\n";
const std::string kLog = Logger::LogFilePath();

// Runs `body` as an unprivileged local user, as an attacker would.
template <typename Body>
void AsNobody(Body body) {
  ASSERT_EQ(InChild([&] {
              if (setresgid(kNobody, kNobody, kNobody) != 0 ||
                  setresuid(kNobody, kNobody, kNobody) != 0) {
                return 2;
              }
              return body() ? 0 : 1;
            }),
            0);
}

// A record that the module would act on if it believed it.
const std::string kPlanted =
    R"({"create_pid":1,"finished":false,"properties":{"data":{"path":"/etc"}}})";

// What the module sees of alice's "restore" record, and whether a write
// through it lands.
struct Seen {
  bool exists;
  bool has_data;
  int stored;
};

Seen Look() {
  Seen seen{};
  HVOS::Task task("alice", "restore");
  seen.has_data = task.hasProperty("data");
  task.beginUpdate();
  task.setProperty("data", Json::Value("mine"));
  seen.stored = task.endUpdate();
  seen.exists = HVOS::TaskUtil::checkTaskExists("alice", "restore");
  return seen;
}

class PlantedTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kTasks);
    std::filesystem::remove_all("/tmp/planted");
    tptest::WriteFile(kVictim, kVictimText);
    chmod(kVictim.c_str(), 0644);
  }
  static void ExpectVictimUntouched() {
    EXPECT_EQ(tptest::ReadFile(kVictim), kVictimText);
    struct stat st {};
    ASSERT_EQ(lstat(kVictim.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(st.st_uid, 0u);
  }
};

// Folders that a local user made or replaced before root came: the record
// is absent and unwritable, links in them are never followed, and nothing
// in them is repaired or taken over.
TEST_F(PlantedTaskTest, FoldersMadeByOthersAreRefused) {
  struct Case {
    const char* what;
    std::function<bool()> plant;  // run as nobody
    std::function<void()> as_root;
  };
  auto plant_records = [](const std::string& folder) {
    std::filesystem::create_directories(folder);
    for (const char* file : {"restore.json.tmp", "restore.json.lock"}) {
      std::filesystem::create_symlink(kVictim, folder + "/" + file);
    }
    return symlink(kVictim.c_str(), (folder + "/restore.json").c_str()) == 0 || errno == EEXIST;
  };
  auto root_folder = [](mode_t mode) {
    ASSERT_EQ(mkdir(kTasks.c_str(), 0700), 0);
    ASSERT_EQ(chmod(kTasks.c_str(), mode), 0);
  };
  const Case cases[] = {
      {"the task folder made by a user",
       [&] {
         return mkdir(kTasks.c_str(), 0777) == 0 && plant_records(kTasks + "/alice") &&
                chmod((kTasks + "/alice").c_str(), 0700) == 0 && chmod(kTasks.c_str(), 0700) == 0;
       },
       nullptr},
      {"the task folder a link to a user's folder",
       [&] {
         return plant_records("/tmp/planted/alice") && symlink("/tmp/planted", kTasks.c_str()) == 0;
       },
       nullptr},
      {"root's task folder left open to everyone", [&] { return plant_records(kTasks + "/alice"); },
       [&] { root_folder(01777); }},
      {"the owner's folder a user's", [] { return true; },
       [&] {
         root_folder(0700);
         ASSERT_TRUE(plant_records(kTasks + "/alice"));
         ASSERT_EQ(chmod((kTasks + "/alice").c_str(), 0700), 0);
         ASSERT_EQ(chown((kTasks + "/alice").c_str(), kNobody, kNobody), 0);
       }},
      {"the owner's folder a link to a user's folder",
       [&] { return plant_records("/tmp/planted/alice"); },
       [&] {
         root_folder(0700);
         ASSERT_EQ(symlink("/tmp/planted/alice", (kTasks + "/alice").c_str()), 0);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SetUp();
    if (c.as_root) c.as_root();
    AsNobody(c.plant);
    const std::string log_before = tptest::ReadFile(kLog);
    const Seen seen = Look();
    EXPECT_FALSE(seen.has_data);
    EXPECT_EQ(seen.stored, 0);
    EXPECT_FALSE(seen.exists);
    ExpectVictimUntouched();
    HVOS::Task("alice", "restore").remove();
    ExpectVictimUntouched();
    const std::string log = tptest::ReadFile(kLog).substr(log_before.size());
    EXPECT_NE(log.find("refused"), std::string::npos) << log;
  }
  // Nothing was repaired or taken over: the last planted folder is still
  // the user's, its links still in place.
  struct stat st {};
  ASSERT_EQ(lstat((kTasks + "/alice").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(lstat("/tmp/planted/alice/restore.json.tmp", &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

// Inside root's own folders, a link where a record, its lock or its
// temporary file belongs is not followed either.
TEST_F(PlantedTaskTest, LinksInPlaceOfRecordFiles) {
  tptest::WriteFile("/tmp/planted-record", kPlanted);
  { HVOS::Task make_folders("alice", "other"); }
  const std::string folder = kTasks + "/alice/";
  struct Case {
    const char* file;
    const char* target;
    bool readable;  // whether the record can still be written
  };
  for (const Case& c : {Case{"restore.json", "/tmp/planted-record", true},
                        Case{"restore.json.tmp", kVictim.c_str(), true},
                        Case{"restore.json.lock", kVictim.c_str(), false}}) {
    SCOPED_TRACE(c.file);
    for (const char* file : {"restore.json", "restore.json.tmp", "restore.json.lock"}) {
      std::filesystem::remove(folder + file);
    }
    std::filesystem::create_symlink(c.target, folder + c.file);
    const Seen seen = Look();
    EXPECT_FALSE(seen.has_data) << "a planted record is not read";
    EXPECT_EQ(seen.stored, c.readable ? 1 : 0);
    EXPECT_EQ(seen.exists, c.readable);
    ExpectVictimUntouched();
    EXPECT_EQ(tptest::ReadFile("/tmp/planted-record"), kPlanted);
    std::filesystem::remove(folder + c.file);
  }
}

// Stored bytes are not trusted: whatever is in the file, a record that is
// not one reads as absent and is written anew.
TEST_F(PlantedTaskTest, RecordsThatAreNotRecords) {
  { HVOS::Task make_folders("alice", "other"); }
  const std::string path = kTasks + "/alice/restore.json";
  const std::string padding(2 * 1024 * 1024, ' ');
  const std::string cases[] = {
      kPlanted.substr(0, kPlanted.size() - 1) + padding + "}",  // too large
      R"({"create_pid":-1,"finished":false,"properties":{"data":1}})",
      R"({"create_pid":0,"finished":false,"properties":{"data":1}})",
      R"({"create_pid":"12","finished":false,"properties":{"data":1}})",
      R"({"create_pid":12,"finished":1,"properties":{"data":1}})",
      R"({"create_pid":12,"finished":false,"properties":[1]})",
      std::string(100000, '[') + std::string(100000, ']'),
      std::string("{\"create_pid\":12,\0", 17),
  };
  for (const std::string& content : cases) {
    SCOPED_TRACE(content.substr(0, 60));
    tptest::WriteFile(path, content);
    HVOS::Task task("alice", "restore");
    EXPECT_FALSE(task.hasProperty("data"));
    EXPECT_EQ(task.getCreatePid(), getpid());
  }
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_FALSE(HVOS::TaskUtil::checkTaskExists("alice", "restore"));
  EXPECT_FALSE(Look().has_data);
}

}  // namespace
