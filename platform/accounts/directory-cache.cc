// The kept read-only connection of the directory's cached look-ups.
#include <SQLiteCpp/Statement.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "directory-read.h"

namespace hostaccounts {
namespace {

struct KeptConnection {
  std::unique_ptr<SQLite::Database> db;
  // Destroyed before the connection they belong to.
  std::map<const char*, std::unique_ptr<SQLite::Statement>> statements;
  pid_t pid = 0;
  dev_t dev = 0;
  ino_t ino = 0;
};

KeptConnection& Kept() {
  static KeptConnection kept;
  return kept;
}

}  // namespace

SQLite::Database* CachedDirectory() {
  KeptConnection& kept = Kept();
  struct stat st;
  if (stat(kDefaultPath, &st) != 0) {
    DropCachedDirectory();
    return nullptr;
  }
  if (kept.db && (kept.pid != getpid() || kept.dev != st.st_dev || kept.ino != st.st_ino))
    DropCachedDirectory();
  if (!kept.db) {
    kept.db =
        std::make_unique<SQLite::Database>(kDefaultPath, SQLite::OPEN_READONLY, kReadBusyTimeoutMs);
    kept.pid = getpid();
    kept.dev = st.st_dev;
    kept.ino = st.st_ino;
  }
  return kept.db.get();
}

void DropCachedDirectory() {
  KeptConnection& kept = Kept();
  if (kept.db && kept.pid != getpid()) {
    // A connection must not be used, nor closed, across a fork: the
    // parent's is left to the parent.
    for (auto& [sql, statement] : kept.statements) (void)statement.release();
    (void)kept.db.release();
  }
  kept.statements.clear();
  kept.db.reset();
}

SQLite::Statement& CachedStatement(const char* sql) {
  KeptConnection& kept = Kept();
  std::unique_ptr<SQLite::Statement>& statement = kept.statements[sql];
  if (!statement) {
    statement = std::make_unique<SQLite::Statement>(*kept.db, sql);
  } else {
    statement->reset();
    statement->clearBindings();
  }
  return *statement;
}

}  // namespace hostaccounts
