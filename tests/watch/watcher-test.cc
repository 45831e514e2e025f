// The watcher on real folders: which views it reports after what a user
// does to the tree. Nothing here waits for time: a test that must see that
// something was *not* reported writes into a sentinel view afterwards and
// pumps until that write is seen; one inotify queue keeps the kernel's
// order, so anything the first action caused has been reported by then.
#include "watcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace watch {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kA = 1, kB = 2, kSentinel = 99;

void Write(const fs::path& p, const std::string& text = "x") {
  std::ofstream(p, std::ios::binary | std::ios::app) << text;
}

bool Contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

// Records what the callbacks say.
struct Recorder {
  std::vector<uint64_t> changed;
  std::vector<std::string> folders;       // the folder of each change
  std::map<std::string, unsigned> added;  // entries added, by folder
  std::vector<std::pair<uint64_t, std::string>> rescans;
  Watcher::Callbacks Callbacks() {
    return {[this](uint64_t id, const std::string& folder, unsigned n) {
              changed.push_back(id);
              folders.push_back(folder);
              added[folder] += n;
            },
            [this](uint64_t id, const std::string& why) { rescans.emplace_back(id, why); }};
  }
};

// Polls the watcher's descriptor until `done`; false only when nothing
// arrives for a long time, so a broken watcher fails instead of hanging.
bool PumpUntil(Watcher& w, const std::function<bool()>& done) {
  while (!done()) {
    pollfd p{w.fd(), POLLIN, 0};
    if (poll(&p, 1, 30000) <= 0) return false;
    w.OnReadable();
  }
  return true;
}

class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/watch-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    base_ = pattern;
    for (const char* d : {"a", "b", "outside", "sentinel"}) fs::create_directory(base_ / d);
    a_ = base_ / "a";
    b_ = base_ / "b";
    outside_ = base_ / "outside";
    watcher_ = std::make_unique<Watcher>(rec_.Callbacks());
    ASSERT_GE(watcher_->fd(), 0);
  }
  void TearDown() override {
    watcher_.reset();
    std::error_code ec;
    fs::remove_all(base_, ec);
  }

  // Watches a, b and the sentinel as they are now.
  void WatchAll() {
    ASSERT_EQ(watcher_->AddView(kA, a_), 0);
    ASSERT_EQ(watcher_->AddView(kB, b_), 0);
    ASSERT_EQ(watcher_->AddView(kSentinel, base_ / "sentinel"), 0);
  }

  // The views reported since the last call, once everything done before
  // it has been read.
  std::set<uint64_t> Reported() {
    rec_.changed.clear();
    Write(base_ / "sentinel" / "tick");
    const bool seen = PumpUntil(*watcher_, [&] {
      return std::count(rec_.changed.begin(), rec_.changed.end(), kSentinel) > 0;
    });
    EXPECT_TRUE(seen) << "the sentinel's write was never reported";
    std::set<uint64_t> out(rec_.changed.begin(), rec_.changed.end());
    out.erase(kSentinel);
    rec_.changed.clear();
    return out;
  }
  // Reads what is queued so far and forgets it.
  void Settle() { Reported(); }

  std::vector<std::string> Folders(uint64_t view) { return watcher_->TEST_Folders(view); }

  fs::path base_, a_, b_, outside_;
  Recorder rec_;
  std::unique_ptr<Watcher> watcher_;
};

using Ids = std::set<uint64_t>;

