// A demo system with history: the seeded accounts, a view for each demo
// user's home, shares enabled in the service, and trees of nodes and versions
// described as data:
//
//   tptest::Apply(view, {{100, kAdd, "/docs/"}, {100, kAdd, "/docs/a.txt", 10},
//                        {200, kModify, "/docs/a.txt", 20}, {300, kRemove, "/docs/a.txt"}});
//
// A path ending in "/" is a folder. The sync databases stay open in the test
// process, as the service's would be.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "db/types.h"
#include "webapi-client.h"

namespace tptest {

enum StepOp { kAdd, kModify, kRemove, kMove };

struct Step {
  Step(uint32_t time, StepOp op, std::string path, uint64_t size = 0, uint32_t mode = 0755)
      : time(time), op(op), path(std::move(path)), size(size), mode(mode) {}
  // kMove: `to` is the new path.
  Step(uint32_t time, StepOp op, std::string path, std::string to)
      : time(time), op(op), path(std::move(path)), to(std::move(to)) {}

  uint32_t time;
  StepOp op;
  std::string path;
  uint64_t size = 0;
  std::string to;
  uint32_t mode = 0755;  // stored unix mode of the version, owner root
};

// SeedDemoSystem, then the user and sync databases opened in this process.
void SeedWorld();
// The view of a demo user's home, created on first use.
uint64_t HomeView(const std::string& user);
// A host share enabled in the service, with its view; its root gets mode 0755.
uint64_t AddEnabledShare(const std::string& name, bool encrypted = false, bool mounted = true);
// A host share that the service does not know.
void AddHostShare(const std::string& name, bool active = true);

void Apply(uint64_t view, const std::vector<Step>& steps);
db::Node NodeAt(uint64_t view, const std::string& path);  // the live (or removed) node there
std::string ViewFile(uint64_t view);
// A statement run on the view's file, for states no writer operation makes.
void RunSql(uint64_t view, const std::string& sql);
void SetRotateCount(uint64_t view, int count);
// What the service's purge leaves of a node: the row, flagged as removed for
// good. No writer operation does it, so the flag is set in the file.
void MarkPermanentlyRemoved(uint64_t view, const std::string& path);

// "sha256 path" lines of every database file under the repository, for
// comparing before and after a read.
std::string DatabaseChecksums();

// KSTX.Tidepool.Node `method` through entry.cgi; each value is sent as its
// JSON text, as the front-end does.
WebAnswer CallNode(const std::string& method, const Params& params, const std::string& sid);

}  // namespace tptest
