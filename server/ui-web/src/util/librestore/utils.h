// Shared pieces of the restore engine: its log line, the item flags and
// result codes, the order of names, a task's node descriptors and the
// routines that walk item lists.
//
// The engine logs to the system log at error level, each line led by the
// source path and line, so that a failed restore can be traced to the step
// that refused it.
#pragma once

#include <strings.h>
#include <syslog.h>

#include <json/value.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HVOS {
class Task;
}

#define RESTORE_ERR(format, ...) syslog(LOG_ERR, "%s:%d " format, __FILE__, __LINE__, ##__VA_ARGS__)
#define RESTORE_INFO(format, ...) \
  syslog(LOG_INFO, "%s:%d " format, __FILE__, __LINE__, ##__VA_ARGS__)

namespace tidepool::restore {

class Item;
class TaskActor;
class View;

// Item flags, passed unchanged down a tree.
inline constexpr int PREPARE_MAC_ATTR = 1;
inline constexpr int PREPARE_OVERWRITE = 2;
inline constexpr int PREPARE_INCLUDE_REMOVED = 4;
inline constexpr int PREPARE_IGNORE_INVALID_DECRYPT = 8;

// Item results: 0 or one of these.
inline constexpr int RC_OK = 0;
inline constexpr int RC_GENERAL = -1;
inline constexpr int RC_NO_SPACE = -2;
inline constexpr int RC_BAD_PASSWORD = -3;
inline constexpr int RC_NO_SHARE_FILE = -4;
inline constexpr int RC_DECRYPT_IGNORED = -5;

// Names that differ only in case are one name on the clients' file systems.
struct StringLess {
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};
using NameCount = std::map<std::string, int, StringLess>;

// One node of a request, as the client named it.
struct TaskDesc {
  uint32_t view_id = 0;
  uint64_t permanent_id = 0;
  uint64_t sync_id = 0;
  uint64_t node_id = 0;
  uint64_t ver_ctime_upper_bound = 0;
  int32_t file_type = 0;
  std::string name;
  std::string path;
};

// A node id as a client sends it back: its decimal text, or a JSON number.
// Only plain digits within 64 bits count: "", "-1", "+5", " 7" and "7x" do
// not. False leaves `out` untouched.
bool ParseNodeId(const Json::Value& value, uint64_t& out);
// One element of a request's `nodes`: `node_id` and `permanent_id`
// required, `sync_id` (default 0), `ver_ctime_upper_bound` (default
// `default_bound`), `file_type`, `name`, `path`. 0, or -1 with `why` naming
// the member that is wrong.
int ParseTaskDesc(const Json::Value& entry, uint64_t default_bound, TaskDesc& out,
                  std::string& why);

using ItemList = std::vector<std::unique_ptr<Item>>;
using DecryptMap = std::map<unsigned long long, std::string>;

// Items for the descriptors, names made unique across the list.
void TaskDescToItemList(View& view, const std::vector<TaskDesc>& descs,
                        const DecryptMap& decrypt_map, HVOS::Task* task, ItemList& out);
// Progress units of the whole list: 0, or -1.
int CountFromItemList(const ItemList& items, bool include_removed, unsigned long long& count);
// Prepares every item under dest_dir; the first failure's result.
int PrepareFromItemList(const ItemList& items, const std::string& work_dir,
                        const std::string& dest_dir, const TaskActor& actor, int flags);

// Writes the progress that items counted but have not yet written to the
// task record; 0, or -1 when the record has no progress to add to.
int FlushProgress(HVOS::Task* task);

}  // namespace tidepool::restore
