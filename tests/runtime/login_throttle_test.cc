// The login throttle's store and the host's password-check slots, driven with
// a clock of the test's own.
#include "login-throttle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

namespace fs = std::filesystem;
using kstxentry::LoginSlot;
using kstxentry::LoginThrottle;

namespace {

class LoginThrottleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(dir_);
    throttle_ = LoginThrottle::Open(dir_);
    ASSERT_NE(throttle_, nullptr);
  }

  // `n` failures of the account at `address`, one a second from `start`.
  void Fail(int n, const std::string& account, const std::string& address, time_t start) {
    for (int i = 0; i < n; ++i) ASSERT_EQ(throttle_->RecordFailure(account, address, start + i), 0);
  }

  const std::string dir_ = "/tmp/login-throttle-test";
  std::unique_ptr<LoginThrottle> throttle_;
};

TEST_F(LoginThrottleTest, TenFailuresBlockForAGrowingTime) {
  const time_t t = 1'000'000;
  Fail(9, "uid:1026", "192.0.2.1", t);
  EXPECT_FALSE(throttle_->IsBlocked("uid:1026", "192.0.2.99", t + 9));
  Fail(1, "uid:1026", "192.0.2.2", t + 9);
  EXPECT_TRUE(throttle_->IsBlocked("uid:1026", "192.0.2.99", t + 10));
  EXPECT_FALSE(throttle_->IsBlocked("uid:1027", "192.0.2.99", t + 10));
  EXPECT_FALSE(throttle_->IsBlocked("uid:1027", "192.0.2.1", t + 10)) << "9 from this address";

  // Each block that follows an earlier one lasts twice as long, up to an hour.
  time_t now = t + 9;
  time_t expected = 60;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(throttle_->TEST_BlockedUntil("account:uid:1026"), now + expected);
    EXPECT_TRUE(throttle_->IsBlocked("uid:1026", "x", now + expected - 1));
    EXPECT_FALSE(throttle_->IsBlocked("uid:1026", "x", now + expected));
    now += expected;
    for (int i = 0; i < 10; ++i) {
      ASSERT_EQ(throttle_->RecordFailure("uid:1026", "192.0.2.3", now), 0);
    }
    expected = std::min<time_t>(expected * 2, 3600);
  }

  // A right password clears the account, not the addresses it came from.
  Fail(10, "uid:1026", "192.0.2.4", now + 3600);
  ASSERT_EQ(throttle_->RecordSuccess("uid:1026"), 0);
  EXPECT_FALSE(throttle_->IsBlocked("uid:1026", "192.0.2.99", now + 3610));
  EXPECT_TRUE(throttle_->IsBlocked("uid:1027", "192.0.2.4", now + 3610));
}

TEST_F(LoginThrottleTest, OldFailuresAndBlocksAreForgotten) {
  const time_t t = 2'000'000;
  Fail(9, "name:mallory", "198.51.100.1", t);
  Fail(1, "name:mallory", "198.51.100.1", t + 601);  // the first nine are out of the window
  EXPECT_FALSE(throttle_->IsBlocked("name:mallory", "198.51.100.1", t + 602));

  Fail(10, "name:eve", "198.51.100.2", t);
  EXPECT_EQ(throttle_->TEST_BlockedUntil("address:198.51.100.2"), t + 9 + 60);
  // Well over an hour later a new series starts from the shortest block.
  Fail(10, "name:eve", "198.51.100.2", t + 10'000);
  EXPECT_EQ(throttle_->TEST_BlockedUntil("address:198.51.100.2"), t + 10'009 + 60);
}

TEST_F(LoginThrottleTest, StoreIsRootsAloneOrRefused) {
  struct stat st {};
  ASSERT_EQ(lstat((dir_ + "/failures.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(lstat(dir_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);

  // A folder others may write, a link in the folder's place, or a link in
  // the store's: no store, and so no login.
  const std::string open_dir = "/tmp/login-open";
  fs::create_directories(open_dir);
  chmod(open_dir.c_str(), 0777);
  EXPECT_EQ(LoginThrottle::Open(open_dir), nullptr);
  const std::string link_dir = "/tmp/login-link";
  fs::remove_all(link_dir);
  fs::create_directory_symlink(dir_, link_dir);
  EXPECT_EQ(LoginThrottle::Open(link_dir), nullptr);
  const std::string planted = "/tmp/login-planted";
  fs::remove_all(planted);
  fs::create_directory(planted);
  chmod(planted.c_str(), 0700);
  fs::create_symlink("/tmp/elsewhere.db", planted + "/failures.db");
  EXPECT_EQ(LoginThrottle::Open(planted), nullptr);
  EXPECT_FALSE(fs::exists("/tmp/elsewhere.db"));
}

TEST_F(LoginThrottleTest, AtMostTwoPasswordChecksAtOnce) {
  auto first = std::make_unique<LoginSlot>();
  LoginSlot second, third;
  ASSERT_EQ(first->Acquire(dir_, false), 0);
  ASSERT_EQ(second.Acquire(dir_, false), 0);
  EXPECT_EQ(third.Acquire(dir_, false), 1) << "both slots are taken";
  first.reset();
  EXPECT_EQ(third.Acquire(dir_, false), 0) << "a finished check frees its slot";
}

}  // namespace
