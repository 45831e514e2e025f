// KSTX.Tidepool.Config over HTTP as the administrator's settings page uses
// it: what get shows, what set stores and logs, every refusal of a move, and
// a whole move after which the repository serves from its new volume.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "content.h"
#include "db/log-types.h"
#include "move-world.h"
#include "process.h"
#include "sandbox.h"
#include "sync-service.h"
#include "volume.h"

namespace fs = std::filesystem;
using namespace mtest;

namespace {

constexpr const char* kApi = "KSTX.Tidepool.Config";

class ConfigHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tptest::InSandbox());
    SeedMoveWorld();
    admin_ = rtest::LoginAs("admin");
    ASSERT_FALSE(admin_.empty());
  }
  void TearDown() override { volume_.reset(); }

  tptest::WebAnswer Get() { return rtest::Call(kApi, "get", {}, admin_); }
  tptest::WebAnswer Set(const std::string& volume, tptest::Params extra = {}) {
    tptest::Params params = {{"db_volume", volume},
                             {"use_del_by_cnt", false},
                             {"del_cnt", 1000000},
                             {"use_del_by_span", false},
                             {"del_span", 2592000}};
    for (auto& p : extra) {
      bool replaced = false;
      for (auto& q : params) {
        if (q.first == p.first) q.second = p.second, replaced = true;
      }
      if (!replaced) params.push_back(p);
    }
    return rtest::Call(kApi, "set", params, admin_);
  }
  // A loop volume over /volume2.
  bool Mount(int size_mb) {
    const std::string why = tptest::LoopVolumeUnsupported(tptest::VolumeType::kExt4);
    if (!why.empty()) return false;
    std::string error;
    volume_ = tptest::LoopVolume::Create(tptest::VolumeType::kExt4, size_mb, "/volume2", &error);
    EXPECT_TRUE(volume_) << error;
    return volume_ != nullptr;
  }

  std::string admin_;
  std::unique_ptr<tptest::LoopVolume> volume_;
};

TEST_F(ConfigHttpTest, GetShowsTheVolumesAndTheStoredSettings) {
  const auto answer = Get();
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value& data = answer.json["data"];
  EXPECT_EQ(data["volume_select"], "/volume1");
  ASSERT_EQ(data["volume_list"].size(), 2u) << answer.body;
  const Json::Value& first = data["volume_list"][0];
  EXPECT_EQ(first["mount_point"], "/volume1");
  EXPECT_EQ(first["value"], "/volume1");
  EXPECT_EQ(first["id"], "1");
  EXPECT_EQ(first["display"], "Volume 1");
  ASSERT_TRUE(first["size_total"].isString());
  EXPECT_GT(std::stoull(first["size_total"].asString()), 0u);
  EXPECT_GE(std::stoull(first["size_total"].asString()),
            std::stoull(first["size_free"].asString()));
  EXPECT_EQ(data["volume_list"][1]["mount_point"], "/volume2");
  // Nothing stored yet: the defaults.
  EXPECT_EQ(data["use_del_by_cnt"], false);
  EXPECT_EQ(data["del_cnt"], 1000000);
  EXPECT_EQ(data["use_del_by_span"], false);
  EXPECT_EQ(data["del_span"], 2592000);
  EXPECT_EQ(data["support_moving_repository"], true);
  EXPECT_EQ(data["enable_vmtouch"], false);
  EXPECT_EQ(data["vmtouch_reserve_mem"], 30);

  const auto alice = rtest::Call(kApi, "get", {}, rtest::LoginAs("alice"));
  EXPECT_FALSE(alice.success()) << alice.body;
}

