#include "file-store-db.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include <filesystem>
#include <fstream>

#include "db/errors.h"
#include "db/file-manager.h"
#include "logger.h"
#include "private-files.h"

namespace filestore {
namespace {

constexpr int kSchemaVersion = 3;

const char* const kSchema = R"(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS file(
  file_id INTEGER PRIMARY KEY AUTOINCREMENT,
  base_id INTEGER NOT NULL,
  depth INTEGER NOT NULL,
  size INTEGER NOT NULL,
  stored_size INTEGER NOT NULL,
  hash TEXT NOT NULL,
  has_signature INTEGER NOT NULL,
  released INTEGER NOT NULL DEFAULT 0,
  encrypted INTEGER NOT NULL DEFAULT 0,
  dropping INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS file_base ON file(base_id);
CREATE INDEX IF NOT EXISTS file_dropping ON file(dropping) WHERE dropping != 0;
)";

// Pieces marked for removal: the signature alone, or the row with all its
// pieces. Marks commit before any file is removed.
constexpr int kDropSignature = 1;
constexpr int kDropRow = 2;

int ResultOf(const std::exception& e) {
  const auto* se = dynamic_cast<const SQLite::Exception*>(&e);
  if (!se) return db::kErrGeneral;
  switch (se->getErrorCode()) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return db::kErrBusy;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return db::kErrCorrupt;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_READONLY:
      return db::kErrCannotOpen;
    default:
      return db::kErrGeneral;
  }
}

template <typename F>
int Guard(const char* what, F&& f) noexcept {
  try {
    return f();
  } catch (const std::exception& e) {
    LOG_ERROR("file db: %s: %s\n", what, e.what());
    return ResultOf(e);
  }
}

std::string NewUuid() {
  std::ifstream in("/proc/sys/kernel/random/uuid");
  std::string uuid;
  std::getline(in, uuid);
  return uuid;
}

FileRow RowOf(SQLite::Statement& q) {
  FileRow r;
  r.file_id = static_cast<uint64_t>(q.getColumn(0).getInt64());
  r.base_id = static_cast<uint64_t>(q.getColumn(1).getInt64());
  r.depth = static_cast<uint32_t>(q.getColumn(2).getInt64());
  r.size = static_cast<uint64_t>(q.getColumn(3).getInt64());
  r.stored_size = static_cast<uint64_t>(q.getColumn(4).getInt64());
  r.hash = q.getColumn(5).getString();
  r.has_signature = q.getColumn(6).getInt() != 0;
  r.released = q.getColumn(7).getInt() != 0;
  r.encrypted = q.getColumn(8).getInt() != 0;
  if (q.getColumnCount() > 9) r.dropping = q.getColumn(9).getInt();
  return r;
}

}  // namespace

int FileTable::Open(const std::string& path, bool create) {
  // Made 0600 before SQLite sees it, so its -wal and -shm are 0600 too.
  if (tpsys::PreparePrivateDatabase(path, create) < 0 && !create) return db::kErrCannotOpen;
  return Guard("open", [&] {
    const int flags = SQLite::OPEN_READWRITE | (create ? SQLite::OPEN_CREATE : 0);
    db_ = std::make_unique<SQLite::Database>(path, flags, 5000);
    db_->exec("PRAGMA journal_mode=WAL");
    db_->exec("PRAGMA synchronous=NORMAL");
    SQLite::Transaction tx(*db_);
    const bool has_meta = db_->tableExists("meta");
    if (!has_meta) {
      // A database with tables but no meta is someone else's.
      SQLite::Statement any(*db_, "SELECT count(*) FROM sqlite_master");
      any.executeStep();
      if (any.getColumn(0).getInt() != 0) return static_cast<int>(db::kErrCorrupt);
      db_->exec(kSchema);
      SQLite::Statement put(*db_, "INSERT INTO meta(key, value) VALUES (?, ?)");
      put.bind(1, "schema_version");
      put.bind(2, std::to_string(kSchemaVersion));
      put.exec();
      put.reset();
      put.bind(1, "uuid");
      put.bind(2, NewUuid());
      put.exec();
    }
    int version = ReadMeta();
    if (version > kSchemaVersion) return static_cast<int>(db::kErrNewerSchema);
    if (version == 1 && db_->tableExists("file")) {
      // Stores made before sealed pieces existed hold plain ones only.
      db_->exec("ALTER TABLE file ADD COLUMN encrypted INTEGER NOT NULL DEFAULT 0");
      db_->exec("UPDATE meta SET value = '2' WHERE key = 'schema_version'");
      version = 2;
    }
    if (version == 2 && db_->tableExists("file")) {
      db_->exec("ALTER TABLE file ADD COLUMN dropping INTEGER NOT NULL DEFAULT 0");
      db_->exec("CREATE INDEX file_dropping ON file(dropping) WHERE dropping != 0");
      db_->exec("UPDATE meta SET value = '3' WHERE key = 'schema_version'");
      version = 3;
    }
    if (version != kSchemaVersion || uuid_.empty() || !db_->tableExists("file"))
      return static_cast<int>(db::kErrCorrupt);
    tx.commit();
    return static_cast<int>(db::kOk);
  });
}