TEST_F(WatcherTest, EveryKindOfChangeReportsItsOwnView) {
  fs::create_directories(a_ / "sub");
  Write(a_ / "file");
  Write(a_ / "sub" / "deep");
  Write(b_ / "other");
  WatchAll();

  // Extended attributes of the user namespace need a file system that
  // keeps them; root may always use the trusted namespace.
  auto set_xattr = [](const fs::path& p) {
    if (setxattr(p.c_str(), "user.tidepool", "1", 1, 0) == 0) return;
    ASSERT_EQ(setxattr(p.c_str(), "trusted.tidepool", "1", 1, 0), 0) << strerror(errno);
  };
  const std::vector<std::pair<std::string, std::function<void()>>> cases = {
      {"write", [&] { Write(a_ / "file", "more"); }},
      {"create", [&] { Write(a_ / "new"); }},
      {"create in a subfolder", [&] { Write(a_ / "sub" / "new"); }},
      {"delete", [&] { fs::remove(a_ / "new"); }},
      {"rename", [&] { fs::rename(a_ / "file", a_ / "renamed"); }},
      {"chmod", [&] { fs::permissions(a_ / "renamed", fs::perms::owner_all); }},
      {"chmod a folder", [&] { fs::permissions(a_ / "sub", fs::perms::owner_all); }},
      {"xattr", [&] { set_xattr(a_ / "sub" / "deep"); }},
      {"mkdir", [&] { fs::create_directory(a_ / "made"); }},
      {"rmdir", [&] { fs::remove(a_ / "made"); }},
      {"truncate", [&] { fs::resize_file(a_ / "sub" / "deep", 0); }},
  };
  for (const auto& [name, action] : cases) {
    SCOPED_TRACE(name);
    action();
    EXPECT_EQ(Reported(), Ids{kA});
  }
  // The other view reports only for itself, and both when both change.
  Write(b_ / "other", "more");
  EXPECT_EQ(Reported(), Ids{kB});
  Write(a_ / "sub" / "deep");
  Write(b_ / "other");
  EXPECT_EQ(Reported(), (Ids{kA, kB}));
  EXPECT_TRUE(rec_.rescans.empty());

  // What each folder was given is counted, whatever else changed in it:
  // created files and folders and what was moved in, not writes, deletes
  // or what was moved out.
  rec_.added.clear();
  for (int i = 0; i < 20; ++i) Write(a_ / ("copy" + std::to_string(i)), "x");
  fs::create_directory(a_ / "sub" / "made");
  fs::rename(a_ / "copy0", a_ / "sub" / "copy0");
  fs::remove(a_ / "copy1");
  Write(a_ / "copy2", "again");
  EXPECT_EQ(Reported(), Ids{kA});
  EXPECT_EQ(rec_.added[""], 20u);
  EXPECT_EQ(rec_.added["sub"], 2u);
}

TEST_F(WatcherTest, NewTreesAreWatchedWhole) {
  WatchAll();
  // Filled right away, before the watcher has read anything: the folders
  // below the first are made before any of their watches can exist.
  fs::create_directories(a_ / "x" / "y" / "z");
  Write(a_ / "x" / "y" / "z" / "early");
  EXPECT_EQ(Reported(), Ids{kA});
  for (const char* f : {"x", "x/y", "x/y/z"}) EXPECT_TRUE(Contains(Folders(kA), f)) << f;
  rec_.folders.clear();
  Write(a_ / "x" / "y" / "z" / "later");
  EXPECT_EQ(Reported(), Ids{kA});
  // The change names its folder, so that only that folder is scanned.
  EXPECT_TRUE(Contains(rec_.folders, "x/y/z"));

  // A tree built outside and moved in is watched down to its leaves.
  fs::create_directories(outside_ / "t" / "u" / "v");
  fs::rename(outside_ / "t", a_ / "t");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(a_ / "t" / "u" / "v" / "f");
  EXPECT_EQ(Reported(), Ids{kA});

  // Names that are not UTF-8 are names like any other.
  const fs::path odd = a_ / std::string("\xff\xfe-\xc3");
  fs::create_directories(odd / "in");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(odd / "in" / "f");
  EXPECT_EQ(Reported(), Ids{kA});
}

