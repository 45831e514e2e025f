#include "versioner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

#include "event-loop.h"
#include "hlibc.h"
#include "logger.h"
#include "scan.h"
#include "sync-service.h"

extern char** environ;

namespace driftway {
namespace {

using Clock = std::chrono::steady_clock;
// While frozen, free space is looked at again this often.
constexpr auto kFrozenRecheck = std::chrono::seconds(10);
// Folders due within this much of each other are versioned in one pass.
constexpr auto kTogether = std::chrono::milliseconds(200);
// A folder into which this many entries were added and left alone for a
// moment is versioned in part while it still changes (what its writers are
// done with): a copy of many files is versioned as it goes rather than all
// after its end.
constexpr size_t kSettleCount = 32;
// Past this many changed folders a view is scanned whole. Walking only the
// changed folders pays even for a hundred of them written at once (walking
// the whole view instead made such a burst markedly slower), and a thousand
// still make a command line far below the system's limit.
constexpr size_t kMaxFolders = 1024;
// What the install raises the per-user watch limit to, where it may.
constexpr long kWantedWatches = 1 << 20;
constexpr const char* kMaxWatches = "/proc/sys/fs/inotify/max_user_watches";

bool SettingNumber(const char* key, long long& out) {
  char buffer[64];
  if (HLIBCFileGetKeyValue(SyncConfigMgr::kPath, key, buffer, sizeof buffer) <= 0) return false;
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(buffer, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0) {
    LOG_WARNING("setting %s=\"%s\" is not a number; ignored\n", key, buffer);
    return false;
  }
  out = value;
  return true;
}

std::string ProgramDir() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return "/var/packages/Tidepool/target/bin";
  path[n] = '\0';
  std::string dir(path);
  return dir.substr(0, dir.rfind('/'));
}

// "/volume12/homes/..." -> 12; -1 for a path on no volume.
int VolumeNumber(const std::string& path) {
  if (path.compare(0, 7, "/volume") != 0) return -1;
  const size_t end = path.find('/', 1);
  const std::string digits = path.substr(7, end == std::string::npos ? end : end - 7);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
  return atoi(digits.c_str());
}

// A system with many folders needs more watches than a small default
// allows; past the limit a view is partly watched and its changes wait for
// the periodic rescan.
void RaiseWatchLimit() {
  FILE* in = fopen(kMaxWatches, "r");
  long current = 0;
  if (in == nullptr) return;
  const bool read = fscanf(in, "%ld", &current) == 1;
  fclose(in);
  if (!read || current >= kWantedWatches) return;
  FILE* out = fopen(kMaxWatches, "w");
  if (out == nullptr || fprintf(out, "%ld\n", kWantedWatches) < 0 || fclose(out) != 0) {
    LOG_WARNING("watch limit stays %ld: %s\n", current, strerror(errno));
    return;
  }
  LOG_INFO("watch limit raised from %ld to %ld\n", current, kWantedWatches);
}

}  // namespace

VersionerOptions LoadVersionerOptions() {
  VersionerOptions options;
  long long value = 0;
  if (SettingNumber("watch_quiet_ms", value)) options.quiet = std::chrono::milliseconds(value);
  if (SettingNumber("watch_max_wait_s", value) && value > 0) {
    options.max_wait = std::chrono::seconds(value);
  }
  if (SettingNumber("rescan_interval_s", value) && value > 0) {
    options.rescan_interval = std::chrono::seconds(value);
  }
  if (SettingNumber("freeze_free_mb", value)) {
    options.freeze_free_bytes = static_cast<uint64_t>(value) << 20;
  }
  options.scanner = ProgramDir() + "/driftway-control";
  return options;
}

Versioner::Versioner(EventLoop& loop, VersionerOptions options)
    : loop_(loop),
      options_(std::move(options)),
      watcher_(watch::Watcher::Callbacks{
          [this](uint64_t view_id, const std::string& folder, unsigned added) {
            debouncer_.Touch(KeyOf(view_id, "/" + folder), Clock::now(), added);
          },
          [this](uint64_t view_id, const std::string& why) {
            LOG_INFO("view %llu is scanned whole: %s\n", static_cast<unsigned long long>(view_id),
                     why.c_str());
            Due(view_id);
          }}),
      debouncer_(options_.quiet, options_.max_wait, kSettleCount,
                 std::chrono::milliseconds(scan::kClosedSettleMs)) {}

