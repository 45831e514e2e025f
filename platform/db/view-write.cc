// Creating and opening view files and the write side: versions, deletion
// markers, moves, rotation and re-keying names when the collation changes.
#include <SQLiteCpp/Transaction.h>

#include <climits>
#include <filesystem>
#include <random>
#include <set>

#include "db/errors.h"
#include "natural-sort.h"
#include "private-files.h"
#include "sqlite-handle.h"
#include "view-db.h"

namespace db::internal {
namespace {

constexpr const char* kSchema1 = R"sql(
CREATE TABLE nodes(
  node_id INTEGER PRIMARY KEY,
  permanent_id INTEGER NOT NULL UNIQUE,
  permanent_link TEXT NOT NULL,
  parent_id INTEGER NOT NULL,
  path TEXT NOT NULL,
  name TEXT NOT NULL,
  sort_key BLOB NOT NULL,
  grp INTEGER NOT NULL,
  extension TEXT NOT NULL,
  file_type INTEGER NOT NULL,
  size INTEGER NOT NULL,
  mtime INTEGER NOT NULL,
  ctime INTEGER NOT NULL,
  sync_id INTEGER NOT NULL,
  ver_cnt INTEGER NOT NULL,
  removed INTEGER NOT NULL,
  permanent_removed INTEGER NOT NULL DEFAULT 0,
  encrypted INTEGER NOT NULL DEFAULT 0);
CREATE INDEX nodes_by_name ON nodes(parent_id, grp, sort_key, node_id, removed);
CREATE INDEX nodes_by_mtime ON nodes(parent_id, mtime, node_id, removed);
CREATE INDEX nodes_by_ver_cnt ON nodes(parent_id, ver_cnt, node_id, removed);
CREATE INDEX nodes_by_size ON nodes(parent_id, size, node_id, removed);
CREATE INDEX nodes_by_type ON nodes(parent_id, file_type, extension, node_id, removed);
CREATE INDEX nodes_by_path ON nodes(path, removed);
CREATE TABLE versions(
  sync_id INTEGER PRIMARY KEY,
  node_id INTEGER NOT NULL,
  parent_id INTEGER NOT NULL,
  name TEXT NOT NULL,
  sort_key BLOB NOT NULL,
  extension TEXT NOT NULL,
  file_type INTEGER NOT NULL,
  size INTEGER NOT NULL,
  hash TEXT NOT NULL,
  ctime INTEGER NOT NULL,
  mtime INTEGER NOT NULL,
  uid INTEGER NOT NULL,
  gid INTEGER NOT NULL,
  mode INTEGER NOT NULL,
  acl TEXT NOT NULL,
  ver_type INTEGER NOT NULL,
  file_id INTEGER NOT NULL,
  file_uuid TEXT NOT NULL,
  mac_attr_file_id INTEGER NOT NULL,
  mac_attr_uuid TEXT NOT NULL,
  mac_attr_hash TEXT NOT NULL,
  client_id TEXT NOT NULL,
  removed INTEGER NOT NULL,
  encrypted INTEGER NOT NULL);
CREATE INDEX versions_by_node ON versions(node_id, ctime, sync_id);
CREATE INDEX versions_by_parent ON versions(parent_id, node_id);
CREATE INDEX versions_by_ctime ON versions(ctime);
)sql";

constexpr const char* kCopyVersion =
    "INSERT INTO versions(node_id, parent_id, name, sort_key, extension, file_type, size, hash, "
    "ctime, mtime, uid, gid, mode, acl, ver_type, file_id, file_uuid, mac_attr_file_id, "
    "mac_attr_uuid, mac_attr_hash, client_id, removed, encrypted) "
    "SELECT v.node_id, ?2, ?3, ?4, ?5, v.file_type, v.size, v.hash, ?6, v.mtime, v.uid, v.gid, "
    "v.mode, v.acl, v.ver_type, CASE WHEN ?8 THEN 0 ELSE v.file_id END, "
    "CASE WHEN ?8 THEN '' ELSE v.file_uuid END, CASE WHEN ?8 THEN 0 ELSE v.mac_attr_file_id END, "
    "CASE WHEN ?8 THEN '' ELSE v.mac_attr_uuid END, CASE WHEN ?8 THEN '' ELSE v.mac_attr_hash "
    "END, ?7, ?8, v.encrypted FROM nodes n JOIN versions v ON v.sync_id = n.sync_id "
    "WHERE n.node_id = ?1";

// Moves the node's current state to its newest version.
constexpr const char* kRefreshNode =
    "UPDATE nodes SET (parent_id, name, sort_key, grp, extension, file_type, size, mtime, ctime, "
    "sync_id, removed, encrypted) = (SELECT v.parent_id, v.name, v.sort_key, CASE WHEN "
    "v.file_type = 1 THEN 0 ELSE 1 END, v.extension, v.file_type, v.size, v.mtime, v.ctime, "
    "v.sync_id, v.removed, v.encrypted FROM versions v WHERE v.node_id = nodes.node_id ORDER BY "
    "v.ctime DESC, v.sync_id DESC LIMIT 1), ver_cnt = (SELECT count(*) FROM versions v WHERE "
    "v.node_id = nodes.node_id) WHERE node_id = ?";

std::string RandomLink() {
  static std::random_device device;
  static std::mt19937_64 engine(device());
  static const char* hex = "0123456789abcdef";
  std::string out;
  uint64_t a = engine(), b = engine();
  for (int i = 0; i < 16; ++i) out += hex[(a >> (i * 4)) & 0xf];
  for (int i = 0; i < 8; ++i) out += hex[(b >> (i * 4)) & 0xf];
  return out;
}

// A statement in a savepoint of its own, so a failed operation leaves
// nothing behind while an open batch goes on.
template <typename F>
int Atomically(SQLite::Database& db, const char* what, F&& f) {
  return Guard(what, [&]() -> int {
    db.exec("SAVEPOINT op");
    int rc = kErrGeneral;
    try {
      rc = f();
    } catch (...) {
      db.exec("ROLLBACK TO op");
      db.exec("RELEASE op");
      throw;
    }
    if (rc < 0) db.exec("ROLLBACK TO op");
    db.exec("RELEASE op");
    return rc;
  });
}

}  // namespace

