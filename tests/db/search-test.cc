// Searching a view: the tree at past moments, every filter member, name
// order with folders grouped, and paging.
#include <gtest/gtest.h>

#include <vector>

#include "fixture.h"

namespace {

using dbtest::Add;
using dbtest::Modify;
using dbtest::Move;
using dbtest::Remove;
using dbtest::Tree;

std::vector<std::string> Paths(db::ViewManager& view, db::SearchNodeFilter f) {
  std::vector<db::Node> nodes;
  EXPECT_EQ(view.SearchNode(f, nodes), 0);
  std::vector<std::string> out;
  for (const auto& n : nodes) out.push_back(n.getPath());
  return out;
}

db::SearchNodeFilter ByName(uint64_t node_id = 0, bool recursive = false) {
  db::SearchNodeFilter f;
  f.sort_by = "name";
  f.sort_direction = 1;
  f.node_id = node_id;
  f.recursive = recursive;
  return f;
}

using Paths_t = std::vector<std::string>;

TEST(SearchAtMoment, TreeAsItStoodThen) {
  Tree t({{100, Add, "/a/"},
          {100, Add, "/a/x.txt", 10},
          {150, Add, "/a/y.txt", 5},
          {200, Modify, "/a/x.txt", 20},
          {300, Remove, "/a/y.txt"},
          {400, Move, "/a/", "/b/"},
          {500, Move, "/b/x.txt", "/b/z.txt"},
          {600, Add, "/c/"},
          {700, Move, "/b/z.txt", "/c/z.txt"}},
         101);
  auto& view = t.View();
  const uint64_t folder = t.Id("/b");
  struct Case {
    uint64_t moment;
    uint64_t parent;
    bool recursive;
    int removed_mode;
    Paths_t want;
  } cases[] = {
      {99, 0, true, 3, {}},
      {100, 0, true, 1, {"/a", "/a/x.txt"}},
      {150, folder, false, 1, {"/a/x.txt", "/a/y.txt"}},
      {300, folder, false, 1, {"/a/x.txt"}},
      {300, folder, false, 3, {"/a/x.txt", "/a/y.txt"}},
      {400, 0, true, 1, {"/b", "/b/x.txt"}},
      {450, 0, true, 3, {"/b", "/b/x.txt", "/b/y.txt"}},
      {500, folder, false, 1, {"/b/z.txt"}},
      {650, 0, false, 1, {"/b", "/c"}},
      {700, folder, false, 1, {}},
      {700, 0, true, 1, {"/b", "/c", "/c/z.txt"}},
      {0, 0, true, 3, {"/b", "/c", "/b/y.txt", "/c/z.txt"}},
  };
  for (const auto& c : cases) {
    auto f = ByName(c.parent, c.recursive);
    f.ver_ctime_upper_bound = c.moment;
    f.removed_mode = c.removed_mode;
    EXPECT_EQ(Paths(view, f), c.want) << "at " << c.moment;
    unsigned long long count = 99;
    EXPECT_EQ(view.CountNode(f, count), 0);
    EXPECT_EQ(count, c.want.size()) << "at " << c.moment;
  }
  // The state at a moment carries that version's size and time.
  auto f = ByName(folder);
  f.ver_ctime_upper_bound = 150;
  std::vector<db::Node> nodes;
  ASSERT_EQ(view.SearchNode(f, nodes), 0);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].getSize(), 10u);
  EXPECT_EQ(nodes[0].getVersionModifiedTime(), 100u);
  EXPECT_EQ(nodes[0].getVersionCount(), 1u);
  f.ver_ctime_upper_bound = 0;
  ASSERT_EQ(view.SearchNode(f, nodes), 0);
  ASSERT_EQ(nodes.size(), 0u);
}

