#include "webapi-util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>

#include "acl.h"
#include "bridge/run-as.h"
#include "db/errors.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "fs-beneath.h"
#include "host-accounts.h"
#include "logger.h"
#include "natural-sort.h"
#include "sdk-path.h"
#include "sdk.h"
#include "sync-service.h"

// Lines of this file carry the tag "webapi-util" rather than the file name.
#define UTIL_LOG(level, word, format, ...)                                                        \
  do {                                                                                            \
    if (Logger::IsNeedToLog(level, "default_component")) {                                        \
      Logger::LogMsg(level, "default_component", "(%5d:%5d) [" word "] webapi-util(%d): " format, \
                     static_cast<int>(getpid()), static_cast<int>(pthread_self() % 100000),       \
                     __LINE__, ##__VA_ARGS__);                                                    \
    }                                                                                             \
  } while (0)
#define UTIL_ERROR(format, ...) UTIL_LOG(3, "ERROR", format, ##__VA_ARGS__)
#define UTIL_DEBUG(format, ...) UTIL_LOG(7, "DEBUG", format, ##__VA_ARGS__)

int GetViewDB(uint64_t view_id, db::ViewDBInterface& out) {
  IF_RUN_AS(0, 0) { return db::Manager::GetViewDB(view_id, out) < 0 ? -1 : 0; }
  return -1;
}

bool IsValidTarget(const std::string& target) {
  if (target.empty()) return false;
  if (!SyncIsShareReq(target)) return true;
  Platform::ShareService service(true);
  Platform::Share share;
  return service.GetShare(SyncTargetNameGet(target), share) == 0 && share.IsActive();
}

int GetUserInfoByTarget(const RequestAuthentication& auth, BridgeResponse& response,
                        const std::string& target, UserInfo& out, bool allow_non_admin) {
  if (target.empty() || !SyncIsShareReq(target)) {
    if (UserManager::GetUser(auth.user, auth.uid, out, UserManager::kQueryStored) > 0) return 0;
    return RESPONSE_FAIL(response, 501, "failed to get user " + auth.user);
  }
  const std::string name = SyncTargetNameGet(target);
  if (!allow_non_admin && !auth.is_admin) {
    return RESPONSE_FAIL(response, 402, "admin-only operation");
  }
  // A share's history is for those who may read the share itself.
  if (!auth.is_admin && !auth.is_root) {
    const int level = SDK::GetSharePrivilege(name, auth.user);
    if (level != SDK::kShareReadOnly && level != SDK::kShareReadWrite && level != SDK::kShareFull) {
      UTIL_ERROR("User '%s' may not read share '%s'", auth.user.c_str(), name.c_str());
      return RESPONSE_FAIL(response, 403, "no privilege");
    }
  }
  if (UserManager::GetShareUser(name, out) < 0) {
    return RESPONSE_FAIL(response, 501, "failed to get share user " + name);
  }
  if (out.name.empty()) return RESPONSE_FAIL(response, 501, "share " + name + " is not enabled");
  return 0;
}

int GetDatabaseViewId(const RequestAuthentication& auth, BridgeResponse& response,
                      const std::string& target, uint64_t& view_id, bool allow_non_admin) {
  UserInfo info;
  if (GetUserInfoByTarget(auth, response, target, info, allow_non_admin) < 0) return -1;
  view_id = info.view_id;
  return 0;
}

namespace {

// Adds the rights of every level from the node up to the root of the view,
// each from the level's newest version that is not a deletion. False when
// the node cannot be judged.
bool CollectChain(db::ViewManager& view, uint64_t node_id, ACL_API::ACL& acl) {
  uint64_t id = node_id;
  int32_t level = 0;
  while (true) {
    db::Node node;
    const int rc = view.QueryNode(id, node, db::ViewManager::kQueryWithRemoved);
    if (rc == db::kErrNotFound && id != view.getRootNodeId()) {
      id = view.getRootNodeId();  // a missing ancestor is skipped
      continue;
    }
    if (rc != 0) {
      UTIL_ERROR("Failed to query node '%llu'. %s", static_cast<unsigned long long>(id),
                 db::GetErrMsg(rc));
      return false;
    }
    std::vector<db::Version> versions;
    if (view.ListVersion(id, versions, db::ViewManager::kListVersionForDisplay) < 0) {
      UTIL_ERROR("Failed to query version of node '%llu'. %s", static_cast<unsigned long long>(id),
                 db::GetErrMsg(rc));
      return false;
    }
    if (versions.empty()) {
      UTIL_ERROR("No version of node '%llu'.", static_cast<unsigned long long>(id));
      return false;
    }
    if (versions.size() == 1 && versions.back().isRemoved()) {
      UTIL_ERROR("Only deleted version of node '%llu'.", static_cast<unsigned long long>(id));
      return false;
    }
    // A deletion marker carries no rights of its own.
    const db::Version& v =
        versions.back().isRemoved() ? versions[versions.size() - 2] : versions.back();
    ACL_API::ACL::Privilege privilege;
    privilege.acl = v.getAcl();
    privilege.path = node.getPath();
    privilege.uid = v.getUserId();
    privilege.gid = v.getGroupId();
    privilege.mode = v.getUnixMode();
    privilege.level = level++;
    privilege.is_dir = v.isDir();
    acl.AddPrivilege(privilege);
    if (node.getPath() == "/") return true;
    id = node.getParentId();
  }
}

}  // namespace

bool CheckPrivilegeByNodeId(const RequestAuthentication& auth, BridgeResponse& response,
                            db::ViewDBInterface& view, const UserInfo& owner,
                            const std::vector<uint64_t>& node_ids, bool need_write) {
  IF_RUN_AS(0, 0) {
    UserInfo login_user;
    if (GetUserInfoByTarget(auth, response, "", login_user, true) < 0) {
      UTIL_ERROR("Fail to get login user info: login as '%s'", auth.user.c_str());
      return false;
    }
    for (uint64_t node_id : node_ids) {
      if (auth.is_admin) continue;
      Platform::UserService users(false);
      Platform::User user;
      if (users.GetUser(login_user.name, user) < 0) {
        UTIL_ERROR("Failed to get user '%s'", login_user.name.c_str());
        return false;
      }
      ACL_API::ACL::UserInfo subject;
      subject.uid = user.GetID();
      user.ListGroupID(subject.gids);
      ACL_API::ACL acl;
      if (!view || !CollectChain(*view.get(), node_id, acl)) return false;
      // The owner of a home has complete control over it.
      if (owner.view_id == login_user.view_id) {
        ACL_API::ACLRule::Entry entry{1, subject.uid, 0x1FFF, 6, 1};
        acl.AddACE("/", entry);
      }
      if (!acl.IsAccessible(subject, 0)) return false;
      if (need_write && !acl.CheckPermission(subject, 0x18A, 0)) return false;
    }
    return true;
  }
  // Deliberately open: without root the chain cannot be read at all.
  return true;
}

std::string AppendLeadingSlashIfNeeded(const std::string& path) {
  const std::string normalized = NormalizePath(path);
  if (normalized.empty() || normalized[0] == '/') return normalized;
  return "/" + normalized;
}

bool NaturalSortComparator(const std::string& a, const std::string& b) {
  if (!natsort::Ready()) {
    UTIL_ERROR("Failed to create collator.");
    return true;
  }
  return natsort::Less(a, b);
}

uint32_t GetRandomInt() {
  std::random_device device("default");
  std::mt19937 engine(device());
  return static_cast<uint32_t>(engine());
}

bool IsUserExpired(const std::string& name) {
  IF_RUN_AS(0, 0) {
    if (KSTXUserCheckExpired(name.c_str()) == 0) return false;
    UTIL_DEBUG("User '%s' is expired", name.c_str());
    return true;
  }
  UTIL_ERROR("Failed to switch to root");
  return true;
}

std::vector<bool> AreUsersExpired(const std::vector<std::string>& names) {
  std::vector<bool> expired(names.size(), true);
  IF_RUN_AS(0, 0) {
    std::vector<int> answers;
    KSTXUsersCheckExpired(names, answers);
    for (size_t i = 0; i < names.size() && i < answers.size(); ++i) expired[i] = answers[i] != 0;
    return expired;
  }
  UTIL_ERROR("Failed to switch to root");
  return expired;
}

void GetPrivilegedUsers(int32_t offset, int32_t limit, const std::string& substr,
                        const std::string& user_type, const std::string& domain_name,
                        uint32_t& total, std::vector<std::string>& names) {
  const bool app_privilege = ServiceSupportAppPrivilege();
  SDK::AppPrivilegeService privileged;
  if (user_type == "local") {
    if (app_privilege) {
      privileged.GetPrivilegedLocalUsers(offset, limit, substr, total, names);
    } else {
      SDK::UserService().ListLocalUsersWithPaging(offset, limit, substr, total, names);
    }
  } else if (user_type == "ldap") {
    if (app_privilege) {
      privileged.GetPrivilegedLdapUsers(offset, limit, substr, total, names);
    } else {
      SDK::LDAPService().ListUsersWithPaging(offset, limit, substr, total, names);
    }
  } else if (user_type == "domain") {
    if (app_privilege) {
      privileged.GetPrivilegedDomainUsers(offset, limit, substr, domain_name, total, names);
    } else {
      SDK::DomainService().ListUsersWithPaging(offset, limit, substr, domain_name, total, names);
    }
  }
}

void InsertLogs(const std::string& user_name, unsigned int uid, std::vector<db::Log> logs) {
  IF_RUN_AS(0, 0) {
    for (db::Log& log : logs) {
      log.setUserId(uid);
      log.setUserName(user_name);
      if (db::LogManager::InsertLog(log) != 0) UTIL_ERROR("Failed to write log");
    }
    return;
  }
  UTIL_ERROR("Failed to run as root");
}

int MakePrivateTempFolder(const std::string& tmp, std::string& folder) {
  if (tmp.empty()) return -1;
  const fsb::UniqueFd dir(fsb::OpenNoSymlinks(tmp, O_DIRECTORY | O_RDONLY));
  struct stat st {};
  if (!dir.valid() || fstat(dir.get(), &st) != 0 || st.st_uid != 0) {
    LOG_ERROR("%s is not root's folder; refused\n", tmp.c_str());
    return -1;
  }
  if ((st.st_mode & S_IWOTH) != 0 && (st.st_mode & S_ISVTX) == 0) {
    (void)fchmod(dir.get(), (st.st_mode & 07777) | S_ISVTX);
  }
  std::string templ = tmp + "/Tidepool.XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    LOG_ERROR("mkdtemp(%s): %s (%d)\n", templ.c_str(), strerror(errno), errno);
    return -1;
  }
  folder = templ;
  return 0;
}