// Purging: the journal of content that purged versions named, and indexes
// that find the versions naming a piece of content.
constexpr const char* kSchema2 = R"sql(
CREATE TABLE release_pending(
  file_uuid TEXT NOT NULL,
  file_id INTEGER NOT NULL,
  PRIMARY KEY(file_uuid, file_id)) WITHOUT ROWID;
CREATE INDEX versions_by_file ON versions(file_id) WHERE file_id != 0;
CREATE INDEX versions_by_mac ON versions(mac_attr_file_id) WHERE mac_attr_file_id != 0;
)sql";

// `encrypted` once copied the sealing of an encrypted share onto every
// version; it now says that an office document is password-protected,
// which versions recorded before could not tell.
constexpr const char* kSchema3 = R"sql(
UPDATE versions SET encrypted = 0 WHERE encrypted != 0;
UPDATE nodes SET encrypted = 0 WHERE encrypted != 0;
)sql";

const std::vector<const char*>& ViewMigrations() {
  static const std::vector<const char*> list = {kSchema1, kSchema2, kSchema3};
  return list;
}

std::string SortKeyOf(const std::string& name) {
  std::string key = natsort::SortKey(name);
  // Without a collator every key is the name itself: still one order.
  return key.empty() ? name : key;
}

std::string CurrentCollation() { return natsort::CollationVersion(); }

std::string NormalizePath(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p.empty() ? "/" : p;
}