TEST(SearchFilter, EveryMember) {
  Tree t({{100, Add, "/docs/"},
          {100, Add, "/docs/Report.TXT", 100, 50},
          {110, Add, "/docs/notes.md", 2000, 60},
          {120, Add, "/docs/sub/"},
          {130, Add, "/docs/sub/deep.txt", 300, 70},
          {140, Add, "/docs/photo.jpg", 5000, 80},
          {150, Add, "/docs/old.txt", 7, 90},
          {160, Remove, "/docs/old.txt"},
          {170, Modify, "/docs/notes.md", 2500, 95},
          {180, Modify, "/docs/notes.md", 2600, 96},
          {190, Add, "/docs/a%b_c.txt", 1, 97}},
         102);
  auto& view = t.View();
  const uint64_t docs = t.Id("/docs");
  auto base = [&] { return ByName(docs); };
  struct Case {
    const char* name;
    db::SearchNodeFilter f;
    Paths_t want;
  };
  std::vector<Case> cases;
  auto add = [&](const char* name, auto change, Paths_t want) {
    auto f = base();
    change(f);
    cases.push_back({name, f, std::move(want)});
  };
  const Paths_t all = {"/docs/sub", "/docs/a%b_c.txt", "/docs/notes.md", "/docs/photo.jpg",
                       "/docs/Report.TXT"};
  add(
      "no filter", [](auto&) {}, all);
  add("pattern ignores case", [](auto& f) { f.pattern = "*.txt"; },
      {"/docs/a%b_c.txt", "/docs/Report.TXT"});
  add("pattern ?", [](auto& f) { f.pattern = "?ub"; }, {"/docs/sub"});
  add("pattern literal % and _", [](auto& f) { f.pattern = "a%b_c*"; }, {"/docs/a%b_c.txt"});
  add("pattern no wildcard % match", [](auto& f) { f.pattern = "a_b%c*"; }, {});
  add("files only", [](auto& f) { f.file_type = 0; },
      {"/docs/a%b_c.txt", "/docs/notes.md", "/docs/photo.jpg", "/docs/Report.TXT"});
  add("folders only", [](auto& f) { f.file_type = 1; }, {"/docs/sub"});
  add("removed too", [](auto& f) { f.removed_mode = 3; },
      {"/docs/sub", "/docs/a%b_c.txt", "/docs/notes.md", "/docs/old.txt", "/docs/photo.jpg",
       "/docs/Report.TXT"});
  add("limit and offset", [](auto& f) { f.limit = 2, f.offset = 1; },
      {"/docs/a%b_c.txt", "/docs/notes.md"});
  add("offset only", [](auto& f) { f.offset = 4; }, {"/docs/Report.TXT"});
  add("ctime lower bound: changed since", [](auto& f) { f.ver_ctime_lower_bound = 170; },
      {"/docs/a%b_c.txt", "/docs/notes.md"});
  add("ctime upper bound", [](auto& f) { f.ver_ctime_upper_bound = 115; },
      {"/docs/notes.md", "/docs/Report.TXT"});
  add("both ctime bounds",
      [](auto& f) { f.ver_ctime_upper_bound = 175, f.ver_ctime_lower_bound = 150; },
      {"/docs/notes.md"});
  add("mtime bounds", [](auto& f) { f.ver_mtime_lower_bound = 60, f.ver_mtime_upper_bound = 80; },
      {"/docs/photo.jpg"});
  add("mtime at a past moment",
      [](auto& f) { f.ver_ctime_upper_bound = 115, f.ver_mtime_lower_bound = 55; },
      {"/docs/notes.md"});
  add("size bounds",
      [](auto& f) { f.ver_file_size_lower_bound = 100, f.ver_file_size_upper_bound = 2600; },
      {"/docs/notes.md", "/docs/Report.TXT"});
  add("size of the state then",
      [](auto& f) { f.ver_ctime_upper_bound = 170, f.ver_file_size_upper_bound = 2500; },
      {"/docs/sub", "/docs/notes.md", "/docs/Report.TXT"});
  add("recursive", [](auto& f) { f.recursive = true, f.pattern = "*.txt"; },
      {"/docs/a%b_c.txt", "/docs/sub/deep.txt", "/docs/Report.TXT"});
  add("exclude extensions, any case, with or without dot",
      [](auto& f) {
        f.exclude_extensions = {"txt", ".JPG"};
      },
      {"/docs/sub", "/docs/notes.md"});
  for (const auto& c : cases) {
    EXPECT_EQ(Paths(view, c.f), c.want) << c.name;
    if (c.f.limit == 0 && c.f.offset == 0) {
      unsigned long long count = 99;
      EXPECT_EQ(view.CountNode(c.f, count), 0) << c.name;
      EXPECT_EQ(count, c.want.size()) << c.name;
    }
  }
}

