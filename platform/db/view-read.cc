// Reading a view: nodes, their versions, searches over the present tree and
// over the tree at a past moment, activity buckets and settings.
#include <SQLiteCpp/Transaction.h>

#include <algorithm>
#include <climits>
#include <variant>

#include "db/errors.h"
#include "sqlite-handle.h"
#include "view-db.h"

namespace db::internal {
namespace {

// Columns of a node row, in the order NodeFromRow reads them; `s` is either
// the `nodes` table or the state of every node at a past moment.
constexpr const char* kNodeColumns =
    "s.node_id, s.parent_id, s.sync_id, s.permanent_id, s.permanent_link, s.name, s.path, "
    "s.extension, s.file_type, s.size, s.ver_cnt, s.mtime, s.removed, s.permanent_removed, "
    "s.encrypted";

constexpr const char* kVersionColumns =
    "v.node_id, n.permanent_id, v.sync_id, v.parent_id, v.name, v.file_id, v.file_uuid, "
    "v.mac_attr_file_id, v.mac_attr_uuid, v.mac_attr_hash, v.hash, v.size, v.client_id, "
    "v.ctime, v.mtime, v.ver_type, v.file_type, v.uid, v.gid, v.mode, v.acl, v.removed";

// The newest version of node `n` created at or before the moment bound as ?.
constexpr const char* kStateAt =
    "(SELECT x.sync_id FROM versions x WHERE x.node_id = n.node_id AND x.ctime <= ? "
    "ORDER BY x.ctime DESC, x.sync_id DESC LIMIT 1)";

constexpr int kMaxDepth = 4096;

using Value = std::variant<long long, std::string>;

long long Clamp(uint64_t v) { return v > static_cast<uint64_t>(LLONG_MAX) ? LLONG_MAX : v; }

void BindAll(SQLite::Statement& q, const std::vector<Value>& values) {
  int i = 1;
  for (const auto& v : values) {
    if (const auto* n = std::get_if<long long>(&v)) {
      q.bind(i++, static_cast<int64_t>(*n));
    } else {
      q.bind(i++, std::get<std::string>(v));
    }
  }
}

bool Unsigned(const SQLite::Column& c, uint64_t& out) {
  long long v = c.getInt64();
  if (v < 0) return false;
  out = static_cast<uint64_t>(v);
  return true;
}

bool U32(const SQLite::Column& c, uint32_t& out) {
  long long v = c.getInt64();
  if (v < 0 || v > UINT32_MAX) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

bool FileType(const SQLite::Column& c, int32_t& out) {
  long long v = c.getInt64();
  if (v < kFileTypeFile || v > kFileTypeSymlink) return false;
  out = static_cast<int32_t>(v);
  return true;
}

// A glob with '*' and '?' as a LIKE pattern (which ignores ASCII case).
std::string LikeOf(const std::string& glob) {
  std::string out;
  for (char c : glob) {
    if (c == '*') {
      out += '%';
    } else if (c == '?') {
      out += '_';
    } else {
      if (c == '%' || c == '_' || c == '\\') out += '\\';
      out += c;
    }
  }
  return out;
}

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

}  // namespace

int ViewDB::NodeFromRow(SQLite::Statement& q, const std::string* path, Node& out) {
  NodeRecord r;
  uint32_t ver_cnt = 0;
  if (!Unsigned(q.getColumn(0), r.node_id) || r.node_id == 0 ||
      !Unsigned(q.getColumn(1), r.parent_id) || !Unsigned(q.getColumn(2), r.sync_id) ||
      !Unsigned(q.getColumn(3), r.permanent_id) || !FileType(q.getColumn(8), r.file_type) ||
      !Unsigned(q.getColumn(9), r.size) || !U32(q.getColumn(10), ver_cnt) ||
      !U32(q.getColumn(11), r.version_mtime)) {
    return kErrCorrupt;
  }
  r.version_count = ver_cnt;
  r.permanent_link = q.getColumn(4).getString();
  r.name = q.getColumn(5).getString();
  r.path = path ? *path : q.getColumn(6).getString();
  if (r.path.empty() || r.path[0] != '/') return kErrCorrupt;
  r.extension = q.getColumn(7).getString();
  r.removed = q.getColumn(12).getInt() != 0;
  r.permanent_removed = q.getColumn(13).getInt() != 0;
  r.encrypted = q.getColumn(14).getInt() != 0;
  out = Node(std::move(r));
  return kOk;
}

int ViewDB::VersionFromRow(SQLite::Statement& q, Version& out) {
  VersionRecord r;
  if (!Unsigned(q.getColumn(0), r.node_id) || r.node_id == 0 ||
      !Unsigned(q.getColumn(1), r.permanent_id) || !Unsigned(q.getColumn(2), r.sync_id) ||
      !Unsigned(q.getColumn(3), r.parent_id) || !Unsigned(q.getColumn(5), r.file_id) ||
      !Unsigned(q.getColumn(7), r.mac_attr_file_id) || !Unsigned(q.getColumn(11), r.size) ||
      !U32(q.getColumn(13), r.ctime) || !U32(q.getColumn(14), r.mtime) ||
      !U32(q.getColumn(15), r.ver_type) || !FileType(q.getColumn(16), r.file_type) ||
      !U32(q.getColumn(17), r.uid) || !U32(q.getColumn(18), r.gid) ||
      !U32(q.getColumn(19), r.mode)) {
    return kErrCorrupt;
  }
  r.name = q.getColumn(4).getString();
  r.file_uuid = q.getColumn(6).getString();
  r.mac_attr_uuid = q.getColumn(8).getString();
  r.mac_attr_hash = q.getColumn(9).getString();
  r.hash = q.getColumn(10).getString();
  r.client_id = q.getColumn(12).getString();
  r.acl = q.getColumn(20).getString();
  r.removed = q.getColumn(21).getInt() != 0;
  out = Version(std::move(r));
  return kOk;
}

int ViewDB::FindNodeRow(const char* where, int flags, Node& out, uint64_t key) {
  return Guard("query node", [&]() -> int {
    std::string sql = std::string("SELECT ") + kNodeColumns + " FROM nodes s WHERE " + where;
    if (flags == kQueryExisting) sql += " AND s.removed = 0";
    auto q = Prepared(sql);
    q->bind(1, static_cast<int64_t>(Clamp(key)));
    if (!q->executeStep()) return static_cast<int>(kErrNotFound);
    return NodeFromRow(*q, nullptr, out);
  });
}

int ViewDB::QueryNode(uint64_t node_id, Node& out, int flags) {
  return FindNodeRow("s.node_id = ?", flags, out, node_id);
}

int ViewDB::QueryNodeByPermanentId(uint64_t permanent_id, Node& out, int flags) {
  return FindNodeRow("s.permanent_id = ?", flags, out, permanent_id);
}

int ViewDB::QueryNode(const std::string& path, Node& out, int flags) {
  return Guard("query node by path", [&]() -> int {
    std::string sql = std::string("SELECT ") + kNodeColumns + " FROM nodes s WHERE s.path = ?";
    if (flags == kQueryExisting) sql += " AND s.removed = 0";
    // The live node there, else the one removed last.
    sql += " ORDER BY s.removed, s.ctime DESC, s.node_id DESC LIMIT 1";
    SQLite::Statement q(*db_, sql);
    q.bind(1, NormalizePath(path));
    if (!q.executeStep()) return static_cast<int>(kErrNotFound);
    return NodeFromRow(q, nullptr, out);
  });
}

int ViewDB::PathAt(uint64_t node_id, uint64_t moment, std::map<uint64_t, std::string>& cache,
                   std::string& out) {
  std::vector<std::pair<uint64_t, std::string>> chain;  // node, its name then
  uint64_t id = node_id;
  std::string base;
  SQLite::Statement q(*db_,
                      "SELECT parent_id, name FROM versions WHERE node_id = ? AND ctime <= ? "
                      "ORDER BY ctime DESC, sync_id DESC LIMIT 1");
  for (int depth = 0;; ++depth) {
    if (depth > kMaxDepth) return kErrCorrupt;
    if (id == root_id_) {
      base = "/";
      break;
    }
    if (auto it = cache.find(id); it != cache.end()) {
      base = it->second;
      break;
    }
    q.reset();
    q.bind(1, static_cast<int64_t>(id));
    q.bind(2, static_cast<int64_t>(Clamp(moment)));
    if (!q.executeStep()) {
      out.clear();  // not in the tree then
      return kOk;
    }
    uint64_t parent = 0;
    if (!Unsigned(q.getColumn(0), parent)) return kErrCorrupt;
    chain.emplace_back(id, q.getColumn(1).getString());
    if (parent == 0) {
      out.clear();
      return kOk;
    }
    id = parent;
  }
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    base = (base == "/" ? "/" : base + "/") + it->second;
    cache[it->first] = base;
  }
  out = base;
  return kOk;
}

int ViewDB::QueryNodeByPermanentIdAndSyncId(uint64_t permanent_id, uint64_t sync_id, Node& out,
                                            int flags) {
  return Guard("query node by version", [&]() -> int {
    SQLite::Statement q(
        *db_,
        "SELECT v.node_id, v.parent_id, v.sync_id, n.permanent_id, n.permanent_link, v.name, "
        "'/', v.extension, v.file_type, v.size, (SELECT count(*) FROM versions c WHERE "
        "c.node_id = v.node_id AND (c.ctime < v.ctime OR (c.ctime = v.ctime AND c.sync_id <= "
        "v.sync_id))), v.mtime, v.removed, n.permanent_removed, v.encrypted, v.ctime "
        "FROM versions v JOIN nodes n ON n.node_id = v.node_id "
        "WHERE n.permanent_id = ? AND v.sync_id = ?");
    q.bind(1, static_cast<int64_t>(Clamp(permanent_id)));
    q.bind(2, static_cast<int64_t>(Clamp(sync_id)));
    if (!q.executeStep()) return static_cast<int>(kErrNotFound);
    if (flags == kQueryExisting && q.getColumn(12).getInt() != 0) {
      return static_cast<int>(kErrNotFound);
    }
    uint64_t parent = 0;
    uint32_t ctime = 0;
    if (!Unsigned(q.getColumn(1), parent) || !U32(q.getColumn(15), ctime)) {
      return static_cast<int>(kErrCorrupt);
    }
    std::string path = "/";
    if (parent != 0) {
      std::map<uint64_t, std::string> cache;
      std::string parent_path;
      int rc = PathAt(parent, ctime, cache, parent_path);
      if (rc < 0) return rc;
      if (parent_path.empty()) return static_cast<int>(kErrCorrupt);
      path = (parent_path == "/" ? "/" : parent_path + "/") + q.getColumn(5).getString();
    }
    return NodeFromRow(q, &path, out);
  });
}

int ViewDB::QueryParentNodes(uint64_t node_id, std::vector<Node>& out) {
  out.clear();
  uint64_t id = node_id;
  for (int depth = 0; id != 0; ++depth) {
    if (depth > kMaxDepth) return kErrCorrupt;
    Node node;
    int rc = QueryNode(id, node, kQueryWithRemoved);
    if (rc < 0) return depth > 0 && rc == kErrNotFound ? kErrCorrupt : rc;
    id = node.getParentId();
    out.push_back(std::move(node));
  }
  std::reverse(out.begin(), out.end());
  return kOk;
}

// list_mode, list_submode and for_listing select nothing here: every
// search is index-served as it is. With a ctime upper bound each node's
// state (and version count) is taken as of that moment.
int ViewDB::RunSearch(const SearchNodeFilter& f, bool count_only, std::vector<Node>* rows,
                      unsigned long long* count) {
  if (f.limit < 0 || f.offset < 0 || (f.sort_direction != 1 && f.sort_direction != 2)) {
    return kErrInvalid;
  }
  const bool past = f.ver_ctime_upper_bound != 0;
  const long long moment = Clamp(f.ver_ctime_upper_bound);
  const uint64_t parent = f.node_id == 0 ? root_id_ : f.node_id;
  const long long p = Clamp(parent);
  std::vector<Value> values;
  std::vector<std::string> ctes;
  const char* source = "nodes";
  if (past) {
    // Every node's state at the moment: its newest version by then.
    std::string st = std::string(
                         "st AS (SELECT n.node_id, v.parent_id, v.sync_id, n.permanent_id, "
                         "n.permanent_link, v.name, NULL AS path, v.extension, v.file_type, "
                         "v.size, (SELECT count(*) FROM versions c WHERE c.node_id = n.node_id "
                         "AND c.ctime <= ?) AS ver_cnt, v.mtime, v.removed, n.permanent_removed, "
                         "v.encrypted, v.sort_key, CASE WHEN v.file_type = 1 THEN 0 ELSE 1 END "
                         "AS grp, v.ctime FROM nodes n JOIN versions v ON v.sync_id = ") +
                     kStateAt;
    values.emplace_back(moment);
    values.emplace_back(moment);
    if (!f.recursive) {
      // Only nodes that ever stood in the folder can stand there at the moment.
      st += " WHERE n.node_id IN (SELECT node_id FROM versions WHERE parent_id = ?)";
      values.emplace_back(p);
    }
    ctes.push_back(st + ")");
    source = "st";
  }
  if (f.recursive) {
    ctes.push_back(std::string("sub(id) AS (SELECT ? UNION SELECT c.node_id FROM ") + source +
                   " c JOIN sub ON c.parent_id = sub.id)");
    values.emplace_back(p);
  }
  std::string sql;
  for (size_t i = 0; i < ctes.size(); ++i) {
    sql += (i == 0 ? "WITH RECURSIVE " : ", ") + ctes[i];
  }
  sql += " ";
  if (count_only) {
    sql += std::string("SELECT count(*) FROM ") + source + " s WHERE ";
  } else {
    sql += std::string("SELECT ") + kNodeColumns + " FROM " + source + " s WHERE ";
  }
  if (f.recursive) {
    sql += "s.node_id IN (SELECT id FROM sub) AND s.node_id != ?";
  } else {
    sql += "s.parent_id = ?";
  }
  values.emplace_back(p);
  if (f.removed_mode != 3) sql += " AND s.removed = 0";
  if (f.encrypted_only) sql += " AND s.encrypted = 1";
  if (f.file_type == kFileTypeDir) {
    sql += " AND s.file_type = 1";
  } else if (f.file_type == 0) {
    sql += " AND s.file_type != 1";
  }
  if (!f.pattern.empty()) {
    sql += " AND s.name LIKE ? ESCAPE '\\'";
    values.emplace_back(LikeOf(f.pattern));
  }
  auto bound = [&](uint64_t v, const char* clause) {
    if (v == 0) return;
    sql += clause;
    values.emplace_back(Clamp(v));
  };
  bound(f.ver_ctime_lower_bound, " AND s.ctime >= ?");
  bound(f.ver_mtime_lower_bound, " AND s.mtime >= ?");
  bound(f.ver_mtime_upper_bound, " AND s.mtime <= ?");
  bound(f.ver_file_size_lower_bound, " AND s.size >= ?");
  bound(f.ver_file_size_upper_bound, " AND s.size <= ?");
  if (!f.exclude_extensions.empty()) {
    sql += " AND (s.file_type = 1 OR lower(s.extension) NOT IN (";
    bool first = true;
    for (const auto& ext : f.exclude_extensions) {
      sql += first ? "?" : ", ?";
      first = false;
      values.emplace_back(Lower(!ext.empty() && ext[0] == '.' ? ext.substr(1) : ext));
    }
    sql += "))";
  }
  if (!count_only) {
    const char* d = f.sort_direction == 1 ? "" : " DESC";
    std::string order;
    if (f.sort_by == "name") {
      // Folders first going up, files first going down: the exact reverse.
      order = "s.grp%, s.sort_key%, s.node_id%";
    } else if (f.sort_by == "mtime") {
      order = "s.mtime%, s.node_id%";
    } else if (f.sort_by == "ver_cnt") {
      order = "s.ver_cnt%, s.node_id%";
    } else if (f.sort_by == "v_file_size") {
      order = "s.size%, s.node_id%";
    } else if (f.sort_by == "file_type") {
      order = "s.file_type%, s.extension%, s.node_id%";
    } else {
      return kErrInvalid;
    }
    sql += " ORDER BY ";
    for (char c : order) {
      if (c == '%') {
        sql += d;
      } else {
        sql += c;
      }
    }
    if (f.limit > 0 || f.offset > 0) {
      sql += " LIMIT ? OFFSET ?";
      values.emplace_back(f.limit > 0 ? f.limit : -1LL);
      values.emplace_back(f.offset);
    }
  }
  SQLite::Statement q(*db_, sql);
  BindAll(q, values);
  if (count_only) {
    q.executeStep();
    long long n = q.getColumn(0).getInt64();
    *count = n < 0 ? 0 : static_cast<unsigned long long>(n);
    return kOk;
  }
  std::map<uint64_t, std::string> paths;
  while (q.executeStep()) {
    Node node;
    int rc = kOk;
    if (past) {
      uint64_t id = 0;
      if (!Unsigned(q.getColumn(0), id)) return kErrCorrupt;
      std::string path;
      rc = PathAt(id, moment, paths, path);
      if (rc < 0) return rc;
      if (path.empty()) continue;  // cut off from the tree then
      rc = NodeFromRow(q, &path, node);
    } else {
      rc = NodeFromRow(q, nullptr, node);
    }
    if (rc < 0) return rc;
    rows->push_back(std::move(node));
  }
  return kOk;
}

int ViewDB::SearchNode(const SearchNodeFilter& filter, std::vector<Node>& out) {
  out.clear();
  return Guard("search node", [&]() -> int { return RunSearch(filter, false, &out, nullptr); });
}

int ViewDB::CountNode(const SearchNodeFilter& filter, unsigned long long& count) {
  count = 0;
  return Guard("count node", [&]() -> int { return RunSearch(filter, true, nullptr, &count); });
}

int ViewDB::ListVersion(uint64_t node_id, std::vector<Version>& out, ListVersionFlag) {
  out.clear();
  return Guard("list version", [&]() -> int {
    {
      auto exists = Prepared("SELECT 1 FROM nodes WHERE node_id = ?");
      exists->bind(1, static_cast<int64_t>(Clamp(node_id)));
      if (!exists->executeStep()) return static_cast<int>(kErrNotFound);
    }
    auto reused = Prepared(std::string("SELECT ") + kVersionColumns +
                           " FROM versions v JOIN nodes n ON n.node_id = v.node_id "
                           "WHERE v.node_id = ? ORDER BY v.ctime, v.sync_id");
    SQLite::Statement& q = *reused;
    q.bind(1, static_cast<int64_t>(Clamp(node_id)));
    while (q.executeStep()) {
      Version v;
      int rc = VersionFromRow(q, v);
      if (rc < 0) return rc;
      if (v.getNodeId() != node_id) return static_cast<int>(kErrCorrupt);
      out.push_back(std::move(v));
    }
    return static_cast<int>(out.size());
  });
}

int ViewDB::ListVersionByPermanentId(uint64_t permanent_id, std::vector<Version>& out,
                                     ListVersionFlag flag) {
  Node node;
  int rc = QueryNodeByPermanentId(permanent_id, node, kQueryWithRemoved);
  if (rc < 0) {
    out.clear();
    return rc;
  }
  return ListVersion(node.getNodeId(), out, flag);
}

int ViewDB::OpenVersionByPermanentId(uint64_t permanent_id, uint64_t sync_id, Version& out) {
  return Guard("open version", [&]() -> int {
    if (!open_version_) {
      open_version_ = std::make_unique<SQLite::Statement>(
          *db_, std::string("SELECT ") + kVersionColumns +
                    " FROM versions v JOIN nodes n ON n.node_id = v.node_id "
                    "WHERE n.permanent_id = ? AND v.sync_id = ?");
    }
    SQLite::Statement& q = *open_version_;
    q.reset();
    q.bind(1, static_cast<int64_t>(Clamp(permanent_id)));
    q.bind(2, static_cast<int64_t>(Clamp(sync_id)));
    const bool found = q.executeStep();
    int rc = found ? VersionFromRow(q, out) : static_cast<int>(kErrNotFound);
    // Ends the read, so the statement holds no snapshot between calls.
    q.reset();
    if (rc < 0) return rc;
    return out.getSyncId() == sync_id ? static_cast<int>(kOk) : static_cast<int>(kErrCorrupt);
  });
}

int ViewDB::QueryVersionAt(uint64_t node_id, uint64_t moment, Version& out) {
  return Guard("version at", [&]() -> int {
    if (!version_at_) {
      version_at_ = std::make_unique<SQLite::Statement>(
          *db_, std::string("SELECT ") + kVersionColumns +
                    " FROM versions v JOIN nodes n ON n.node_id = v.node_id "
                    "WHERE v.node_id = ? AND v.ctime <= ? ORDER BY v.ctime DESC, v.sync_id DESC "
                    "LIMIT 1");
    }
    SQLite::Statement& q = *version_at_;
    q.reset();
    q.bind(1, static_cast<int64_t>(Clamp(node_id)));
    q.bind(2, static_cast<int64_t>(Clamp(moment)));
    const int rc = q.executeStep() ? VersionFromRow(q, out) : static_cast<int>(kErrNotFound);
    q.reset();
    return rc;
  });
}

int ViewDB::ListNodeActivity(uint64_t node_id, uint64_t start, uint64_t end, uint64_t interval,
                             int32_t tz_offset, std::vector<NodeActivity>& out) {
  out.clear();
  if (interval == 0 || interval > INT32_MAX || end < start) return kErrInvalid;
  return Guard("list activity", [&]() -> int {
    SQLite::Statement exists(*db_, "SELECT 1 FROM nodes WHERE node_id = ?");
    exists.bind(1, static_cast<int64_t>(Clamp(node_id)));
    if (!exists.executeStep()) return static_cast<int>(kErrNotFound);
    // Bucket of t: (t + tz) floored to the interval, minus tz again.
    SQLite::Statement q(*db_,
                        "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION SELECT n.node_id FROM nodes n "
                        "JOIN sub ON n.parent_id = sub.id), "
                        "t(x) AS (SELECT ctime + ?2 FROM versions WHERE node_id IN sub AND "
                        "ctime >= ?3 AND ctime <= ?4) "
                        "SELECT x - ((x % ?5) + ?5) % ?5 - ?2 AS b, count(*) FROM t "
                        "GROUP BY b ORDER BY b");
    q.bind(1, static_cast<int64_t>(Clamp(node_id)));
    q.bind(2, static_cast<int64_t>(tz_offset));
    q.bind(3, static_cast<int64_t>(Clamp(start)));
    q.bind(4, static_cast<int64_t>(Clamp(end)));
    q.bind(5, static_cast<int64_t>(interval));
    while (q.executeStep()) {
      long long b = q.getColumn(0).getInt64();
      long long n = q.getColumn(1).getInt64();
      if (b < INT32_MIN || b > INT32_MAX || n < 0 || n > INT32_MAX) return kErrCorrupt;
      out.push_back({static_cast<int32_t>(b), static_cast<int32_t>(n)});
    }
    return static_cast<int>(kOk);
  });
}

int ViewDB::GetRotateCount(int& count) {
  return Guard("rotate count", [&]() -> int {
    std::string text = GetMeta(*db_, "rotate_count", "32");
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < INT32_MIN || v > INT32_MAX) {
      return static_cast<int>(kErrCorrupt);
    }
    count = static_cast<int>(v);
    return static_cast<int>(kOk);
  });
}

