#include "usage-sum.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <map>
#include <string>

#include "db/manager.h"
#include "logger.h"
#include "sync-service.h"
#include "traverse-dir.h"
#include "user-manager.h"

namespace dbusage {

namespace {

// Adds one measured part and reports the new sum; false stops the run.
class Sum {
 public:
  explicit Sum(const AfterEachSum& after_each) : after_each_(after_each) {}
  bool Add(unsigned long long bytes) {
    usage_ += bytes;
    return after_each_(usage_);
  }
  unsigned long long usage() const { return usage_; }

 private:
  const AfterEachSum& after_each_;
  unsigned long long usage_ = 0;
};

// The outcome of one step: go on, stopped, failed.
enum class Step { kNext, kStopped, kFailed };

Step AddViews(Sum& sum) {
  std::list<UserInfo> users;
  if (UserManager::EnumAllUser(users) < 0) {
    LOG_ERROR("Failed to EnumAllUsers\n");
    return Step::kFailed;
  }
  for (const UserInfo& user : users) {
    // An owner that never had a view has nothing stored.
    if (user.view_id == 0) continue;
    const auto view_id = static_cast<unsigned long long>(user.view_id);
    db::ViewDBInterface view;
    if (db::Manager::GetViewDB(user.view_id, view) < 0) {
      LOG_ERROR("Failed to get view db for view_id (%llu)\n", view_id);
      return Step::kFailed;
    }
    unsigned long long size = 0;
    if (view->GetNodeDeltaSizeSum(size) < 0) {
      LOG_ERROR("Failed to get sum of node delta size for view %llu\n", view_id);
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
    if (view->GetSignatureSizeSum(size) < 0) {
      LOG_ERROR("Failed to get sum of signature size for view %llu\n", view_id);
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
    if (view->GetMacAttrSizeSum(size) < 0) {
      LOG_ERROR("Failed to get sum of mac attr size for view %llu\n", view_id);
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
    if (db::Manager::GetViewDBFileSize(user.view_id, size) < 0) {
      LOG_ERROR("Failed to get view db for view_id (%llu)\n", view_id);
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
  }
  return Step::kNext;
}

Step AddFileDatabases(Sum& sum) {
  std::map<std::string, std::string> file_dbs;
  if (db::Manager::EnumFileDBTable(file_dbs) < 0) {
    LOG_ERROR("Failed to Enum Volume Table\n");
    return Step::kFailed;
  }
  for (const auto& [uuid, volume] : file_dbs) {
    db::FileDBInterface files;
    if (db::Manager::GetFileDB(uuid, files, false, "") < 0) {
      LOG_ERROR("Failed to get file db for uuid %s\n", uuid.c_str());
      return Step::kFailed;
    }
    unsigned long long size = 0;
    if (files->GetFileSizeSum(size) < 0) {
      LOG_ERROR("Failed to get sum of file size for file db %s\n", uuid.c_str());
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
    if (files->GetDeltaSizeSum(size) < 0) {
      LOG_ERROR("Failed to get sum of delta size for file db %s\n", uuid.c_str());
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
    if (db::Manager::GetFileDBFileSize(uuid, size) < 0) {
      LOG_ERROR("Failed to get file db file size for uuid %s\n", uuid.c_str());
      return Step::kFailed;
    }
    if (!sum.Add(size)) return Step::kStopped;
  }
  return Step::kNext;
}

// The office folder is walked by a process of its own from the start of the
// run, beside the database sums, which wait on the disk as the walk does;
// its total is added when its turn comes, so the order of the sums stays.
class OfficeWalk {
 public:
  OfficeWalk() = default;
  OfficeWalk(const OfficeWalk&) = delete;
  OfficeWalk& operator=(const OfficeWalk&) = delete;
  // A run that ends before the walk's turn leaves no walker behind.
  ~OfficeWalk() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Reap();
    }
    if (fd_ >= 0) close(fd_);
  }

  void Start() {
    if (KSTXTidepoolGetNSPath("office", path_) == 0) return;
    exists_ = true;
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) return;  // walked in turn instead
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      // The walker ends with the run, whichever way it ends.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      close(channel[0]);
      Result result;
      result.rc = Walk(path_, result.total);
      const bool sent = write(channel[1], &result, sizeof result) == sizeof result;
      _exit(sent ? 0 : 1);
    }
    close(channel[1]);
    if (pid_ < 0) {
      close(channel[0]);
      return;
    }
    fd_ = channel[0];
  }

  Step AddTo(Sum& sum) {
    if (!exists_) return Step::kNext;
    Result result;
    if (fd_ < 0) {
      result.rc = Walk(path_, result.total);
    } else if (!Receive(result)) {
      result.rc = -1;
    }
    if (result.rc != 0) {
      LOG_ERROR("traverse accumulate size fail\n");
      return Step::kFailed;
    }
    return sum.Add(result.total) ? Step::kNext : Step::kStopped;
  }

 private:
  struct Result {
    int rc = -1;
    unsigned long long total = 0;
  };

  static int Walk(const std::string& path, unsigned long long& total) {
    FolderSizeCounter counter(path);
    const int rc = TraverseDir(counter, 0);
    total = counter.GetTotal();
    return rc;
  }

  bool Receive(Result& result) {
    size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(&result);
    while (got < sizeof result) {
      const ssize_t n = read(fd_, bytes + got, sizeof result - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    Reap();
    return got == sizeof result;
  }

  void Reap() {
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }

  std::string path_;
  bool exists_ = false;
  pid_t pid_ = -1;
  int fd_ = -1;  // the walker's answer
};

}  // namespace

int SumDatabaseUsage(const AfterEachSum& after_each, unsigned long long& usage) {
  usage = 0;
  Sum sum(after_each);
  OfficeWalk office;
  office.Start();
  unsigned long long size = 0;
  if (db::Manager::GetLogDBFileSize(size) < 0) {
    LOG_ERROR("Failed to get log db file size\n");
    return -1;
  }
  Step step = sum.Add(size) ? Step::kNext : Step::kStopped;
  if (step == Step::kNext) step = AddViews(sum);
  if (step == Step::kNext) step = AddFileDatabases(sum);
  if (step == Step::kNext) step = office.AddTo(sum);
  usage = sum.usage();
  switch (step) {
    case Step::kNext:
      return kSumDone;
    case Step::kStopped:
      return kSumStopped;
    case Step::kFailed:
      break;
  }
  return -1;
}

}  // namespace dbusage
