// Content is proved the way a restore rebuilds it, minus the writing: the
// chain is composed into one layout of origin and delta ranges
// (delta-chain.h), and those ranges are hashed in order. An origin alone is
// hashed as it is read. Sealed pieces are opened as they are read when
// alone; in a chain, whose ranges are read at random, they are opened into
// unnamed files of the store's folder that vanish with their descriptors.
#include "file-verify.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "content-pass.h"
#include "db/errors.h"
#include "delta-chain.h"
#include "fs-beneath.h"

namespace filestore {
namespace {

constexpr size_t kHashBlock = 1 << 20;

using Fd = fsb::UniqueFd;

int Fail(int rc, std::string& problem, std::string text) {
  problem = std::move(text);
  return rc;
}

// "repo/0b/11" rather than the whole path: what a reader can find again.
std::string Named(const std::string& folder, const std::string& path) {
  const std::string prefix = folder + "/";
  return "piece " +
         (path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : path);
}

int ChainOf(FileTable& table, const std::string& folder, uint64_t file_id, FileRow& row,
            std::string& origin, std::vector<std::string>& patches, std::string& problem) {
  const std::string id = "file " + std::to_string(file_id);
  int rc = table.Get(file_id, row);
  if (rc == db::kErrNotFound) return Fail(rc, problem, id + " is not in the store");
  if (rc < 0) return Fail(rc, problem, "the file database cannot be read");
  if (row.released) return Fail(db::kErrNotFound, problem, id + " was released");
  rc = PatchFilesOf(table, folder, file_id, origin, patches);
  if (rc == db::kErrNotFound || rc == db::kErrCorrupt)
    return Fail(db::kErrCorrupt, problem, "the delta chain of " + id + " is broken");
  if (rc < 0) return Fail(rc, problem, "the file database cannot be read");
  return db::kOk;
}

int OpenPiece(const std::string& folder, const std::string& path, Fd& out, std::string& problem) {
  Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) return Fail(db::kErrCorrupt, problem, Named(folder, path) + " is missing");
    return Fail(db::kErrCorrupt, problem,
                Named(folder, path) + " cannot be read: " + strerror(errno));
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
    return Fail(db::kErrCorrupt, problem, Named(folder, path) + " is not a file");
  out.reset(fd.release());
  return db::kOk;
}

int SealFailure(const std::string& folder, const std::string& path, std::string& problem) {
  if (errno == EBADMSG)
    return Fail(db::kErrCorrupt, problem, "sealed " + Named(folder, path) + " does not open");
  return Fail(db::kErrCorrupt, problem,
              Named(folder, path) + " cannot be read: " + strerror(errno));
}

// A file in `dir` that no one can name and that goes with its descriptor.
int AnonymousFile(const std::string& dir) {
  int fd = open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  std::string path = dir + "/.verify-XXXXXX";
  fd = mkostemp(path.data(), O_CLOEXEC);
  if (fd >= 0) unlink(path.c_str());
  return fd;
}

// Hashes the ranges of `layout` from `sources`.
int HashLayout(const patch::Layout& layout, const std::vector<Fd>& sources,
               const std::vector<std::string>& paths, const std::string& folder, HashConsumer& hash,
               std::string& problem) {
  auto buf = std::make_unique_for_overwrite<char[]>(kHashBlock);
  for (const patch::Segment& seg : layout.segments()) {
    uint64_t offset = seg.offset;
    uint64_t left = seg.length;
    while (left > 0) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(left, kHashBlock));
      const ssize_t n =
          pread(sources[seg.source].get(), buf.get(), want, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        return Fail(db::kErrGeneral, problem,
                    Named(folder, paths[seg.source]) + " cannot be read: " + strerror(errno));
      }
      if (n == 0) {
        return Fail(db::kErrCorrupt, problem,
                    Named(folder, paths[seg.source]) + " is shorter than its deltas need");
      }
      if (hash.Feed(buf.get(), static_cast<size_t>(n), false) < 0)
        return Fail(db::kErrGeneral, problem, "cannot hash the content");
      offset += static_cast<uint64_t>(n);
      left -= static_cast<uint64_t>(n);
    }
  }
  return hash.Feed(nullptr, 0, true) < 0 ? Fail(db::kErrGeneral, problem, "cannot hash the content")
                                         : db::kOk;
}

