// What the last scan recorded of each node: the identity of the file on
// disk (device and inode, for moves and renames), the stat fields that say
// "unchanged" without reading content, and the recorded version's content
// and attributes. Kept in "<repository>/scan-db.sqlite", one table for all
// views.
#pragma once

#include <SQLiteCpp/Database.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace scan {

struct Recorded {
  uint64_t node_id = 0;
  uint64_t dev = 0;
  uint64_t ino = 0;
  int32_t file_type = 0;
  uint64_t size = 0;
  int64_t mtime_ns = 0;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t mode = 0;
  std::string acl;
  std::string hash;
  uint64_t file_id = 0;
  std::string file_uuid;
  uint32_t ver_type = 0;
  // Mac attributes change ctime alone; a changed ctime has them packed again.
  int64_t ctime_ns = 0;
  uint64_t mac_file_id = 0;
  std::string mac_uuid;
  std::string mac_hash;
};

class ScanState {
 public:
  // 0 or negative (db::Result).
  int Open(const std::string& repository);
  // Every node of the view, by node id.
  int Load(uint64_t view_id, std::unordered_map<uint64_t, Recorded>& out);
  // Only these nodes of the view: a pass over a few changed folders of a
  // large view reads a few rows instead of all of them.
  int LoadNodes(uint64_t view_id, const std::vector<uint64_t>& node_ids,
                std::unordered_map<uint64_t, Recorded>& out);
  int Put(uint64_t view_id, const Recorded& r);
  int Forget(uint64_t view_id, uint64_t node_id);
  int Begin();
  int Commit();

 private:
  std::unique_ptr<SQLite::Database> db_;
  std::unique_ptr<SQLite::Statement> put_;
  std::unique_ptr<SQLite::Statement> forget_;
};

}  // namespace scan