TEST_F(WatcherTest, MovedFoldersAreWatchedWhereTheyGo) {
  fs::create_directories(a_ / "old" / "sub");
  fs::create_directories(a_ / "parent");
  fs::create_directories(a_ / "leaving" / "sub");
  fs::create_directories(a_ / "crossing" / "sub");
  WatchAll();

  // Renamed within the view: watched at the new name, not the old.
  fs::rename(a_ / "old", a_ / "parent" / "new");
  EXPECT_EQ(Reported(), Ids{kA});
  const auto folders = Folders(kA);
  EXPECT_TRUE(Contains(folders, "parent/new/sub"));
  EXPECT_FALSE(Contains(folders, "old"));
  EXPECT_FALSE(Contains(folders, "old/sub"));
  Write(a_ / "parent" / "new" / "sub" / "f");
  EXPECT_EQ(Reported(), Ids{kA});
  // A folder made inside the moved one is found at its real place.
  fs::create_directory(a_ / "parent" / "new" / "sub" / "deeper");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(a_ / "parent" / "new" / "sub" / "deeper" / "f");
  EXPECT_EQ(Reported(), Ids{kA});

  // Moved out of every view: silent from then on.
  fs::rename(a_ / "leaving", outside_ / "left");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(outside_ / "left" / "sub" / "f");
  fs::create_directory(outside_ / "left" / "sub" / "more");
  EXPECT_EQ(Reported(), Ids{});

  // Moved into another view: reported for that one only.
  fs::rename(a_ / "crossing", b_ / "crossed");
  EXPECT_EQ(Reported(), (Ids{kA, kB}));
  Write(b_ / "crossed" / "sub" / "f");
  EXPECT_EQ(Reported(), Ids{kB});
  EXPECT_FALSE(Contains(Folders(kA), "crossing/sub"));
}

TEST_F(WatcherTest, LinksAndSystemFoldersAreNeverEntered) {
  fs::create_directories(outside_ / "secret");
  fs::create_directories(a_ / "@eaDir" / "work");
  fs::create_directory_symlink(outside_, a_ / "link");
  fs::create_directory_symlink(a_ / "loop", a_ / "loop");
  fs::create_directory_symlink(a_ / "l2", a_ / "l1");
  fs::create_directory_symlink(a_ / "l1", a_ / "l2");
  fs::create_directory_symlink(a_, b_ / "back");  // a link to another view
  WatchAll();
  EXPECT_EQ(Folders(kA), std::vector<std::string>{""});
  EXPECT_EQ(Folders(kB), std::vector<std::string>{""});

  Write(outside_ / "secret" / "f");
  Write(outside_ / "f");
  Write(a_ / "@eaDir" / "work" / "f");
  EXPECT_EQ(Reported(), Ids{});
  // Through b's link to a: only a's own watch speaks.
  Write(b_ / "back" / "f");
  EXPECT_EQ(Reported(), Ids{kA});

  // A link made later is a change, and still not followed.
  fs::create_directory_symlink(outside_ / "secret", a_ / "later");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(outside_ / "secret" / "g");
  EXPECT_EQ(Reported(), Ids{});

  // A folder made and swapped for a link before the watcher reads its
  // event is not entered when its event is read.
  fs::create_directory(a_ / "swapped");
  fs::remove(a_ / "swapped");
  fs::create_directory_symlink(outside_ / "secret", a_ / "swapped");
  EXPECT_EQ(Reported(), Ids{kA});
  Write(outside_ / "secret" / "h");
  EXPECT_EQ(Reported(), Ids{});

  // A root that is a link, or under one, is refused.
  fs::create_directory_symlink(a_, base_ / "root-link");
  EXPECT_EQ(watcher_->AddView(7, base_ / "root-link"), -1);
  EXPECT_EQ(watcher_->AddView(7, base_ / "root-link" / "@eaDir"), -1);
  EXPECT_EQ(watcher_->AddView(7, "relative/root"), -1);
  EXPECT_FALSE(watcher_->Watching(7));
}

