#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <string>

#include "hlibc.h"
#include "sandbox.h"
#include "sync-service.h"

namespace {

using tptest::ReadFile;
using tptest::WriteFile;

class SystemTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::ResetSandboxData(); }
};

std::string GetValue(const std::string& path, const char* key, int* rc = nullptr) {
  char buffer[64] = "untouched";
  const int length = HLIBCFileGetKeyValue(path.c_str(), key, buffer, sizeof(buffer));
  if (rc != nullptr) *rc = length;
  return buffer;
}

TEST_F(SystemTest, ConfigurationRoundTrips) {
  SyncConfigMgr missing;
  EXPECT_FALSE(missing.IsLoaded());
  EXPECT_LT(SyncGetConf(missing), 0);

  WriteFile(SyncConfigMgr::kPath,
            "# kept as is\nrepo_volume=\"/volume1\"\nvmtouch_reserve_mem=\"95\"\nother=1\n");
  SyncConfigMgr config;
  ASSERT_TRUE(config.IsLoaded());
  EXPECT_EQ(SyncGetConf(config), 0);
  EXPECT_EQ(config.GetSysShareBin(), "/volume1");
  EXPECT_EQ(config.GetSystemRepoLocation(), "/volume1/@tidepool");
  EXPECT_EQ(config.GetDbConnectParam(), "/volume1/@tidepool");
  EXPECT_EQ(config.GetWorkingDirPath(), "/volume1/@tidepool/@tmp");
  EXPECT_EQ(config.GetDBBackendString(), "sqlite");
  EXPECT_FALSE(config.enable_vmtouch);
  EXPECT_EQ(config.vmtouch_reserve_mem, 90);  // out of range values are clamped

  config.SetSysShareBin("/volume2");
  config.enable_vmtouch = true;
  config.vmtouch_reserve_mem = 40;
  ASSERT_GE(config.Save(), 0);
  EXPECT_TRUE(config.ReloadVMTouchDaemon());

  SyncConfigMgr reread;
  ASSERT_TRUE(reread.IsLoaded());
  EXPECT_EQ(reread.GetSysShareBin(), "/volume2");
  EXPECT_TRUE(reread.enable_vmtouch);
  EXPECT_FALSE(reread.enable_mlock);
  EXPECT_EQ(reread.vmtouch_reserve_mem, 40);
  const std::string text = ReadFile(SyncConfigMgr::kPath);
  EXPECT_NE(text.find("# kept as is\n"), std::string::npos);
  EXPECT_NE(text.find("other=1\n"), std::string::npos);
  EXPECT_NE(text.find("repo_volume=\"/volume2\"\n"), std::string::npos);
  EXPECT_NE(text.find("enable_vmtouch=\"yes\"\n"), std::string::npos);

  // A file without the repository's volume cannot locate any database.
  WriteFile(SyncConfigMgr::kPath, "db_backend=\"sqlite\"\n");
  EXPECT_LT(SyncGetConf(reread), 0);
}

TEST_F(SystemTest, StatusWordRoundTrips) {
  std::string status = "unset";
  ASSERT_EQ(ServiceStatusGet(status, true), 0);
  EXPECT_EQ(status, "disabled");

  for (const char* word : {"enabled", "moving_db", "disabled"}) {
    ASSERT_EQ(ServiceStatusSet(word), 0);
    ASSERT_EQ(ServiceStatusGet(status, false), 0);
    EXPECT_EQ(status, word);
  }
  EXPECT_LT(ServiceStatusSet("two words"), 0);
  EXPECT_LT(ServiceStatusSet(""), 0);

  WriteFile("/var/packages/Tidepool/etc/enable_status", "enabled\n");
  ASSERT_EQ(ServiceStatusGet(status, true), 0);
  EXPECT_EQ(status, "enabled");
}

