// The floor of a change written into many SQLite files: opens each file
// given as FOLDER/FIRST.sqlite .. FOLDER/(FIRST+COUNT-1).sqlite, writes one
// row of its table `meta` with the settings the service opens views with
// (synchronous NORMAL, the -wal file kept), closes it, and prints the
// milliseconds taken.
//   bench_open_write FOLDER FIRST COUNT
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: bench_open_write FOLDER FIRST COUNT\n");
    return 2;
  }
  const std::string folder = argv[1];
  const long first = strtol(argv[2], nullptr, 10);
  const long count = strtol(argv[3], nullptr, 10);
  const auto start = std::chrono::steady_clock::now();
  for (long i = first; i < first + count; ++i) {
    const std::string path = folder + "/" + std::to_string(i) + ".sqlite";
    sqlite3* db = nullptr;
    int persist_wal = 1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &persist_wal) != SQLITE_OK ||
        sqlite3_exec(db,
                     "PRAGMA synchronous=NORMAL;"
                     "INSERT OR REPLACE INTO meta VALUES ('bench', '1')",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
      fprintf(stderr, "%s: %s\n", path.c_str(), db ? sqlite3_errmsg(db) : "cannot open");
      sqlite3_close(db);
      return 1;
    }
    sqlite3_close(db);
  }
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  printf("%.1f\n", took.count());
  return 0;
}