bool SplitPath(const std::string& path, std::string& parent, std::string& name) {
  std::string p = NormalizePath(path);
  if (p.size() < 2 || p[0] != '/') return false;
  size_t slash = p.rfind('/');
  parent = slash == 0 ? "/" : p.substr(0, slash);
  name = p.substr(slash + 1);
  size_t start = 1;
  while (start <= p.size()) {
    size_t end = p.find('/', start);
    if (end == std::string::npos) end = p.size();
    std::string part = p.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string ExtensionOf(const std::string& name) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return "";
  return name.substr(dot + 1);
}

ViewDB::ViewDB(uint64_t view_id, std::unique_ptr<SQLite::Database> db)
    : view_id_(view_id), db_(std::move(db)) {}

int ViewDB::LoadRoot() {
  return Guard("open view", [&]() -> int {
    SQLite::Statement q(*db_, "SELECT node_id FROM nodes WHERE parent_id = 0 AND path = '/'");
    if (!q.executeStep()) return static_cast<int>(kErrCorrupt);
    long long id = q.getColumn(0).getInt64();
    if (id <= 0) return static_cast<int>(kErrCorrupt);
    root_id_ = static_cast<uint64_t>(id);
    return static_cast<int>(kOk);
  });
}

int ViewDB::Open(const std::string& path, uint64_t view_id, bool for_writing,
                 std::unique_ptr<ViewDB>& out) {
  int rc = kOk;
  auto database = OpenDatabase(path, false, &rc);
  if (!database) return rc;
  rc = Migrate(*database, ViewMigrations());
  if (rc < 0) return rc;
  auto view = std::make_unique<ViewDB>(view_id, std::move(database));
  rc = view->LoadRoot();
  if (rc < 0) return rc;
  if (for_writing) {
    // Writers touch many index pages per change: a larger cache keeps a
    // big batch from spilling the same pages to the log again and again.
    try {
      view->db_->exec("PRAGMA cache_size = -32768");
    } catch (const std::exception&) {
    }
    rc = view->Rekey();
    if (rc < 0) return rc;
  }
  out = std::move(view);
  return kOk;
}

int ViewDB::Create(const std::string& path, uint64_t view_id) {
  tpsys::MakePrivateDir(std::filesystem::path(path).parent_path().string());
  int rc = kOk;
  auto database = OpenDatabase(path, true, &rc);
  if (!database) return rc;
  rc = Migrate(*database, ViewMigrations());
  if (rc < 0) return rc;
  return Guard("create view", [&]() -> int {
    SQLite::Transaction tx(*database, SQLite::TransactionBehavior::IMMEDIATE);
    SQLite::Statement q(*database, "SELECT count(*) FROM nodes WHERE parent_id = 0");
    q.executeStep();
    if (q.getColumn(0).getInt() == 0) {
      SQLite::Statement node(*database,
                             "INSERT INTO nodes(node_id, permanent_id, permanent_link, parent_id, "
                             "path, name, sort_key, grp, extension, file_type, size, mtime, ctime, "
                             "sync_id, ver_cnt, removed) VALUES(1, 1000, ?, 0, '/', '', x'', 0, "
                             "'', 1, 0, 0, 0, 1, 1, 0)");
      node.bind(1, RandomLink());
      node.exec();
      database->exec(
          "INSERT INTO versions(sync_id, node_id, parent_id, name, sort_key, extension, "
          "file_type, size, hash, ctime, mtime, uid, gid, mode, acl, ver_type, file_id, "
          "file_uuid, mac_attr_file_id, mac_attr_uuid, mac_attr_hash, client_id, removed, "
          "encrypted) VALUES(1, 1, 0, '', x'', '', 1, 0, '', 0, 0, 0, 0, 0, '', 2, 0, '', 0, '', "
          "'', '', 0, 0)");
      SetMeta(*database, "collation_version", CurrentCollation());
    }
    tx.commit();
    return static_cast<int>(kOk);
  });
}

int ViewDB::Rekey() {
  std::string now = CurrentCollation();
  return Guard("rekey view", [&]() -> int {
    if (GetMeta(*db_, "collation_version") == now) return static_cast<int>(kOk);
    SQLite::Transaction tx(*db_, SQLite::TransactionBehavior::IMMEDIATE);
    std::map<std::string, std::string> keys;
    for (const char* table : {"nodes", "versions"}) {
      std::vector<std::pair<int64_t, std::string>> rows;
      SQLite::Statement q(*db_, std::string("SELECT rowid, name FROM ") + table);
      while (q.executeStep()) rows.emplace_back(q.getColumn(0).getInt64(), q.getColumn(1));
      SQLite::Statement u(*db_,
                          std::string("UPDATE ") + table + " SET sort_key = ? WHERE rowid = ?");
      for (const auto& [rowid, name] : rows) {
        auto [it, fresh] = keys.try_emplace(name);
        if (fresh) it->second = SortKeyOf(name);
        u.reset();
        u.bind(1, it->second.data(), static_cast<int>(it->second.size()));
        u.bind(2, rowid);
        u.exec();
      }
    }
    SetMeta(*db_, "collation_version", now);
    tx.commit();
    return static_cast<int>(kOk);
  });
}

int ViewDB::LiveNodeAt(const std::string& path, uint64_t& node_id, int32_t& file_type) {
  SQLite::Statement q(*db_, "SELECT node_id, file_type FROM nodes WHERE path = ? AND removed = 0");
  q.bind(1, path);
  if (!q.executeStep()) return kErrNotFound;
  long long id = q.getColumn(0).getInt64();
  if (id <= 0) return kErrCorrupt;
  node_id = static_cast<uint64_t>(id);
  file_type = q.getColumn(1).getInt();
  return kOk;
}

int ViewDB::SubtreeIds(uint64_t node_id, bool live_only, std::vector<uint64_t>& out) {
  SQLite::Statement q(*db_, std::string("WITH RECURSIVE sub(id) AS (SELECT ?1 UNION SELECT "
                                        "n.node_id FROM nodes n JOIN sub ON n.parent_id = sub.id") +
                                (live_only ? " WHERE n.removed = 0" : "") + ") SELECT id FROM sub");
  q.bind(1, static_cast<int64_t>(node_id));
  while (q.executeStep()) out.push_back(static_cast<uint64_t>(q.getColumn(0).getInt64()));
  return kOk;
}

int ViewDB::InsertVersionFrom(uint64_t node_id, uint64_t parent_id, const std::string& name,
                              uint32_t ctime, const std::string& client_id, bool removed) {
  std::string key = SortKeyOf(name);
  SQLite::Statement q(*db_, kCopyVersion);
  q.bind(1, static_cast<int64_t>(node_id));
  q.bind(2, static_cast<int64_t>(parent_id));
  q.bind(3, name);
  q.bind(4, key.data(), static_cast<int>(key.size()));
  q.bind(5, ExtensionOf(name));
  q.bind(6, static_cast<int64_t>(ctime));
  q.bind(7, client_id);
  q.bind(8, removed ? 1 : 0);
  if (q.exec() != 1) return kErrCorrupt;
  SQLite::Statement refresh(*db_, kRefreshNode);
  refresh.bind(1, static_cast<int64_t>(node_id));
  refresh.exec();
  return kOk;
}

int ViewDB::AddVersion(const NewVersion& v, Node& out) {
  std::string parent_path, name;
  // The root takes new versions too (its owner, mode and access list), but
  // stays a folder.
  const bool root = NormalizePath(v.path) == "/" && !v.path.empty();
  if (root && v.file_type != kFileTypeDir) return kErrInvalid;
  if ((!root && !SplitPath(v.path, parent_path, name)) || v.file_type < kFileTypeFile ||
      v.file_type > kFileTypeSymlink || v.size > static_cast<uint64_t>(LLONG_MAX) ||
      v.file_id > static_cast<uint64_t>(LLONG_MAX) ||
      v.mac_attr_file_id > static_cast<uint64_t>(LLONG_MAX)) {
    return kErrInvalid;
  }
  const std::string path = NormalizePath(v.path);
  int rc = Atomically(*db_, "add version", [&]() -> int {
    uint64_t parent_id = 0;
    int32_t parent_type = kFileTypeDir;
    int found = root ? static_cast<int>(kOk) : LiveNodeAt(parent_path, parent_id, parent_type);
    if (found < 0) return found;
    if (parent_type != kFileTypeDir) return static_cast<int>(kErrInvalid);
    uint64_t node_id = root_id_;
    int32_t type = 0;
    if (!root) found = LiveNodeAt(path, node_id, type);
    if (found == kErrNotFound) {
      SQLite::Statement next(*db_, "SELECT ifnull(max(permanent_id), 1000) + 1 FROM nodes");
      next.executeStep();
      SQLite::Statement node(*db_,
                             "INSERT INTO nodes(permanent_id, permanent_link, parent_id, path, "
                             "name, sort_key, grp, extension, file_type, size, mtime, ctime, "
                             "sync_id, ver_cnt, removed, encrypted) VALUES(?, ?, ?, ?, ?, x'', "
                             "1, '', 0, 0, 0, 0, 0, 0, 0, 0)");
      node.bind(1, next.getColumn(0).getInt64());
      node.bind(2, RandomLink());
      node.bind(3, static_cast<int64_t>(parent_id));
      node.bind(4, path);
      node.bind(5, name);
      node.exec();
      node_id = static_cast<uint64_t>(db_->getLastInsertRowid());
    } else if (found < 0) {
      return found;
    }
    std::string key = SortKeyOf(name);
    SQLite::Statement q(*db_,
                        "INSERT INTO versions(node_id, parent_id, name, sort_key, extension, "
                        "file_type, size, hash, ctime, mtime, uid, gid, mode, acl, ver_type, "
                        "file_id, file_uuid, mac_attr_file_id, mac_attr_uuid, mac_attr_hash, "
                        "client_id, removed, encrypted) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                        "?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 0, ?)");
    int i = 1;
    q.bind(i++, static_cast<int64_t>(node_id));
    q.bind(i++, static_cast<int64_t>(parent_id));
    q.bind(i++, name);
    q.bind(i++, key.data(), static_cast<int>(key.size()));
    q.bind(i++, ExtensionOf(name));
    q.bind(i++, v.file_type);
    q.bind(i++, static_cast<int64_t>(v.size));
    q.bind(i++, v.hash);
    q.bind(i++, static_cast<int64_t>(v.ctime));
    q.bind(i++, static_cast<int64_t>(v.mtime));
    q.bind(i++, static_cast<int64_t>(v.uid));
    q.bind(i++, static_cast<int64_t>(v.gid));
    q.bind(i++, static_cast<int64_t>(v.mode));
    q.bind(i++, v.acl);
    q.bind(i++, static_cast<int64_t>(v.ver_type));
    q.bind(i++, static_cast<int64_t>(v.file_id));
    q.bind(i++, v.file_uuid);
    q.bind(i++, static_cast<int64_t>(v.mac_attr_file_id));
    q.bind(i++, v.mac_attr_uuid);
    q.bind(i++, v.mac_attr_hash);
    q.bind(i++, v.client_id);
    q.bind(i++, v.encrypted ? 1 : 0);
    q.exec();
    SQLite::Statement refresh(*db_, kRefreshNode);
    refresh.bind(1, static_cast<int64_t>(node_id));
    refresh.exec();
    return QueryNode(node_id, out, kQueryWithRemoved);
  });
  return rc;
}

int ViewDB::RemoveNode(uint64_t node_id, uint32_t ctime, const std::string& client_id) {
  if (node_id == root_id_ || node_id > static_cast<uint64_t>(LLONG_MAX)) return kErrInvalid;
  return Atomically(*db_, "remove node", [&]() -> int {
    Node node;
    int rc = QueryNode(node_id, node, kQueryExisting);
    if (rc < 0) return rc;
    std::vector<uint64_t> ids;
    SubtreeIds(node_id, true, ids);
    for (uint64_t id : ids) {
      Node each;
      rc = QueryNode(id, each, kQueryExisting);
      if (rc < 0) return rc;
      rc = InsertVersionFrom(id, each.getParentId(), each.getName(), ctime, client_id, true);
      if (rc < 0) return rc;
    }
    return static_cast<int>(kOk);
  });
}

int ViewDB::MoveNode(uint64_t node_id, const std::string& new_path, uint32_t ctime,
                     const std::string& client_id) {
  std::string parent_path, name;
  if (node_id == root_id_ || node_id > static_cast<uint64_t>(LLONG_MAX) ||
      !SplitPath(new_path, parent_path, name)) {
    return kErrInvalid;
  }
  const std::string path = NormalizePath(new_path);
  return Atomically(*db_, "move node", [&]() -> int {
    Node node;
    int rc = QueryNode(node_id, node, kQueryExisting);
    if (rc < 0) return rc;
    const std::string old_path = node.getPath();
    // Not onto a live node, nor into itself.
    if (path == old_path || path.compare(0, old_path.size() + 1, old_path + "/") == 0) {
      return static_cast<int>(kErrInvalid);
    }
    uint64_t parent_id = 0, other = 0;
    int32_t parent_type = 0, other_type = 0;
    rc = LiveNodeAt(parent_path, parent_id, parent_type);
    if (rc < 0) return rc;
    if (parent_type != kFileTypeDir) return static_cast<int>(kErrInvalid);
    if (LiveNodeAt(path, other, other_type) != kErrNotFound) return static_cast<int>(kErrInvalid);
    rc = InsertVersionFrom(node_id, parent_id, name, ctime, client_id, false);
    if (rc < 0) return rc;
    std::vector<uint64_t> ids;
    SubtreeIds(node_id, false, ids);
    SQLite::Statement u(*db_,
                        "UPDATE nodes SET path = ?1 || substr(path, ?2) WHERE node_id = ?3 AND "
                        "substr(path, 1, ?2 - 1) = ?4");
    for (uint64_t id : ids) {
      u.reset();
      u.bind(1, path);
      u.bind(2, static_cast<int64_t>(old_path.size() + 1));
      u.bind(3, static_cast<int64_t>(id));
      u.bind(4, old_path);
      u.exec();
    }
    return static_cast<int>(kOk);
  });
}

int ViewDB::RotateVersions(uint64_t node_id, int keep, std::vector<Version>& removed) {
  removed.clear();
  std::vector<Version> all;
  int rc = ListVersion(node_id, all, kListVersionAll);
  if (rc < 0) return rc;
  const size_t kept = keep < 1 ? 1 : static_cast<size_t>(keep);
  if (all.size() <= kept) return 0;
  rc = Atomically(*db_, "rotate versions", [&]() -> int {
    SQLite::Statement del(*db_, "DELETE FROM versions WHERE sync_id = ? AND node_id = ?");
    for (size_t i = 0; i + kept < all.size(); ++i) {
      del.reset();
      del.bind(1, static_cast<int64_t>(all[i].getSyncId()));
      del.bind(2, static_cast<int64_t>(node_id));
      del.exec();
    }
    SQLite::Statement refresh(*db_, kRefreshNode);
    refresh.bind(1, static_cast<int64_t>(node_id));
    refresh.exec();
    return static_cast<int>(kOk);
  });
  if (rc < 0) return rc;
  removed.assign(all.begin(), all.end() - static_cast<std::ptrdiff_t>(kept));
  return static_cast<int>(removed.size());
}

int ViewDB::DropVersions(uint64_t node_id, const std::vector<uint64_t>& sync_ids,
                         std::vector<Version>& removed) {
  removed.clear();
  if (sync_ids.empty()) return 0;
  std::vector<Version> all;
  int rc = ListVersion(node_id, all, kListVersionAll);
  if (rc < 0) return rc;
  if (all.empty()) return kErrNotFound;
  std::set<uint64_t> wanted(sync_ids.begin(), sync_ids.end());
  // The newest version is the node's present state.
  if (wanted.count(all.back().getSyncId()) != 0) return kErrInvalid;
  std::vector<Version> going;
  for (const Version& v : all)
    if (wanted.count(v.getSyncId()) != 0) going.push_back(v);
  if (going.empty()) return 0;
  rc = Atomically(*db_, "drop versions", [&]() -> int {
    SQLite::Statement del(*db_, "DELETE FROM versions WHERE sync_id = ? AND node_id = ?");
    for (const Version& v : going) {
      del.reset();
      del.bind(1, static_cast<int64_t>(v.getSyncId()));
      del.bind(2, static_cast<int64_t>(node_id));
      del.exec();
    }
    SQLite::Statement refresh(*db_, kRefreshNode);
    refresh.bind(1, static_cast<int64_t>(node_id));
    refresh.exec();
    return static_cast<int>(kOk);
  });
  if (rc < 0) return rc;
  removed = std::move(going);
  return static_cast<int>(removed.size());
}

int ViewDB::PurgeNode(uint64_t node_id, std::vector<PurgedNode>& purged) {
  purged.clear();
  if (node_id == root_id_) return kErrInvalid;
  return Atomically(*db_, "purge node", [&]() -> int {
    SQLite::Statement known(*db_, "SELECT 1 FROM nodes WHERE node_id = ?");
    known.bind(1, static_cast<int64_t>(node_id));
    if (!known.executeStep()) return static_cast<int>(kErrNotFound);
    known.reset();
    db_->exec("CREATE TEMP TABLE IF NOT EXISTS purge_ids(id INTEGER PRIMARY KEY)");
    db_->exec("DELETE FROM temp.purge_ids");
    SQLite::Statement mark(*db_,
                           "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION SELECT n.node_id FROM nodes "
                           "n JOIN sub ON n.parent_id = sub.id) INSERT INTO temp.purge_ids SELECT "
                           "id FROM sub");
    mark.bind(1, static_cast<int64_t>(node_id));
    mark.exec();
    return PurgeMarked(purged);
  });
}

int ViewDB::PurgeRemoved(std::vector<PurgedNode>& purged) {
  purged.clear();
  return Atomically(*db_, "purge removed", [&]() -> int {
    db_->exec("CREATE TEMP TABLE IF NOT EXISTS purge_ids(id INTEGER PRIMARY KEY)");
    db_->exec("DELETE FROM temp.purge_ids");
    // A removed folder's children are removed too; whatever still hangs
    // below one goes with it rather than lose its parent.
    db_->exec(
        "WITH RECURSIVE sub(id) AS (SELECT node_id FROM nodes WHERE removed = 1 UNION SELECT "
        "n.node_id FROM nodes n JOIN sub ON n.parent_id = sub.id) INSERT INTO temp.purge_ids "
        "SELECT id FROM sub");
    return PurgeMarked(purged);
  });
}

int ViewDB::PurgeMarked(std::vector<PurgedNode>& purged) {
  SQLite::Statement root(*db_, "DELETE FROM temp.purge_ids WHERE id = ?");
  root.bind(1, static_cast<int64_t>(root_id_));
  root.exec();
  SQLite::Statement content(
      *db_,
      "INSERT OR IGNORE INTO release_pending(file_uuid, file_id) SELECT v.file_uuid, v.file_id "
      "FROM temp.purge_ids p JOIN versions v ON v.node_id = p.id WHERE v.file_id != 0 AND "
      "v.ver_type = ?");
  content.bind(1, static_cast<int64_t>(kVerTypeStored));
  content.exec();
  db_->exec(
      "INSERT OR IGNORE INTO release_pending(file_uuid, file_id) SELECT v.mac_attr_uuid, "
      "v.mac_attr_file_id FROM temp.purge_ids p JOIN versions v ON v.node_id = p.id WHERE "
      "v.mac_attr_file_id != 0");
  SQLite::Statement list(*db_,
                         "SELECT n.node_id, n.path FROM temp.purge_ids p JOIN nodes n ON "
                         "n.node_id = p.id ORDER BY n.path");
  while (list.executeStep())
    purged.push_back(PurgedNode{static_cast<uint64_t>(list.getColumn(0).getInt64()),
                                list.getColumn(1).getString()});
  list.reset();
  db_->exec("DELETE FROM versions WHERE node_id IN (SELECT id FROM temp.purge_ids)");
  db_->exec("DELETE FROM nodes WHERE node_id IN (SELECT id FROM temp.purge_ids)");
  db_->exec("DELETE FROM temp.purge_ids");
  return static_cast<int>(purged.size());
}

int ViewDB::PendingRelease(std::map<std::string, std::vector<uint64_t>>& out) {
  out.clear();
  return Guard("pending release", [&]() -> int {
    SQLite::Statement q(*db_,
                        "SELECT file_uuid, file_id FROM release_pending ORDER BY file_uuid, "
                        "file_id");
    while (q.executeStep())
      out[q.getColumn(0).getString()].push_back(static_cast<uint64_t>(q.getColumn(1).getInt64()));
    return static_cast<int>(kOk);
  });
}

int ViewDB::ClearPendingRelease(const std::string& uuid) {
  return Guard("clear pending release", [&]() -> int {
    SQLite::Statement q(*db_, "DELETE FROM release_pending WHERE file_uuid = ?");
    q.bind(1, uuid);
    q.exec();
    return static_cast<int>(kOk);
  });
}

int ViewDB::Begin() {
  return Guard("begin", [&]() -> int {
    db_->exec(batch_depth_ == 0 ? "BEGIN IMMEDIATE" : "SAVEPOINT batch");
    ++batch_depth_;
    return static_cast<int>(kOk);
  });
}

int ViewDB::Commit() {
  if (batch_depth_ == 0) return kErrInvalid;
  return Guard("commit", [&]() -> int {
    db_->exec(batch_depth_ == 1 ? "COMMIT" : "RELEASE batch");
    --batch_depth_;
    return static_cast<int>(kOk);
  });
}

int ViewDB::Rollback() {
  if (batch_depth_ == 0) return kErrInvalid;
  return Guard("rollback", [&]() -> int {
    if (batch_depth_ == 1) {
      db_->exec("ROLLBACK");
    } else {
      db_->exec("ROLLBACK TO batch");
      db_->exec("RELEASE batch");
    }
    --batch_depth_;
    return static_cast<int>(kOk);
  });
}

}  // namespace db::internal

namespace db {

void ViewDBDelete(ViewManager* view) { delete view; }

}  // namespace db
