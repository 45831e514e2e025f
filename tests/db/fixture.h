// A view built from a table of steps, for tests of the databases and of the
// handlers that read them:
//
//   Tree t({{100, Add, "/a/"}, {100, Add, "/a/x.txt", 10},
//           {200, Modify, "/a/x.txt", 20}, {300, Remove, "/a/x.txt"},
//           {400, Move, "/a/", "/b/"}});
//
// A path ending in "/" is a folder. The time of a step is the version's
// creation time and, unless given, its modification time too. Any failing
// step is reported as a test failure naming the step.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>

#include "db/manager.h"
#include "db/view-writer.h"

namespace dbtest {

enum Op { Add, Modify, Remove, Move };

// Where the sandbox keeps the sync databases.
inline constexpr const char* kConnect = "/volume1/@tidepool";

struct Step {
  Step(uint32_t time, Op op, std::string path, uint64_t size = 0)
      : time(time), op(op), path(std::move(path)), size(size) {}
  // Move: `to` is the new path.
  Step(uint32_t time, Op op, std::string path, std::string to)
      : time(time), op(op), path(std::move(path)), to(std::move(to)) {}
  // A file whose modification time differs from the version's time.
  Step(uint32_t time, Op op, std::string path, uint64_t size, uint32_t mtime)
      : time(time), op(op), path(std::move(path)), size(size), mtime(mtime) {}

  uint32_t time;
  Op op;
  std::string path;
  uint64_t size = 0;
  std::string to;
  uint32_t mtime = 0;  // 0: the step's time
};

// Opens the sync databases over `connect` unless they are open.
void OpenDatabases(const std::string& connect = kConnect);

class Tree {
 public:
  // Creates view `view_id` (an existing one is reused) and applies the steps.
  explicit Tree(std::initializer_list<Step> steps, uint64_t view_id = 1,
                const std::string& connect = kConnect);

  void Apply(std::initializer_list<Step> steps);
  void Apply(const Step& step);

  uint64_t view_id() const { return view_id_; }
  db::ViewWriter& Writer() { return *writer_; }
  db::ViewManager& View() { return writer_->Reader(); }

  // The node at the path (the live one, else the one removed last); a test
  // failure and an empty node when there is none.
  db::Node Node(const std::string& path);
  uint64_t Id(const std::string& path) { return Node(path).getNodeId(); }

 private:
  uint64_t view_id_;
  uint64_t next_file_id_ = 1;
  std::unique_ptr<db::ViewWriter> writer_;
};

}  // namespace dbtest
