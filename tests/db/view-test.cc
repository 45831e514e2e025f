// Nodes, versions, the parent chain, activity buckets and rotation of a
// view, as its readers see them.
#include <gtest/gtest.h>

#include "fixture.h"

namespace {

using db::ViewManager;
using dbtest::Add;
using dbtest::Modify;
using dbtest::Move;
using dbtest::Remove;
using dbtest::Tree;

TEST(ViewNodes, QueryByIdPathAndPermanentId) {
  Tree t({{100, Add, "/a/"},
          {110, Add, "/a/x.txt", 10},
          {120, Remove, "/a/x.txt"},
          {130, Add, "/a/x.txt", 30}},
         201);
  auto& view = t.View();
  db::Node root;
  ASSERT_EQ(view.QueryNode(view.getRootNodeId(), root, ViewManager::kQueryExisting), 0);
  EXPECT_EQ(root.getPath(), "/");
  EXPECT_EQ(root.getParentId(), 0u);
  EXPECT_TRUE(root.isDir());
  EXPECT_EQ(view.getViewId(), 201u);

  // The path names the live node; the removed one keeps its own identity.
  db::Node live, any, old;
  ASSERT_EQ(view.QueryNode("/a/x.txt", live, ViewManager::kQueryExisting), 0);
  ASSERT_EQ(view.QueryNode("/a/x.txt/", any, ViewManager::kQueryAny), 0);
  EXPECT_EQ(live.getNodeId(), any.getNodeId());
  EXPECT_EQ(live.getSize(), 30u);
  EXPECT_EQ(live.getExtension(), "txt");
  EXPECT_EQ(live.getName(), "x.txt");
  EXPECT_EQ(live.getParentId(), t.Id("/a"));
  EXPECT_FALSE(live.getPermanentLink().empty());
  std::vector<db::Node> removed;
  db::SearchNodeFilter f;
  f.node_id = t.Id("/a");
  f.removed_mode = 3;
  ASSERT_EQ(view.SearchNode(f, removed), 0);
  ASSERT_EQ(removed.size(), 2u);
  const db::Node& gone = removed[0].isRemoved() ? removed[0] : removed[1];
  EXPECT_TRUE(gone.isRemoved());
  EXPECT_NE(gone.getPermanentId(), live.getPermanentId());
  EXPECT_NE(gone.getPermanentLink(), live.getPermanentLink());

  EXPECT_EQ(view.QueryNode(gone.getNodeId(), old, ViewManager::kQueryExisting), db::kErrNotFound);
  EXPECT_EQ(view.QueryNode(gone.getNodeId(), old, ViewManager::kQueryWithRemoved), 0);
  EXPECT_EQ(old.getVersionCount(), 2u);
  EXPECT_EQ(view.QueryNodeByPermanentId(gone.getPermanentId(), old, 1), db::kErrNotFound);
  ASSERT_EQ(view.QueryNodeByPermanentId(live.getPermanentId(), old, 1), 0);
  EXPECT_EQ(old.getNodeId(), live.getNodeId());
  EXPECT_EQ(old.getPermanentStringId(), std::to_string(live.getPermanentId()));

  for (const char* missing : {"/nope", "/a/x.txt/y", "relative"}) {
    EXPECT_EQ(view.QueryNode(missing, old, ViewManager::kQueryAny), db::kErrNotFound) << missing;
  }
  EXPECT_EQ(view.QueryNode(999999, old, ViewManager::kQueryWithRemoved), db::kErrNotFound);
}

TEST(ViewVersions, ListedOldestFirstWithMarkersAndOldNames) {
  Tree t({{100, Add, "/d/"},
          {110, Add, "/d/f.txt", 1},
          {120, Modify, "/d/f.txt", 2},
          {130, Move, "/d/f.txt", "/d/g.txt"},
          {140, Add, "/e/"},
          {150, Move, "/d/", "/e/d/"},
          {160, Remove, "/e/d/"}},
         202);
  auto& view = t.View();
  const db::Node file = t.Node("/e/d/g.txt");
  EXPECT_TRUE(file.isRemoved());
  for (auto flag : {ViewManager::kListVersionForDisplay, ViewManager::kListVersionAll}) {
    std::vector<db::Version> versions;
    ASSERT_EQ(view.ListVersion(file.getNodeId(), versions, flag), 4);
    std::vector<uint32_t> times;
    for (const auto& v : versions) times.push_back(v.getVerCreatedTime());
    EXPECT_EQ(times, (std::vector<uint32_t>{110, 120, 130, 160}));
    EXPECT_EQ(versions[0].getSize(), 1u);
    EXPECT_EQ(versions[1].getSize(), 2u);
    // A rename keeps the content; a marker keeps none.
    EXPECT_EQ(versions[2].getFileId(), versions[1].getFileId());
    EXPECT_EQ(versions[2].getHash(), versions[1].getHash());
    EXPECT_FALSE(versions[2].isRemoved());
    EXPECT_TRUE(versions[3].isRemoved());
    EXPECT_EQ(versions[3].getFileId(), 0u);
    EXPECT_EQ(versions[3].getClientId(), "test-client");
    EXPECT_EQ(versions[1].getUserId(), 1026u);
    EXPECT_EQ(versions[1].getUnixMode(), 0100644u);
    EXPECT_TRUE(versions[1].isFile());
  }
  std::vector<db::Version> by_permanent;
  ASSERT_EQ(view.ListVersionByPermanentId(file.getPermanentId(), by_permanent,
                                          ViewManager::kListVersionAll),
            4);
  // Each version opens by its identity, and the node shows as it was then.
  struct Case {
    size_t index;
    const char* path;
    uint64_t size;
    bool removed;
  } cases[] = {{0, "/d/f.txt", 1, false},
               {1, "/d/f.txt", 2, false},
               {2, "/d/g.txt", 2, false},
               {3, "/e/d/g.txt", 2, true}};
  for (const auto& c : cases) {
    const auto& v = by_permanent[c.index];
    db::Version opened;
    ASSERT_EQ(view.OpenVersionByPermanentId(file.getPermanentId(), v.getSyncId(), opened), 0);
    EXPECT_EQ(opened.getVerCreatedTime(), v.getVerCreatedTime());
    db::Node then;
    ASSERT_EQ(view.QueryNodeByPermanentIdAndSyncId(file.getPermanentId(), v.getSyncId(), then,
                                                   ViewManager::kQueryWithRemoved),
              0);
    EXPECT_EQ(then.getPath(), c.path);
    EXPECT_EQ(then.getSize(), c.size);
    EXPECT_EQ(then.isRemoved(), c.removed);
    EXPECT_EQ(then.getSyncId(), v.getSyncId());
  }
  db::Version none;
  EXPECT_LT(view.OpenVersionByPermanentId(file.getPermanentId(), 999999, none), 0);
  std::vector<db::Version> empty;
  EXPECT_LT(view.ListVersion(999999, empty, ViewManager::kListVersionAll), 0);
}

TEST(ViewParents, RootFirstNodeLast) {
  Tree t({{100, Add, "/p/"}, {100, Add, "/p/q/"}, {100, Add, "/p/q/r.txt", 3}}, 203);
  std::vector<db::Node> chain;
  ASSERT_EQ(t.View().QueryParentNodes(t.Id("/p/q/r.txt"), chain), 0);
  std::vector<std::string> paths;
  for (const auto& n : chain) paths.push_back(n.getPath());
  EXPECT_EQ(paths, (std::vector<std::string>{"/", "/p", "/p/q", "/p/q/r.txt"}));
  ASSERT_EQ(t.View().QueryParentNodes(t.View().getRootNodeId(), chain), 0);
  EXPECT_EQ(chain.size(), 1u);
  EXPECT_EQ(t.View().QueryParentNodes(424242, chain), db::kErrNotFound);
}

TEST(ViewActivity, BucketsAlignedToTheTimeZone) {
  const uint32_t day = 86400;
  const uint32_t base = 1700006400;  // midnight UTC
  Tree t({{base + 10, Add, "/w/"},
          {base + 20, Add, "/w/a.txt", 1},
          {base + 3600 * 2, Modify, "/w/a.txt", 2},
          {base + 3600 * 23, Modify, "/w/a.txt", 3},
          {base + day + 5, Add, "/other.txt", 1},
          {base + day + 60, Add, "/w/b.txt", 1},
          {base + 3 * day, Remove, "/w/b.txt"}},
         204);
  auto& view = t.View();
  struct Case {
    int32_t tz;
    uint64_t interval;
    uint64_t start, end;
    std::vector<std::pair<int32_t, int32_t>> want;
  } cases[] = {
      {0, day, base, base + 4 * day, {{base, 4}, {base + day, 1}, {base + 3 * day, 1}}},
      // Three hours east: local midnight is 21:00 UTC of the day before.
      {3 * 3600,
       day,
       base,
       base + 4 * day,
       {{base - 3 * 3600, 3}, {base + day - 3 * 3600, 2}, {base + 3 * day - 3 * 3600, 1}}},
      {-2 * 3600,
       day,
       base,
       base + 4 * day,
       {{base - day + 2 * 3600, 2}, {base + 2 * 3600, 3}, {base + 2 * day + 2 * 3600, 1}}},
      {0, 3600, base, base + 3 * 3600, {{base, 2}, {base + 7200, 1}}},
      {0, day, base + day, base + 2 * day, {{base + day, 1}}},
  };
  for (const auto& c : cases) {
    std::vector<db::NodeActivity> got;
    ASSERT_EQ(view.ListNodeActivity(t.Id("/w"), c.start, c.end, c.interval, c.tz, got), 0);
    std::vector<std::pair<int32_t, int32_t>> pairs;
    for (const auto& a : got) pairs.emplace_back(a.timestamp, a.activity_count);
    EXPECT_EQ(pairs, c.want) << "tz " << c.tz << " interval " << c.interval;
  }
  std::vector<db::NodeActivity> all;
  ASSERT_EQ(view.ListNodeActivity(view.getRootNodeId(), base, base + 4 * day, day, 0, all), 0);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1].activity_count, 2);
  EXPECT_LT(view.ListNodeActivity(t.Id("/w"), base, base + day, 0, 0, all), 0);
}