int ViewDB::SetRotateCount(int count) {
  return Guard("set rotate count", [&]() -> int {
    SetMeta(*db_, "rotate_count", std::to_string(count));
    return static_cast<int>(kOk);
  });
}

int ViewDB::SetRotateDays(int days) {
  return Guard("set rotate days", [&]() -> int {
    SetMeta(*db_, "rotate_days", std::to_string(days));
    return static_cast<int>(kOk);
  });
}

int ViewDB::SetRotatePolicy(const std::string& policy) {
  return Guard("set rotate policy", [&]() -> int {
    SetMeta(*db_, "rotate_policy", policy);
    return static_cast<int>(kOk);
  });
}

int ViewDB::SetRotation(int count, int days, const std::string& policy) {
  return Guard("set rotation", [&]() -> int {
    SQLite::Transaction transaction(*db_);
    SetMeta(*db_, "rotate_count", std::to_string(count));
    SetMeta(*db_, "rotate_days", std::to_string(days));
    SetMeta(*db_, "rotate_policy", policy);
    transaction.commit();
    return static_cast<int>(kOk);
  });
}

namespace {

// The text of a rotation, as stored once its histories follow it.
std::string RotateStamp(const RotateSettings& s) {
  return std::to_string(s.count) + "/" + s.policy + "/" + std::to_string(s.days);
}

bool ParseInt(const std::string& text, int& out) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
  out = static_cast<int>(v);
  return true;
}

}  // namespace