TEST_F(WatcherTest, StatsCountFoldersAndRemovedViewsFallSilent) {
  fs::create_directories(a_ / "p" / "q");
  fs::create_directories(a_ / "r");
  Write(a_ / "p" / "file");  // files are not counted
  WatchAll();
  auto stats_of = [&](uint64_t id) {
    for (const auto& s : watcher_->Stats()) {
      if (s.view_id == id) return s;
    }
    ADD_FAILURE() << "no stats for view " << id;
    return Watcher::ViewStats{};
  };
  EXPECT_EQ(watcher_->Stats().size(), 3u);
  EXPECT_EQ(stats_of(kA).folders, 4u);  // the root, p, p/q, r
  EXPECT_EQ(stats_of(kA).root, a_.string());
  EXPECT_FALSE(stats_of(kA).partial);
  EXPECT_EQ(stats_of(kB).folders, 1u);

  fs::create_directories(a_ / "s" / "t");
  fs::remove_all(a_ / "p");
  Settle();
  EXPECT_EQ(stats_of(kA).folders, 4u);  // the root, r, s, s/t

  // Added again: walked again, nothing doubled.
  ASSERT_EQ(watcher_->AddView(kA, a_), 0);
  EXPECT_EQ(stats_of(kA).folders, 4u);
  Write(a_ / "s" / "t" / "f");
  EXPECT_EQ(Reported(), Ids{kA});

  watcher_->RemoveView(kA);
  EXPECT_FALSE(watcher_->Watching(kA));
  EXPECT_TRUE(watcher_->Watching(kB));
  Write(a_ / "s" / "t" / "f");
  Write(a_ / "f");
  EXPECT_EQ(Reported(), Ids{});
  Write(b_ / "f");
  EXPECT_EQ(Reported(), Ids{kB});
}

TEST_F(WatcherTest, RootThatGoesAwayAsksForRescan) {
  fs::create_directories(a_ / "sub");
  WatchAll();
  auto rescans_of = [&](uint64_t id) {
    return std::count_if(rec_.rescans.begin(), rec_.rescans.end(),
                         [&](const auto& r) { return r.first == id; });
  };

  fs::rename(a_, base_ / "a-moved");
  ASSERT_TRUE(PumpUntil(*watcher_, [&] { return rescans_of(kA) > 0; }));
  EXPECT_NE(rec_.rescans.back().second.find("moved"), std::string::npos);
  EXPECT_TRUE(watcher_->Watching(kA));
  EXPECT_EQ(watcher_->Stats()[0].folders, 0u);
  // The moved tree is no longer the view.
  Write(base_ / "a-moved" / "sub" / "f");
  EXPECT_EQ(Reported(), Ids{});

  // Back in place and added again, it reports; deleted, it asks again.
  fs::rename(base_ / "a-moved", a_);
  ASSERT_EQ(watcher_->AddView(kA, a_), 0);
  Write(a_ / "sub" / "f");
  EXPECT_EQ(Reported(), Ids{kA});
  rec_.rescans.clear();
  fs::remove_all(a_);
  ASSERT_TRUE(PumpUntil(*watcher_, [&] { return rescans_of(kA) > 0; }));
  EXPECT_NE(rec_.rescans.back().second.find("deleted"), std::string::npos);
  EXPECT_EQ(rescans_of(kB), 0);
  Write(b_ / "f");
  EXPECT_EQ(Reported(), Ids{kB});
}

TEST_F(WatcherTest, FolderSwappedForALinkDuringTheWalkIsNotEntered) {
  fs::create_directories(a_ / "victim");
  fs::create_directories(outside_ / "secret");
  Watcher::TEST_SetBeforeOpen([&](const std::string& rel) {
    if (rel != "victim") return;
    fs::remove(a_ / "victim");
    fs::create_directory_symlink(outside_ / "secret", a_ / "victim");
  });
  WatchAll();
  Watcher::TEST_SetBeforeOpen(nullptr);
  EXPECT_EQ(Folders(kA), std::vector<std::string>{""});
  Settle();
  Write(outside_ / "secret" / "f");
  EXPECT_EQ(Reported(), Ids{});
}

