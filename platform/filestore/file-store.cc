// The write side of the version store. Each new content is read exactly
// once: an origin is copied, hashed and signed in that pass; a delta is
// made against the base's kept signature while the same blocks are hashed
// and signed for the next version. A new row is inserted in a savepoint,
// its files are written straight to their places, and the savepoint is
// released only once they are complete: a failure leaves neither.
#include "file-store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include "content-pass.h"
#include "db/errors.h"
#include "file-store-db.h"
#include "file-verify.h"
#include "keyvalue-file.h"
#include "logger.h"
#include "private-files.h"

namespace filestore {
namespace {

int MakeDir(const std::string& path) { return tpsys::MakePrivateDir(path); }

std::string Dirname(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A temporary file of a rebuild, removed with the object.
class TempPiece {
 public:
  TempPiece() = default;
  TempPiece(const TempPiece&) = delete;
  TempPiece& operator=(const TempPiece&) = delete;
  ~TempPiece() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  int Create(const std::string& dir) {
    path_ = dir + "/piece-XXXXXX";
    fd_ = mkostemp(path_.data(), O_CLOEXEC);
    if (fd_ < 0) path_.clear();
    return fd_ < 0 ? -1 : 0;
  }
  int fd() const { return fd_; }
  const std::string& path() const { return path_; }

 private:
  int fd_ = -1;
  std::string path_;
};

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

int OpenSource(const std::string& path, int& fd) {
  fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    LOG_ERROR("cannot read %s: %s\n", path.c_str(), strerror(errno));
    return errno == ENOENT ? db::kErrNotFound : db::kErrCannotOpen;
  }
  return db::kOk;
}

// The size of the regular file behind `fd`, rewound to its start. Anything
// else (a FIFO or device would block or never end) is refused.
int SourceSize(int fd, uint64_t& size) {
  struct stat st;
  if (fstat(fd, &st) != 0) return db::kErrCannotOpen;
  if (!S_ISREG(st.st_mode)) return db::kErrInvalid;
  if (lseek(fd, 0, SEEK_SET) != 0) return db::kErrCannotOpen;
  size = static_cast<uint64_t>(st.st_size);
  return db::kOk;
}

// Where a piece's bytes go: straight to its file, or sealed first.
class PieceSink {
 public:
  PieceSink(const patch::CipherKey* key, int fd) {
    if (key) {
      seal_.emplace(*key, fd);
    } else {
      copy_.emplace(fd);
    }
  }
  Consumer* get() { return seal_ ? static_cast<Consumer*>(&*seal_) : &*copy_; }

 private:
  std::optional<SealConsumer> seal_;
  std::optional<CopyConsumer> copy_;
};

class FileStoreImpl final : public FileStore {
 public:
  FileStoreImpl(std::string folder, const Options& options)
      : folder_(std::move(folder)), options_(options) {}

  int Open(bool create) {
    if (create) {
      for (const char* sub : {"", "/repo", "/delta", "/node_delta"})
        if (MakeDir(folder_ + sub) < 0) return db::kErrCannotOpen;
    }
    return table_.Open(folder_ + "/" + kDatabaseName, create);
  }

  const std::string& uuid() const override { return table_.uuid(); }
  const std::string& folder() const override { return folder_; }

  int GetFileSizeSum(unsigned long long& size) override { return table_.SizeSum(false, size); }
  int GetDeltaSizeSum(unsigned long long& size) override { return table_.SizeSum(true, size); }
  int GetPatchFiles(uint64_t file_id, std::string& origin,
                    std::vector<std::string>& patches) override {
    return PatchFilesOf(table_, folder_, file_id, origin, patches);
  }

  int SetKey(const std::string& key) override {
    key_.reset();
    if (key.empty()) return db::kOk;
    auto parsed = std::make_unique<patch::CipherKey>();
    if (!parsed->Parse(key)) return db::kErrInvalid;
    key_ = std::move(parsed);
    return db::kOk;
  }

  int StoreWholeFd(int fd, Stored& out) override {
    uint64_t size = 0;
    const int rc = SourceSize(fd, size);
    return rc < 0 ? rc : StoreOrigin(fd, size, out, nullptr, true);
  }