int ViewDB::GetRotateSettings(RotateSettings& out) {
  return Guard("rotate settings", [&]() -> int {
    RotateSettings s;
    if (!ParseInt(GetMeta(*db_, "rotate_count", "32"), s.count) ||
        !ParseInt(GetMeta(*db_, "rotate_days", "0"), s.days))
      return static_cast<int>(kErrCorrupt);
    s.policy = GetMeta(*db_, "rotate_policy", "fifo");
    s.applied = GetMeta(*db_, "rotate_applied") == RotateStamp(s);
    out = std::move(s);
    return static_cast<int>(kOk);
  });
}

int ViewDB::MarkRotateSettingsApplied(const RotateSettings& settings) {
  return Guard("mark rotation applied", [&]() -> int {
    SetMeta(*db_, "rotate_applied", RotateStamp(settings));
    return static_cast<int>(kOk);
  });
}

int ViewDB::ListNodesToRotate(int count, uint32_t older_than, std::vector<HistoryNode>& out) {
  out.clear();
  if (count <= 0 && older_than == 0) return static_cast<int>(kOk);
  return Guard("nodes to rotate", [&]() -> int {
    SQLite::Statement q(*db_,
                        "SELECT node_id, path, file_type FROM nodes WHERE (?1 > 0 AND ver_cnt > "
                        "?1) OR (?2 > 0 AND ver_cnt > 1 AND (SELECT min(ctime) FROM versions v "
                        "WHERE v.node_id = nodes.node_id) < ?2) ORDER BY path");
    q.bind(1, count);
    q.bind(2, static_cast<int64_t>(older_than));
    while (q.executeStep()) {
      const int64_t id = q.getColumn(0).getInt64();
      if (id <= 0) return static_cast<int>(kErrCorrupt);
      out.push_back(HistoryNode{static_cast<uint64_t>(id), q.getColumn(1).getString(),
                                q.getColumn(2).getInt()});
    }
    return static_cast<int>(kOk);
  });
}

