// The sync service's job queue, as a request and the service's tools see it:
// jobs are pushed by name and payload and run later by the daemon's worker.
// Where the queue lives (a SQLite table in the repository, or a Redis server
// that setting.conf names with `job_queue = "redis://host:port"`) is hidden
// behind the client.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidepool::db::job {
class JobManagerHolder;
}

namespace tidepool::core::job_queue {

class JobStore;

// A unit of work the daemon knows by its name. The payload says what to work
// on; a job whose name and payload already wait is not queued twice.
class Job {
 public:
  virtual ~Job() = default;
  virtual std::string Name() const = 0;
  // Compact JSON text; equal payloads are equal texts.
  virtual std::string Payload() const = 0;

  // The user in whose name the job runs (its log records name them).
  void SetUserInfo(const std::string& name, uint32_t uid) {
    user_ = name;
    uid_ = uid;
  }
  const std::string& user() const { return user_; }
  uint32_t uid() const { return uid_; }

 private:
  std::string user_;
  uint32_t uid_ = 0;
};

namespace jobs {

// Purges nodes with all their versions: every removed node of every view
// (no arguments), every removed node of one view, or one node of a view
// with its whole subtree, live or removed.
class DeleteNodeJob final : public Job {
 public:
  static constexpr const char* kName = "cleanup.delete-node-job";
  DeleteNodeJob() = default;
  explicit DeleteNodeJob(uint64_t view_id) : view_id_(view_id) {}
  DeleteNodeJob(uint64_t view_id, uint64_t node_id) : view_id_(view_id), node_id_(node_id) {}
  std::string Name() const override { return kName; }
  std::string Payload() const override;

 private:
  std::optional<uint64_t> view_id_;
  std::optional<uint64_t> node_id_;
};

// Removes a temporary file or folder that a response left behind.
class UnlinkJob final : public Job {
 public:
  static constexpr const char* kName = "cleanup.unlink-job";
  explicit UnlinkJob(std::string path) : path_(std::move(path)) {}
  std::string Name() const override { return kName; }
  std::string Payload() const override;

 private:
  std::string path_;
};

}  // namespace jobs

// Results of PushJob.
constexpr int kPushDone = 0;
constexpr int kPushAlreadyWaiting = 4;

class JobQueueClient {
 public:
  // When a pushed job becomes due: at `start_at` (seconds since the epoch; 0
  // or a past time means now) plus `delay` seconds. `max_tries` bounds the
  // runs of a job that keeps failing; 0 takes the queue's default.
  struct PushOption {
    long long start_at = 0;
    long long delay = 0;
    long long max_tries = 0;
  };

  // Filters of CountJob; an empty member matches every job.
  struct QueryOperation {
    std::optional<std::string> name;
    std::optional<std::string> payload;
  };

  // The process-wide client.
  static JobQueueClient& Instance();
  // A client of the queue that setting.conf names.
  JobQueueClient();
  // A client of the queue at `location`: "redis://[:password@]host:port[/db]",
  // or a SQLite file path.
  explicit JobQueueClient(const std::string& location);
  ~JobQueueClient();
  JobQueueClient(const JobQueueClient&) = delete;
  JobQueueClient& operator=(const JobQueueClient&) = delete;

  // kPushDone, kPushAlreadyWaiting, or negative when the queue cannot be
  // reached (then nothing was queued).
  int PushJob(std::shared_ptr<Job> job, const PushOption& option);
  // Pushes in order and stops at the first job that is not queued, with its
  // result; `pushed` counts those queued before it, which stay queued.
  int PushJobs(const std::vector<std::shared_ptr<Job>>& jobs, const PushOption& option,
               size_t& pushed);
  // The waiting and running jobs that match; 0 or negative.
  int CountJob(long long& count, const QueryOperation& operation);

 private:
  // The holder opens and closes the process-wide client's connection.
  friend class tidepool::db::job::JobManagerHolder;
  int Connect();
  std::string location_;
  std::unique_ptr<JobStore> store_;
};

// Reads the queue's location from setting.conf: the `job_queue` value, or the
// SQLite file "<repository>/job-queue.sqlite". Empty when the service is not
// configured.
std::string ConfiguredQueueLocation();

}  // namespace tidepool::core::job_queue

namespace tidepool::db::job {

// A process-wide handle on the queue's storage, closed around a fork so that
// parent and child do not share a database connection.
class JobManagerHolder {
 public:
  static JobManagerHolder& Instance();
  // Opens the configured queue; 0 or negative.
  int Initialize();
  void Destroy();
  bool IsInitialized() const;

 private:
  JobManagerHolder() = default;
};

}  // namespace tidepool::db::job