  int StoreNewFileFd(int fd, Stored& out) override {
    uint64_t size = 0;
    const int rc = SourceSize(fd, size);
    return rc < 0 ? rc : StoreOrigin(fd, size, out);
  }

  int StoreBytes(const std::string& content, Stored& out) override {
    return StoreOrigin(-1, content.size(), out, &content);
  }

  int StoreNewVersionFd(uint64_t base_id, int fd, Stored& out) override {
    FileRow base;
    int rc = table_.Get(base_id, base);
    if (rc < 0) return rc;
    if (base.released) return db::kErrNotFound;
    uint64_t size = 0;
    if ((rc = SourceSize(fd, size)) < 0) return rc;
    if (IsLive(size)) return HashOnly(fd, size, out);
    Signature sig;
    const bool chain_full = static_cast<int>(base.depth) >= options_.max_delta_chain;
    const bool same_key = base.encrypted == (key_ != nullptr);
    if (chain_full || !base.has_signature || !same_key) return StoreOrigin(fd, size, out);
    if (LoadSignature(SignaturePath(folder_, base_id), key_.get(), sig) < 0) {
      // Content stays safe without the delta: start a fresh origin.
      LOG_WARNING("signature of file %llu unusable, storing whole\n",
                  static_cast<unsigned long long>(base_id));
      return StoreOrigin(fd, size, out);
    }
    FileRow row;
    row.base_id = base_id;
    row.depth = base.depth + 1;
    row.has_signature = true;
    Pieces pieces(this, row);
    if ((rc = pieces.Begin()) < 0) return rc;
    PieceSink delta_out(key_.get(), pieces.content());
    PieceSink sig_out(key_.get(), pieces.signature());
    JobConsumer delta_job(rs_delta_begin(sig.get()), delta_out.get());
    JobConsumer sig_job(NewSignatureJob(size), sig_out.get());
    HashConsumer hash;
    if (ReadOnce(fd, size, {&delta_job}, {&sig_job, &hash}) < 0) {
      LOG_ERROR("cannot make the delta against file %llu: %s\n",
                static_cast<unsigned long long>(base_id), strerror(errno));
      return db::kErrGeneral;
    }
    return pieces.Finish(hash, out);
  }

  int Release(uint64_t file_id) override {
    FileRow row;
    int rc = table_.Get(file_id, row);
    if (rc >= 0) rc = ReleaseMany({file_id});
    return rc < 0 ? rc : db::kOk;
  }

  int ReleaseMany(const std::vector<uint64_t>& file_ids) override {
    if (file_ids.empty()) return FinishReleases();
    int rc = table_.Savepoint();
    if (rc < 0) return rc;
    if ((rc = table_.MarkReleased(file_ids)) < 0) {
      table_.RollbackSavepoint();
      return rc;
    }
    if ((rc = table_.ReleaseSavepoint()) < 0) return rc;
    // Inside a batch the marks are not committed yet: their pieces go when
    // the batch commits, never before.
    return in_batch_ ? db::kOk : FinishReleases();
  }

  int FinishReleases() override {
    std::vector<FileRow> marked;
    int rc = table_.Marked(marked);
    if (rc < 0 || marked.empty()) return rc;
    int removed = 0;
    for (const FileRow& row : marked) {
      if (unlink(SignaturePath(folder_, row.file_id).c_str()) == 0) ++removed;
      if (row.dropping == 2 && unlink(ContentPath(folder_, row).c_str()) == 0) ++removed;
    }
    if (TEST_after_unlink_) TEST_after_unlink_();
    // Only now do the rows go: a crash before this leaves them marked, and
    // the next call removes what is left.
    rc = table_.DropMarked(marked);
    return rc < 0 ? rc : removed;
  }

  void TEST_SetAfterUnlinkHook(std::function<void()> hook) override {
    TEST_after_unlink_ = std::move(hook);
  }

