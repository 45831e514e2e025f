// POSIX.1e access checks along a chain of ancestors; the rules are stated
// in acl.h. ACL text is parsed by hand: the grammar is small and libacl
// would be one more library in every request process.
#include "acl.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <tuple>

namespace ACL_API {
namespace {

constexpr unsigned kR = 4;
constexpr unsigned kW = 2;
constexpr unsigned kX = 1;

constexpr uint32_t kReadBits = 0x0001 | 0x0008 | 0x0080 | 0x0400;
constexpr uint32_t kWriteBits =
    0x0002 | 0x0004 | 0x0010 | 0x0040 | 0x0100 | 0x0200 | 0x0800 | 0x1000;
constexpr uint32_t kExecuteBits = 0x0020;

enum EntryTag { kOwner = 0, kNamedUser, kOwningGroup, kNamedGroup, kMask, kOther };

unsigned RwxOfMask(uint32_t mask) {
  return ((mask & kReadBits) ? kR : 0) | ((mask & kWriteBits) ? kW : 0) |
         ((mask & kExecuteBits) ? kX : 0);
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

std::optional<unsigned> ParsePerms(std::string_view text) {
  if (text.empty()) return std::nullopt;
  unsigned perms = 0;
  for (char c : text) {
    if (c == 'r') {
      perms |= kR;
    } else if (c == 'w') {
      perms |= kW;
    } else if (c == 'x') {
      perms |= kX;
    } else if (c != '-') {
      return std::nullopt;
    }
  }
  return perms;
}

// A numeric id, or a name of the system's users or groups.
std::optional<uint32_t> ParseQualifier(std::string_view text, bool user) {
  if (text.empty()) return std::nullopt;
  if (std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    if (text.size() > 10) return std::nullopt;
    const unsigned long long id = std::strtoull(std::string(text).c_str(), nullptr, 10);
    if (id > UINT32_MAX) return std::nullopt;
    return static_cast<uint32_t>(id);
  }
  const std::string name(text);
  if (user) {
    const passwd* pw = getpwnam(name.c_str());
    if (pw != nullptr) return pw->pw_uid;
  } else {
    const group* gr = getgrnam(name.c_str());
    if (gr != nullptr) return gr->gr_gid;
  }
  return std::nullopt;
}

// One "tag:qualifier:perms" entry; false when it is malformed. "default:"
// entries are accepted and dropped: they govern new files, not access.
bool ParseEntry(std::string_view text, std::vector<std::tuple<int, uint32_t, unsigned>>& out) {
  std::string_view fields[4];
  std::size_t n = 0;
  while (true) {
    const std::size_t colon = text.find(':');
    if (n == 4) return false;
    fields[n++] = Trim(text.substr(0, colon));
    if (colon == std::string_view::npos) break;
    text.remove_prefix(colon + 1);
  }
  std::size_t first = 0;
  if (fields[0] == "default" || fields[0] == "d") {
    first = 1;
  }
  if (n - first != 3 && !(n - first == 2 && (fields[first] == "other" || fields[first] == "o" ||
                                             fields[first] == "mask" || fields[first] == "m"))) {
    return false;
  }
  const std::string_view tag = fields[first];
  const std::string_view qualifier = n - first == 3 ? fields[first + 1] : std::string_view();
  const std::optional<unsigned> perms = ParsePerms(fields[n - 1]);
  if (!perms) return false;
  int kind;
  uint32_t id = 0;
  if (tag == "user" || tag == "u") {
    kind = qualifier.empty() ? kOwner : kNamedUser;
  } else if (tag == "group" || tag == "g") {
    kind = qualifier.empty() ? kOwningGroup : kNamedGroup;
  } else if (tag == "mask" || tag == "m") {
    kind = kMask;
  } else if (tag == "other" || tag == "o") {
    kind = kOther;
  } else {
    return false;
  }
  if ((kind == kMask || kind == kOther) && !qualifier.empty()) return false;
  if (kind == kNamedUser || kind == kNamedGroup) {
    const std::optional<uint32_t> parsed = ParseQualifier(qualifier, kind == kNamedUser);
    if (!parsed) return false;
    id = *parsed;
  }
  if (first == 0) out.emplace_back(kind, id, *perms);
  return true;
}

// Entries separated by newlines or commas; "#" starts a comment.
bool ParseText(const std::string& text, std::vector<std::tuple<int, uint32_t, unsigned>>& out) {
  std::string_view rest(text);
  while (!rest.empty()) {
    std::size_t end = rest.find_first_of(",\n");
    std::string_view item = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    const std::size_t hash = item.find('#');
    if (hash != std::string_view::npos) item = item.substr(0, hash);
    item = Trim(item);
    if (item.empty()) continue;
    if (!ParseEntry(item, out)) return false;
  }
  return true;
}

bool IsAtOrBelow(const std::string& path, const std::string& base) {
  if (base == "/") return !path.empty() && path[0] == '/';
  return path == base || (path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
                          path[base.size()] == '/');
}

bool Matches(const ACLRule::Entry& e, const ACL::UserInfo& user) {
  switch (e.tag) {
    case ACLRule::kTagUser:
      return e.id == user.uid;
    case ACLRule::kTagGroup:
      return user.gids.count(e.id) > 0;
    case ACLRule::kTagEveryone:
      return true;
    default:
      return false;
  }
}

}  // namespace

ACL::Level ACL::MakeLevel(const Privilege& privilege) {
  Level level;
  level.privilege = privilege;
  std::vector<std::tuple<int, uint32_t, unsigned>> parsed;
  level.valid = ParseText(privilege.acl, parsed);
  bool has[6] = {};
  for (const auto& [tag, id, perms] : parsed) {
    level.entries.push_back({tag, id, perms});
    has[tag] = true;
  }
  const uint32_t mode = privilege.mode;
  if (!has[kOwner]) level.entries.push_back({kOwner, 0, (mode >> 6) & 7});
  if (!has[kOwningGroup]) level.entries.push_back({kOwningGroup, 0, (mode >> 3) & 7});
  if (!has[kOther]) level.entries.push_back({kOther, 0, mode & 7});
  return level;
}

int ACL::AddPrivilege(const Privilege& privilege) {
  levels_.push_back(MakeLevel(privilege));
  return levels_.back().valid ? 0 : -1;
}

bool ACL::ChildAllowed(const Privilege& child, const UserInfo& user, uint32_t mask) const {
  const Level* folder = FindLevel(0);
  if (folder == nullptr) return false;
  const Level node = MakeLevel(child);
  if (!Allows(node, user, kR) || !Allows(*folder, user, kX)) return false;
  return mask == 0 || (Allows(node, user, RwxOfMask(mask)) && Allows(*folder, user, kW | kX));
}

int ACL::AddACE(const std::string& path, const ACLRule::Entry& entry) {
  if (path.empty() || path[0] != '/') return -1;
  if (entry.tag < ACLRule::kTagUser || entry.tag > ACLRule::kTagEveryone) return -1;
  aces_.push_back({path, entry});
  return 0;
}

ACL ACL::Descend(const Privilege& child) const {
  ACL out;
  out.aces_ = aces_;
  out.levels_.reserve(levels_.size() + 1);
  for (const Level& level : levels_) {
    out.levels_.push_back(level);
    ++out.levels_.back().privilege.level;
  }
  Privilege node = child;
  node.level = 0;
  out.AddPrivilege(node);
  return out;
}

const ACL::Level* ACL::FindLevel(int32_t level) const {
  for (const Level& l : levels_) {
    if (l.privilege.level == level) return &l;
  }
  return nullptr;
}

bool ACL::Allows(const Level& level, const UserInfo& user, unsigned want) const {
  // Added entries first: a deny wins, allows cover what they name.
  unsigned granted = 0;
  for (const Ace& ace : aces_) {
    const bool applies = level.privilege.path == ace.path ||
                         (ace.entry.inherit != 0 && IsAtOrBelow(level.privilege.path, ace.path));
    if (!applies || !Matches(ace.entry, user)) continue;
    const unsigned rwx = RwxOfMask(ace.entry.mask);
    if (ace.entry.allow == 0) {
      if (rwx & want) return false;
    } else {
      granted |= rwx;
    }
  }
  want &= ~granted;
  if (want == 0) return true;
  if (!level.valid) return false;
  if (user.uid == 0) return true;

  const Privilege& p = level.privilege;
  unsigned mask = 7;
  for (const AclEntry& e : level.entries) {
    if (e.tag == kMask) mask = e.perms;
  }
  auto holds = [want](unsigned perms) { return (perms & want) == want; };
  for (const AclEntry& e : level.entries) {
    if (e.tag == kOwner && user.uid == p.uid) return holds(e.perms);
  }
  for (const AclEntry& e : level.entries) {
    if (e.tag == kNamedUser && e.id == user.uid) return holds(e.perms & mask);
  }
  bool group_matched = false;
  for (const AclEntry& e : level.entries) {
    const bool member = (e.tag == kOwningGroup && user.gids.count(p.gid) > 0) ||
                        (e.tag == kNamedGroup && user.gids.count(e.id) > 0);
    if (!member) continue;
    if (holds(e.perms & mask)) return true;
    group_matched = true;
  }
  if (group_matched) return false;
  for (const AclEntry& e : level.entries) {
    if (e.tag == kOther) return holds(e.perms);
  }
  return false;
}

bool ACL::IsAccessible(const UserInfo& user, int flags) const {
  const Level* node = FindLevel(0);
  if (node == nullptr || !Allows(*node, user, kR)) return false;
  if (flags & kNodeOnly) return true;
  for (const Level& l : levels_) {
    if (l.privilege.level > 0 && !Allows(l, user, kX)) return false;
  }
  return true;
}

bool ACL::CheckPermission(const UserInfo& user, uint32_t mask, int flags) const {
  const Level* node = FindLevel(0);
  if (node == nullptr || !Allows(*node, user, RwxOfMask(mask))) return false;
  if (flags & kNodeOnly) return true;
  const Level* folder = FindLevel(1);
  return folder == nullptr || Allows(*folder, user, kW | kX);
}

}  // namespace ACL_API
