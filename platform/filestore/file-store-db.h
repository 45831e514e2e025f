// The rows of a version store: one per file id. Storage errors become
// db::Result values here and nowhere else.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace filestore {

struct FileRow {
  uint64_t file_id = 0;
  uint64_t base_id = 0;      // 0: an origin; else the file id the delta applies to
  uint32_t depth = 0;        // deltas between the origin and this content
  uint64_t size = 0;         // of the content
  uint64_t stored_size = 0;  // of the origin or delta file
  std::string hash;
  bool has_signature = false;
  bool released = false;
  bool encrypted = false;  // pieces sealed under the share key
  int dropping = 0;        // marked for removal: 1 the signature, 2 the row and its pieces
};

class FileTable {
 public:
  // kErrCannotOpen, kErrCorrupt or kErrNewerSchema on failure.
  int Open(const std::string& path, bool create);
  // An existing table, read-only: nothing is created or migrated, and
  // every call that writes fails.
  int OpenReadOnly(const std::string& path);
  const std::string& uuid() const { return uuid_; }

  int Get(uint64_t file_id, FileRow& out);  // kErrNotFound when absent
  int Insert(FileRow& row);                 // fills row.file_id
  int Update(const FileRow& row);           // size, stored size, hash
  int SetReleased(uint64_t file_id);
  int HasChildren(uint64_t file_id);  // 1 yes, 0 no, negative
  int Delete(uint64_t file_id);
  // Releases the ids in the current transaction and marks what may go: the
  // signature of each, and every released row nothing builds on any more,
  // following chains towards their origins. Unknown ids are skipped.
  int MarkReleased(const std::vector<uint64_t>& file_ids);
  // The marked rows, and their removal once their pieces are gone.
  int Marked(std::vector<FileRow>& out);
  int DropMarked(const std::vector<FileRow>& rows);
  int SizeSum(bool deltas, unsigned long long& out);
  // Every row in file id order, one at a time; a negative answer from
  // `visit` stops the walk and is returned. The number of rows, or negative.
  int ForEach(const std::function<int(const FileRow&)>& visit);

  // Savepoints nest inside a batch or stand alone.
  int Savepoint();
  int ReleaseSavepoint();
  int RollbackSavepoint();
  int BeginBatch();
  int CommitBatch();

 private:
  // The schema version and uuid from the meta table.
  int ReadMeta();
  std::unique_ptr<SQLite::Database> db_;
  std::string uuid_;
  bool batch_ = false;
  // Prepared once: a restore looks up thousands of rows. Finalized before
  // the database closes, being declared after it.
  std::unique_ptr<SQLite::Statement> get_;
  std::unique_ptr<SQLite::Statement> insert_;  // one per stored file
  std::unique_ptr<SQLite::Statement> release_, children_, doom_;
};

// Where the pieces of a file id lie inside the store's folder, fanned out
// over 256 sub-folders so no folder grows huge.
std::string ContentPath(const std::string& folder, const FileRow& row);
std::string SignaturePath(const std::string& folder, uint64_t file_id);
constexpr const char* kDatabaseName = "file-db.sqlite";

// The origin and the ordered deltas that rebuild `file_id`. Rows are
// checked (depths step down by one to an origin); kErrNotFound for an
// unknown or released id, kErrCorrupt for a broken chain.
int PatchFilesOf(FileTable& table, const std::string& folder, uint64_t file_id, std::string& origin,
                 std::vector<std::string>& patches);

}  // namespace filestore
