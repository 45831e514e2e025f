// Access decisions over chains of ACL text and unix modes, as a table of
// situations: who asks, what the chain holds, what the answer is.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "acl.h"

namespace {

using ACL_API::ACL;

constexpr uint32_t kOwner = 1026;
constexpr uint32_t kAlice = 1027;
constexpr uint32_t kBob = 1028;
constexpr uint32_t kStaff = 200;
constexpr uint32_t kUsers = 100;

struct Level {
  std::string acl;
  uint32_t mode;
  std::string path;
};

// A chain from the root down: the last level is the node.
ACL Chain(const std::vector<Level>& levels) {
  ACL acl;
  const int n = static_cast<int>(levels.size());
  for (int i = 0; i < n; ++i) {
    ACL::Privilege p;
    p.acl = levels[i].acl;
    p.path = levels[i].path;
    p.uid = kOwner;
    p.gid = kStaff;
    p.mode = levels[i].mode;
    p.level = n - 1 - i;
    p.is_dir = i + 1 < n;
    acl.AddPrivilege(p);
  }
  return acl;
}

ACL::UserInfo Subject(uint32_t uid, std::set<unsigned int> gids = {kUsers}) { return {uid, gids}; }

TEST(Acl, ReadAlongTheChain) {
  struct Case {
    const char* what;
    std::vector<Level> chain;
    ACL::UserInfo who;
    bool readable;
  } cases[] = {
      {"mode alone: other may read and search",
       {{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0644, "/a/f"}},
       Subject(kAlice),
       true},
      {"owner with owner-only modes",
       {{"", 0700, "/"}, {"", 0700, "/a"}, {"", 0600, "/a/f"}},
       Subject(kOwner),
       true},
      {"other without search on a folder",
       {{"", 0755, "/"}, {"", 0754, "/a"}, {"", 0644, "/a/f"}},
       Subject(kAlice),
       false},
      {"other without read on the node",
       {{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0640, "/a/f"}},
       Subject(kAlice),
       false},
      {"owning group member reads",
       {{"", 0755, "/"}, {"", 0750, "/a"}, {"", 0640, "/a/f"}},
       Subject(kAlice, {kStaff}),
       true},
      {"group match refuses even though other would allow",
       {{"", 0755, "/"}, {"", 0705, "/a"}, {"", 0604, "/a/f"}},
       Subject(kAlice, {kStaff}),
       false},
      {"named user entry, long form with effective comment",
       {{"", 0755, "/"},
        {"user::rwx\nuser:1027:r-x\t#effective:r-x\ngroup::---\nmask::r-x\nother::---\n", 0750,
         "/a"},
        {"user::rw-\nuser:1027:r--\ngroup::---\nmask::r--\nother::---\n", 0640, "/a/f"}},
       Subject(kAlice),
       true},
      {"named user limited by the mask, short form",
       {{"", 0755, "/"},
        {"u::rwx,u:1027:r-x,g::---,m::r-x,o::---", 0750, "/a"},
        {"u::rw-,u:1027:r--,g::---,m::---,o::---", 0600, "/a/f"}},
       Subject(kAlice),
       false},
      {"named group entry",
       {{"", 0755, "/"},
        {"u::rwx,g::---,g:300:r-x,m::r-x,o::---", 0750, "/a"},
        {"u::rw-,g::---,g:300:r--,m::r--,o::---", 0640, "/a/f"}},
       Subject(kAlice, {kUsers, 300}),
       true},
      {"another user is not the named one",
       {{"", 0755, "/"},
        {"u::rwx,u:1027:r-x,g::---,m::r-x,o::---", 0750, "/a"},
        {"u::rw-,u:1027:r--,g::---,m::r--,o::---", 0640, "/a/f"}},
       Subject(kBob),
       false},
      {"default entries do not grant access",
       {{"", 0755, "/"}, {"u::rwx,g::---,o::---,d:u:1027:rwx", 0700, "/a"}, {"", 0644, "/a/f"}},
       Subject(kAlice),
       false},
      {"unparsable text grants nothing",
       {{"", 0755, "/"}, {"user:nosuchname-zz:rwx,o::r-x", 0755, "/a"}, {"", 0644, "/a/f"}},
       Subject(kAlice),
       false},
      {"root passes any mode", {{"", 0700, "/"}, {"", 0000, "/f"}}, Subject(0), true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Chain(c.chain).IsAccessible(c.who, 0), c.readable) << c.what;
  }
}

TEST(Acl, AddedEntries) {
  const std::vector<Level> closed = {{"", 0700, "/"}, {"", 0700, "/a"}, {"", 0600, "/a/f"}};
  const ACL_API::ACLRule::Entry full_control{1, kAlice, 0x1FFF, 6, 1};

  ACL home = Chain(closed);
  ASSERT_EQ(home.AddACE("/", full_control), 0);
  EXPECT_TRUE(home.IsAccessible(Subject(kAlice), 0)) << "inherited from the root";
  EXPECT_TRUE(home.CheckPermission(Subject(kAlice), 0x18A, 0));
  EXPECT_FALSE(home.IsAccessible(Subject(kBob), 0)) << "the entry names one user";

  ACL root_only = Chain(closed);
  root_only.AddACE("/", {1, kAlice, 0x1FFF, 0, 1});
  EXPECT_FALSE(root_only.IsAccessible(Subject(kAlice), 0)) << "no inheritance: root alone";

  ACL denied = Chain({{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0644, "/a/f"}});
  denied.AddACE("/a", {2, kUsers, 0x1, 6, 0});
  EXPECT_FALSE(denied.IsAccessible(Subject(kAlice), 0)) << "a deny wins over the mode";
  EXPECT_TRUE(denied.IsAccessible(Subject(kAlice, {kStaff}), 0)) << "other groups untouched";

  ACL bad;
  EXPECT_LT(bad.AddACE("relative", full_control), 0);
  EXPECT_LT(bad.AddACE("/", {9, kAlice, 0x1FFF, 6, 1}), 0);
}

TEST(Acl, WriteNeedsTheNodeAndItsFolder) {
  struct Case {
    const char* what;
    std::vector<Level> chain;
    bool writable;
  } cases[] = {
      {"owner with write on file and folder",
       {{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0644, "/a/f"}},
       true},
      {"read-only file", {{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0444, "/a/f"}}, false},
      {"file writable, folder not", {{"", 0755, "/"}, {"", 0555, "/a"}, {"", 0644, "/a/f"}}, false},
      {"write but no read on the file",
       {{"", 0755, "/"}, {"", 0755, "/a"}, {"", 0244, "/a/f"}},
       false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Chain(c.chain).CheckPermission(Subject(kOwner), 0x18A, 0), c.writable) << c.what;
  }
  // Only the node's own level with kNodeOnly.
  EXPECT_TRUE(Chain(cases[2].chain).CheckPermission(Subject(kOwner), 0x18A, ACL::kNodeOnly));
  // Nothing to judge: refused.
  EXPECT_FALSE(ACL().IsAccessible(Subject(kOwner), 0));
  EXPECT_FALSE(ACL().CheckPermission(Subject(kOwner), 0x1, 0));
}

}  // namespace