int FileTable::ReadMeta() {
  SQLite::Statement get(*db_, "SELECT key, value FROM meta WHERE key IN ('schema_version','uuid')");
  int version = 0;
  while (get.executeStep()) {
    const std::string key = get.getColumn(0).getString();
    if (key == "uuid") uuid_ = get.getColumn(1).getString();
    if (key == "schema_version") version = std::atoi(get.getColumn(1).getString().c_str());
  }
  return version;
}

int FileTable::OpenReadOnly(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return db::kErrCannotOpen;
  return Guard("open read-only", [&] {
    db_ = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READONLY, 5000);
    if (!db_->tableExists("meta") || !db_->tableExists("file"))
      return static_cast<int>(db::kErrCorrupt);
    int version = ReadMeta();
    if (version > kSchemaVersion) return static_cast<int>(db::kErrNewerSchema);
    // An older table needs the service to bring it up to date first.
    if (version != kSchemaVersion) return static_cast<int>(db::kErrCannotOpen);
    return static_cast<int>(uuid_.empty() ? db::kErrCorrupt : db::kOk);
  });
}

int FileTable::ForEach(const std::function<int(const FileRow&)>& visit) {
  return Guard("each row", [&] {
    SQLite::Statement q(*db_,
                        "SELECT file_id, base_id, depth, size, stored_size, hash, has_signature, "
                        "released, encrypted FROM file ORDER BY file_id");
    int count = 0;
    while (q.executeStep()) {
      const int rc = visit(RowOf(q));
      if (rc < 0) return rc;
      if (count < INT_MAX) ++count;
    }
    return count;
  });
}

int FileTable::Get(uint64_t file_id, FileRow& out) {
  return Guard("get", [&] {
    if (!get_) {
      get_ = std::make_unique<SQLite::Statement>(
          *db_,
          "SELECT file_id, base_id, depth, size, stored_size, hash, has_signature, released, "
          "encrypted, dropping FROM file WHERE file_id = ?");
    }
    SQLite::Statement& q = *get_;
    q.reset();
    q.bind(1, static_cast<int64_t>(file_id));
    const bool found = q.executeStep();
    if (found) out = RowOf(q);
    // Ends the read, so the statement holds no snapshot between calls.
    q.reset();
    return static_cast<int>(found ? db::kOk : db::kErrNotFound);
  });
}

int FileTable::Insert(FileRow& row) {
  return Guard("insert", [&] {
    if (!insert_) {
      insert_ = std::make_unique<SQLite::Statement>(
          *db_,
          "INSERT INTO file(base_id, depth, size, stored_size, hash, has_signature, encrypted) "
          "VALUES (?, ?, ?, ?, ?, ?, ?)");
    }
    SQLite::Statement& q = *insert_;
    q.reset();
    q.bind(1, static_cast<int64_t>(row.base_id));
    q.bind(2, static_cast<int64_t>(row.depth));
    q.bind(3, static_cast<int64_t>(row.size));
    q.bind(4, static_cast<int64_t>(row.stored_size));
    q.bind(5, row.hash);
    q.bind(6, row.has_signature ? 1 : 0);
    q.bind(7, row.encrypted ? 1 : 0);
    q.exec();
    q.reset();
    row.file_id = static_cast<uint64_t>(db_->getLastInsertRowid());
    return static_cast<int>(db::kOk);
  });
}

int FileTable::Update(const FileRow& row) {
  return Guard("update", [&] {
    SQLite::Statement q(*db_,
                        "UPDATE file SET size = ?, stored_size = ?, hash = ? WHERE file_id = ?");
    q.bind(1, static_cast<int64_t>(row.size));
    q.bind(2, static_cast<int64_t>(row.stored_size));
    q.bind(3, row.hash);
    q.bind(4, static_cast<int64_t>(row.file_id));
    q.exec();
    return static_cast<int>(db::kOk);
  });
}

