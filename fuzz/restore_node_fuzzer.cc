// A request's `nodes` as the restore task reads them: any JSON at all must
// be refused or read, never crash or throw, and what is read must be what
// was sent (an id read from a text prints back as that text, leading zeros
// aside).
#include <json/reader.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "util/librestore/utils.h"

namespace {

void CheckId(const Json::Value& sent, uint64_t read) {
  if (!sent.isString()) return;
  std::string digits = sent.asString();
  digits.erase(0, digits.find_first_not_of('0'));
  if (digits.empty()) digits = "0";
  if (std::to_string(read) != digits) abort();
}

void Check(const Json::Value& entry) {
  tidepool::restore::TaskDesc desc;
  std::string why;
  if (tidepool::restore::ParseTaskDesc(entry, 7, desc, why) < 0) {
    if (why.empty()) abort();
    return;
  }
  CheckId(entry["node_id"], desc.node_id);
  CheckId(entry["permanent_id"], desc.permanent_id);
  if (entry.isMember("sync_id")) CheckId(entry["sync_id"], desc.sync_id);
  if (entry["ver_ctime_upper_bound"].isNull() && desc.ver_ctime_upper_bound != 7) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = 64;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  const char* begin = reinterpret_cast<const char*>(data);
  try {
    if (!reader->parse(begin, begin + size, &value, &errors)) return 0;
  } catch (const std::exception&) {
    return 0;  // the reader's own limits
  }
  if (value.isArray()) {
    for (const Json::Value& entry : value) Check(entry);
  } else {
    Check(value);
  }
  return 0;
}