TEST(ViewRotation, OldestVersionsGoLatestStays) {
  Tree t({{100, Add, "/r.txt", 1},
          {200, Modify, "/r.txt", 2},
          {300, Modify, "/r.txt", 3},
          {400, Modify, "/r.txt", 4}},
         205);
  auto& w = t.Writer();
  std::vector<db::Version> removed;
  ASSERT_EQ(w.RotateVersions(t.Id("/r.txt"), 2, removed), 2);
  ASSERT_EQ(removed.size(), 2u);
  EXPECT_EQ(removed[0].getSize(), 1u);
  EXPECT_EQ(removed[1].getSize(), 2u);
  EXPECT_EQ(t.Node("/r.txt").getVersionCount(), 2u);
  EXPECT_EQ(w.RotateVersions(t.Id("/r.txt"), 5, removed), 0);
  EXPECT_TRUE(removed.empty());
  ASSERT_EQ(w.RotateVersions(t.Id("/r.txt"), 0, removed), 1);
  std::vector<db::Version> left;
  ASSERT_EQ(t.View().ListVersion(t.Id("/r.txt"), left, ViewManager::kListVersionAll), 1);
  EXPECT_EQ(left[0].getSize(), 4u);
  EXPECT_EQ(t.Node("/r.txt").getSize(), 4u);

  int count = 0;
  ASSERT_EQ(t.View().SetRotateCount(7), 0);
  ASSERT_EQ(t.View().GetRotateCount(count), 0);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(t.View().SetRotateDays(30), 0);
  EXPECT_EQ(t.View().SetRotatePolicy("smart"), 0);
  unsigned long long size = 0;
  ASSERT_EQ(t.View().GetNodeDeltaSizeSum(size), 0);
  EXPECT_EQ(size, 4u);
}