int ViewDB::GetNodeDeltaSizeSum(unsigned long long& size) {
  size = 0;
  return Guard("size sum", [&]() -> int {
    // A move or a rename repeats the content of the version before it:
    // count each stored content once.
    SQLite::Statement q(*db_,
                        "SELECT total(size) FROM (SELECT DISTINCT file_uuid, file_id, size "
                        "FROM versions WHERE file_id != 0 AND removed = 0)");
    q.executeStep();
    double total = q.getColumn(0).getDouble();
    size = total < 0 ? 0 : static_cast<unsigned long long>(total);
    return static_cast<int>(kOk);
  });
}

int ViewDB::GetMacAttrSizeSum(unsigned long long& size) {
  size = 0;  // attribute sizes are not stored in the view
  return kOk;
}

int ViewDB::ContentInUse(const std::string& uuid, const std::vector<uint64_t>& file_ids,
                         std::vector<uint64_t>& in_use) {
  in_use.clear();
  return Guard("content in use", [&]() -> int {
    // File ids grow as content is stored, so a view's versions name ids in
    // one range: ids outside it need no lookup (most views, in a purge of
    // another one).
    struct Column {
      const char* bounds;
      const char* probe;
    };
    const Column columns[] = {
        {"SELECT min(file_id), max(file_id) FROM versions WHERE file_id != 0",
         "SELECT 1 FROM versions WHERE file_id = ?1 AND file_id != 0 AND file_uuid = ?2 LIMIT 1"},
        {"SELECT min(mac_attr_file_id), max(mac_attr_file_id) FROM versions WHERE "
         "mac_attr_file_id != 0",
         "SELECT 1 FROM versions WHERE mac_attr_file_id = ?1 AND mac_attr_file_id != 0 AND "
         "mac_attr_uuid = ?2 LIMIT 1"}};
    std::vector<uint64_t> sorted(file_ids);
    std::sort(sorted.begin(), sorted.end());
    std::vector<bool> used(sorted.size(), false);
    for (const Column& column : columns) {
      SQLite::Statement bounds(*db_, column.bounds);
      if (!bounds.executeStep() || bounds.getColumn(0).isNull()) continue;
      const auto low = static_cast<uint64_t>(bounds.getColumn(0).getInt64());
      const auto high = static_cast<uint64_t>(bounds.getColumn(1).getInt64());
      bounds.reset();
      SQLite::Statement probe(*db_, column.probe);
      auto it = std::lower_bound(sorted.begin(), sorted.end(), low);
      for (; it != sorted.end() && *it <= high; ++it) {
        const size_t i = static_cast<size_t>(it - sorted.begin());
        if (used[i]) continue;
        probe.reset();
        probe.bind(1, static_cast<int64_t>(*it));
        probe.bind(2, uuid);
        if (probe.executeStep()) used[i] = true;
      }
    }
    for (size_t i = 0; i < sorted.size(); ++i)
      if (used[i]) in_use.push_back(sorted[i]);
    return static_cast<int>(kOk);
  });
}

