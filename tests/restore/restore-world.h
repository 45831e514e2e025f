// A small system with a real history for restore tests: the demo accounts,
// alice's home and the share "team" filled with files on disk and versioned
// by real scans at chosen moments, plus the calls a front-end makes to browse
// that history and run a restore over HTTP.
//
//   BuildHistory(kAliceHome, {{kT0, {{"a.txt", "one"}}}, {kT1, {{"a.txt", "two"}}, {"old"}}});
//   auto node = Browse(alice, "mine", "/a.txt", kT0);   // as the file list showed it
//   auto run = Restore(alice, "mine", {node});           // start, then status until done
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "webapi-client.h"

namespace rtest {

// Three moments a day apart, in the past, at which the scans run.
inline constexpr uint32_t kT0 = 1700000000;
inline constexpr uint32_t kT1 = kT0 + 86400;
inline constexpr uint32_t kT2 = kT0 + 2 * 86400;
inline constexpr uint32_t kUsersGid = 100;

inline const std::string kAliceHome = "/volume1/homes/alice/Tidepool";
inline const std::string kTeam = "/volume1/team";

// One entry of a tree on disk. A path ending in "/" is a folder; `link`
// makes a symlink to `content`. `acl` is setfacl text with user names
// ("u:bob:r--"), turned into ids. `xattrs` are set (or, without a value,
// removed) after the entry is written.
struct Entry {
  Entry(std::string path, std::string content = "", mode_t mode = 0640)
      : path(std::move(path)), content(std::move(content)), mode(mode) {}
  std::string path;
  std::string content;
  mode_t mode = 0640;
  std::string owner = "alice";
  uint32_t gid = kUsersGid;
  std::string acl;
  bool link = false;
  uint32_t mtime = 0;  // 0: the moment's time minus an hour
  std::vector<std::pair<std::string, std::optional<std::string>>> xattrs;

  Entry& Owner(std::string user, uint32_t group) {
    owner = std::move(user);
    gid = group;
    return *this;
  }
  Entry& Acl(std::string text) {
    acl = std::move(text);
    return *this;
  }
  Entry& Link() {
    link = true;
    return *this;
  }
  Entry& Mtime(uint32_t t) {
    mtime = t;
    return *this;
  }
  Entry& Xattr(std::string name, std::string value) {
    xattrs.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  Entry& DropXattr(std::string name) {
    xattrs.emplace_back(std::move(name), std::nullopt);
    return *this;
  }
};

// What changes on disk before one scan: entries written (created or
// replaced) and paths deleted, then `driftway-control scan --at at`.
struct Moment {
  uint32_t at;
  std::vector<Entry> put;
  std::vector<std::string> remove;
};

// The demo system, alice's home (folders owned by her, 0700 above it), the
// share "team" (alice rw, bob ro, enabled in the service), the share "drop"
// (alice rw, bob none; not versioned) and the share "vault" (alice ro), and
// the sync and log databases opened in this process.
void SeedRestoreWorld();
void BuildHistory(const std::string& root, const std::vector<Moment>& moments);
void Scan(uint32_t at);
uint32_t Uid(const std::string& user);
// A folder owned by `user` (group users), made with its missing parents.
void MakeDir(const std::string& path, const std::string& user, mode_t mode);
// The mtime an entry written at `at` gets unless it names one.
inline uint32_t DefaultMtime(uint32_t at) { return at - 3600; }

// A tree as the user sees it: relative path to "dir", "link -> target" or
// the SHA-256 of the content. "@eaDir" (the engine's working folders) is
// left out.
using Tree = std::map<std::string, std::string>;
Tree TreeOf(const std::string& root);
// The expected tree of folders (paths ending in "/") and file contents.
Tree Expect(const std::vector<std::pair<std::string, std::string>>& entries);
// Every path below /volume1 and /volume2 outside the databases and
// `except`, with its state, to prove that nothing else was written.
Tree EverythingBut(const std::string& except);

// What a user sees of a file: bytes, owner, mode, ACL, times.
struct Seen {
  bool exists = false;
  std::string sha;
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;
  std::string acl;  // getfacl -n, without the header
  int64_t mtime = 0;
  int64_t atime = 0;
  std::string link;  // target of a symlink
};
Seen Look(const std::string& path);

// ---- The calls of the front-end ----

using tptest::Params;
tptest::WebAnswer Call(const std::string& api, const std::string& method, const Params& params,
                       const std::string& sid);
std::string LoginAs(const std::string& user);  // with the demo password

// The entry of `path` as KSTX.Tidepool.Node list shows it in its folder at
// the moment `at` (0: now), shaped as a `nodes` element of a restore:
// node_id, permanent_id, sync_id, ver_ctime_upper_bound, file_type, path,
// name, is_removed.
Json::Value Browse(const std::string& sid, const std::string& target, const std::string& path,
                   uint32_t at = 0);
// The same entry with the sync_id of one of its versions from list_version,
// counted from the newest (0) as the version list shows them.
Json::Value BrowseVersion(const std::string& sid, const std::string& target,
                          const std::string& path, int newest_index);

// The extended attributes of `path` in the user namespace, name to value.
std::map<std::string, std::string> UserXattrs(const std::string& path);

struct RestoreRun {
  tptest::WebAnswer start;  // the answer of start
  bool started = false;
  bool done = false;     // status reached current == total
  int error = 0;         // the code status answered with, when it failed
  uint64_t current = 0;  // the last progress seen
  uint64_t total = 0;
  std::string last_status;  // the last status body, for messages
};
// The start call alone, with `params` (target and nodes added).
tptest::WebAnswer StartRestore(const std::string& sid, const std::string& target,
                               const std::vector<Json::Value>& nodes, Params params = {});
// start with `params` (target and nodes added), then status every 100 ms
// until current == total or an error, for at most 60 seconds, then waits
// for the child to close the record. Does not call finish.
RestoreRun Restore(const std::string& sid, const std::string& target,
                   const std::vector<Json::Value>& nodes, Params params = {});
// As Restore, with finish afterwards.
RestoreRun RestoreAndFinish(const std::string& sid, const std::string& target,
                            const std::vector<Json::Value>& nodes, Params params = {});
tptest::WebAnswer Status(const std::string& sid);
tptest::WebAnswer Finish(const std::string& sid);

// Writes the restore task record as a restore child that vanished would
// leave it: last updated `age_s` seconds ago, by a process that is gone.
void WriteOrphanRecord(int age_s);
bool RecordExists();
// Moves the record's last progress `age_s` seconds into the past, as if the
// restore had fallen silent then; keeps everything else.
void AgeRecord(int age_s);

// Log records of `type`, oldest first, written at or after `since`.
struct LogSeen {
  uint32_t type = 0;
  std::string user;
  uint32_t uid = 0;
  uint64_t view_id = 0;
  std::string share;
  std::vector<std::string> p, s;
};
std::vector<LogSeen> Logs(uint32_t type);

uint64_t HomeViewOf(const std::string& user);

// The paths queued for removal after an answer (unlink jobs), in queue order.
std::vector<std::string> QueuedRemovals();
uint64_t ShareViewOf(const std::string& share);

}  // namespace rtest