TEST_F(SystemTest, FreezeFollowsTheListOfFullVolumes) {
  std::list<int> volumes = {7};
  EXPECT_FALSE(IsViewIdFreeze(0));
  ASSERT_EQ(SyncDBInit(), 0);
  ASSERT_EQ(SyncFullVolGet(volumes), 0);
  EXPECT_TRUE(volumes.empty());

  ASSERT_EQ(SyncFreezeSet({1, 2}), 0);
  EXPECT_TRUE(IsViewIdFreeze(0));
  EXPECT_TRUE(IsViewIdFreeze(42));
  ASSERT_EQ(SyncFullVolGet(volumes), 0);
  EXPECT_EQ(volumes, (std::list<int>{1, 2}));

  // Frozen with no volume named: still frozen.
  ASSERT_EQ(SyncFreezeSet({}), 0);
  EXPECT_TRUE(IsViewIdFreeze(0));
  ASSERT_EQ(SyncFullVolGet(volumes), 0);
  EXPECT_TRUE(volumes.empty());

  WriteFile("/var/packages/Tidepool/etc/freeze", "3\ngarbage\n-1\n\n 4 \n");
  ASSERT_EQ(SyncFullVolGet(volumes), 0);
  EXPECT_EQ(volumes, (std::list<int>{3, 4}));

  ASSERT_EQ(SyncFreezeClear(), 0);
  ASSERT_EQ(SyncFreezeClear(), 0);
  EXPECT_FALSE(IsViewIdFreeze(0));
  SyncDBDestroy();
}

TEST_F(SystemTest, Capabilities) {
  EXPECT_TRUE(ServiceSupportAppPrivilege());
  EXPECT_TRUE(ServiceSupportMovingRepository());
  EXPECT_TRUE(ServiceSupportSharing());
  EXPECT_TRUE(ServiceIsHomeServiceEnabled(0));
  EXPECT_FALSE(ServiceIsHomeServiceEnabled(2));
  EXPECT_FALSE(ServiceIsHomeServiceEnabled(3));
}

TEST_F(SystemTest, KeyValueFiles) {
  const std::string path = "/tmp/kv/INFO";
  WriteFile(path,
            "# comment=no\nversion=\"1.0.0-1234\"\nplain=value\n  spaced = \"a b\" \nempty=\"\"\n");
  int rc = 0;
  EXPECT_EQ(GetValue(path, "version", &rc), "1.0.0-1234");
  EXPECT_EQ(rc, 10);
  EXPECT_EQ(GetValue(path, "plain"), "value");
  EXPECT_EQ(GetValue(path, "spaced"), "a b");
  EXPECT_EQ(GetValue(path, "empty", &rc), "");
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(GetValue(path, "# comment", &rc), "untouched");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(GetValue(path, "missing", &rc), "untouched");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(GetValue("/tmp/kv/none", "version", &rc), "untouched");
  EXPECT_EQ(rc, -1);

  char small[5];
  EXPECT_EQ(HLIBCFileGetKeyValue(path.c_str(), "version", small, sizeof(small)), 4);
  EXPECT_STREQ(small, "1.0.");

  ASSERT_EQ(HLIBCFileSetKeyValue(path.c_str(), "plain", "changed"), 0);
  ASSERT_EQ(HLIBCFileSetKeyValue(path.c_str(), "added", "new"), 0);
  EXPECT_EQ(GetValue(path, "plain"), "changed");
  EXPECT_EQ(GetValue(path, "added"), "new");
  EXPECT_EQ(GetValue(path, "version"), "1.0.0-1234");
  EXPECT_EQ(ReadFile(path).rfind("# comment=no\n", 0), 0u);
  EXPECT_LT(HLIBCFileSetKeyValue(path.c_str(), "bad", "two\nlines"), 0);
  EXPECT_EQ(GetValue(path, "bad", &rc), "untouched");

  ASSERT_EQ(HLIBCFileSetKeyValue("/tmp/kv/new/file", "k", "v"), 0);
  EXPECT_EQ(ReadFile("/tmp/kv/new/file"), "k=\"v\"\n");
}

TEST_F(SystemTest, ProgramsRunWithoutAShell) {
  EXPECT_EQ(HLIBCExec("/bin/sh", "-c", "exit 3", nullptr), 3);
  EXPECT_EQ(HLIBCExec("/bin/true", nullptr), 0);
  EXPECT_LT(HLIBCExec("/no/such/program", nullptr), 0);
  // Arguments arrive as they are: no shell sees them.
  ASSERT_EQ(HLIBCExec("/bin/touch", "/tmp/a file; rm -rf x", nullptr), 0);
  EXPECT_EQ(access("/tmp/a file; rm -rf x", F_OK), 0);

  FILE* out = HLIBCPopen("/bin/echo", "r", "hello", "$HOME", nullptr);
  ASSERT_NE(out, nullptr);
  char line[64] = {};
  ASSERT_NE(fgets(line, sizeof(line), out), nullptr);
  EXPECT_STREQ(line, "hello $HOME\n");
  EXPECT_EQ(HLIBCPclose(out), 0);

  FILE* in = HLIBCPopen("/bin/sh", "w", "-c", "cat > /tmp/written; exit 5", nullptr);
  ASSERT_NE(in, nullptr);
  fputs("through the pipe\n", in);
  EXPECT_EQ(HLIBCPclose(in), 5);
  EXPECT_EQ(ReadFile("/tmp/written"), "through the pipe\n");

  EXPECT_EQ(HLIBCPopen("/no/such/program", "r", nullptr), nullptr);
  EXPECT_LT(HLIBCPclose(stdout), 0);  // not one of ours

  // A background program outlives the call; wait for its mark.
  ASSERT_EQ(HLIBCBackgroundExec("/bin/sh", "-c", "echo $$ > /tmp/bg.tmp && mv /tmp/bg.tmp /tmp/bg",
                                nullptr),
            0);
  for (int i = 0; i < 1000 && access("/tmp/bg", F_OK) != 0; ++i) usleep(10000);
  EXPECT_FALSE(ReadFile("/tmp/bg").empty());
}

