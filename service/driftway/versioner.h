// What makes the daemon version by itself: every enabled home and share is
// watched, a folder that changed is versioned (with what lies below it)
// once it has been quiet for a moment, and all of them are versioned again at an interval (and at
// start, to catch up on what changed while the daemon was down).
//
// Versioning is the scan of driftway-control, run as a child process for
// the views that are due: the scan and the watcher share one versioning
// path, and the view lock keeps a scan started by hand from racing it. One
// pass runs at a time; views that fall due meanwhile wait for the next.
// While a volume has less free space than the freeze threshold, the service
// is frozen: no pass starts, and the freeze ends by itself when space comes
// back.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "debouncer.h"
#include "watcher.h"

namespace driftway {

class EventLoop;

struct VersionerOptions {
  std::chrono::milliseconds quiet{2000};       // a view is due once quiet this long
  std::chrono::milliseconds max_wait{60000};   // ... or changing for this long
  std::chrono::seconds rescan_interval{3600};  // every view, as a safety net
  uint64_t freeze_free_bytes = 256ull << 20;   // below this on a volume: freeze
  std::string scanner;                         // driftway-control
  std::string client = "driftway";             // the device in the log records
};

// The options from setting.conf: watch_quiet_ms, watch_max_wait_s,
// rescan_interval_s, freeze_free_mb; the scanner beside this program.
VersionerOptions LoadVersionerOptions();

class Versioner {
 public:
  Versioner(EventLoop& loop, VersionerOptions options);
  ~Versioner();
  Versioner(const Versioner&) = delete;
  Versioner& operator=(const Versioner&) = delete;

  // Watches every enabled view and queues a pass over all of them. 0, or
  // -1 when the loop cannot take the watcher or the timer.
  int Start();
  // The enabled views may have changed: new ones are watched and versioned,
  // dropped ones are no longer watched.
  void Reload();
  // One view was enabled (watched and versioned from now on) or disabled
  // (no longer watched, and dropped from what waits).
  void SetView(uint64_t view_id, const std::string& root, bool enabled);
  // Every view is versioned again in the next pass.
  void RescanAll();
  // Waits for a running pass to end.
  void Stop();
  // What is watched, what waits, whether a pass runs, the freeze.
  Json::Value Status() const;

 private:
  void OnTimer();
  void AddView(uint64_t view_id, const std::string& root);
  // Starts watching; false when the view was watched at that root already.
  bool WatchView(uint64_t view_id, const std::string& root);
  // Forgets the view and whatever of it waits.
  std::map<uint64_t, std::string>::iterator DropView(std::map<uint64_t, std::string>::iterator it);
  void ArmTimer();
  // The view is versioned whole in the next pass.
  void Due(uint64_t view_id);
  void StartPass();
  void OnPassDone();
  // Freezes or thaws by the free space of the volumes in use; true while
  // frozen.
  bool EvaluateFreeze();

  EventLoop& loop_;
  VersionerOptions options_;
  watch::Watcher watcher_;
  watch::Debouncer debouncer_;
  std::map<uint64_t, std::string> views_;  // view id -> root
  std::set<uint64_t> due_;                 // waiting for the next pass
  // Views enabled one at a time, as a batch of users enables them: they are
  // versioned together once enabling has been quiet for the quiet time, so
  // that the batch does not wait for passes over the homes it just made
  // (and the periodic rescan takes them, should enabling never fall quiet).
  std::set<uint64_t> enabled_lately_;
  std::chrono::steady_clock::time_point enabled_quiet_at_;
  // Per view, the folders due in the next pass ("/" for all).
  std::map<uint64_t, std::set<std::string>> dirty_;
  // Quiet is judged per folder, so that a busy folder does not hold back
  // a change elsewhere: the debouncer's keys name (view, folder) pairs.
  uint64_t KeyOf(uint64_t view_id, const std::string& folder);
  std::map<std::pair<uint64_t, std::string>, uint64_t> keys_;
  std::map<uint64_t, std::pair<uint64_t, std::string>> folders_of_key_;
  uint64_t next_key_ = 1;
  std::set<uint64_t> running_;  // in the running pass
  pid_t child_ = -1;
  int child_fd_ = -1;  // pidfd of the pass, readable when it ends
  int timer_fd_ = -1;
  bool frozen_ = false;
  std::chrono::steady_clock::time_point next_rescan_;
  std::chrono::steady_clock::time_point frozen_check_;
  uint64_t passes_ = 0;
};

}  // namespace driftway
