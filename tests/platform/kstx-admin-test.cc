#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "hvos-service.h"
#include "process.h"
#include "sandbox.h"

namespace {

constexpr const char* kInstalled = "/usr/kstx/bin/kstx-admin";

std::string Program() { return access(kInstalled, X_OK) == 0 ? kInstalled : KSTX_ADMIN_BUILD_PATH; }

tptest::ProcessResult Admin(std::vector<std::string> args) {
  args.insert(args.begin(), Program());
  return tptest::RunProcess(args);
}

class KstxAdminTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::ResetSandboxData(); }

  // Runs a command that must succeed and returns what it printed.
  std::string Ok(const std::vector<std::string>& args) {
    const auto result = Admin(args);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
  }
};

TEST_F(KstxAdminTest, BuildsTheDemoHost) {
  Ok({"volume", "add", "/volume1"});
  Ok({"volume", "add", "/volume2"});
  Ok({"user", "add", "admin", "--password", "admin pw"});
  Ok({"user", "add", "alice", "--password", "alice pw"});
  Ok({"user", "add", "bob", "--uid", "2000", "--password", "bob pw"});
  Ok({"group", "member", "administrators", "admin"});
  Ok({"share", "add", "docs", "--volume", "/volume2", "--encrypted", "--passphrase", "docs pw"});
  Ok({"share", "perm", "docs", "alice", "rw"});
  Ok({"user", "expire", "bob", "2001-02-03"});
  Ok({"user", "privilege", "alice", "--deny"});
  Ok({"user", "disable", "bob"});

  EXPECT_EQ(Ok({"user", "list"}),
            "uid\tname\thome\tdisabled\texpire\tprivilege\tadmin\n"
            "1026\tadmin\t/volume1/homes/admin\tno\tnever\tallow\tyes\n"
            "1027\talice\t/volume1/homes/alice\tno\tnever\tdeny\tno\n"
            "2000\tbob\t/volume1/homes/bob\tyes\t2001-02-03\tallow\tno\n");
  EXPECT_EQ(Ok({"share", "list"}),
            "name\tvolume\tpath\tencrypted\tmounted\n"
            "docs\t/volume2\t/volume2/docs\tyes\tyes\n");
  EXPECT_EQ(Ok({"volume", "list"}),
            "id\tpath\ttype\twritable\tdescription\n"
            "1\t/volume1\t1\tyes\t\n"
            "2\t/volume2\t1\tyes\t\n");

  struct stat st {};
  ASSERT_EQ(stat("/volume2/docs", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ASSERT_EQ(stat("/usr/kstx/etc/accounts.db", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // Changes undone show in the listing.
  Ok({"user", "enable", "bob"});
  Ok({"user", "expire", "bob", "never"});
  Ok({"user", "privilege", "alice", "--allow"});
  Ok({"group", "member", "administrators", "admin", "--remove"});
  Ok({"user", "del", "bob"});
  EXPECT_EQ(Ok({"user", "list"}),
            "uid\tname\thome\tdisabled\texpire\tprivilege\tadmin\n"
            "1026\tadmin\t/volume1/homes/admin\tno\tnever\tallow\tno\n"
            "1027\talice\t/volume1/homes/alice\tno\tnever\tallow\tno\n");
  Ok({"user", "passwd", "alice", "another"});
}

TEST_F(KstxAdminTest, BadInputAndUsageErrorsAreTold) {
  Ok({"user", "add", "alice", "--password", "pw"});
  Ok({"share", "add", "docs", "--volume", "/volume1"});
  Ok({"group", "add", "staff"});

  struct Case {
    std::vector<std::string> args;
    int status;
    const char* message;
  };
  const Case cases[] = {
      // bad input: 1
      {{"user", "add", "ALICE", "--password", "pw"}, 1, "already exists"},
      {{"user", "add", "a/b", "--password", "pw"}, 1, "invalid"},
      {{"user", "add", "carol"}, 1, "missing --password"},
      {{"user", "add", "carol", "--password"}, 1, "needs a value"},
      {{"user", "add", "carol", "--password", "pw", "--uid", "abc"}, 1, "bad uid"},
      {{"user", "add"}, 1, "missing argument"},
      {{"user", "del", "nobody"}, 1, "not found"},
      {{"user", "passwd", "nobody", "pw"}, 1, "not found"},
      {{"user", "expire", "alice", "someday"}, 1, "bad day"},
      {{"user", "privilege", "alice"}, 1, "--allow"},
      {{"user", "privilege", "alice", "--allow", "--deny"}, 1, "--allow"},
      {{"group", "add", "STAFF"}, 1, "already exists"},
      {{"group", "member", "staff", "nobody"}, 1, "not found"},
      {{"share", "add", "more"}, 1, "missing --volume"},
      {{"share", "add", "more", "--volume", "/data"}, 1, "invalid"},
      {{"share", "perm", "docs", "alice", "full"}, 1, "bad permission"},
      {{"share", "perm", "docs", "nobody", "ro"}, 1, "not found"},
      {{"volume", "add", "/mnt"}, 1, "invalid"},
      // usage: 2
      {{}, 2, "missing command"},
      {{"user"}, 2, "missing command"},
      {{"user", "frob"}, 2, "unknown command"},
      {{"printer", "add", "x"}, 2, "unknown command"},
      {{"user", "list", "extra"}, 2, "too many arguments"},
      {{"user", "del", "alice", "--force"}, 2, "unknown option"},
      {{"--db"}, 2, "--db needs a path"},
  };
  for (const auto& c : cases) {
    const auto result = Admin(c.args);
    std::string line;
    for (const auto& arg : c.args) line += arg + " ";
    EXPECT_EQ(result.exit_status, c.status) << line << "\n" << result.err;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << line << "\n" << result.err;
    EXPECT_EQ(result.out, "") << line;
  }
  // None of that changed anything.
  EXPECT_EQ(Ok({"user", "list"}),
            "uid\tname\thome\tdisabled\texpire\tprivilege\tadmin\n"
            "1026\talice\t/volume1/homes/alice\tno\tnever\tallow\tno\n");
}

// What the version store would get for the share: the key, "" while locked,
// or "<none>" when the share cannot be found.
std::string KeyOf(const std::string& name) {
  HVOSService::ShareService service(true);
  HVOSService::Share share;
  if (service.GetShare(name, share) < 0) return "<none>";
  std::string key;
  const int rc = share.getUniqueKey(key);
  EXPECT_EQ(rc == 1, share.isEncryption() && !key.empty()) << name;
  return rc == 1 ? key : "";
}

TEST_F(KstxAdminTest, EncryptedSharesLockAndUnlock) {
  Ok({"volume", "add", "/volume1"});
  Ok({"share", "add", "vault", "--volume", "/volume1", "--encrypted", "--passphrase", "tide 1"});
  Ok({"share", "add", "plain", "--volume", "/volume1"});

  // Created unlocked: a key of 32 bytes in hex, different per share.
  const std::string key = KeyOf("VAULT");
  ASSERT_EQ(key.size(), 64u);
  EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(KeyOf("plain"), "");
  EXPECT_EQ(KeyOf("homes"), "<none>");
  Ok({"share", "add", "other", "--volume", "/volume1", "--encrypted", "--passphrase", "tide 1"});
  EXPECT_NE(KeyOf("other"), key);

  Ok({"share", "lock", "vault"});
  EXPECT_EQ(KeyOf("vault"), "");
  EXPECT_NE(Ok({"share", "list"}).find("vault\t/volume1\t/volume1/vault\tyes\tno\n"),
            std::string::npos);

  struct Case {
    std::vector<std::string> args;
    const char* message;
  };
  const Case refused[] = {
      {{"share", "unlock", "vault", "--passphrase", "tide 2"}, "wrong passphrase"},
      {{"share", "unlock", "vault", "--passphrase", ""}, "wrong passphrase"},
      {{"share", "unlock", "vault"}, "missing --passphrase"},
      {{"share", "unlock", "plain", "--passphrase", "tide 1"}, "no such encrypted share"},
      {{"share", "lock", "nothing"}, "no such encrypted share"},
      {{"share", "add", "bare", "--volume", "/volume1", "--encrypted"}, "needs --passphrase"},
      {{"share", "add", "bare", "--volume", "/volume1", "--encrypted", "--passphrase", ""},
       "needs --passphrase"},
      {{"share", "add", "bare", "--volume", "/volume1", "--passphrase", "x"}, "needs --encrypted"},
  };
  for (const Case& c : refused) {
    const auto result = Admin(c.args);
    EXPECT_EQ(result.exit_status, 1) << c.args[1] << " " << c.args[2];
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("tide"), std::string::npos) << "a passphrase was echoed";
  }
  EXPECT_EQ(KeyOf("vault"), "");
  EXPECT_EQ(KeyOf("bare"), "<none>");

  // The right passphrase gives back the same content key.
  Ok({"share", "unlock", "vault", "--passphrase", "tide 1"});
  EXPECT_EQ(KeyOf("vault"), key);
  EXPECT_NE(Ok({"share", "list"}).find("vault\t/volume1\t/volume1/vault\tyes\tyes\n"),
            std::string::npos);

  // "homes" is the share that holds the homes, once there is one.
  Ok({"share", "add", "homes", "--volume", "/volume1"});
  EXPECT_EQ(KeyOf("homes"), "");
}

TEST_F(KstxAdminTest, AnotherDirectoryFile) {
  const auto result =
      Admin({"--db", "/tmp/other/accounts.db", "user", "add", "zed", "--password", "pw"});
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_NE(Ok({"user", "list", "--db", "/tmp/other/accounts.db"}).find("\tzed\t"),
            std::string::npos);
  EXPECT_EQ(Ok({"user", "list"}).find("zed"), std::string::npos);
  EXPECT_EQ(Ok({"--help"}).find("usage: kstx-admin"), 0u);
}

}  // namespace