// A request's standard output is its answer: nothing a program run from it
// prints may land there, and none may wait on the request's input.
TEST_F(SystemTest, ProgramsNeverWriteIntoTheCallersOutput) {
  fflush(stdout);
  const int saved_out = dup(STDOUT_FILENO);
  const int saved_in = dup(STDIN_FILENO);
  FILE* capture = fopen("/tmp/answer", "w+");
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  dup2(fileno(capture), STDOUT_FILENO);
  dup2(input[0], STDIN_FILENO);
  // With the caller's input still open, a program reading it would hang.
  const int status = HLIBCExec("/bin/sh", "-c", "echo leaked; cat; echo leaked again", nullptr);
  FILE* reading = HLIBCPopen("/bin/sh", "r", "-c", "cat; echo through the pipe", nullptr);
  char line[64] = {};
  const bool got = reading != nullptr && fgets(line, sizeof line, reading) != nullptr;
  FILE* writing = HLIBCPopen("/bin/sh", "w", "-c", "cat > /dev/null; echo leaked", nullptr);
  if (writing != nullptr) fputs("x\n", writing);
  const int written = HLIBCPclose(writing);
  const int read_status = HLIBCPclose(reading);
  dup2(saved_out, STDOUT_FILENO);
  dup2(saved_in, STDIN_FILENO);
  close(saved_out);
  close(saved_in);
  close(input[0]);
  close(input[1]);
  fclose(capture);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(got);
  EXPECT_STREQ(line, "through the pipe\n");
  EXPECT_EQ(read_status, 0);
  EXPECT_EQ(written, 0);
  EXPECT_EQ(ReadFile("/tmp/answer"), "");
}

TEST_F(SystemTest, ForkedChildrenAreDetachedAsAsked) {
  int channel[2];
  ASSERT_EQ(pipe(channel), 0);
  const int child = HLIBCProcForkEx(HLIBC_FORK_SETSID | HLIBC_FORK_NULL_STDIO);
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Own session, and stdout goes nowhere: a write to it still succeeds.
    const bool ok = getsid(0) == getpid() && write(STDOUT_FILENO, "x", 1) == 1;
    _exit(write(channel[1], ok ? "y" : "n", 1) == 1 ? 0 : 1);
  }
  char answer = 0;
  ASSERT_EQ(read(channel[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  waitpid(child, nullptr, 0);

  const int detached = HLIBCProcForkChildNoWait();
  ASSERT_GE(detached, 0);
  if (detached == 0) {
    const pid_t self = getpid();
    _exit(write(channel[1], &self, sizeof(self)) == sizeof(self) ? 0 : 1);
  }
  pid_t reported = 0;
  ASSERT_EQ(read(channel[0], &reported, sizeof(reported)), static_cast<ssize_t>(sizeof(reported)));
  EXPECT_EQ(reported, detached);
  close(channel[0]);
  close(channel[1]);
}

TEST_F(SystemTest, UpperCaseOfUnicodeText) {
  char buffer[32];
  ASSERT_GE(HLIBCUnicodeUTF8StrUpper("straße élan", buffer, sizeof(buffer)), 0);
  EXPECT_STREQ(buffer, "STRASSE ÉLAN");
  EXPECT_EQ(HLIBCUnicodeUTF8StrUpper("much too long for four", buffer, 4), -1);
  EXPECT_EQ(HLIBCUnicodeUTF8StrUpper(nullptr, buffer, sizeof(buffer)), -1);
}

}  // namespace
