#include "job-worker.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include "job-queue.h"
#include "job-text.h"
#include "logger.h"

namespace driftway {

namespace jq = tidepool::core::job_queue;

namespace {

constexpr int64_t kMaxRetryDelay = 3600;
constexpr int kFirstBackoffMs = 1000;
constexpr int kMaxBackoffMs = 60 * 1000;
// A job due in a day is looked at again then; poll() takes an int.
constexpr int64_t kMaxSleepMs = 24 * 3600 * 1000;
// Never spin when the store says a job is due but will not hand it out.
constexpr int64_t kMinSleepMs = 100;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t NowSeconds() { return NowMs() / 1000; }

}  // namespace

JobWorker::JobWorker() : stop_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

JobWorker::~JobWorker() {
  Stop();
  if (stop_fd_ >= 0) close(stop_fd_);
}

void JobWorker::Register(const std::string& name, JobRunner runner) {
  runners_[name] = std::move(runner);
}

int JobWorker::Start() {
  if (stop_fd_ < 0 || thread_.joinable()) return -1;
  stopping_ = false;
  uint64_t pending = 0;  // a wake-up left by an earlier Stop()
  if (read(stop_fd_, &pending, sizeof pending) < 0 && errno != EAGAIN) return -1;
  try {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "jobs");
      Loop();
    });
  } catch (const std::system_error& e) {
    LOG_ERROR("cannot start the job worker: %s\n", e.what());
    return -1;
  }
  return 0;
}

void JobWorker::Stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  const uint64_t one = 1;
  if (write(stop_fd_, &one, sizeof one) < 0) {
    LOG_ERROR("cannot wake the job worker: %s\n", strerror(errno));
  }
  thread_.join();
}

void JobWorker::Loop() {
  while (!stopping_) {
    if (!store_) {
      if (backoff_ms_ > 0) Sleep(backoff_ms_);
      if (stopping_) break;
      if (!OpenStore()) {
        Trouble("cannot open the job queue; trying again");
        continue;
      }
    }
    JobRecord job;
    const int claimed = store_->Claim(NowSeconds(), job);
    if (claimed < 0) {
      Trouble("cannot take jobs from the job queue; opening it again");
      continue;
    }
    if (claimed > 0) {
      if (RunOne(job)) {
        Healthy();
      } else {
        Trouble("cannot record the end of a job; opening the job queue again");
      }
      continue;
    }
    const int timeout = MillisUntilNextDue();
    if (timeout == -2) {
      Trouble("cannot read the job queue; opening it again");
      continue;
    }
    // Without a wake descriptor a push would go unnoticed: look again after
    // the back-off, through a store opened afresh.
    if (store_->WakeFd() < 0) {
      Trouble("the job queue gives no wake-up; looking at it now and then");
      continue;
    }
    Healthy();
    Sleep(timeout);
  }
  store_.reset();
}

bool JobWorker::OpenStore() {
  const std::string location = jq::ConfiguredQueueLocation();
  std::unique_ptr<JobStore> store;
  if (location.empty() || jq::OpenJobStore(location, store) < 0 || !store) return false;
  // This daemon is the queue's only worker and runs nothing yet, so every
  // running job was left by one that died: it runs again.
  const int reset = store->ResetRunning();
  if (reset < 0) return false;
  if (reset > 0) LOG_WARNING("%d interrupted jobs wait again\n", reset);
  store_ = std::move(store);
  return true;
}

void JobWorker::Trouble(const char* what) {
  // Logged once until the queue works again, so a queue that stays away
  // does not fill the log.
  if (!trouble_logged_) {
    LOG_ERROR("%s\n", what);
    trouble_logged_ = true;
  }
  backoff_ms_ = std::clamp(backoff_ms_ * 2, kFirstBackoffMs, kMaxBackoffMs);
  store_.reset();
}

void JobWorker::Healthy() {
  if (trouble_logged_) LOG_WARNING("the job queue works again\n");
  trouble_logged_ = false;
  backoff_ms_ = 0;
}

JobOutcome JobWorker::Dispatch(const JobRecord& job, std::string& error) {
  const auto runner = runners_.find(job.name);
  if (runner == runners_.end()) {
    error = "unknown job";
    return JobOutcome::kRetry;
  }
  try {
    return runner->second(job, error);
  } catch (const std::exception& e) {
    error = std::string("runner failed: ") + e.what();
  } catch (...) {
    error = "runner failed";
  }
  return JobOutcome::kRetry;
}

bool JobWorker::RunOne(const JobRecord& job) {
  std::string error;
  const JobOutcome outcome = Dispatch(job, error);
  const std::string what = DescribeJob(job);
  switch (outcome) {
    case JobOutcome::kDone:
      return store_->Finish(job.id) >= 0;
    case JobOutcome::kDrop:
      LOG_WARNING("job dropped (%s): %s\n", Printable(error).c_str(), what.c_str());
      return store_->Drop(job.id) >= 0;
    case JobOutcome::kRetry:
      break;
  }
  if (error.empty()) error = "failed";
  const int64_t delay = std::min(retry_delay_ * std::max(job.tries, 1), kMaxRetryDelay);
  const int again = store_->Fail(job.id, error, NowSeconds() + delay);
  if (again == 0) {
    LOG_ERROR("job failed for good (%s): %s\n", Printable(error).c_str(), what.c_str());
  } else if (again > 0) {
    LOG_WARNING("job failed, trying again in %llds (%s): %s\n", static_cast<long long>(delay),
                Printable(error).c_str(), what.c_str());
  }
  return again >= 0;
}

int JobWorker::MillisUntilNextDue() {
  int64_t due = 0;
  const int rc = store_->NextDue(due);
  if (rc < 0) return -2;
  if (rc == 0) return -1;
  const int64_t wait = due * 1000 - NowMs();
  return static_cast<int>(std::clamp(wait, kMinSleepMs, kMaxSleepMs));
}

void JobWorker::Sleep(int timeout_ms) {
  pollfd fds[2] = {{stop_fd_, POLLIN, 0}, {store_ ? store_->WakeFd() : -1, POLLIN, 0}};
  const nfds_t count = fds[1].fd >= 0 ? 2 : 1;
  if (poll(fds, count, timeout_ms) <= 0) return;
  if (count == 2 && (fds[1].revents & POLLIN)) store_->AckWake();
}

}  // namespace driftway
