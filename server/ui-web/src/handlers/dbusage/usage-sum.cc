#include "usage-sum.h"

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

Step AddOfficeFolder(Sum& sum) {
  std::string path;
  if (KSTXTidepoolGetNSPath("office", path) == 0) return Step::kNext;
  FolderSizeCounter counter(path);
  if (TraverseDir(counter, 0) != 0) {
    LOG_ERROR("traverse accumulate size fail\n");
    return Step::kFailed;
  }
  return sum.Add(counter.GetTotal()) ? Step::kNext : Step::kStopped;
}

}  // namespace

int SumDatabaseUsage(const AfterEachSum& after_each, unsigned long long& usage) {
  usage = 0;
  Sum sum(after_each);
  unsigned long long size = 0;
  if (db::Manager::GetLogDBFileSize(size) < 0) {
    LOG_ERROR("Failed to get log db file size\n");
    return -1;
  }
  Step step = sum.Add(size) ? Step::kNext : Step::kStopped;
  if (step == Step::kNext) step = AddViews(sum);
  if (step == Step::kNext) step = AddFileDatabases(sum);
  if (step == Step::kNext) step = AddOfficeFolder(sum);
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
