// Task records: named JSON properties kept on disk under an owner and a task
// name, visible to every process. One record exists per owner and name; a
// new record takes the calling process as its creator.
//
// Records live in /tmp/tidepool-tasks/<owner>/<name>.json, replaced whole
// (written to a temporary file and renamed) under an advisory lock, so a
// reader sees the old or the new record, never half of one. Both folders
// must be root's, mode 0700 and no links: when one is not, the record reads
// as absent, its writes fail and an error is logged.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>

namespace HVOS {

class Task {
 public:
  // Opens the record, or makes it. An owner or name that could leave the
  // task folder ("/", "..", empty) gives a record that can never be stored:
  // its writes fail.
  Task(const std::string& owner, const std::string& name);
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  bool hasProperty(const std::string& key) const;
  // The value, or null when there is none.
  Json::Value getProperty(const std::string& key) const;
  // Stores at once, unless inside beginUpdate/endUpdate.
  void setProperty(const std::string& key, const Json::Value& value);

  // Bracket several changes: beginUpdate locks the record and re-reads it,
  // endUpdate stores the changes and unlocks. endUpdate gives 0 when the
  // record could not be written, 1 otherwise.
  void beginUpdate();
  int endUpdate();
  // Re-reads the record, to see what another process wrote.
  void reload();
  // Waits up to `wait_ms` milliseconds for `key` to appear; 1 when it did, 0
  // when it did not.
  int waitForDataReady(const std::string& key, int wait_ms);

  pid_t getCreatePid() const { return create_pid_; }
  void setCreatePid(pid_t pid);
  bool isFinished() const { return finished_; }
  void finish(bool keep_running);
  // Deletes the record; later writes through this object make it anew.
  void remove();
  // From now on a change to a record that is gone is dropped instead of
  // making the record anew: a worker must not bring back a task that was
  // stopped under it.
  void keepRemoved() { keep_removed_ = true; }

 private:
  // Both work in the owner's checked folder, given as a descriptor.
  bool Load(int folder);
  bool Store(int folder);

  std::string owner_;
  std::string file_;  // "<name>.json"
  bool valid_ = false;
  int lock_fd_ = -1;  // held between beginUpdate and endUpdate
  Json::Value properties_ = Json::Value(Json::objectValue);
  pid_t create_pid_ = 0;
  bool finished_ = false;
  bool keep_removed_ = false;
  bool gone_ = false;  // beginUpdate found no record and keepRemoved holds
};

struct TaskUtil {
  static bool checkTaskExists(const std::string& owner, const std::string& name);
  // Reads a record's properties without making it when it is missing:
  // true and `properties` filled when it exists and reads.
  static bool peekTask(const std::string& owner, const std::string& name, Json::Value& properties,
                       bool* finished = nullptr);
};

}  // namespace HVOS
