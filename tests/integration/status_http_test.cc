// get_status: the service's state, its relay and its freeze mode.
#include <gtest/gtest.h>

#include "host-accounts.h"
#include "sandbox.h"
#include "seed.h"
#include "sync-service.h"
#include "webapi-client.h"

namespace {

constexpr const char* kGetStatus = "api=KSTX.Tidepool&method=get_status&version=1";

class StatusHttpTest : public ::testing::Test {
 protected:
  void SetUp() override { tptest::SeedDemoSystem(); }
};

TEST_F(StatusHttpTest, ReportsServiceAndRelay) {
  const std::string alice = tptest::Login("alice", "alice-demo");
  auto answer = tptest::Get(kGetStatus, alice);
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value& data = answer.json["data"];
  EXPECT_EQ(data["enable_status"].asString(), "enabled");
  EXPECT_TRUE(data["dfrv_enable"].asBool());
  EXPECT_EQ(data["dfrv_id"].asString(), "");
  EXPECT_EQ(data["dfrv_status"].asString(), "--");
  EXPECT_NE(data["dfrv_ddns"].asString().find("(dummy)"), std::string::npos);
  EXPECT_FALSE(data["dftw_freeze"].asBool());
  EXPECT_FALSE(data.isMember("freeze_volume_id"));

  // A connected relay with an alias that is taken.
  tptest::WriteFile("/usr/kstx/etc/kstxrelayd/kstxrelayd.conf",
                    "enabled=\"yes\"\nalias_enabled=\"yes\"\nalias_name=\"tidehome\"\n");
  tptest::WriteFile("/usr/kstx/etc/kstxrelayd/status/driftway",
                    "id=\"relay-42\"\nstatus=\"connected\"\ndetail=\"via eu\"\n");
  tptest::WriteFile("/usr/kstx/etc/kstxrelayd/status/alias", "status=\"error_inused\"\n");
  tptest::WriteFile("/usr/kstx/etc/strings/relayservice.txt",
                    "relayservice_err_alias_not_found=\"The alias is not available\"\n");
  answer = tptest::Get(kGetStatus, alice);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["dfrv_id"].asString(), "relay-42");
  EXPECT_EQ(answer.json["data"]["dfrv_status"].asString(), "connected via eu");
  EXPECT_EQ(answer.json["data"]["dfrv_alias_name"].asString(), "tidehome");
  EXPECT_EQ(answer.json["data"]["dfrv_alias_err"].asString(), "The alias is not available");

  // Configured but not connected: the status and detail, no alias.
  tptest::WriteFile("/usr/kstx/etc/kstxrelayd/status/driftway",
                    "id=\"relay-42\"\nstatus=\"disconnected\"\ndetail=\"timeout\"\n");
  answer = tptest::Get(kGetStatus, alice);
  EXPECT_EQ(answer.json["data"]["dfrv_status"].asString(), "disconnected timeout");
  EXPECT_EQ(answer.json["data"]["dfrv_alias_name"].asString(), "");
}

TEST_F(StatusHttpTest, FreezeModeListsFullVolumes) {
  const std::string admin = tptest::Login("admin", "admin-demo");
  ASSERT_GE(SyncFreezeSet({1, 2}), 0);
  auto answer = tptest::Get(kGetStatus, admin);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_TRUE(answer.json["data"]["dftw_freeze"].asBool());
  ASSERT_EQ(answer.json["data"]["freeze_volume_id"].size(), 2u);
  EXPECT_EQ(answer.json["data"]["freeze_volume_id"][0].asInt(), 1);
  EXPECT_EQ(answer.json["data"]["freeze_volume_id"][1].asInt(), 2);

  ASSERT_GE(SyncFreezeSet({}), 0);
  answer = tptest::Get(kGetStatus, admin);
  EXPECT_TRUE(answer.json["data"]["dftw_freeze"].asBool());
  EXPECT_EQ(answer.json["data"]["freeze_volume_id"], Json::Value(Json::arrayValue));
}

TEST_F(StatusHttpTest, WhoMayAsk) {
  // A service that is off is reported to anyone logged in, without a user test.
  tptest::AddHostUser("carol", "carol-pw");
  const std::string carol = tptest::Login("carol", "carol-pw");
  tptest::SetServiceStatus("disabled");
  auto answer = tptest::Get(kGetStatus, carol);
  ASSERT_TRUE(answer.success()) << answer.body;
  EXPECT_EQ(answer.json["data"]["enable_status"].asString(), "disabled");
  EXPECT_FALSE(answer.json["data"].isMember("dftw_freeze"));

  tptest::SetServiceStatus("enabled");
  answer = tptest::Get(kGetStatus, carol);
  EXPECT_EQ(answer.code(), 403);
  EXPECT_EQ(answer.message(), "permission denied (disabled)");

  answer = tptest::Get(kGetStatus);
  EXPECT_EQ(answer.code(), 105);
  EXPECT_EQ(answer.message(), "permission denied by anonymous");

  tptest::SetServiceStatus("moving_db");
  answer = tptest::Get(kGetStatus, tptest::Login("admin", "admin-demo"));
  EXPECT_EQ(answer.code(), 503);
  EXPECT_EQ(answer.message(), "repository is moving");
}

}  // namespace