int HashChain(const std::string& folder, const patch::CipherKey* key,
              const std::vector<std::string>& paths, HashConsumer& hash, std::string& problem) {
  std::vector<Fd> sources;
  sources.reserve(paths.size());
  for (const std::string& path : paths) {
    Fd piece;
    int rc = OpenPiece(folder, path, piece, problem);
    if (rc < 0) return rc;
    if (!key) {
      sources.push_back(std::move(piece));
      continue;
    }
    Fd plain(AnonymousFile(folder));
    if (plain.get() < 0)
      return Fail(db::kErrGeneral, problem,
                  "no room to open sealed pieces: " + std::string(strerror(errno)));
    if (patch::DecryptFd(*key, piece.get(), plain.get()) < 0)
      return SealFailure(folder, path, problem);
    sources.push_back(std::move(plain));
  }
  struct stat st;
  if (fstat(sources[0].get(), &st) != 0)
    return Fail(db::kErrGeneral, problem, "cannot read the origin");
  patch::Layout layout = patch::Layout::Whole(0, static_cast<uint64_t>(st.st_size));
  for (size_t i = 1; i < sources.size(); ++i) {
    patch::Layout next;
    if (patch::ApplyDelta(layout, sources[i].get(), static_cast<uint32_t>(i), next) < 0) {
      return Fail(db::kErrCorrupt, problem,
                  "delta " + Named(folder, paths[i]) + " does not apply to its basis");
    }
    layout = std::move(next);
  }
  return HashLayout(layout, sources, paths, folder, hash, problem);
}

int HashOrigin(const std::string& folder, const patch::CipherKey* key, const std::string& path,
               HashConsumer& hash, std::string& problem) {
  Fd piece;
  int rc = OpenPiece(folder, path, piece, problem);
  if (rc < 0) return rc;
  if (key) {
    const auto feed = [&](const char* data, size_t len, bool eof) {
      return hash.Feed(data, len, eof);
    };
    return patch::Decrypt(*key, piece.get(), feed) < 0 ? SealFailure(folder, path, problem)
                                                       : db::kOk;
  }
  struct stat st;
  if (fstat(piece.get(), &st) != 0 ||
      ReadOnce(piece.get(), static_cast<uint64_t>(st.st_size), {&hash}, {}) < 0) {
    return Fail(db::kErrCorrupt, problem,
                Named(folder, path) + " cannot be read: " + strerror(errno));
  }
  return db::kOk;
}

}  // namespace

int VerifyContent(FileTable& table, const std::string& folder, const patch::CipherKey* key,
                  uint64_t file_id, std::string& problem) {
  FileRow row;
  std::string origin;
  std::vector<std::string> patches;
  int rc = ChainOf(table, folder, file_id, row, origin, patches, problem);
  if (rc < 0) return rc;
  if (row.encrypted && !key) return Fail(db::kErrInvalid, problem, "sealed content and no key");
  const patch::CipherKey* sealed = row.encrypted ? key : nullptr;
  HashConsumer hash;
  if (patches.empty()) {
    rc = HashOrigin(folder, sealed, origin, hash, problem);
  } else {
    patches.insert(patches.begin(), origin);
    rc = HashChain(folder, sealed, patches, hash, problem);
  }
  if (rc < 0) return rc;
  if (hash.bytes() != row.size) {
    return Fail(db::kErrCorrupt, problem,
                "content is " + std::to_string(hash.bytes()) + " bytes where " +
                    std::to_string(row.size) + " were recorded");
  }
  if (hash.hex() != row.hash)
    return Fail(db::kErrCorrupt, problem, "content does not match its hash");
  return db::kOk;
}

int CheckPieces(FileTable& table, const std::string& folder, uint64_t file_id,
                std::string& problem) {
  FileRow row;
  std::string origin;
  std::vector<std::string> patches;
  int rc = ChainOf(table, folder, file_id, row, origin, patches, problem);
  if (rc < 0) return rc;
  patches.insert(patches.begin(), origin);
  for (const std::string& path : patches) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      if (errno == ENOENT)
        return Fail(db::kErrCorrupt, problem, Named(folder, path) + " is missing");
      return Fail(db::kErrCorrupt, problem,
                  Named(folder, path) + " cannot be read: " + strerror(errno));
    }
    if (!S_ISREG(st.st_mode))
      return Fail(db::kErrCorrupt, problem, Named(folder, path) + " is not a file");
  }
  return db::kOk;
}

}  // namespace filestore