int FileTable::SetReleased(uint64_t file_id) {
  return Guard("release", [&] {
    SQLite::Statement q(*db_, "UPDATE file SET released = 1, has_signature = 0 WHERE file_id = ?");
    q.bind(1, static_cast<int64_t>(file_id));
    return q.exec() == 1 ? static_cast<int>(db::kOk) : static_cast<int>(db::kErrNotFound);
  });
}

int FileTable::HasChildren(uint64_t file_id) {
  return Guard("children", [&] {
    SQLite::Statement q(*db_, "SELECT 1 FROM file WHERE base_id = ? LIMIT 1");
    q.bind(1, static_cast<int64_t>(file_id));
    return q.executeStep() ? 1 : 0;
  });
}

int FileTable::Delete(uint64_t file_id) {
  return Guard("delete", [&] {
    SQLite::Statement q(*db_, "DELETE FROM file WHERE file_id = ?");
    q.bind(1, static_cast<int64_t>(file_id));
    q.exec();
    return static_cast<int>(db::kOk);
  });
}

int FileTable::MarkReleased(const std::vector<uint64_t>& file_ids) {
  return Guard("mark released", [&] {
    // Prepared once: a scan releases a rotated version at a time.
    if (!release_) {
      release_ = std::make_unique<SQLite::Statement>(
          *db_,
          "UPDATE file SET released = 1, has_signature = 0, dropping = max(dropping, ?2) WHERE "
          "file_id = ?1");
      children_ = std::make_unique<SQLite::Statement>(
          *db_, "SELECT 1 FROM file WHERE base_id = ? AND dropping != ? LIMIT 1");
      doom_ = std::make_unique<SQLite::Statement>(
          *db_, "UPDATE file SET dropping = ?2 WHERE file_id = ?1");
    }
    SQLite::Statement& release = *release_;
    SQLite::Statement& children = *children_;
    SQLite::Statement& doom = *doom_;
    for (const uint64_t file_id : file_ids) {
      release.reset();
      release.bind(1, static_cast<int64_t>(file_id));
      release.bind(2, kDropSignature);
      if (release.exec() == 0) continue;  // unknown, or gone already
      // A released piece goes once nothing builds on it, and then its base
      // may follow: from the tip of the chain towards its origin.
      uint64_t id = file_id;
      while (id != 0) {
        FileRow row;
        const int rc = Get(id, row);
        if (rc == db::kErrNotFound) break;
        if (rc < 0) return rc;
        if (!row.released || row.dropping == kDropRow) break;
        children.reset();
        children.bind(1, static_cast<int64_t>(id));
        children.bind(2, kDropRow);
        const bool built_on = children.executeStep();
        children.reset();
        if (built_on) break;
        doom.reset();
        doom.bind(1, static_cast<int64_t>(id));
        doom.bind(2, kDropRow);
        doom.exec();
        id = row.base_id;
      }
    }
    return static_cast<int>(db::kOk);
  });
}

int FileTable::Marked(std::vector<FileRow>& out) {
  return Guard("marked", [&] {
    SQLite::Statement q(*db_,
                        "SELECT file_id, base_id, depth, size, stored_size, hash, has_signature, "
                        "released, encrypted, dropping FROM file WHERE dropping != 0");
    while (q.executeStep()) out.push_back(RowOf(q));
    return static_cast<int>(db::kOk);
  });
}

int FileTable::DropMarked(const std::vector<FileRow>& rows) {
  return Guard("drop marked", [&] {
    // A savepoint, so this also nests in an open batch.
    db_->exec("SAVEPOINT drop_marked");
    SQLite::Statement drop(*db_, "DELETE FROM file WHERE file_id = ? AND dropping = ?");
    SQLite::Statement keep(*db_, "UPDATE file SET dropping = 0 WHERE file_id = ? AND dropping = ?");
    for (const FileRow& row : rows) {
      SQLite::Statement& q = row.dropping == kDropRow ? drop : keep;
      q.reset();
      q.bind(1, static_cast<int64_t>(row.file_id));
      q.bind(2, row.dropping);
      try {
        q.exec();
      } catch (...) {
        db_->exec("ROLLBACK TO drop_marked");
        db_->exec("RELEASE drop_marked");
        throw;
      }
    }
    db_->exec("RELEASE drop_marked");
    return static_cast<int>(db::kOk);
  });
}

