// The version store of one volume: "<volume>/@tidepool/@sync". A file id
// names one stored content: either an origin kept whole under "repo/", or a
// librsync delta under "delta/" against the content of an earlier file id
// (its base). Every live file id also keeps the librsync signature of its
// content under "node_delta/", so the next version's delta is made without
// reading old content. The rows live in "file-db.sqlite" in the same folder.
//
// Content of an encrypted share is stored sealed under the share's key
// (store-cipher.h): origins, deltas and signatures alike, since a
// signature's block sums would confirm guesses of the content. Hashes and
// sizes in the rows are of the plain content. A delta chain is all sealed or
// all plain; a new version under another key starts a fresh origin.
//
// Results are db::Result values (0 or more, negative on failure). A FileStore
// is used by one thread at a time; several processes may share the folder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db/file-manager.h"
#include "db/types.h"
#include "file-store-db.h"

namespace filestore {

struct Options {
  // Deltas after an origin before the next version starts a fresh origin.
  int max_delta_chain = 8;
  // Content of this size or more is not kept (version type 2); 0: always kept.
  uint64_t live_version_min_size = 0;
  // Content smaller than this keeps no signature, so its next version is
  // stored whole rather than as a delta.
  uint64_t min_delta_size = 16 << 10;
};

// Options from "max_delta_chain" and "live_version_min_size" of the
// service's setting.conf; defaults for missing or unusable values.
Options LoadOptions(const std::string& setting_conf);

// What a store call recorded.
struct Stored {
  uint64_t file_id = 0;  // 0 for a version whose content is not kept
  std::string hash;      // SHA-256 of the content, lower-case hex
  uint64_t size = 0;
  uint32_t ver_type = db::kVerTypeStored;
};

class FileStore : public db::FileManager {
 public:
  // The store in `folder`; with `create` the folder, its database and uuid
  // are made when missing. kErrCannotOpen when missing and not created,
  // kErrCorrupt when the database is not ours or damaged.
  static int Open(const std::string& folder, bool create, const Options& options,
                  std::unique_ptr<FileStore>& out);

  virtual const std::string& uuid() const = 0;
  virtual const std::string& folder() const = 0;

  // The share key (its text form) under which the following calls store and
  // read content; empty for plain content. kErrInvalid when `key` is not a
  // key, and the store is then plain.
  virtual int SetKey(const std::string& key) = 0;

  // The content-taking calls read an open regular file from its start to
  // its end. A caller that checked what it opened (a scan that must not be
  // led through a symlink) passes the descriptor; the path forms open the
  // path without following a final symlink. A descriptor that is not a
  // regular file gives kErrInvalid and stores nothing.

  // Stores the content of `fd` (read once: copy, hash and signature).
  virtual int StoreNewFileFd(int fd, Stored& out) = 0;
  int StoreNewFile(const std::string& path, Stored& out);
  // Stores `fd` whole, without signature and whatever its size: a piece
  // that is read back by its origin path alone (a Mac attribute file).
  virtual int StoreWholeFd(int fd, Stored& out) = 0;
  int StoreWhole(const std::string& path, Stored& out);
  // Stores `content` as a file's content (a symlink's target, for one).
  virtual int StoreBytes(const std::string& content, Stored& out) = 0;
  // Stores the content of `fd` as the next version of `base_id`: a delta
  // against base_id's signature, read once for delta, signature and hash.
  // A fresh origin when base_id's chain is full or base_id keeps no
  // signature. `out.file_id` is a new id; base_id stays valid.
  virtual int StoreNewVersionFd(uint64_t base_id, int fd, Stored& out) = 0;
  int StoreNewVersion(uint64_t base_id, const std::string& path, Stored& out);

  // The version of this file id was rotated away: its content is dropped
  // once no later delta is built on it. Unknown ids give kErrNotFound.
  virtual int Release(uint64_t file_id) = 0;
  // Releases many file ids at once (a purge); unknown ids are skipped. The
  // rows change in one transaction before any piece is removed, so a crash
  // never leaves a row without its piece; pieces whose removal was cut short
  // stay marked and go with the next call (or FinishReleases). Inside a
  // batch, pieces go when the batch commits. The number of pieces removed,
  // or negative.
  virtual int ReleaseMany(const std::vector<uint64_t>& file_ids) = 0;
  virtual int FinishReleases() = 0;
  // Runs after the pieces are removed and before their rows go: the moment
  // a crash must survive.
  virtual void TEST_SetAfterUnlinkHook(std::function<void()> hook) = 0;

  // Writes the content of `file_id` to `out_path` (origin plus deltas), and
  // checks its size and hash. kErrCorrupt when a piece is missing or bad.
  virtual int Rebuild(uint64_t file_id, const std::string& out_path) = 0;

  // Groups many store calls into one database transaction (a scan); each
  // call still succeeds or fails on its own.
  virtual int BeginBatch() = 0;
  virtual int CommitBatch() = 0;

  // The store in `folder`, read-only: nothing is created, migrated or
  // written, and the store calls above fail. For a check of the repository.
  static int OpenReadOnly(const std::string& folder, std::unique_ptr<FileStore>& out);

  // Reads the content of `file_id` (origin plus deltas, opened with the key
  // when sealed) and checks its size and hash, writing no result anywhere.
  // kErrNotFound for an unknown or released id, kErrInvalid for sealed
  // content and no key, kErrCorrupt for a broken chain, a missing or
  // damaged piece or content that does not match; `problem` then says
  // which in a few words ("piece delta/0b/11 is missing").
  virtual int Verify(uint64_t file_id, std::string& problem) = 0;
  // Only that every piece `file_id` needs is on disk, without opening any:
  // for sealed content whose key is not at hand. Results as Verify.
  virtual int CheckPieces(uint64_t file_id, std::string& problem) = 0;
  // The row of `file_id`; kErrNotFound when there is none.
  virtual int GetRow(uint64_t file_id, FileRow& out) = 0;
  // Every row in file id order, one at a time (see FileTable::ForEach).
  virtual int ForEachRow(const std::function<int(const FileRow&)>& visit) = 0;
};

}  // namespace filestore
