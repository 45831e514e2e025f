#include <gtest/gtest.h>

#include <string>

#include "relay.h"
#include "sandbox.h"
#include "string-bundle.h"

namespace {

using tptest::WriteFile;

constexpr const char* kConf = "/usr/kstx/etc/kstxrelayd/kstxrelayd.conf";
constexpr const char* kStatusDir = "/usr/kstx/etc/kstxrelayd/status/";

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::ResetSandboxData(); }
};

TEST_F(RelayTest, WithoutConfigurationTheRelayIsOff) {
  KSTX::Relay::RelaydConf conf(kConf);
  EXPECT_FALSE(conf.GetEnableConf());
  EXPECT_FALSE(conf.IsAliasEnabled());
  EXPECT_EQ(conf.GetAliasName(), "");

  std::string id = "x", status = "x", detail = "x";
  EXPECT_FALSE(KSTX::Relay::Daemon::GetStatus(id, status, detail, "driftway"));
  EXPECT_FALSE(KSTX::Relay::AliasStatus::GetStatus("myhost", status, detail));
  EXPECT_EQ(status, "x");
}

TEST_F(RelayTest, ConfiguredRelayReportsItsState) {
  WriteFile(kConf, "enabled=\"yes\"\nalias_enabled=\"yes\"\nalias_name=\"myhost\"\n");
  WriteFile(std::string(kStatusDir) + "driftway",
            "id=\"relay-42\"\nstatus=\"connected\"\ndetail=\"\"\n");
  WriteFile(std::string(kStatusDir) + "alias", "status=\"error_inused\"\ndetail=\"taken\"\n");

  KSTX::Relay::RelaydConf conf(kConf);
  EXPECT_TRUE(conf.GetEnableConf());
  EXPECT_TRUE(conf.IsAliasEnabled());
  EXPECT_EQ(conf.GetAliasName(), "myhost");

  std::string id, status, detail;
  ASSERT_TRUE(KSTX::Relay::Daemon::GetStatus(id, status, detail, "driftway"));
  EXPECT_EQ(id, "relay-42");
  EXPECT_EQ(status, "connected");
  EXPECT_EQ(detail, "");
  ASSERT_TRUE(KSTX::Relay::AliasStatus::GetStatus("myhost", status, detail));
  EXPECT_EQ(status, "error_inused");
  EXPECT_EQ(detail, "taken");

  EXPECT_FALSE(KSTX::Relay::Daemon::GetStatus(id, status, detail, "other"));
  EXPECT_FALSE(KSTX::Relay::Daemon::GetStatus(id, status, detail, "../kstxrelayd.conf"));

  WriteFile(kConf, "enabled=\"no\"\n");
  EXPECT_FALSE(KSTX::Relay::RelaydConf(kConf).GetEnableConf());
}

TEST_F(RelayTest, StringBundlesGiveTextsByKey) {
  WriteFile("/usr/kstx/etc/strings/relayservice.txt",
            "relayservice_err_alias_not_found=\"The alias is taken.\"\n");
  StringBundle bundle("relayservice", 0, 0, 0, 0, 0);
  ASSERT_NE(bundle.Text("relayservice_err_alias_not_found", 0), nullptr);
  EXPECT_STREQ(bundle.Text("relayservice_err_alias_not_found", 0), "The alias is taken.");
  EXPECT_EQ(bundle.Text("missing", 0), nullptr);
  EXPECT_EQ(bundle.Text(nullptr, 0), nullptr);

  EXPECT_EQ(StringBundle("nosuchsection", 0, 0, 0, 0, 0).Text("x", 0), nullptr);
  EXPECT_EQ(StringBundle("../strings/relayservice", 0, 0, 0, 0, 0)
                .Text("relayservice_err_alias_not_found", 0),
            nullptr);
}

}  // namespace