namespace {

// Judging a child alone under a folder that passed gives the same answer as
// judging its whole chain, for reading and for restoring over it, with and
// without an owner's entry at the top.
TEST(Acl, AChildJudgedAloneAgreesWithItsWholeChain) {
  // A folder others may search, and one they may list but not enter.
  const Level children[] = {
      {"", 0644, "/a/f"},
      {"", 0600, "/a/f"},
      {"user::rw-\nuser:1028:rw-\ngroup::---\nmask::rw-\nother::---", 0600, "/a/f"},
      {"user::rw-\ngroup::r--\ngroup:200:---\nmask::r--\nother::r--", 0644, "/a/f"},
      {"garbage", 0644, "/a/f"},
  };
  const ACL::UserInfo subjects[] = {Subject(kOwner), Subject(kAlice), Subject(kBob),
                                    Subject(kAlice, {kStaff})};
  int judged = 0;
  for (const uint32_t folder_mode : {0755u, 0744u})
    for (const bool owner_entry : {false, true}) {
      ACL parents = Chain({{"", 0755, "/"}, {"", folder_mode, "/a"}});
      if (owner_entry) parents.AddACE("/", ACL_API::ACLRule::Entry{1, kBob, 0x1FFF, 6, 1});
      for (const Level& child : children) {
        ACL::Privilege p;
        p.acl = child.acl;
        p.path = child.path;
        p.uid = kOwner;
        p.gid = kStaff;
        p.mode = child.mode;
        const ACL whole = parents.Descend(p);
        for (const ACL::UserInfo& who : subjects) {
          SCOPED_TRACE(child.acl + " mode " + std::to_string(child.mode) + " uid " +
                       std::to_string(who.uid) + (owner_entry ? " with owner entry" : ""));
          // Only children of a folder that passed are judged alone.
          if (!parents.IsAccessible(who, 0)) continue;
          ++judged;
          EXPECT_EQ(parents.ChildAllowed(p, who, 0), whole.IsAccessible(who, 0));
          EXPECT_EQ(parents.ChildAllowed(p, who, 0x18A),
                    whole.IsAccessible(who, 0) && whole.CheckPermission(who, 0x18A, 0));
        }
      }
    }
  EXPECT_EQ(judged, 2 * 2 * 5 * 4);
}

}  // namespace
