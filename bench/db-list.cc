// Builds a view with one folder of 100,000 children and times a page of 100
// at offset 50,000 sorted by name and by modification time.
//
// usage: bench_db_list [DIR [CHILDREN]]   (default: a new folder under /tmp)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "db/manager.h"

namespace {

double Millis(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  if (argc > 1) {
    dir = argv[1];
  } else {
    char pattern[] = "/tmp/bench-db-XXXXXX";
    if (!mkdtemp(pattern)) return 1;
    dir = pattern;
  }
  const int children = argc > 2 ? std::atoi(argv[2]) : 100000;
  if (children < 200) return 2;
  if (db::Manager::Initialize(dir, dir, "sqlite") < 0 || db::Manager::CreateView(1) < 0) {
    std::fprintf(stderr, "cannot create the view in %s\n", dir.c_str());
    return 1;
  }
  std::unique_ptr<db::ViewWriter> writer;
  if (db::Manager::GetViewWriter(1, writer) < 0) return 1;
  db::Node folder;
  writer->Reader().QueryNode("/big", folder, 0);
  if (folder.getNodeId() == 0) {
    auto start = std::chrono::steady_clock::now();
    writer->Begin();
    db::NewVersion v;
    v.path = "/big";
    v.file_type = db::kFileTypeDir;
    writer->AddVersion(v, folder);
    v.file_type = db::kFileTypeFile;
    for (int i = 0; i < children; ++i) {
      db::Node node;
      v.path = "/big/file " + std::to_string((i * 7919LL) % children) + ".txt";
      v.size = static_cast<uint64_t>(i);
      v.ctime = 1000 + static_cast<uint32_t>(i);
      v.mtime = static_cast<uint32_t>((i * 104729LL) % 1000003);
      v.file_id = static_cast<uint64_t>(i + 1);
      if (writer->AddVersion(v, node) < 0) return 1;
      if (i % 10000 == 9999) {
        writer->Commit();
        writer->Begin();
      }
    }
    writer->Commit();
    std::printf("built %d children in %.0f ms (%s)\n", children,
                Millis(std::chrono::steady_clock::now() - start), dir.c_str());
  }
  writer.reset();

  db::ViewDBInterface view;
  if (db::Manager::GetViewDB(1, view) < 0) return 1;
  for (const char* sort : {"name", "mtime"}) {
    for (int direction : {1, 2}) {
      db::SearchNodeFilter f;
      f.node_id = folder.getNodeId();
      f.sort_by = sort;
      f.sort_direction = direction;
      f.limit = 100;
      f.offset = children / 2;
      std::vector<db::Node> page;
      double best = 1e9;
      for (int round = 0; round < 5; ++round) {
        auto start = std::chrono::steady_clock::now();
        if (view->SearchNode(f, page) < 0 || page.size() != 100) return 1;
        best = std::min(best, Millis(std::chrono::steady_clock::now() - start));
      }
      std::printf("page of 100 at offset %d by %-5s %s: %.2f ms (first: %s)\n", children / 2, sort,
                  direction == 1 ? "ascending " : "descending", best,
                  page.front().getName().c_str());
    }
  }
  return 0;
}
