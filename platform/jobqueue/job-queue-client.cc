// The client requests use, the process-wide handle that a fork closes, and
// the choice between the two stores by location.
#include <algorithm>
#include <ctime>

#include "job-queue.h"
#include "logger.h"
#include "stores.h"
#include "sync-service.h"

namespace tidepool::core::job_queue {

int OpenJobStore(const std::string& location, std::unique_ptr<JobStore>& out) {
  if (location.compare(0, 8, kRedisScheme) == 0) {
    RedisLocation redis;
    if (ParseRedisLocation(location, redis) < 0) {
      // Not the location itself: it may carry a password.
      LOG_ERROR("the job queue's Redis location is not valid\n");
      return -1;
    }
    return OpenRedisJobStore(redis, out);
  }
  return OpenSQLiteJobStore(location, out);
}

std::string ConfiguredQueueLocation() {
  SyncConfigMgr config;
  if (!config.IsLoaded()) return "";
  const std::string configured = config.GetJobQueueLocation();
  if (!configured.empty()) return configured;
  return config.GetSystemRepoLocation() + "/job-queue.sqlite";
}

JobQueueClient& JobQueueClient::Instance() {
  static JobQueueClient client;
  return client;
}

JobQueueClient::JobQueueClient() : location_(ConfiguredQueueLocation()) {}

JobQueueClient::JobQueueClient(const std::string& location) : location_(location) {}

JobQueueClient::~JobQueueClient() = default;

int JobQueueClient::Connect() {
  if (store_) return 0;
  // The service may have been configured after this client was made.
  if (location_.empty()) location_ = ConfiguredQueueLocation();
  if (location_.empty()) {
    LOG_ERROR("the job queue is not configured\n");
    return -1;
  }
  return OpenJobStore(location_, store_);
}

namespace {

NewJob Queued(const Job& job, const JobQueueClient::PushOption& option, long long now) {
  NewJob queued;
  queued.name = job.Name();
  queued.payload = job.Payload();
  queued.user = job.user();
  queued.uid = job.uid();
  queued.due = std::max(option.start_at, now) + std::max(0LL, option.delay);
  queued.max_tries = option.max_tries > 0 ? static_cast<int>(std::min(option.max_tries, 1000LL))
                                          : kDefaultMaxTries;
  return queued;
}

}  // namespace

int JobQueueClient::PushJob(std::shared_ptr<Job> job, const PushOption& option) {
  if (!job) return -1;
  if (Connect() < 0) return -1;
  return store_->Push(Queued(*job, option, time(nullptr)));
}

int JobQueueClient::PushJobs(const std::vector<std::shared_ptr<Job>>& jobs,
                             const PushOption& option, size_t& pushed) {
  pushed = 0;
  if (Connect() < 0) return -1;
  const long long now = time(nullptr);
  std::vector<NewJob> queued;
  queued.reserve(jobs.size());
  for (const auto& job : jobs) {
    if (!job) return -1;
    queued.push_back(Queued(*job, option, now));
  }
  return store_->PushMany(queued, pushed);
}

int JobQueueClient::CountJob(long long& count, const QueryOperation& operation) {
  if (Connect() < 0) return -1;
  return store_->Count(operation.name, operation.payload, count);
}

}  // namespace tidepool::core::job_queue

namespace tidepool::db::job {

using core::job_queue::JobQueueClient;

JobManagerHolder& JobManagerHolder::Instance() {
  static JobManagerHolder holder;
  return holder;
}

int JobManagerHolder::Initialize() { return JobQueueClient::Instance().Connect(); }

// The next use of the client connects again, in whichever process it is.
void JobManagerHolder::Destroy() { JobQueueClient::Instance().store_.reset(); }

bool JobManagerHolder::IsInitialized() const {
  return JobQueueClient::Instance().store_ != nullptr;
}

}  // namespace tidepool::db::job