TEST(ViewWriter, RefusesWhatCannotBe) {
  Tree t({{100, Add, "/f.txt", 1}, {100, Add, "/dir/"}}, 206);
  auto& w = t.Writer();
  db::NewVersion v;
  db::Node out;
  v.ctime = 200;
  struct Case {
    const char* path;
    int want;
  } cases[] = {{"/missing/x.txt", db::kErrNotFound},
               {"/f.txt/x", db::kErrInvalid},
               {"/", db::kErrInvalid},
               {"rel.txt", db::kErrInvalid},
               {"/dir/../x", db::kErrInvalid},
               {"/dir//x", db::kErrInvalid}};
  for (const auto& c : cases) {
    v.path = c.path;
    EXPECT_EQ(w.AddVersion(v, out), c.want) << c.path;
  }
  // The root takes new versions as a folder only.
  v.path = "/";
  v.file_type = db::kFileTypeDir;
  v.mode = 040700;
  ASSERT_EQ(w.AddVersion(v, out), 0);
  EXPECT_EQ(out.getNodeId(), t.View().getRootNodeId());
  EXPECT_EQ(out.getPath(), "/");
  EXPECT_EQ(out.getVersionCount(), 2u);
  v.file_type = db::kFileTypeFile;
  EXPECT_EQ(w.MoveNode(t.Id("/dir"), "/dir/inner", 300, ""), db::kErrInvalid);
  EXPECT_EQ(w.MoveNode(t.Id("/dir"), "/f.txt", 300, ""), db::kErrInvalid);
  EXPECT_EQ(w.RemoveNode(t.View().getRootNodeId(), 300, ""), db::kErrInvalid);
  ASSERT_EQ(w.RemoveNode(t.Id("/f.txt"), 300, ""), 0);
  EXPECT_EQ(w.RemoveNode(t.Id("/f.txt"), 400, ""), db::kErrNotFound);

  // A batch rolled back leaves nothing behind.
  ASSERT_EQ(w.Begin(), 0);
  v.path = "/dir/tmp.txt";
  ASSERT_EQ(w.AddVersion(v, out), 0);
  ASSERT_EQ(w.Rollback(), 0);
  EXPECT_EQ(t.View().QueryNode("/dir/tmp.txt", out, ViewManager::kQueryAny), db::kErrNotFound);
  EXPECT_EQ(w.Commit(), db::kErrInvalid);

  // Another connection sees the committed tree.
  db::ViewDBInterface other;
  ASSERT_EQ(db::Manager::GetViewDB(206, other), 0);
  EXPECT_EQ(other->QueryNode("/dir", out, ViewManager::kQueryExisting), 0);
  EXPECT_EQ(db::Manager::CreateView(206), 0);  // again: kept as it is
  EXPECT_EQ(other->QueryNode("/dir", out, ViewManager::kQueryExisting), 0);
}

}  // namespace
