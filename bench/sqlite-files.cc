// The floor of making many views: N SQLite files made in one process, each
// opened in WAL mode as the service opens its databases, with one table and
// one row written, then closed. Prints the time.
//
// usage: bench_sqlite_files DIR N
#include <SQLiteCpp/Database.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: bench_sqlite_files DIR N\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int n = atoi(argv[2]);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    SQLite::Database db(dir + "/" + std::to_string(i) + ".sqlite",
                        SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    db.exec("PRAGMA journal_mode=WAL");
    db.exec("PRAGMA synchronous=NORMAL");
    db.exec("CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT)");
    db.exec("INSERT INTO meta VALUES ('view_id', '" + std::to_string(i + 1) + "')");
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printf("%d files in %.2f s (%.0f per second)\n", n, seconds, n / seconds);
  return 0;
}