TEST_F(ConfigHttpTest, SetStoresRotationAndResidencyAndLogsEachChangeOnce) {
  // "/volume1/" names the current volume: a settings change, not a move.
  auto answer = Set("/volume1/", {{"use_del_by_cnt", true},
                                  {"del_cnt", 500},
                                  {"use_del_by_span", true},
                                  {"del_span", 86400},
                                  {"enable_vmtouch", true},
                                  {"vmtouch_reserve_mem", 5}});
  ASSERT_TRUE(answer.success()) << answer.body;
  const Json::Value data = Get().json["data"];
  EXPECT_EQ(data["use_del_by_cnt"], true);
  EXPECT_EQ(data["del_cnt"], 500);
  EXPECT_EQ(data["use_del_by_span"], true);
  EXPECT_EQ(data["del_span"], 86400);
  EXPECT_EQ(data["enable_vmtouch"], true);
  EXPECT_EQ(data["vmtouch_reserve_mem"], 10);
  EXPECT_EQ(data["volume_select"], "/volume1");
  EXPECT_EQ(Status(), "enabled");

  // The same again changes nothing and writes no record.
  ASSERT_TRUE(Set("/volume1", {{"use_del_by_cnt", true},
                               {"del_cnt", 500},
                               {"use_del_by_span", true},
                               {"del_span", 86400},
                               {"enable_vmtouch", true},
                               {"vmtouch_reserve_mem", 10}})
                  .success());
  EXPECT_EQ(Records("/volume1", db::kLogDelCountSet),
            (std::vector<std::vector<std::string>>{{"1", "500"}}));
  EXPECT_EQ(Records("/volume1", db::kLogDelSpanSet),
            (std::vector<std::vector<std::string>>{{"1", "86400"}}));
  EXPECT_TRUE(Records("/volume1", db::kLogDbVolumeChange).empty());
}

TEST_F(ConfigHttpTest, EveryRefusedMoveLeavesTheRepositoryWhereItIs) {
  struct Case {
    std::string name;
    std::string volume;
    int code;
    std::string message;
    std::function<bool()> prepare;  // false: skip the case
  };
  const std::vector<Case> cases = {
      {"empty", "", 604, "invalid volume type", [] { return true; }},
      {"unregistered", "/volume3", 601, "invalid volume path", [] { return true; }},
      {"not a volume", "/volume1/homes", 601, "invalid volume path", [] { return true; }},
      {"read-only", "/volume2", 602, "volume is readonly",
       [&] {
         return Mount(32) && tptest::RunProcess({"/usr/bin/mount", "-o", "remount,ro", "/volume2"})
                                     .exit_status == 0;
       }},
      {"too small", "/volume2", 600, "space is not enough",
       [&] {
         if (!Mount(16)) return false;
         std::ofstream("/volume1/@tidepool/big.bin", std::ios::binary)
             << tptest::RandomBytes(20 << 20, 3);
         return true;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    volume_.reset();
    if (!c.prepare()) {
      // Only a host without loop volumes may leave a case out.
      EXPECT_FALSE(tptest::LoopVolumeUnsupported(tptest::VolumeType::kExt4).empty());
      continue;
    }
    // Rotation changes of the same request stand; the refusal logs nothing.
    const auto answer = Set(c.volume, {{"use_del_by_cnt", true}, {"del_cnt", 77}});
    EXPECT_EQ(answer.code(), c.code) << answer.body;
    EXPECT_EQ(answer.message(), c.message);
    fs::remove("/volume1/@tidepool/big.bin");
    EXPECT_EQ(RepoVolume(), "/volume1");
    EXPECT_EQ(Status(), "enabled");
    EXPECT_EQ(Get().json["data"]["del_cnt"], 77);
    EXPECT_TRUE(Records("/volume1", db::kLogDbVolumeChange).empty());
  }
}

TEST_F(ConfigHttpTest, AWholeMoveAnswers503AndTheRepositoryServesFromTheNewVolume) {
  const auto started = Set("/volume2", {{"use_del_by_span", true}, {"del_span", 3600}});
  EXPECT_EQ(started.code(), 503) << started.body;
  EXPECT_EQ(started.message(), "");
  // A double click: refused while the first move runs, never a second move.
  const auto again = Set("/volume2");
  EXPECT_EQ(again.code(), 503) << again.body;

  ASSERT_TRUE(MoveEnded());
  EXPECT_EQ(CheckServes("/volume2"), "");
  EXPECT_FALSE(fs::exists("/volume1/@tidepool/user-db.sqlite"));
  EXPECT_TRUE(fs::exists("/volume1/@tidepool/@sync"));
  const auto answer = Get();
  EXPECT_EQ(answer.json["data"]["volume_select"], "/volume2") << answer.body;
  EXPECT_EQ(answer.json["data"]["del_span"], 3600);
  // The request's record and the mover's, both in the log that moved.
  const auto moves = Records("/volume2", db::kLogDbVolumeChange);
  ASSERT_EQ(moves.size(), 2u);
  for (const auto& args : moves) {
    EXPECT_EQ(args, (std::vector<std::string>{"/volume1", "/volume2"}));
  }
  EXPECT_EQ(Records("/volume2", db::kLogDelSpanSet).size(), 1u);
}

}  // namespace
