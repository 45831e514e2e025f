// Parsing of stored task records. The bytes come from a file that another
// process wrote; nothing in them is taken on trust.
#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <memory>

#include "task-record.h"

namespace HVOS {

bool ParseTaskRecord(const char* data, size_t size, TaskRecord& out) {
  if (data == nullptr || size == 0 || size > kMaxRecordBytes) return false;
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  // A deeply nested value costs stack in the parser and in every copy.
  builder["stackLimit"] = 256;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value record;
  std::string errors;
  try {
    // The reader throws rather than fails past the nesting limit.
    if (!reader->parse(data, data + size, &record, &errors) || !record.isObject()) return false;
  } catch (const std::exception&) {
    return false;
  }
  // Read through a const reference: a missing member is null, never added.
  const Json::Value& stored = record;
  const Json::Value& properties = stored["properties"];
  const Json::Value& pid = stored["create_pid"];
  const Json::Value& finished = stored["finished"];
  if (!properties.isObject() || !pid.isInt() || pid.asInt() <= 0 || !finished.isBool()) {
    return false;
  }
  out.properties = properties;
  out.create_pid = static_cast<pid_t>(pid.asInt());
  out.finished = finished.asBool();
  return true;
}

std::string SerializeTaskRecord(const TaskRecord& record) {
  Json::Value value(Json::objectValue);
  value["create_pid"] = static_cast<int>(record.create_pid);
  value["finished"] = record.finished;
  value["properties"] = record.properties;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  // Bytes of names that are not UTF-8 are kept as they are; escaping would
  // turn them into other characters, and a reader would see another name.
  writer["emitUTF8"] = true;
  return Json::writeString(writer, value);
}

}  // namespace HVOS