TEST(SearchFilter, SortKeysAndDirections) {
  Tree t({{100, Add, "/s/"},
          {110, Add, "/s/b.txt", 30, 300},
          {120, Add, "/s/a.jpg", 10, 100},
          {130, Add, "/s/c/"},
          {140, Add, "/s/d.md", 20, 200},
          {150, Modify, "/s/d.md", 5, 50},
          {160, Modify, "/s/d.md", 6, 60}},
         103);
  auto& view = t.View();
  struct Case {
    const char* sort_by;
    int direction;
    Paths_t want;
  } cases[] = {
      {"mtime", 1, {"/s/d.md", "/s/a.jpg", "/s/c", "/s/b.txt"}},
      {"mtime", 2, {"/s/b.txt", "/s/c", "/s/a.jpg", "/s/d.md"}},
      {"v_file_size", 1, {"/s/c", "/s/d.md", "/s/a.jpg", "/s/b.txt"}},
      {"ver_cnt", 2, {"/s/d.md", "/s/c", "/s/a.jpg", "/s/b.txt"}},
      {"file_type", 1, {"/s/a.jpg", "/s/d.md", "/s/b.txt", "/s/c"}},
      {"name", 1, {"/s/c", "/s/a.jpg", "/s/b.txt", "/s/d.md"}},
      {"name", 2, {"/s/d.md", "/s/b.txt", "/s/a.jpg", "/s/c"}},
  };
  for (const auto& c : cases) {
    auto f = ByName(t.Id("/s"));
    f.sort_by = c.sort_by;
    f.sort_direction = c.direction;
    EXPECT_EQ(Paths(view, f), c.want) << c.sort_by << " " << c.direction;
  }
  auto f = ByName(t.Id("/s"));
  f.sort_by = "size";
  std::vector<db::Node> nodes;
  EXPECT_EQ(view.SearchNode(f, nodes), db::kErrInvalid);
}

TEST(SearchOrder, NaturalNamesFoldersFirstAndPaging) {
  Tree t({{100, Add, "/n/"}}, 104);
  const char* files[] = {"file10.txt", "File2.txt", "file1.txt", "b", "A"};
  const char* folders[] = {"zeta/", "Alpha/", "beta10/", "beta9/"};
  for (const char* name : files) t.Apply({200, Add, std::string("/n/") + name, 1});
  for (const char* name : folders) t.Apply({200, Add, std::string("/n/") + name});
  const Paths_t ascending = {"/n/Alpha", "/n/beta9",     "/n/beta10",    "/n/zeta",      "/n/A",
                             "/n/b",     "/n/file1.txt", "/n/File2.txt", "/n/file10.txt"};
  auto f = ByName(t.Id("/n"));
  EXPECT_EQ(Paths(t.View(), f), ascending);
  f.sort_direction = 2;
  EXPECT_EQ(Paths(t.View(), f), Paths_t(ascending.rbegin(), ascending.rend()));
  // Pages put together give the whole list, in both directions.
  for (int direction : {1, 2}) {
    Paths_t pages;
    for (int offset = 0; offset < 10; offset += 4) {
      auto page = ByName(t.Id("/n"));
      page.sort_direction = direction;
      page.limit = 4;
      page.offset = offset;
      auto got = Paths(t.View(), page);
      EXPECT_LE(got.size(), 4u);
      pages.insert(pages.end(), got.begin(), got.end());
    }
    EXPECT_EQ(pages, direction == 1 ? ascending : Paths_t(ascending.rbegin(), ascending.rend()));
  }
}

}  // namespace