  int Rebuild(uint64_t file_id, const std::string& out_path) override {
    FileRow row;
    std::string origin;
    std::vector<std::string> patches;
    int rc = table_.Get(file_id, row);
    if (rc < 0 || (rc = PatchFilesOf(table_, folder_, file_id, origin, patches)) < 0) return rc;
    const std::string dir = Dirname(out_path);
    std::vector<std::unique_ptr<TempPiece>> opened;
    if (row.encrypted) {
      // Sealed pieces are opened into temporaries beside the result first.
      if (!key_) {
        LOG_ERROR("file %llu is sealed and no key is set\n",
                  static_cast<unsigned long long>(file_id));
        return db::kErrInvalid;
      }
      if ((rc = Unseal(dir, origin, opened)) < 0) return rc;
      for (std::string& patch : patches)
        if ((rc = Unseal(dir, patch, opened)) < 0) return rc;
    }
    std::string current = origin;
    TempPiece steps[2];
    for (size_t i = 0; i < patches.size(); ++i) {
      std::string next = out_path;
      if (i + 1 < patches.size()) {
        TempPiece& step = steps[i % 2];
        if (step.path().empty() && step.Create(dir) < 0) return db::kErrGeneral;
        next = step.path();
      }
      if (ApplyDelta(current, patches[i], next) < 0) {
        LOG_ERROR("cannot apply %s to %s\n", patches[i].c_str(), current.c_str());
        unlink(out_path.c_str());
        return db::kErrCorrupt;
      }
      current = next;
    }
    return CheckRebuilt(row, patches.empty() ? origin : std::string(), out_path);
  }

  int BeginBatch() override {
    const int rc = table_.BeginBatch();
    if (rc >= 0) in_batch_ = true;
    return rc;
  }
  int CommitBatch() override {
    const bool was = in_batch_;
    in_batch_ = false;
    const int rc = table_.CommitBatch();
    return rc < 0 || !was ? rc : std::min(FinishReleases(), 0);
  }

  int OpenReadOnly() { return table_.OpenReadOnly(folder_ + "/" + kDatabaseName); }
  int Verify(uint64_t file_id, std::string& problem) override {
    return VerifyContent(table_, folder_, key_.get(), file_id, problem);
  }
  int CheckPieces(uint64_t file_id, std::string& problem) override {
    return filestore::CheckPieces(table_, folder_, file_id, problem);
  }
  int GetRow(uint64_t file_id, FileRow& out) override { return table_.Get(file_id, out); }
  int ForEachRow(const std::function<int(const FileRow&)>& visit) override {
    return table_.ForEach(visit);
  }

 private:
  bool IsLive(uint64_t size) const {
    return options_.live_version_min_size > 0 && size >= options_.live_version_min_size;
  }

  int HashOnly(int fd, uint64_t size, Stored& out) {
    HashConsumer hash;
    if (ReadOnce(fd, size, {&hash}, {}) < 0) return db::kErrCannotOpen;
    out = Stored{0, hash.hex(), hash.bytes(), db::kVerTypeLive};
    return db::kOk;
  }

  // Content from `fd`, or from `bytes` when given. Small content keeps no
  // signature: its next version is stored whole, as a delta would save
  // next to nothing. `whole` pieces are always kept and never signed.
  int StoreOrigin(int fd, uint64_t size, Stored& out, const std::string* bytes = nullptr,
                  bool whole = false) {
    if (!whole && !bytes && IsLive(size)) return HashOnly(fd, size, out);
    FileRow row;
    row.has_signature = !whole && size >= options_.min_delta_size;
    Pieces pieces(this, row);
    int rc = pieces.Begin();
    if (rc < 0) return rc;
    PieceSink copy(key_.get(), pieces.content());
    HashConsumer hash;
    std::optional<PieceSink> sig_out;
    std::unique_ptr<JobConsumer> sig_job;
    std::vector<Consumer*> back;
    if (row.has_signature) {
      sig_out.emplace(key_.get(), pieces.signature());
      sig_job = std::make_unique<JobConsumer>(NewSignatureJob(size), sig_out->get());
      back.push_back(sig_job.get());
    }
    if (bytes) {
      rc = copy.get()->Feed(bytes->data(), bytes->size(), true);
      if (rc >= 0) rc = hash.Feed(bytes->data(), bytes->size(), true);
      if (rc >= 0 && sig_job) rc = sig_job->Feed(bytes->data(), bytes->size(), true);
    } else {
      rc = ReadOnce(fd, size, {copy.get(), &hash}, back);
    }
    if (rc < 0) {
      LOG_ERROR("cannot store content: %s\n", strerror(errno));
      return db::kErrGeneral;
    }
    return pieces.Finish(hash, out);
  }

