// The daemon's side of the job queue: one thread that takes due jobs off
// the store and runs each with the runner registered for its name.
//
//   1. Open the store the settings name; jobs a dead worker left running
//      wait again.
//   2. Claim the job that is due first.
//   3. Run it with its runner.
//   4. Finish it (done), drop it (its payload cannot be read), or let it
//      wait again with a back-off (failed, thrown, or no runner).
//   5. With nothing due, sleep in poll() on the store's wake descriptor
//      until the next job is due: an idle queue costs no wake-ups.
//
// The control socket never waits for a job, and Stop() lets a running job
// finish; long runners may watch stopping() to end early.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "job-store.h"

namespace driftway {

enum class JobOutcome {
  kDone,   // the work is done: the job leaves the queue
  kRetry,  // it failed this time (say why in `error`): it runs again later
  kDrop,   // it can never run (unreadable payload): removed with a log line
};

using JobRunner =
    std::function<JobOutcome(const tidepool::core::job_queue::JobRecord& job, std::string& error)>;

class JobWorker {
 public:
  JobWorker();
  ~JobWorker();  // stops
  JobWorker(const JobWorker&) = delete;
  JobWorker& operator=(const JobWorker&) = delete;

  // Before Start(): runners are read by the worker thread without a lock.
  void Register(const std::string& name, JobRunner runner);
  // Starts the thread (named "jobs"); 0 or -1.
  int Start();
  // Wakes the thread and joins it once the running job, if any, returns.
  void Stop();
  // Set once Stop() was called; a runner may capture it to end early.
  const std::atomic<bool>& stopping() const { return stopping_; }

  // For tests: seconds a failed job waits per try (30 by default).
  void TEST_SetRetryDelay(int64_t seconds) { retry_delay_ = seconds; }

 private:
  using JobStore = tidepool::core::job_queue::JobStore;
  using JobRecord = tidepool::core::job_queue::JobRecord;

  void Loop();
  bool OpenStore();
  // The store failed or cannot be had: close it and back off before the
  // next open. Healthy() ends the back-off.
  void Trouble(const char* what);
  void Healthy();
  // One claimed job; false when the store failed under it.
  bool RunOne(const JobRecord& job);
  JobOutcome Dispatch(const JobRecord& job, std::string& error);
  // Milliseconds until the next job is due, -1 when none waits, or -2 when
  // the store failed.
  int MillisUntilNextDue();
  // Sleeps until woken, stopped or `timeout_ms` passed (-1: no limit).
  void Sleep(int timeout_ms);

  std::map<std::string, JobRunner> runners_;
  std::unique_ptr<JobStore> store_;
  int stop_fd_ = -1;  // eventfd
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  int64_t retry_delay_ = 30;
  int backoff_ms_ = 0;  // before the next open; grows to a bound
  bool trouble_logged_ = false;
};

}  // namespace driftway
