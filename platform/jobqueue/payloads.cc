// Payloads of the jobs requests push. A job is queued once per name and
// payload text, so equal jobs must give equal texts: jsoncpp writes object
// keys in sorted order and the writer below adds no spaces.
#include <json/json.h>

#include "job-queue.h"

namespace tidepool::core::job_queue::jobs {

namespace {

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  // Paths are bytes: written as they are, so a name that is not valid UTF-8
  // reaches the worker unchanged instead of being replaced.
  writer["emitUTF8"] = true;
  return Json::writeString(writer, value);
}

}  // namespace

std::string DeleteNodeJob::Payload() const {
  Json::Value payload(Json::objectValue);
  if (node_id_) payload["node_id"] = Json::UInt64(*node_id_);
  if (view_id_) payload["view_id"] = Json::UInt64(*view_id_);
  return Compact(payload);
}

std::string UnlinkJob::Payload() const {
  Json::Value payload(Json::objectValue);
  payload["path"] = path_;
  return Compact(payload);
}

}  // namespace tidepool::core::job_queue::jobs
