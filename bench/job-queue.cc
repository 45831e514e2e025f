// Push and count latency of the job queue on both stores. Beside them, in
// the same run, the floor each store cannot beat: a bare insert committed to
// a SQLite file of the same folder, and a PING round trip to the same
// Redis server.
//
// usage: bench_job_queue SQLITE_DIR [redis://127.0.0.1:PORT] [benchmark flags]
#include <SQLiteCpp/Database.h>
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "job-store.h"

namespace {

using tidepool::core::job_queue::JobStore;
using tidepool::core::job_queue::NewJob;
using tidepool::core::job_queue::OpenJobStore;

constexpr int kWaiting = 10000;

std::unique_ptr<JobStore> Open(const std::string& location) {
  std::unique_ptr<JobStore> store;
  if (OpenJobStore(location, store) < 0) {
    std::fprintf(stderr, "cannot open the queue at %s\n", location.c_str());
    std::exit(1);
  }
  return store;
}

NewJob Job(const std::string& name, long long n) {
  return NewJob{name,          "{\"path\":\"/volume1/@tmp/file-" + std::to_string(n) + "\"}",
                "admin",       0,
                time(nullptr), 3};
}

void Push(benchmark::State& state, const std::string& location) {
  auto store = Open(location);
  static long long serial = 0;
  for (auto _ : state) {
    if (store->Push(Job("bench.push", ++serial)) != 0) state.SkipWithError("push failed");
  }
}

void CountWithWaiting(benchmark::State& state, const std::string& location) {
  auto store = Open(location);
  long long count = 0;
  store->Count(std::string("bench.count"), std::nullopt, count);
  for (long long n = count; n < kWaiting; ++n) {
    if (store->Push(Job("bench.count", n)) != 0) {
      state.SkipWithError("filling the queue failed");
      return;
    }
  }
  for (auto _ : state) {
    if (store->Count(std::string("bench.count"), std::nullopt, count) < 0) {
      state.SkipWithError("count failed");
    }
  }
  state.counters["waiting"] = static_cast<double>(count);
}

void SQLiteFloor(benchmark::State& state, const std::string& dir) {
  SQLite::Database db(dir + "/floor.sqlite", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  db.exec("PRAGMA journal_mode = WAL");
  db.exec("CREATE TABLE IF NOT EXISTS t (payload TEXT)");
  SQLite::Statement insert(db, "INSERT INTO t VALUES ('x')");
  for (auto _ : state) {
    insert.exec();
    insert.reset();
  }
}

void RedisFloor(benchmark::State& state, const std::string& location) {
  const std::string address = location.substr(location.find("//") + 2);
  const auto colon = address.rfind(':');
  redisContext* c =
      redisConnect(address.substr(0, colon).c_str(), std::stoi(address.substr(colon + 1)));
  if (!c || c->err) {
    state.SkipWithError("cannot reach the server");
    if (c) redisFree(c);
    return;
  }
  for (auto _ : state) {
    freeReplyObject(redisCommand(c, "PING"));
  }
  redisFree(c);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench_job_queue SQLITE_DIR [REDIS_LOCATION]\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::string sqlite = dir + "/job-queue.sqlite";
  benchmark::RegisterBenchmark("push/sqlite", Push, sqlite)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("floor: bare insert/sqlite", SQLiteFloor, dir)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("count of 10000 waiting/sqlite", CountWithWaiting, sqlite)
      ->Unit(benchmark::kMicrosecond);
  if (argc > 2) {
    const std::string redis = argv[2];
    benchmark::RegisterBenchmark("push/redis", Push, redis)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("floor: PING/redis", RedisFloor, redis)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("count of 10000 waiting/redis", CountWithWaiting, redis)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