  // The files of one new file id, written straight to their places while
  // its row waits in a savepoint: the row and the files appear together,
  // and a failure removes both.
  class Pieces {
   public:
    Pieces(FileStoreImpl* store, FileRow& row) : store_(store), row_(row) {
      row_.encrypted = store_->key_ != nullptr;
    }
    ~Pieces() {
      if (done_) return;
      CloseAll();
      if (row_.file_id != 0) {
        unlink(ContentPath(store_->folder_, row_).c_str());
        unlink(SignaturePath(store_->folder_, row_.file_id).c_str());
      }
      if (open_) store_->table_.RollbackSavepoint();
    }
    int Begin() {
      int rc = store_->table_.Savepoint();
      if (rc < 0) return rc;
      open_ = true;
      if ((rc = store_->table_.Insert(row_)) < 0) return rc;
      content_ = Create(ContentPath(store_->folder_, row_));
      if (content_ < 0) return db::kErrGeneral;
      if (row_.has_signature) {
        signature_ = Create(SignaturePath(store_->folder_, row_.file_id));
        if (signature_ < 0) return db::kErrGeneral;
      }
      return db::kOk;
    }
    int content() const { return content_; }
    int signature() const { return signature_; }
    int Finish(const HashConsumer& hash, Stored& out) {
      struct stat st;
      if (fstat(content_, &st) != 0 || CloseAll() < 0) return db::kErrGeneral;
      row_.size = hash.bytes();
      row_.stored_size = static_cast<uint64_t>(st.st_size);
      row_.hash = hash.hex();
      int rc = store_->table_.Update(row_);
      if (rc >= 0) rc = store_->table_.ReleaseSavepoint();
      if (rc < 0) return rc;
      done_ = true;
      out = Stored{row_.file_id, row_.hash, row_.size, db::kVerTypeStored};
      return db::kOk;
    }

   private:
    static int Create(const std::string& path) {
      const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
      int fd = open(path.c_str(), flags, 0600);
      // Fan-out folders are made on first use.
      if (fd < 0 && errno == ENOENT && MakeDir(Dirname(path)) == 0)
        fd = open(path.c_str(), flags, 0600);
      return fd;
    }
    int CloseAll() {
      int rc = 0;
      for (int* fd : {&content_, &signature_}) {
        if (*fd >= 0 && close(*fd) != 0) rc = -1;
        *fd = -1;
      }
      return rc;
    }

    FileStoreImpl* store_;
    FileRow& row_;
    int content_ = -1;
    int signature_ = -1;
    bool open_ = false;
    bool done_ = false;
  };

  // Replaces `path` by a temporary holding its opened content.
  int Unseal(const std::string& dir, std::string& path,
             std::vector<std::unique_ptr<TempPiece>>& opened) {
    auto plain = std::make_unique<TempPiece>();
    Fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0 || plain->Create(dir) < 0) return db::kErrCorrupt;
    if (patch::DecryptFd(*key_, in.get(), plain->fd()) < 0) {
      LOG_ERROR("cannot open the sealed piece %s: %s\n", path.c_str(), strerror(errno));
      return db::kErrCorrupt;
    }
    path = plain->path();
    opened.push_back(std::move(plain));
    return db::kOk;
  }

