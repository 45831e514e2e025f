#include "job-text.h"

#include <cstdio>
#include <ctime>

namespace driftway {

namespace jq = tidepool::core::job_queue;

std::string Printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const unsigned char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string DescribeJob(const jq::JobRecord& job) {
  return "job " + std::to_string(job.id) + " " + Printable(job.name) + " of " +
         (job.user.empty() ? std::string("root") : Printable(job.user)) + " " +
         Printable(job.payload);
}

const char* JobStateName(jq::JobState state) {
  switch (state) {
    case jq::JobState::kWaiting:
      return "waiting";
    case jq::JobState::kRunning:
      return "running";
    case jq::JobState::kFailed:
      return "failed";
  }
  return "unknown";
}

std::string JobListLine(const jq::JobRecord& job) {
  char due[32] = "-";
  const time_t when = static_cast<time_t>(job.due);
  tm utc{};
  if (gmtime_r(&when, &utc) != nullptr) strftime(due, sizeof due, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::to_string(job.id) + "\t" + Printable(job.name) + "\t" + JobStateName(job.state) +
         "\t" + due + "\t" + std::to_string(job.tries) + "/" + std::to_string(job.max_tries) +
         "\t" + (job.user.empty() ? std::string("-") : Printable(job.user)) + "\t" +
         Printable(job.payload) + "\t" + (job.last_error.empty() ? "-" : Printable(job.last_error));
}

}  // namespace driftway
