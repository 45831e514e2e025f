// Jobs as text for logs and for driftway-control. Everything in a job may
// come from a queue other local users can write, so it is shown with
// control characters escaped: no line or terminal sequence of theirs gets
// through.
#pragma once

#include <string>

#include "job-store.h"

namespace driftway {

// `text` with bytes below 0x20 and 0x7f written as \xNN (and "\" as "\\").
std::string Printable(const std::string& text);
// "job 12 cleanup.unlink-job of alice {"path":"/tmp/x"}", for log lines.
std::string DescribeJob(const tidepool::core::job_queue::JobRecord& job);
// "waiting", "running" or "failed".
const char* JobStateName(tidepool::core::job_queue::JobState state);
// One line (without its newline) of `driftway-control jobs`, tab-separated:
// id, name, state, due (UTC), tries/max, user, payload, last error.
std::string JobListLine(const tidepool::core::job_queue::JobRecord& job);

}  // namespace driftway
