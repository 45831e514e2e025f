// The two realisations of JobStore, named only inside this folder.
#pragma once

#include <memory>
#include <string>

#include "job-store.h"
#include "redis.h"

namespace tidepool::core::job_queue {

// Where a Redis queue lives: "redis://[[user]:password@]host[:port][/db]".
using RedisLocation = redis::Endpoint;

constexpr const char* kRedisScheme = "redis://";

// 0, or -1 when `location` is not a Redis location this client can use.
int ParseRedisLocation(const std::string& location, RedisLocation& out);

// 0 with the store in `out`, or negative (logged).
int OpenSQLiteJobStore(const std::string& path, std::unique_ptr<JobStore>& out);
int OpenRedisJobStore(const RedisLocation& location, std::unique_ptr<JobStore>& out);

// How long a failed job stays listed for an administrator after giving up.
constexpr int64_t kFailedJobLifetime = 7 * 24 * 3600;

}  // namespace tidepool::core::job_queue