  // Copies an origin to `out_path` or, after patching, reads the result:
  // either way one pass that proves size and hash.
  int CheckRebuilt(const FileRow& row, const std::string& copy_from, const std::string& out_path) {
    HashConsumer hash;
    int rc = 0;
    if (!copy_from.empty()) {
      Fd in(open(copy_from.c_str(), O_RDONLY | O_CLOEXEC));
      Fd out(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      if (in.get() < 0) {
        LOG_ERROR("stored origin %s: %s\n", copy_from.c_str(), strerror(errno));
        return db::kErrCorrupt;
      }
      if (out.get() < 0) return db::kErrCannotOpen;
      CopyConsumer copy(out.get());
      rc = ReadOnce(in.get(), row.size, {&copy, &hash}, {});
    } else {
      Fd in(open(out_path.c_str(), O_RDONLY | O_CLOEXEC));
      rc = in.get() < 0 ? -1 : ReadOnce(in.get(), row.size, {&hash}, {});
    }
    if (rc < 0) {
      unlink(out_path.c_str());
      return db::kErrGeneral;
    }
    if (hash.bytes() != row.size || hash.hex() != row.hash) {
      LOG_ERROR("rebuilt content of file %llu does not match its hash\n",
                static_cast<unsigned long long>(row.file_id));
      unlink(out_path.c_str());
      return db::kErrCorrupt;
    }
    return db::kOk;
  }

  std::string folder_;
  Options options_;
  FileTable table_;
  std::unique_ptr<patch::CipherKey> key_;
  bool in_batch_ = false;
  std::function<void()> TEST_after_unlink_;
};

// librsync reports to stderr unless told otherwise; its words belong in
// our log, beside the error the caller gets.
void RsyncTrace(rs_loglevel level, const char* msg) {
  if (level <= RS_LOG_WARNING) LOG_WARNING("librsync: %s\n", msg);
}

long long NumberOr(const std::map<std::string, std::string>& values, const char* key,
                   long long fallback) {
  const auto it = values.find(key);
  if (it == values.end() || it->second.empty()) return fallback;
  char* end = nullptr;
  const long long n = strtoll(it->second.c_str(), &end, 10);
  return (*end == '\0' && n >= 0) ? n : fallback;
}

}  // namespace

int FileStore::StoreNewFile(const std::string& path, Stored& out) {
  int raw = -1;
  const int rc = OpenSource(path, raw);
  Fd fd(raw);
  return rc < 0 ? rc : StoreNewFileFd(fd.get(), out);
}

int FileStore::StoreWhole(const std::string& path, Stored& out) {
  int raw = -1;
  const int rc = OpenSource(path, raw);
  Fd fd(raw);
  return rc < 0 ? rc : StoreWholeFd(fd.get(), out);
}

int FileStore::StoreNewVersion(uint64_t base_id, const std::string& path, Stored& out) {
  int raw = -1;
  const int rc = OpenSource(path, raw);
  Fd fd(raw);
  return rc < 0 ? rc : StoreNewVersionFd(base_id, fd.get(), out);
}

Options LoadOptions(const std::string& setting_conf) {
  Options options;
  std::map<std::string, std::string> values;
  if (!tpsys::ReadKeyValues(setting_conf, values)) return options;
  options.max_delta_chain =
      static_cast<int>(NumberOr(values, "max_delta_chain", options.max_delta_chain));
  options.live_version_min_size = static_cast<uint64_t>(NumberOr(
      values, "live_version_min_size", static_cast<long long>(options.live_version_min_size)));
  return options;
}

int FileStore::Open(const std::string& folder, bool create, const Options& options,
                    std::unique_ptr<FileStore>& out) {
  static std::once_flag trace_once;
  std::call_once(trace_once, [] { rs_trace_to(RsyncTrace); });
  auto store = std::make_unique<FileStoreImpl>(folder, options);
  const int rc = store->Open(create);
  if (rc < 0) return rc;
  out = std::move(store);
  return db::kOk;
}

int FileStore::OpenReadOnly(const std::string& folder, std::unique_ptr<FileStore>& out) {
  auto store = std::make_unique<FileStoreImpl>(folder, Options{});
  const int rc = store->OpenReadOnly();
  if (rc < 0) return rc;
  out = std::move(store);
  return db::kOk;
}

}  // namespace filestore
