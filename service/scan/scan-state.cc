#include "scan-state.h"

#include <SQLiteCpp/Statement.h>

#include <cstring>

#include "db/errors.h"
#include "logger.h"
#include "private-files.h"

namespace scan {
namespace {

const char* const kSchema = R"(
CREATE TABLE IF NOT EXISTS recorded(
  view_id INTEGER NOT NULL, node_id INTEGER NOT NULL,
  dev INTEGER NOT NULL, ino INTEGER NOT NULL, file_type INTEGER NOT NULL,
  size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,
  uid INTEGER NOT NULL, gid INTEGER NOT NULL, mode INTEGER NOT NULL, acl TEXT NOT NULL,
  hash TEXT NOT NULL, file_id INTEGER NOT NULL, file_uuid TEXT NOT NULL,
  ver_type INTEGER NOT NULL,
  PRIMARY KEY(view_id, node_id));
)";

// Columns added since the table was first made; old rows get values that
// make the next scan look at their Mac attributes once.
const char* const kAddedColumns[] = {
    "ctime_ns INTEGER NOT NULL DEFAULT 0",
    "mac_file_id INTEGER NOT NULL DEFAULT 0",
    "mac_uuid TEXT NOT NULL DEFAULT ''",
    "mac_hash TEXT NOT NULL DEFAULT ''",
};

template <typename F>
int Guard(const char* what, F&& f) noexcept {
  try {
    return f();
  } catch (const std::exception& e) {
    LOG_ERROR("scan state: %s: %s\n", what, e.what());
    return db::kErrGeneral;
  }
}

int64_t I(uint64_t v) { return static_cast<int64_t>(v); }

}  // namespace

int ScanState::Open(const std::string& repository) {
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  tpsys::PreparePrivateDatabase(repository + "/scan-db.sqlite", true);
  return Guard("open", [&] {
    db_ = std::make_unique<SQLite::Database>(repository + "/scan-db.sqlite",
                                             SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, 5000);
    db_->exec("PRAGMA journal_mode=WAL");
    db_->exec("PRAGMA synchronous=NORMAL");
    db_->exec(kSchema);
    for (const char* column : kAddedColumns) {
      const std::string name(column, strchr(column, ' '));
      SQLite::Statement has(*db_,
                            "SELECT count(*) FROM pragma_table_info('recorded') WHERE name = ?");
      has.bind(1, name);
      if (has.executeStep() && has.getColumn(0).getInt() == 0)
        db_->exec(std::string("ALTER TABLE recorded ADD COLUMN ") + column);
    }
    put_ = std::make_unique<SQLite::Statement>(
        *db_,
        "INSERT OR REPLACE INTO recorded(view_id, node_id, dev, ino, file_type, size, mtime_ns, "
        "uid, gid, mode, acl, hash, file_id, file_uuid, ver_type, ctime_ns, mac_file_id, "
        "mac_uuid, mac_hash) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    forget_ = std::make_unique<SQLite::Statement>(
        *db_, "DELETE FROM recorded WHERE view_id = ? AND node_id = ?");
    return static_cast<int>(db::kOk);
  });
}

namespace {

constexpr const char* kColumns =
    "SELECT node_id, dev, ino, file_type, size, mtime_ns, uid, gid, mode, acl, hash, file_id, "
    "file_uuid, ver_type, ctime_ns, mac_file_id, mac_uuid, mac_hash FROM recorded ";

Recorded RecordedOf(SQLite::Statement& q) {
  Recorded r;
  int i = 0;
  r.node_id = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.dev = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.ino = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.file_type = q.getColumn(i++).getInt();
  r.size = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.mtime_ns = q.getColumn(i++).getInt64();
  r.uid = static_cast<uint32_t>(q.getColumn(i++).getInt64());
  r.gid = static_cast<uint32_t>(q.getColumn(i++).getInt64());
  r.mode = static_cast<uint32_t>(q.getColumn(i++).getInt64());
  r.acl = q.getColumn(i++).getString();
  r.hash = q.getColumn(i++).getString();
  r.file_id = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.file_uuid = q.getColumn(i++).getString();
  r.ver_type = static_cast<uint32_t>(q.getColumn(i++).getInt64());
  r.ctime_ns = q.getColumn(i++).getInt64();
  r.mac_file_id = static_cast<uint64_t>(q.getColumn(i++).getInt64());
  r.mac_uuid = q.getColumn(i++).getString();
  r.mac_hash = q.getColumn(i++).getString();
  return r;
}

}  // namespace

int ScanState::Load(uint64_t view_id, std::unordered_map<uint64_t, Recorded>& out) {
  out.clear();
  return Guard("load", [&] {
    SQLite::Statement q(*db_, std::string(kColumns) + "WHERE view_id = ?");
    q.bind(1, I(view_id));
    while (q.executeStep()) {
      Recorded r = RecordedOf(q);
      out.emplace(r.node_id, std::move(r));
    }
    return static_cast<int>(db::kOk);
  });
}

int ScanState::LoadNodes(uint64_t view_id, const std::vector<uint64_t>& node_ids,
                         std::unordered_map<uint64_t, Recorded>& out) {
  out.clear();
  return Guard("load nodes", [&] {
    SQLite::Statement q(*db_, std::string(kColumns) + "WHERE view_id = ? AND node_id = ?");
    q.bind(1, I(view_id));
    for (uint64_t id : node_ids) {
      q.reset();
      q.bind(2, I(id));
      if (!q.executeStep()) continue;
      Recorded r = RecordedOf(q);
      out.emplace(r.node_id, std::move(r));
    }
    q.reset();
    return static_cast<int>(db::kOk);
  });
}

int ScanState::Put(uint64_t view_id, const Recorded& r) {
  return Guard("put", [&] {
    SQLite::Statement& q = *put_;
    q.reset();
    int i = 1;
    q.bind(i++, I(view_id));
    q.bind(i++, I(r.node_id));
    q.bind(i++, I(r.dev));
    q.bind(i++, I(r.ino));
    q.bind(i++, r.file_type);
    q.bind(i++, I(r.size));
    q.bind(i++, r.mtime_ns);
    q.bind(i++, static_cast<int64_t>(r.uid));
    q.bind(i++, static_cast<int64_t>(r.gid));
    q.bind(i++, static_cast<int64_t>(r.mode));
    q.bind(i++, r.acl);
    q.bind(i++, r.hash);
    q.bind(i++, I(r.file_id));
    q.bind(i++, r.file_uuid);
    q.bind(i++, static_cast<int64_t>(r.ver_type));
    q.bind(i++, r.ctime_ns);
    q.bind(i++, I(r.mac_file_id));
    q.bind(i++, r.mac_uuid);
    q.bind(i++, r.mac_hash);
    q.exec();
    return static_cast<int>(db::kOk);
  });
}

int ScanState::Forget(uint64_t view_id, uint64_t node_id) {
  return Guard("forget", [&] {
    forget_->reset();
    forget_->bind(1, I(view_id));
    forget_->bind(2, I(node_id));
    forget_->exec();
    return static_cast<int>(db::kOk);
  });
}

int ScanState::Begin() {
  return Guard("begin", [&] {
    db_->exec("BEGIN IMMEDIATE");
    return static_cast<int>(db::kOk);
  });
}

int ScanState::Commit() {
  return Guard("commit", [&] {
    db_->exec("COMMIT");
    return static_cast<int>(db::kOk);
  });
}

}  // namespace scan
