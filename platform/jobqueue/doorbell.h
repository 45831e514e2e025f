// The SQLite queue's wake-up: a file beside the database that Push opens
// for writing and closes, and that an idle worker watches with inotify for
// IN_CLOSE_WRITE, so that it sleeps without polling the table.
#pragma once

#include <string>

namespace tidepool::core::job_queue {

class Doorbell {
 public:
  explicit Doorbell(std::string path) : path_(std::move(path)) {}
  ~Doorbell();
  Doorbell(const Doorbell&) = delete;
  Doorbell& operator=(const Doorbell&) = delete;

  // Wakes the watchers; 0, or -1 when the bell is missing its safe form
  // (then nobody is woken and the worker finds the job on its next round).
  int Ring();
  // The inotify descriptor, made on first use; -1 when it cannot be had.
  int Fd();
  // Reads every pending event without blocking.
  void Drain();

 private:
  // Opens (making it when missing) the bell for writing: a regular file of
  // root's, reached without following a link. The descriptor or -1.
  int OpenBell();

  std::string path_;
  int inotify_fd_ = -1;
};

}  // namespace tidepool::core::job_queue