Versioner::~Versioner() {
  Stop();
  if (timer_fd_ >= 0) {
    loop_.Remove(timer_fd_);
    close(timer_fd_);
  }
  if (watcher_.fd() >= 0) loop_.Remove(watcher_.fd());
}

int Versioner::Start() {
  RaiseWatchLimit();
  // A freeze left by an earlier run is judged again on the first pass.
  frozen_ = IsViewIdFreeze(0);
  timer_fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timer_fd_ < 0 || loop_.Add(timer_fd_, EPOLLIN, [this](uint32_t) {
        uint64_t expirations = 0;
        (void)!read(timer_fd_, &expirations, sizeof expirations);
        OnTimer();
      }) < 0) {
    return -1;
  }
  if (watcher_.fd() < 0 || loop_.Add(watcher_.fd(), EPOLLIN, [this](uint32_t) {
        watcher_.OnReadable();
        ArmTimer();
      }) < 0) {
    return -1;
  }
  Reload();
  // Whatever changed while no daemon watched is versioned now.
  for (const auto& [view_id, root] : views_) Due(view_id);
  next_rescan_ = Clock::now() + options_.rescan_interval;
  OnTimer();
  return 0;
}

void Versioner::Reload() {
  std::vector<scan::ScanTarget> targets;
  if (scan::EnabledTargets(targets) < 0) {
    LOG_ERROR("cannot read the enabled homes and shares\n");
    return;
  }
  std::set<uint64_t> enabled;
  for (const scan::ScanTarget& target : targets) {
    enabled.insert(target.view_id);
    AddView(target.view_id, target.root_path);
  }
  for (auto it = views_.begin(); it != views_.end();) {
    if (enabled.count(it->first)) {
      ++it;
      continue;
    }
    it = DropView(it);
  }
  ArmTimer();
}

bool Versioner::WatchView(uint64_t view_id, const std::string& root) {
  auto it = views_.find(view_id);
  if (it != views_.end() && it->second == root) return false;
  if (watcher_.AddView(view_id, root) < 0) {
    LOG_WARNING("%s is not watched; the periodic rescan versions it\n", root.c_str());
  }
  views_[view_id] = root;
  return true;
}

void Versioner::AddView(uint64_t view_id, const std::string& root) {
  if (WatchView(view_id, root)) Due(view_id);
}

std::map<uint64_t, std::string>::iterator Versioner::DropView(
    std::map<uint64_t, std::string>::iterator it) {
  watcher_.RemoveView(it->first);
  for (auto key = keys_.lower_bound({it->first, ""});
       key != keys_.end() && key->first.first == it->first;) {
    debouncer_.Forget(key->second);
    folders_of_key_.erase(key->second);
    key = keys_.erase(key);
  }
  due_.erase(it->first);
  dirty_.erase(it->first);
  enabled_lately_.erase(it->first);
  return views_.erase(it);
}

void Versioner::SetView(uint64_t view_id, const std::string& root, bool enabled) {
  if (enabled && !root.empty()) {
    if (WatchView(view_id, root)) {
      enabled_lately_.insert(view_id);
      enabled_quiet_at_ = Clock::now() + options_.quiet;
    }
  } else if (auto it = views_.find(view_id); it != views_.end()) {
    DropView(it);
  }
  ArmTimer();
}

void Versioner::RescanAll() {
  for (const auto& [view_id, root] : views_) Due(view_id);
  ArmTimer();
}

uint64_t Versioner::KeyOf(uint64_t view_id, const std::string& folder) {
  const auto [it, added] = keys_.try_emplace({view_id, folder}, next_key_);
  if (added) folders_of_key_[next_key_++] = it->first;
  return it->second;
}

