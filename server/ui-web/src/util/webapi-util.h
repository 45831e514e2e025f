// Utilities the handlers share: turning a `target` into an owner and a view,
// opening the view, deciding the caller's rights on nodes, the order of
// names in listings, paths, task numbers, account expiry, the paged user
// query and writing log records. Free functions without state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bridge/bridge-request.h"
#include "bridge/bridge-response.h"
#include "db/log.h"
#include "db/view-manager.h"
#include "platform-services.h"
#include "sync-target.h"
#include "user-manager.h"

// Opens the view with root's rights: 0, or -1.
int GetViewDB(uint64_t view_id, db::ViewDBInterface& out);

// False for "", and for a share target whose share is missing or inactive.
bool IsValidTarget(const std::string& target);

// The owner behind `target`: the caller for a home target ("" or not "@..."),
// the share user for "@share". 0, or -1 with the error set (501, or 402 for
// a non-administrator asking for a share when `allow_non_admin` is false).
int GetUserInfoByTarget(const RequestAuthentication& auth, BridgeResponse& response,
                        const std::string& target, UserInfo& out, bool allow_non_admin);
int GetDatabaseViewId(const RequestAuthentication& auth, BridgeResponse& response,
                      const std::string& target, uint64_t& view_id, bool allow_non_admin);

// True when the caller may read (and with `need_write`, restore over) every
// node of `node_ids` in the view owned by `owner`. Sets no error: callers
// answer 403. Administrators always pass.
bool CheckPrivilegeByNodeId(const RequestAuthentication& auth, BridgeResponse& response,
                            db::ViewDBInterface& view, const UserInfo& owner,
                            const std::vector<uint64_t>& node_ids, bool need_write);

// "a/b" -> "/a/b"; "" stays "".
std::string AppendLeadingSlashIfNeeded(const std::string& path);

// The natural order of names in listings (natural-sort.h).
bool NaturalSortComparator(const std::string& a, const std::string& b);

uint32_t GetRandomInt();

// A new folder <tmp>/Tidepool.XXXXXX, root's and 0700, for a task's or an
// answer's files. Others may write in `tmp` (the system volume's @tmp), so it
// must be root's, and gets the sticky bit when it is open to all, or someone
// could swap the folder. Runs as root. 0 with `folder`, or -1 (logged).
int MakePrivateTempFolder(const std::string& tmp, std::string& folder);

// True when the account has expired or cannot be checked.
bool IsUserExpired(const std::string& name);
// IsUserExpired of each name, with one look-up of the directory for all.
std::vector<bool> AreUsersExpired(const std::vector<std::string>& names);

// One page of the users of `user_type` ("local", "ldap", "domain") who may
// use the service; other types leave the outputs as they were.
void GetPrivilegedUsers(int32_t offset, int32_t limit, const std::string& substr,
                        const std::string& user_type, const std::string& domain_name,
                        uint32_t& total, std::vector<std::string>& names);

// Writes the records as the caller `user_name`/`uid`; a record that cannot
// be written leaves only a log line.
void InsertLogs(const std::string& user_name, unsigned int uid, std::vector<db::Log> logs);
