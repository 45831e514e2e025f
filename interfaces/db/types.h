// Records of the sync databases: nodes, versions, the search filter and
// activity buckets. Identifiers (view, node, permanent, sync id) are unsigned
// 64-bit numbers. A node's state at a moment is its newest version created
// at or before that moment.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>

namespace db {

constexpr int kFileTypeFile = 0;
constexpr int kFileTypeDir = 1;
constexpr int kFileTypeSymlink = 2;

// Kind of stored content of a version (getVerType).
constexpr uint32_t kVerTypeStored = 1;  // origin plus delta chain in a file database
constexpr uint32_t kVerTypeLive = 2;    // no content kept: the live file is the content

struct NodeRecord {
  uint64_t node_id = 0;
  uint64_t parent_id = 0;  // 0: no parent, never shown in a listing
  uint64_t sync_id = 0;    // of the latest state
  uint64_t permanent_id = 0;
  std::string permanent_link;
  std::string name;
  std::string path;  // "/" for the root
  std::string extension;
  int32_t file_type = kFileTypeFile;
  uint64_t size = 0;
  uint32_t version_count = 0;  // deletion markers included
  uint32_t version_mtime = 0;
  bool removed = false;
  bool permanent_removed = false;
  bool encrypted = false;
};

class Node {
 public:
  Node() = default;
  explicit Node(NodeRecord record) : r_(std::move(record)) {}

  uint64_t getNodeId() const { return r_.node_id; }
  uint64_t getParentId() const { return r_.parent_id; }
  uint64_t getSyncId() const { return r_.sync_id; }
  uint64_t getPermanentId() const { return r_.permanent_id; }
  std::string getPermanentStringId() const { return std::to_string(r_.permanent_id); }
  const std::string& getPermanentLink() const { return r_.permanent_link; }
  const std::string& getName() const { return r_.name; }
  const std::string& getPath() const { return r_.path; }
  const std::string& getExtension() const { return r_.extension; }
  int32_t getFileType() const { return r_.file_type; }
  uint64_t getSize() const { return r_.size; }
  uint32_t getVersionCount() const { return r_.version_count; }
  uint32_t getVersionModifiedTime() const { return r_.version_mtime; }
  bool isDir() const { return r_.file_type == kFileTypeDir; }
  bool isFile() const { return r_.file_type != kFileTypeDir; }
  bool isRemoved() const { return r_.removed; }
  bool isPermanentRemoved() const { return r_.permanent_removed; }
  bool isEncrypted() const { return r_.encrypted; }
  const NodeRecord& record() const { return r_; }

 private:
  NodeRecord r_;
};

struct VersionRecord {
  uint64_t node_id = 0;
  uint64_t permanent_id = 0;
  uint64_t sync_id = 0;
  uint64_t parent_id = 0;  // where the node stood in this version
  std::string name;        // its name in this version
  uint64_t file_id = 0;    // content in the file database `file_uuid`
  std::string file_uuid;
  uint64_t mac_attr_file_id = 0;
  std::string mac_attr_uuid;
  std::string mac_attr_hash;
  std::string hash;  // SHA-256, lower-case hex
  uint64_t size = 0;
  std::string client_id;
  uint32_t ctime = 0;  // when the version was made
  uint32_t mtime = 0;  // the file's modification time
  uint32_t ver_type = kVerTypeStored;
  int32_t file_type = kFileTypeFile;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t mode = 0;
  std::string acl;  // POSIX.1e long text form, empty for none
  bool removed = false;
};

class Version {
 public:
  Version() = default;
  explicit Version(VersionRecord record) : r_(std::move(record)) {}

  uint64_t getNodeId() const { return r_.node_id; }
  uint64_t getPermanentId() const { return r_.permanent_id; }
  uint64_t getSyncId() const { return r_.sync_id; }
  uint64_t getFileId() const { return r_.file_id; }
  const std::string& getFileUuid() const { return r_.file_uuid; }
  uint64_t getMacAttributeFileId() const { return r_.mac_attr_file_id; }
  const std::string& getMacAttributeUuid() const { return r_.mac_attr_uuid; }
  const std::string& getMacAttributeHash() const { return r_.mac_attr_hash; }
  const std::string& getHash() const { return r_.hash; }
  uint64_t getSize() const { return r_.size; }
  const std::string& getClientId() const { return r_.client_id; }
  uint32_t getVerCreatedTime() const { return r_.ctime; }
  uint32_t getVerModifiedTime() const { return r_.mtime; }
  uint32_t getVerType() const { return r_.ver_type; }
  int32_t getFileType() const { return r_.file_type; }
  uint32_t getUserId() const { return r_.uid; }
  uint32_t getGroupId() const { return r_.gid; }
  uint32_t getUnixMode() const { return r_.mode; }
  const std::string& getAcl() const { return r_.acl; }
  bool isDir() const { return r_.file_type == kFileTypeDir; }
  bool isFile() const { return r_.file_type == kFileTypeFile; }
  bool isSymlink() const { return r_.file_type == kFileTypeSymlink; }
  bool isRemoved() const { return r_.removed; }
  const VersionRecord& record() const { return r_; }

 private:
  VersionRecord r_;
};

struct NodeActivity {
  int32_t timestamp = 0;       // start of the bucket
  int32_t activity_count = 0;  // changes in the bucket
};

struct SearchNodeFilter {
  std::string pattern;            // name pattern ('*' and '?' wildcards), empty for none
  std::string sort_by = "mtime";  // "mtime", "name", "ver_cnt", "v_file_size", "file_type"
  int32_t sort_direction = 2;     // 1 ascending, 2 descending
  int32_t file_type = -1;         // 0 files only, 1 folders only, -1 any
  int32_t removed_mode = 1;       // 1 existing nodes, 3 removed nodes too
  int32_t limit = 0;              // 0 for all
  int32_t offset = 0;
  int32_t list_mode = 0;
  int32_t list_submode = 0;
  uint64_t ver_ctime_upper_bound = 0;  // 0: no bound
  uint64_t ver_ctime_lower_bound = 0;
  uint64_t ver_mtime_upper_bound = 0;
  uint64_t ver_mtime_lower_bound = 0;
  uint64_t ver_file_size_upper_bound = 0;
  uint64_t ver_file_size_lower_bound = 0;
  uint64_t node_id = 0;  // parent whose children are searched; 0: the root
  bool recursive = false;
  std::list<std::string> exclude_extensions;
  bool for_listing = false;
  bool encrypted_only = false;  // only nodes whose `encrypted` flag is set
};

}  // namespace db