int ViewDB::GetSignatureSizeSum(unsigned long long& size) {
  size = 0;  // signatures are not stored in the view
  return kOk;
}

int ViewDB::ForEachVersion(const std::function<int(const Version&)>& visit) {
  return Guard("each version", [&]() -> int {
    // Sync id order is the table's own: no sort, whatever the view's size.
    SQLite::Statement q(*db_, std::string("SELECT ") + kVersionColumns +
                                  " FROM versions v JOIN nodes n ON n.node_id = v.node_id "
                                  "ORDER BY v.sync_id");
    int count = 0;
    while (q.executeStep()) {
      Version v;
      int rc = VersionFromRow(q, v);
      if (rc < 0) return rc;
      if ((rc = visit(v)) < 0) return rc;
      if (count < INT_MAX) ++count;
    }
    return count;
  });
}

int ViewDB::OpenReadOnly(const std::string& path, uint64_t view_id, std::unique_ptr<ViewDB>& out) {
  int rc = kOk;
  auto database = OpenDatabase(path, false, &rc, true);
  if (!database) return rc;
  if ((rc = CheckSchema(*database, ViewMigrations())) < 0) return rc;
  auto view = std::make_unique<ViewDB>(view_id, std::move(database));
  if ((rc = view->LoadRoot()) < 0) return rc;
  out = std::move(view);
  return kOk;
}

}  // namespace db::internal
