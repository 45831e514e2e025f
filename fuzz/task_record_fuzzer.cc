// Input: the bytes of a stored task record. A record that parses must read
// back as the module reads it (each property, the error code) and must
// survive a write and a second read unchanged.
#include <cstddef>
#include <cstdint>
#include <string>

#include "task-record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  HVOS::TaskRecord record;
  if (!HVOS::ParseTaskRecord(reinterpret_cast<const char*>(data), size, record)) return 0;
  if (!record.properties.isObject() || record.create_pid <= 0) __builtin_trap();

  const Json::Value& properties = record.properties;
  for (const std::string& key : properties.getMemberNames()) {
    if (!properties.isMember(key)) __builtin_trap();
  }
  // What the restore and download calls read from a record of theirs.
  const Json::Value& error = properties["error"];
  if (error.isObject() && error["code"].isInt()) (void)error["code"].asInt();
  const Json::Value& progress = properties["data"];
  if (progress.isObject()) {
    for (const char* key : {"current", "total", "finished"}) (void)progress[key].isNumeric();
  }

  const std::string stored = HVOS::SerializeTaskRecord(record);
  HVOS::TaskRecord again;
  if (stored.size() <= HVOS::kMaxRecordBytes) {
    if (!HVOS::ParseTaskRecord(stored.data(), stored.size(), again)) __builtin_trap();
    if (again.properties != record.properties || again.create_pid != record.create_pid ||
        again.finished != record.finished) {
      __builtin_trap();
    }
  }
  return 0;
}
