// The sync service's job queue, as far as a request needs it: a process-wide
// handle on the queue's database that is closed around a fork.
#pragma once

namespace tidepool::db::job {

class JobManagerHolder {
 public:
  static JobManagerHolder& Instance();
  // Opens the queue database of the configured repository; 0 or negative.
  int Initialize();
  void Destroy();
  bool IsInitialized() const;

 private:
  JobManagerHolder() = default;
  struct Impl;
  Impl* impl_ = nullptr;
};

}  // namespace tidepool::db::job
