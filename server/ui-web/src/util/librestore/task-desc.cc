// Reading a request's node descriptors. Everything here comes from the
// client: ids are taken only as plain decimal digits (or JSON integers),
// never through a conversion that skips blanks, takes signs or throws.
#include <cstdint>
#include <string>

#include "utils.h"

namespace tidepool::restore {

bool ParseNodeId(const Json::Value& value, uint64_t& out) {
  if (value.isUInt64() && value.type() != Json::realValue) {
    out = value.asUInt64();
    return true;
  }
  if (!value.isString()) return false;
  const std::string text = value.asString();
  if (text.empty() || text.size() > 20) return false;
  uint64_t parsed = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (parsed > (UINT64_MAX - digit) / 10) return false;
    parsed = parsed * 10 + digit;
  }
  out = parsed;
  return true;
}

int ParseTaskDesc(const Json::Value& entry, uint64_t default_bound, TaskDesc& out,
                  std::string& why) {
  if (!entry.isObject()) {
    why = "node is not an object";
    return -1;
  }
  TaskDesc desc;
  if (!ParseNodeId(entry["node_id"], desc.node_id)) {
    why = "node_id";
    return -1;
  }
  if (!ParseNodeId(entry["permanent_id"], desc.permanent_id)) {
    why = "permanent_id";
    return -1;
  }
  if (entry.isMember("sync_id") && !ParseNodeId(entry["sync_id"], desc.sync_id)) {
    why = "sync_id";
    return -1;
  }
  const Json::Value& bound = entry["ver_ctime_upper_bound"];
  if (bound.isNull()) {
    desc.ver_ctime_upper_bound = default_bound;
  } else if (!ParseNodeId(bound, desc.ver_ctime_upper_bound)) {
    why = "ver_ctime_upper_bound";
    return -1;
  }
  const Json::Value& type = entry["file_type"];
  if (!type.isNull() && !(type.isInt() && type.type() != Json::realValue)) {
    why = "file_type";
    return -1;
  }
  desc.file_type = type.isNull() ? 0 : type.asInt();
  for (const char* key : {"name", "path"}) {
    const Json::Value& text = entry[key];
    if (!text.isNull() && !text.isString()) {
      why = key;
      return -1;
    }
  }
  desc.name = entry["name"].isString() ? entry["name"].asString() : "";
  desc.path = entry["path"].isString() ? entry["path"].asString() : "";
  out = std::move(desc);
  return 0;
}

}  // namespace tidepool::restore