// The kernel's queue is flooded for real (its size is a host-wide setting
// other processes depend on, so it is read, not lowered).
TEST_F(WatcherTest, OverflowRescansEveryViewAndCatchesUpWithTheTree) {
  size_t queue = 0;
  if (std::ifstream in("/proc/sys/fs/inotify/max_queued_events"); !(in >> queue)) {
    GTEST_SKIP() << "the size of the event queue is not readable";
  }
  if (queue > 200000) GTEST_SKIP() << "the event queue holds " << queue << " events";
  WatchAll();
  fs::create_directory(a_ / "flood");
  Settle();
  // Each file gives two events (made, closed after writing).
  for (size_t i = 0; i < queue / 2 + 100; ++i) {
    const int fd =
        open((a_ / "flood" / std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  // Made while the queue is full: its event is lost.
  fs::create_directories(a_ / "late" / "deep");
  ASSERT_TRUE(PumpUntil(*watcher_, [&] { return rec_.rescans.size() >= 3; }));
  std::set<uint64_t> rescanned;
  for (const auto& [id, why] : rec_.rescans) {
    EXPECT_NE(why.find("overflow"), std::string::npos) << why;
    rescanned.insert(id);
  }
  EXPECT_EQ(rescanned, (Ids{kA, kB, kSentinel}));
  Settle();
  Write(a_ / "late" / "deep" / "f");
  EXPECT_EQ(Reported(), Ids{kA});
}

// The watch limit is lowered in a user namespace of a child process: the
// limit there is its own, and the host's stays as it is.
TEST_F(WatcherTest, WatchLimitLeavesTheViewPartlyWatched) {
  for (int i = 0; i < 8; ++i) fs::create_directories(a_ / ("d" + std::to_string(i)) / "e");
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(pipe_fds[0]);
    auto put = [&](const std::string& what) {
      if (write(pipe_fds[1], what.data(), what.size()) < 0) _exit(2);
      _exit(0);
    };
    auto write_file = [](const char* path, const char* text) {
      const int fd = open(path, O_WRONLY | O_CLOEXEC);
      const bool ok =
          fd >= 0 && write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
      if (fd >= 0) close(fd);
      return ok;
    };
    if (unshare(CLONE_NEWUSER) != 0) put("skip: no user namespace");
    if (!write_file("/proc/self/setgroups", "deny") || !write_file("/proc/self/uid_map", "0 0 1") ||
        !write_file("/proc/self/gid_map", "0 0 1") ||
        !write_file("/proc/sys/user/max_inotify_watches", "5")) {
      put("skip: the namespace's watch limit cannot be set");
    }
    Recorder rec;
    Watcher w(rec.Callbacks());
    if (w.AddView(kA, a_) != 0) put("AddView failed");
    const auto stats = w.Stats();
    if (stats.size() != 1 || !stats[0].partial || stats[0].folders != 5) {
      put("stats: " + std::to_string(stats.empty() ? 0 : stats[0].folders) + " folders");
    }
    if (rec.rescans.size() != 1 || rec.rescans[0].second != "watch limit reached") {
      put(std::to_string(rec.rescans.size()) + " rescans");
    }
    // The folders watched still report, and more failures ask nothing more.
    fs::create_directory(a_ / "more");
    Write(a_ / "f");
    if (!PumpUntil(w, [&] { return !rec.changed.empty(); })) put("no change reported");
    if (rec.changed[0] != kA) put("wrong view reported");
    if (rec.rescans.size() != 1) put("asked to rescan again");
    put("");
  }
  close(pipe_fds[1]);
  std::string got;
  char buf[256];
  for (ssize_t n; (n = read(pipe_fds[0], buf, sizeof buf)) > 0;) got.append(buf, n);
  close(pipe_fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  if (got.rfind("skip:", 0) == 0) GTEST_SKIP() << got;
  EXPECT_EQ(got, "");
}

}  // namespace
}  // namespace watch
