// Reading the node handlers' parameters. The schema has checked the types of
// the parameters it knows, but a handler must not throw on a value it did not
// expect (jsoncpp's as* conversions throw on a negative unsigned or a text),
// so each reader falls back to its default instead.
#pragma once

#include <json/value.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "bridge/bridge-request.h"
#include "util/librestore/utils.h"

namespace node_params {

inline std::string String(const BridgeRequest& request, const char* name,
                          const std::string& fallback = "") {
  const Json::Value value = request.GetParamRef(name, Json::Value());
  return value.isString() ? value.asString() : fallback;
}

inline bool Bool(const BridgeRequest& request, const char* name, bool fallback) {
  const Json::Value value = request.GetParamRef(name, Json::Value());
  return value.isBool() ? value.asBool() : fallback;
}

inline int64_t Int64(const BridgeRequest& request, const char* name, int64_t fallback) {
  const Json::Value value = request.GetParamRef(name, Json::Value());
  if (value.isInt64()) return value.asInt64();
  if (value.isUInt64()) return static_cast<int64_t>(value.asUInt64());
  return fallback;
}

// A signed 32-bit parameter; larger values wrap as a C cast would.
inline int32_t Int32(const BridgeRequest& request, const char* name, int32_t fallback) {
  return static_cast<int32_t>(Int64(request, name, fallback));
}

// An unsigned 64-bit id, given as a JSON number or as its decimal text (the
// node records carry ids as texts, and clients send them back so).
inline uint64_t UInt64(const BridgeRequest& request, const char* name, uint64_t fallback) {
  const Json::Value value = request.GetParamRef(name, Json::Value());
  if (value.isUInt64()) return value.asUInt64();
  if (value.isInt64()) return static_cast<uint64_t>(value.asInt64());
  if (value.isString()) {
    const std::string text = value.asString();
    if (text.empty() || text[0] < '0' || text[0] > '9') return fallback;
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return fallback;
    return parsed;
  }
  return fallback;
}

// A node id: absent leaves `out` as it is; present, it must be a JSON
// integer or plain decimal digits. False for "", "-1", "+5", text: the
// caller answers with an error rather than falling back to another node.
inline bool Id(const BridgeRequest& request, const char* name, uint64_t& out) {
  if (!request.HasParam(name)) return true;
  return tidepool::restore::ParseNodeId(request.GetParamRef(name, Json::Value()), out);
}

}  // namespace node_params