int FileTable::SizeSum(bool deltas, unsigned long long& out) {
  return Guard("size sum", [&] {
    SQLite::Statement q(
        *db_, deltas ? "SELECT coalesce(sum(stored_size), 0) FROM file WHERE base_id != 0"
                     : "SELECT coalesce(sum(stored_size), 0) FROM file WHERE base_id = 0");
    q.executeStep();
    out = static_cast<unsigned long long>(q.getColumn(0).getInt64());
    return static_cast<int>(db::kOk);
  });
}

int FileTable::Savepoint() {
  return Guard("savepoint", [&] {
    db_->exec("SAVEPOINT store");
    return static_cast<int>(db::kOk);
  });
}

int FileTable::ReleaseSavepoint() {
  return Guard("commit", [&] {
    db_->exec("RELEASE store");
    return static_cast<int>(db::kOk);
  });
}

int FileTable::RollbackSavepoint() {
  return Guard("rollback", [&] {
    db_->exec("ROLLBACK TO store");
    db_->exec("RELEASE store");
    return static_cast<int>(db::kOk);
  });
}

int FileTable::BeginBatch() {
  if (batch_) return db::kOk;
  return Guard("begin", [&] {
    db_->exec("BEGIN IMMEDIATE");
    batch_ = true;
    return static_cast<int>(db::kOk);
  });
}

int FileTable::CommitBatch() {
  if (!batch_) return db::kOk;
  batch_ = false;
  return Guard("commit batch", [&] {
    db_->exec("COMMIT");
    return static_cast<int>(db::kOk);
  });
}

}  // namespace filestore

namespace filestore {
namespace {

std::string Fanned(const std::string& folder, const char* kind, uint64_t file_id,
                   const char* suffix) {
  char sub[8];
  snprintf(sub, sizeof sub, "%02x", static_cast<unsigned>(file_id & 0xff));
  return folder + "/" + kind + "/" + sub + "/" + std::to_string(file_id) + suffix;
}

// The read side alone: what requests need, without the libraries that
// make deltas and hashes.
class FileReader final : public db::FileManager {
 public:
  explicit FileReader(std::string folder) : folder_(std::move(folder)) {}
  int Open(bool create) {
    if (create) tpsys::MakePrivateDir(folder_);
    return table_.Open(folder_ + "/" + kDatabaseName, create);
  }
  int GetFileSizeSum(unsigned long long& size) override { return table_.SizeSum(false, size); }
  int GetDeltaSizeSum(unsigned long long& size) override { return table_.SizeSum(true, size); }
  int GetPatchFiles(uint64_t file_id, std::string& origin,
                    std::vector<std::string>& patches) override {
    return PatchFilesOf(table_, folder_, file_id, origin, patches);
  }

 private:
  std::string folder_;
  FileTable table_;
};

}  // namespace

std::string ContentPath(const std::string& folder, const FileRow& row) {
  return Fanned(folder, row.base_id == 0 ? "repo" : "delta", row.file_id, "");
}

std::string SignaturePath(const std::string& folder, uint64_t file_id) {
  return Fanned(folder, "node_delta", file_id, ".sig");
}

int PatchFilesOf(FileTable& table, const std::string& folder, uint64_t file_id, std::string& origin,
                 std::vector<std::string>& patches) {
  FileRow row;
  int rc = table.Get(file_id, row);
  if (rc < 0) return rc;
  if (row.released) return db::kErrNotFound;
  std::vector<std::string> chain;
  while (row.base_id != 0) {
    // Depths fall by one per step, so a cycle cannot loop forever.
    if (row.depth == 0) return db::kErrCorrupt;
    chain.push_back(ContentPath(folder, row));
    FileRow base;
    rc = table.Get(row.base_id, base);
    if (rc == db::kErrNotFound) return db::kErrCorrupt;
    if (rc < 0) return rc;
    if (base.depth + 1 != row.depth) return db::kErrCorrupt;
    row = std::move(base);
  }
  if (row.depth != 0) return db::kErrCorrupt;
  origin = ContentPath(folder, row);
  patches.assign(chain.rbegin(), chain.rend());
  return db::kOk;
}

}  // namespace filestore

namespace db {

int OpenFileManager(const std::string& folder, bool create, std::unique_ptr<FileManager>& out) {
  auto reader = std::make_unique<filestore::FileReader>(folder);
  const int rc = reader->Open(create);
  if (rc < 0) return rc;
  out = std::move(reader);
  return kOk;
}

}  // namespace db
