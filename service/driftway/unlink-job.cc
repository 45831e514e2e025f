#include "unlink-job.h"

#include <json/reader.h>
#include <json/value.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "fs-beneath.h"

namespace driftway {

namespace {

std::vector<std::string> SplitParts(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 1;
  for (;;) {
    const size_t slash = path.find('/', start);
    parts.push_back(
        path.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
    if (slash == std::string::npos) return parts;
    start = slash + 1;
  }
}

bool IsVolumeName(const std::string& part) {
  constexpr size_t kPrefix = sizeof("volume") - 1;
  if (part.size() <= kPrefix || part.compare(0, kPrefix, "volume") != 0) return false;
  return part.find_first_not_of("0123456789", kPrefix) == std::string::npos;
}

bool ReadPath(const std::string& payload, std::string& path) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(payload.data(), payload.data() + payload.size(), &value, &errors) ||
      !value.isObject() || !value["path"].isString()) {
    return false;
  }
  path = value["path"].asString();
  return true;
}

}  // namespace

bool IsRemovableTempPath(const std::string& path) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos) return false;
  const std::vector<std::string> parts = SplitParts(path);
  for (const auto& part : parts) {
    if (!fsb::IsPlainName(part)) return false;
  }
  if (parts[0] == "tmp") return parts.size() >= 2;
  return IsVolumeName(parts[0]) && parts.size() >= 3 && parts[1] == "@tmp";
}

JobOutcome RunUnlinkJob(const tidepool::core::job_queue::JobRecord& job, std::string& error) {
  std::string path;
  if (!ReadPath(job.payload, path)) {
    error = "unreadable payload";
    return JobOutcome::kDrop;
  }
  if (!IsRemovableTempPath(path)) {
    error = "not a temporary path";
    return JobOutcome::kDrop;
  }
  if (fsb::RemovePathNoSymlinks(path) == 0) return JobOutcome::kDone;
  switch (errno) {
    case ENOENT:
    case ENOTDIR:  // a parent is not a folder: nothing there to remove
      return JobOutcome::kDone;
    case ELOOP:
      error = "a symbolic link on the way";
      return JobOutcome::kDrop;
    default:
      error = strerror(errno);
      return JobOutcome::kRetry;
  }
}

}  // namespace driftway
