// The runner of "cleanup.unlink-job" ({"path": "..."}): removes a temporary
// file or folder a response left behind. The daemon runs as root and the
// queue may be writable by other local users, so the path is not trusted:
// only a normalised absolute path strictly inside /tmp/ or /volumeN/@tmp/
// is removed, from its parent opened with no symbolic link on the way, and
// nothing below it is followed.
#pragma once

#include <string>

#include "job-worker.h"

namespace driftway {

// True for "/tmp/<name>[/...]" and "/volumeN/@tmp/<name>[/...]" (N digits)
// with no empty, "." or ".." part.
bool IsRemovableTempPath(const std::string& path);

JobOutcome RunUnlinkJob(const tidepool::core::job_queue::JobRecord& job, std::string& error);

}  // namespace driftway
