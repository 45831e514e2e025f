// The stored form of a task record, apart from where it is kept: one JSON
// object {"create_pid": N, "finished": B, "properties": {...}}.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace HVOS {

// The largest record read from disk; anything bigger is not a record.
constexpr size_t kMaxRecordBytes = 1024 * 1024;

struct TaskRecord {
  Json::Value properties = Json::Value(Json::objectValue);
  pid_t create_pid = 0;
  bool finished = false;
};

// Parses stored bytes. False, with `out` untouched, for anything but a whole
// record: too large, not JSON, a field missing or of the wrong kind, or a
// creator that is not a process id (a stored 0 or -1 would make a "stop"
// signal a whole process group).
bool ParseTaskRecord(const char* data, size_t size, TaskRecord& out);
std::string SerializeTaskRecord(const TaskRecord& record);

}  // namespace HVOS
