#include "tree-copy.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace mover {
namespace {

constexpr size_t kBlock = 4 << 20;

struct Fd {
  int fd = -1;
  explicit Fd(int value) : fd(value) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

class Sha256 {
 public:
  Sha256() : ctx_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    EVP_DigestInit_ex(ctx_.get(), EVP_sha256(), nullptr);
  }
  void Update(const char* data, size_t size) { EVP_DigestUpdate(ctx_.get(), data, size); }
  std::string Hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx_.get(), digest, &length);
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
      out += kHex[digest[i] >> 4];
      out += kHex[digest[i] & 15];
    }
    return out;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx_;
};

int Fail(std::string& error, const std::string& path, int err) {
  error = path + ": " + strerror(err);
  return -err;
}

// Every extended attribute, ACLs included (system.posix_acl_*). A target
// file system that cannot hold one is a failed copy: a repository whose
// rights changed on the way is not the same repository.
int CopyXattrs(int from, int to) {
  const ssize_t size = flistxattr(from, nullptr, 0);
  if (size <= 0) return size < 0 && errno != ENOTSUP ? -errno : 0;
  std::vector<char> names(static_cast<size_t>(size));
  const ssize_t got = flistxattr(from, names.data(), names.size());
  if (got < 0) return -errno;
  std::vector<char> value;
  for (ssize_t at = 0; at < got; at += static_cast<ssize_t>(strlen(names.data() + at)) + 1) {
    const char* name = names.data() + at;
    const ssize_t length = fgetxattr(from, name, nullptr, 0);
    if (length < 0) return -errno;
    value.resize(static_cast<size_t>(length));
    if (fgetxattr(from, name, value.data(), value.size()) != length ||
        fsetxattr(to, name, value.data(), value.size(), 0) != 0) {
      return -errno;
    }
  }
  return 0;
}

// Owner first: a change of owner clears the set-id bits a mode may carry.
int CopyMeta(int from, int to, const struct stat& st) {
  if (fchown(to, st.st_uid, st.st_gid) != 0 || fchmod(to, st.st_mode & 07777) != 0) return -errno;
  if (const int rc = CopyXattrs(from, to); rc < 0) return rc;
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  return futimens(to, times) == 0 ? 0 : -errno;
}

int CopyFile(int from_dir, int to_dir, const std::string& name, const std::string& rel,
             const struct stat& st, Sums& sums, uint64_t& bytes, const Progress& progress,
             const Copied& copied, std::string& error) {
  Fd in(openat(from_dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (in.fd < 0) return Fail(error, rel, errno);
  Fd out(openat(to_dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (out.fd < 0) return Fail(error, rel, errno);
  posix_fadvise(in.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::unique_ptr<char[]> buffer(new char[kBlock]);
  Sha256 sha;
  uint64_t size = 0;
  for (;;) {
    const ssize_t got = read(in.fd, buffer.get(), kBlock);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Fail(error, rel, errno);
    if (got == 0) break;
    sha.Update(buffer.get(), static_cast<size_t>(got));
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = write(out.fd, buffer.get() + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put < 0) return Fail(error, rel, errno);
      done += put;
    }
    size += static_cast<uint64_t>(got);
    bytes += static_cast<uint64_t>(got);
    if (progress) progress(bytes);
  }
  if (const int rc = CopyMeta(in.fd, out.fd, st); rc < 0) return Fail(error, rel, -rc);
  const FileSum& sum = sums[rel] = FileSum{size, sha.Hex()};
  if (copied) copied(rel, sum);
  return 0;
}

int CopyEntry(int from_dir, int to_dir, const std::string& name, const std::string& rel, Sums& sums,
              uint64_t& bytes, const Progress& progress, const Copied& copied, std::string& error) {
  struct stat st {};
  if (fstatat(from_dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return Fail(error, rel, errno);
  }
  if (S_ISREG(st.st_mode)) {
    return CopyFile(from_dir, to_dir, name, rel, st, sums, bytes, progress, copied, error);
  }
  if (S_ISLNK(st.st_mode)) {
    char target[4096];
    const ssize_t length = readlinkat(from_dir, name.c_str(), target, sizeof target - 1);
    if (length < 0) return Fail(error, rel, errno);
    target[length] = '\0';
    if (symlinkat(target, to_dir, name.c_str()) != 0 ||
        fchownat(to_dir, name.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW) != 0) {
      return Fail(error, rel, errno);
    }
    return 0;
  }
  if (!S_ISDIR(st.st_mode)) return 0;
  if (mkdirat(to_dir, name.c_str(), 0700) != 0) return Fail(error, rel, errno);
  Fd in(openat(from_dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  Fd out(openat(to_dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (in.fd < 0 || out.fd < 0) return Fail(error, rel, errno);
  const int list_fd = dup(in.fd);
  DIR* dir = list_fd < 0 ? nullptr : fdopendir(list_fd);
  if (dir == nullptr) {
    if (list_fd >= 0) close(list_fd);
    return Fail(error, rel, errno);
  }
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  closedir(dir);
  for (const std::string& child : names) {
    const int rc =
        CopyEntry(in.fd, out.fd, child, rel + "/" + child, sums, bytes, progress, copied, error);
    if (rc < 0) return rc;
  }
  // Last, so that the files written inside do not change the folder's times.
  if (const int rc = CopyMeta(in.fd, out.fd, st); rc < 0) return Fail(error, rel, -rc);
  return 0;
}

}  // namespace

int CopyTree(int from_fd, int to_fd, const std::string& name, Sums& sums, uint64_t& bytes,
             const Progress& progress, const Copied& copied, std::string& error) {
  return CopyEntry(from_fd, to_fd, name, name, sums, bytes, progress, copied, error);
}

int VerifyFile(int root_fd, const std::string& rel, const FileSum& sum, std::string& error) {
  Fd in(openat(root_fd, rel.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (in.fd < 0) {
    error = rel + ": " + strerror(errno);
    return -1;
  }
  std::unique_ptr<char[]> buffer(new char[kBlock]);
  Sha256 sha;
  uint64_t size = 0;
  for (;;) {
    const ssize_t got = read(in.fd, buffer.get(), kBlock);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = rel + ": " + strerror(errno);
      return -1;
    }
    if (got == 0) break;
    sha.Update(buffer.get(), static_cast<size_t>(got));
    size += static_cast<uint64_t>(got);
  }
  if (size != sum.size || sha.Hex() != sum.sha256) {
    error = rel + ": the copy differs from the original";
    return -1;
  }
  return 0;
}

int VerifyTree(int root_fd, const Sums& sums, std::string& error) {
  for (const auto& [rel, sum] : sums) {
    if (VerifyFile(root_fd, rel, sum, error) < 0) return -1;
  }
  return 0;
}

int RemoveTree(int dir_fd, const std::string& name) {
  struct stat st {};
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : -errno;
  }
  if (S_ISDIR(st.st_mode)) {
    const int fd = openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -errno;
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
      close(fd);
      return -errno;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
        names.emplace_back(entry->d_name);
      }
    }
    int rc = 0;
    for (const std::string& child : names) {
      if (rc == 0) rc = RemoveTree(dirfd(dir), child);
    }
    closedir(dir);
    if (rc < 0) return rc;
    return unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -errno;
  }
  return unlinkat(dir_fd, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : -errno;
}

}  // namespace mover