void Versioner::Due(uint64_t view_id) {
  dirty_[view_id].insert("/");
  due_.insert(view_id);
  ArmTimer();
}

void Versioner::OnTimer() {
  const auto now = Clock::now();
  // Folders that fall quiet together go together: the two folders of a
  // move get their events at the same moment, and a file moved between
  // them must be seen leaving one and arriving in the other in one pass,
  // or it would be recorded as deleted and added. A folder still being
  // written is never taken along early: that would version a file half
  // written.
  for (uint64_t key : debouncer_.TakeDue(now + kTogether)) {
    const auto found = folders_of_key_.find(key);
    if (found == folders_of_key_.end()) continue;
    const auto [view_id, folder] = found->second;
    keys_.erase(found->second);
    folders_of_key_.erase(found);
    if (!views_.count(view_id)) continue;
    dirty_[view_id].insert(folder);
    due_.insert(view_id);
  }
  // A folder still being written yet settled goes into the next pass too;
  // it stays pending (so it is --busy there): only the files left alone for
  // the quiet moment, or new ones their writers are done with, are
  // versioned.
  for (uint64_t key : debouncer_.TakeSettled(now)) {
    const auto found = folders_of_key_.find(key);
    if (found == folders_of_key_.end() || !views_.count(found->second.first)) continue;
    dirty_[found->second.first].insert(found->second.second);
    due_.insert(found->second.first);
  }
  if (!enabled_lately_.empty() && now >= enabled_quiet_at_) {
    for (uint64_t view_id : enabled_lately_) Due(view_id);
    enabled_lately_.clear();
  }
  if (now >= next_rescan_) {
    Reload();
    for (const auto& [view_id, root] : views_) Due(view_id);
    next_rescan_ = now + options_.rescan_interval;
  }
  if (frozen_ && now >= frozen_check_) (void)EvaluateFreeze();
  if (child_ < 0 && !due_.empty()) StartPass();
  ArmTimer();
}

void Versioner::ArmTimer() {
  if (timer_fd_ < 0) return;
  const auto now = Clock::now();
  auto next = next_rescan_;
  if (const auto due = debouncer_.NextDue()) next = std::min(next, *due);
  if (frozen_) next = std::min(next, frozen_check_);
  if (!enabled_lately_.empty()) next = std::min(next, enabled_quiet_at_);
  if (!due_.empty() && child_ < 0 && !frozen_) next = now;
  const auto wait = std::max<Clock::duration>(next - now, std::chrono::milliseconds(1));
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
  when.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
  timerfd_settime(timer_fd_, 0, &when, nullptr);
}

bool Versioner::EvaluateFreeze() {
  std::set<std::string> volumes;
  SyncConfigMgr config;
  if (SyncGetConf(config) == 0) volumes.insert(config.GetSysShareBin());
  for (const auto& [view_id, root] : views_) {
    volumes.insert(root.substr(0, root.find('/', 1)));
  }
  std::list<int> full;
  for (const std::string& volume : volumes) {
    struct statvfs st {};
    if (VolumeNumber(volume) < 0 || statvfs(volume.c_str(), &st) != 0) continue;
    const uint64_t free_bytes = static_cast<uint64_t>(st.f_bavail) * st.f_frsize;
    if (free_bytes < options_.freeze_free_bytes) full.push_back(VolumeNumber(volume));
  }
  frozen_check_ = Clock::now() + kFrozenRecheck;
  if (!full.empty()) {
    std::list<int> before;
    if (!frozen_ || SyncFullVolGet(before) < 0 || before != full) {
      LOG_WARNING("volume%d has less than %llu MiB free: frozen, no new versions\n", full.front(),
                  static_cast<unsigned long long>(options_.freeze_free_bytes >> 20));
      if (SyncFreezeSet(full) < 0) LOG_ERROR("cannot record the freeze\n");
    }
    frozen_ = true;
    return true;
  }
  if (frozen_) {
    LOG_INFO("free space is back: the freeze ends\n");
    if (SyncFreezeClear() < 0) LOG_ERROR("cannot clear the freeze\n");
  }
  frozen_ = false;
  return false;
}

