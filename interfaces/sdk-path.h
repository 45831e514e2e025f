// The appliance's answers about paths: which share a path lies in, what a
// user may do there, whether the directory services keep homes, and the
// runner that makes a web-API call from inside a request.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace SDK {

// Share privilege levels of GetSharePrivilege.
inline constexpr int kShareNoAccess = 1;
inline constexpr int kShareReadWrite = 2;
inline constexpr int kShareReadOnly = 4;
inline constexpr int kShareFull = 8;  // administrators: read and write whatever is set

// "team" for "/volume1/team/a/b", "homes" for "/volume1/homes/alice/x";
// empty when the path is not inside an existing share.
std::string PathGetShareName(const std::string& path);

// The user's level on the share (one of the constants above); negative when
// the share or the user is unknown or the directory cannot be read.
int GetSharePrivilege(const std::string& share, const std::string& user);

// Group memberships looked up once per user, for several path checks.
struct GroupCache {
  std::map<std::string, std::set<unsigned int>> groups;
};

// The rights (13-bit masks of acl.h) that `user` holds on `path` from its
// owner, mode and POSIX ACL, given search rights on every folder above it;
// 0x1FFF for root. Negative when the user is unknown or the path cannot be
// examined.
int GetPathAclPrivilege(const std::string& user, const std::string& path, GroupCache& cache);

bool IsLocalHomeServiceEnabled();
bool IsLdapHomeServiceEnabled();
bool IsDomainHomeServiceEnabled();

// Runs `api` `method` `version` with `params` in a child process, as the
// appliance user `user` (no session needed), and gives the JSON envelope
// the call answered in `response`. 0 when the call ran (whatever it
// answered), negative when it could not be run at all or answered no JSON
// envelope. A call that has not answered within `timeout_ms` is killed with
// every process it started and gives kRunnerTimedOut: no caller waits for a
// module that never answers.
inline constexpr int kRunnerTimedOut = -2;
inline constexpr int kRunnerDefaultTimeoutMs = 300000;
int WebApiRunnerExec(const std::string& api, const std::string& method, unsigned version,
                     const Json::Value& params, Json::Value& response, const std::string& user,
                     int timeout_ms = kRunnerDefaultTimeoutMs);

}  // namespace SDK
