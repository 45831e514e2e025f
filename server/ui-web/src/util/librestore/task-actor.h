// What a restore task does (put an item back where it lived, copy it to a
// place the client chose, or copy it into a download's folder) and in whose
// name.
#pragma once

#include <cstdint>
#include <string>

namespace tidepool::restore {

class TaskActor {
 public:
  enum ACTION { ACTION_NONE = 0, ACTION_RESTORE = 1, ACTION_COPY = 2, ACTION_DOWNLOAD = 3 };

  TaskActor() : TaskActor(ACTION_NONE, "") {}
  TaskActor(ACTION action, const std::string& user)
      : action_(action), user_(user), uid_(0xFFFFFFFFu), gid_(0xFFFFFFFFu) {}
  // The group is the user's primary group in the sync service's records;
  // 0 when the user cannot be looked up.
  TaskActor(ACTION action, const std::string& user, unsigned int uid);

  bool IsRestoring() const { return action_ == ACTION_RESTORE; }
  // A download is a copy whose top-level items keep the names their list
  // made unique, so that two selected nodes of one name both arrive.
  bool IsCopying() const { return action_ == ACTION_COPY || action_ == ACTION_DOWNLOAD; }
  bool IsDownloading() const { return action_ == ACTION_DOWNLOAD; }
  void SetAction(ACTION action) { action_ = action; }
  ACTION GetAction() const { return action_; }
  const std::string& GetUser() const { return user_; }
  unsigned int GetUid() const { return uid_; }
  unsigned int GetGid() const { return gid_; }
  // The folder a copy goes to, opened once by the request and handed to
  // the task as a descriptor; the actor does not own it.
  void SetCopyRoot(int fd, const std::string& path) {
    copy_root_fd_ = fd;
    copy_root_path_ = path;
  }
  int GetCopyRootFd() const { return copy_root_fd_; }
  const std::string& GetCopyRootPath() const { return copy_root_path_; }

 private:
  ACTION action_;
  std::string user_;
  unsigned int uid_;
  unsigned int gid_;
  int copy_root_fd_ = -1;
  std::string copy_root_path_;
};

}  // namespace tidepool::restore
