// Where the job queue keeps its jobs: one interface, two realisations (a
// SQLite table, a Redis server) with the same behaviour. Requests push and
// count through JobQueueClient; the daemon's worker and driftway-control use
// the rest. Results: 0 (or a count) on success, negative when the store
// cannot be reached or is damaged.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidepool::core::job_queue {

enum class JobState { kWaiting = 0, kRunning = 1, kFailed = 2 };

struct JobRecord {
  int64_t id = 0;
  std::string name;
  std::string payload;
  std::string user;
  uint32_t uid = 0;
  JobState state = JobState::kWaiting;
  int64_t due = 0;      // seconds since the epoch; of a failed job, when it gave up
  int64_t created = 0;  // seconds since the epoch
  int tries = 0;        // runs started so far
  int max_tries = 0;
  std::string last_error;  // why the last run failed
};

struct NewJob {
  std::string name;
  std::string payload;
  std::string user;
  uint32_t uid = 0;
  int64_t due = 0;
  int max_tries = 3;
};

// Runs of a job that keeps failing, unless its push said otherwise.
constexpr int kDefaultMaxTries = 3;

class JobStore {
 public:
  virtual ~JobStore() = default;

  // Queues `job` unless a job of the same name and payload waits: 0 queued,
  // 4 already waiting. Decided atomically.
  virtual int Push(const NewJob& job) = 0;
  // Pushes `jobs` in order and stops at the first that is not queued: 0 all
  // queued, 4 one already waits, negative on failure. `pushed` counts the
  // jobs queued before the stop; they stay queued. A store may do it in one
  // transaction (a purge of a thousand nodes is one request).
  virtual int PushMany(const std::vector<NewJob>& jobs, size_t& pushed) {
    pushed = 0;
    for (const NewJob& job : jobs) {
      const int rc = Push(job);
      if (rc != 0) return rc;
      ++pushed;
    }
    return 0;
  }
  // Waiting and running jobs whose name (and payload) match; empty filters
  // match all.
  virtual int Count(const std::optional<std::string>& name,
                    const std::optional<std::string>& payload, long long& count) = 0;

  // The worker's steps. Claim takes the waiting job that is due first (due
  // at or before `now`), marks it running and counts the try: 1 with `out`,
  // 0 when none is due.
  virtual int Claim(int64_t now, JobRecord& out) = 0;
  // A finished job leaves the queue.
  virtual int Finish(int64_t id) = 0;
  // A failed run: waits again until `retry_at` while tries remain (unless
  // the same job waits already, which then does the work), else stays as
  // failed with `error` for an administrator to see. 1 when it will run
  // again, 0 when it gave up.
  virtual int Fail(int64_t id, const std::string& error, int64_t retry_at) = 0;
  // Drops a job that cannot run at all (its payload is unreadable).
  virtual int Drop(int64_t id) = 0;
  // Jobs left running by a worker that died wait again; the count.
  virtual int ResetRunning() = 0;
  // Every job, waiting, running and failed, oldest first.
  virtual int List(std::vector<JobRecord>& out) = 0;
  // When the next waiting job is due: 1 with `due`, 0 when none waits.
  virtual int NextDue(int64_t& due) = 0;

  // A descriptor that becomes readable when a job may have been pushed, so
  // that an idle worker sleeps without polling; -1 when it cannot be had.
  // AckWake() consumes what woke it. A worker asks for WakeFd() before each
  // sleep (the descriptor may change once a lost connection is made again),
  // polls it until NextDue() or, when it is -1, for a short while, then
  // calls AckWake() and claims until nothing is due: a wake can be missed
  // while the descriptor is being made, never a job.
  virtual int WakeFd() = 0;
  virtual void AckWake() = 0;
};

// Opens the store at `location` ("redis://..." or a SQLite file path; the
// SQLite file is made, private to root, when missing). 0 or negative.
int OpenJobStore(const std::string& location, std::unique_ptr<JobStore>& out);

}  // namespace tidepool::core::job_queue