void Versioner::StartPass() {
  if (EvaluateFreeze()) return;
  std::vector<std::string> args = {
      options_.scanner, "scan",
      "--client",       options_.client,
      "--settle",       std::to_string(options_.quiet.count()),
      "--open-wait",    std::to_string(std::chrono::milliseconds(options_.max_wait).count())};
  // A view whose changes all lie in some folders is scanned there only.
  for (uint64_t view_id : due_) {
    // A folder below another changed one is covered by it.
    std::set<std::string> folders;
    for (const std::string& folder : dirty_[view_id]) {
      const std::string& above = folders.empty() ? std::string() : *folders.rbegin();
      if (!above.empty() && (above == "/" || folder.compare(0, above.size() + 1, above + "/") == 0))
        continue;
      folders.insert(folder);
    }
    dirty_.erase(view_id);
    if (folders.empty() || folders.count("/") || folders.size() > kMaxFolders) {
      args.push_back("--view");
      args.push_back(std::to_string(view_id));
      continue;
    }
    for (const std::string& folder : folders) {
      args.push_back("--folder");
      args.push_back(std::to_string(view_id) + ":" + folder);
    }
  }
  // In folders of these views that are still changing, a file changed
  // within the quiet moment is left for a later pass: a file being written
  // is never versioned half way.
  for (const auto& [key, id] : keys_) {
    if (!due_.count(key.first)) continue;
    args.push_back("--busy");
    args.push_back(std::to_string(key.first) + ":" + key.second);
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  // The daemon holds its termination signals for the loop; the pass must
  // not inherit that.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    LOG_ERROR("cannot run %s: %s\n", argv[0], strerror(rc));
    return;  // the views stay due; the next tick tries again
  }
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0 || loop_.Add(fd, EPOLLIN, [this](uint32_t) { OnPassDone(); }) < 0) {
    // Without a way to hear of its end, wait for it here.
    if (fd >= 0) close(fd);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    due_.clear();
    return;
  }
  child_ = pid;
  child_fd_ = fd;
  running_.swap(due_);
  due_.clear();
  ++passes_;
}

void Versioner::OnPassDone() {
  int status = 0;
  while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
  loop_.Remove(child_fd_);
  close(child_fd_);
  child_fd_ = -1;
  child_ = -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    // Entries that failed are tried again at their next change or rescan.
    LOG_WARNING("versioning pass of %zu view(s) ended with status %d\n", running_.size(), status);
  }
  running_.clear();
  OnTimer();
}

void Versioner::Stop() {
  if (child_ < 0) return;
  while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
  }
  loop_.Remove(child_fd_);
  close(child_fd_);
  child_fd_ = -1;
  child_ = -1;
}

Json::Value Versioner::Status() const {
  Json::Value status(Json::objectValue);
  Json::Value& views = status["views"] = Json::Value(Json::arrayValue);
  for (const auto& stats : watcher_.Stats()) {
    Json::Value view(Json::objectValue);
    view["view_id"] = Json::UInt64(stats.view_id);
    view["root"] = stats.root;
    view["folders"] = Json::UInt64(stats.folders);
    view["partial"] = stats.partial;
    views.append(view);
  }
  std::set<uint64_t> waiting(due_);
  waiting.insert(enabled_lately_.begin(), enabled_lately_.end());
  for (uint64_t key : debouncer_.PendingViews()) {
    const auto found = folders_of_key_.find(key);
    if (found != folders_of_key_.end()) waiting.insert(found->second.first);
  }
  Json::Value& pending = status["pending"] = Json::Value(Json::arrayValue);
  for (uint64_t view_id : waiting) pending.append(Json::UInt64(view_id));
  Json::Value& running = status["running"] = Json::Value(Json::arrayValue);
  for (uint64_t view_id : running_) running.append(Json::UInt64(view_id));
  status["passes"] = Json::UInt64(passes_);
  status["frozen"] = frozen_;
  return status;
}

}  // namespace driftway
