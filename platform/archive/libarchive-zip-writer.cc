// The zip of a folder's contents, made in process with libarchive.
//
// 1. The folder is walked depth first through descriptors (openat/fstatat
//    relative to the opened folder, never following a link), each folder's
//    names sorted bytewise so the archive is the same for the same tree.
// 2. Each entry's size is set before its header, so libarchive writes the
//    right local header and switches to zip64 only for a file past 4 GiB; the
//    end records turn zip64 on their own past 65,535 entries or 4 GiB.
// 3. File bytes pass through one reusable 1 MiB buffer; libarchive does no
//    blocking of its own (bytes per block 0) and small writes are coalesced
//    in front of the output.
// Names: libarchive takes a name's bytes in the current locale's charset, and
// sets the UTF-8 flag from that charset; the process keeps its own locale
// (often "C"), so this thread switches to C.UTF-8 while it writes.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "archive-writer.h"
#include "logger.h"
#include "stream-output.h"

namespace tparchive {
namespace {

constexpr size_t kFileChunk = 1 << 20;
constexpr size_t kOutputBuffer = 256 << 10;
constexpr int kPipeSize = 1 << 20;

// Switches this thread to a UTF-8 character type for as long as it lives.
class Utf8Locale {
 public:
  Utf8Locale() {
    locale_ = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (locale_ != static_cast<locale_t>(0)) old_ = uselocale(locale_);
  }
  ~Utf8Locale() {
    if (locale_ == static_cast<locale_t>(0)) return;
    uselocale(old_);
    freelocale(locale_);
  }
  bool active() const { return locale_ != static_cast<locale_t>(0); }

 private:
  locale_t locale_ = static_cast<locale_t>(0);
  locale_t old_ = static_cast<locale_t>(0);
};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { Reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

struct ArchiveFree {
  void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryFree {
  void operator()(archive_entry* e) const { archive_entry_free(e); }
};

// The names in the folder behind `dir_fd`, sorted; -1 with errno.
int ListNames(int dir_fd, std::vector<std::string>& names) {
  names.clear();
  const int fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  errno = 0;
  while (const dirent* e = readdir(dir)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
    errno = 0;
  }
  const int saved = errno;
  closedir(dir);
  if (saved != 0) {
    errno = saved;
    return -1;
  }
  std::sort(names.begin(), names.end());
  return 0;
}

class LibarchiveZipWriter final : public ArchiveWriter {
 public:
  explicit LibarchiveZipWriter(const ArchiveOptions& options) : options_(options) {}

  int Start(const std::string& folder) override {
    const int fd = OpenFolder(folder);
    if (fd < 0) return -1;
    folder_.Reset(fd);
    return 0;
  }

  int Stream(int out_fd) override {
    if (folder_.get() < 0) {
      errno = EINVAL;
      return -1;
    }
    SigpipeHold hold;
    Utf8Locale utf8;
    TryGrowPipe(out_fd, kPipeSize);
    OutputBuffer output(out_fd, kOutputBuffer);
    output_ = &output;
    write_errno_ = 0;
    const int rc = WriteArchive(utf8.active());
    output_ = nullptr;
    return rc;
  }

 private:
  static la_ssize_t OnWrite(archive*, void* self, const void* data, size_t size) {
    auto* writer = static_cast<LibarchiveZipWriter*>(self);
    if (writer->output_->Write(data, size) != 0) {
      writer->write_errno_ = errno;
      return -1;
    }
    return static_cast<la_ssize_t>(size);
  }

  static int OnClose(archive*, void* self) {
    auto* writer = static_cast<LibarchiveZipWriter*>(self);
    if (writer->output_->Flush() != 0) {
      writer->write_errno_ = errno;
      return ARCHIVE_FATAL;
    }
    return ARCHIVE_OK;
  }

  // Fails with the output's errno when writing failed, else with `fallback`.
  int Fail(int fallback) {
    errno = write_errno_ != 0 ? write_errno_ : fallback;
    return -1;
  }

  int Configure(archive* a, bool utf8_locale) {
    if (archive_write_set_format_zip(a) != ARCHIVE_OK ||
        archive_write_zip_set_compression_store(a) != ARCHIVE_OK ||
        archive_write_set_bytes_per_block(a, 0) != ARCHIVE_OK ||
        archive_write_set_bytes_in_last_block(a, 1) != ARCHIVE_OK) {
      LOG_ERROR("cannot set up a zip archive: %s", archive_error_string(a));
      return -1;
    }
    if (!IsUnicode(options_.codepage)) {
      if (archive_write_set_format_option(a, "zip", "hdrcharset", options_.codepage.c_str()) ==
          ARCHIVE_OK) {
        return 0;
      }
      LOG_WARNING("names stay UTF-8: no conversion to codepage \"%s\"", options_.codepage.c_str());
    }
    // Under a UTF-8 locale libarchive flags non-ASCII names as UTF-8 and
    // passes their bytes as they are; naming the charset is only needed
    // when this thread could not switch.
    if (!utf8_locale &&
        archive_write_set_format_option(a, "zip", "hdrcharset", "UTF-8") != ARCHIVE_OK) {
      LOG_WARNING("names may not be flagged as UTF-8: %s", archive_error_string(a));
    }
    return 0;
  }

  int WriteArchive(bool utf8_locale) {
    std::unique_ptr<archive, ArchiveFree> a(archive_write_new());
    std::unique_ptr<archive_entry, EntryFree> entry(archive_entry_new());
    if (!a || !entry) {
      errno = ENOMEM;
      return -1;
    }
    if (Configure(a.get(), utf8_locale) != 0) return Fail(EIO);
    if (archive_write_open2(a.get(), this, nullptr, OnWrite, OnClose, nullptr) != ARCHIVE_OK) {
      return Fail(EIO);
    }
    chunk_.reset(new char[kFileChunk]);
    std::string path;
    const int walked = WalkFolder(a.get(), entry.get(), folder_.get(), path);
    chunk_.reset();
    if (walked != 0) {
      const int saved = errno;
      LOG_ERROR("zip stopped at \"%s\": %s", path.c_str(), strerror(saved));
      errno = saved;
      return -1;
    }
    if (archive_write_close(a.get()) != ARCHIVE_OK) {
      if (write_errno_ == 0) LOG_ERROR("zip could not be ended: %s", archive_error_string(a.get()));
      return Fail(EIO);
    }
    return 0;
  }

  // Writes the entries of the folder behind `dir_fd`, whose archive path is
  // `prefix` ("" or ending in '/'). 0, or -1 with errno.
  int WalkFolder(archive* a, archive_entry* entry, int dir_fd, std::string& prefix) {
    std::vector<std::string> names;
    if (ListNames(dir_fd, names) != 0) return -1;
    const size_t base = prefix.size();
    for (const std::string& name : names) {
      prefix.resize(base);
      prefix += name;
      struct stat st;
      if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) continue;  // gone since the listing
        return -1;
      }
      int rc = 0;
      if (S_ISDIR(st.st_mode)) {
        rc = WriteFolder(a, entry, dir_fd, name, prefix);
      } else if (S_ISREG(st.st_mode)) {
        rc = WriteFile(a, entry, dir_fd, name, prefix);
      } else if (S_ISLNK(st.st_mode)) {
        rc = WriteLink(a, entry, dir_fd, name, prefix, st);
      } else {
        LOG_WARNING("left out of the zip, neither file, folder nor link: \"%s\"", prefix.c_str());
      }
      if (rc != 0) return -1;
    }
    prefix.resize(base);
    return 0;
  }

  // `link_target`: what a symbolic link points to, stored as the entry's data.
  int WriteHeader(archive* a, archive_entry* entry, const std::string& path, const struct stat& st,
                  const char* link_target = nullptr) {
    archive_entry_clear(entry);
    archive_entry_copy_stat(entry, &st);
    archive_entry_copy_pathname(entry, path.c_str());
    if (link_target != nullptr) archive_entry_copy_symlink(entry, link_target);
    const int rc = archive_write_header(a, entry);
    if (rc == ARCHIVE_WARN) {
      LOG_WARNING("zip entry \"%s\": %s", path.c_str(), archive_error_string(a));
    } else if (rc != ARCHIVE_OK) {
      if (write_errno_ == 0)
        LOG_ERROR("zip entry \"%s\": %s", path.c_str(), archive_error_string(a));
      return Fail(EIO);
    }
    return 0;
  }

  int WriteFolder(archive* a, archive_entry* entry, int dir_fd, const std::string& name,
                  std::string& path) {
    Fd sub(openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (sub.get() < 0 || fstat(sub.get(), &st) != 0) {
      // Replaced by something else since it was seen: left out.
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return 0;
      return -1;
    }
    if (WriteHeader(a, entry, path, st) != 0) return -1;
    path += '/';
    return WalkFolder(a, entry, sub.get(), path);
  }

  int WriteFile(archive* a, archive_entry* entry, int dir_fd, const std::string& name,
                const std::string& path) {
    // O_NONBLOCK: a FIFO put in the file's place must not hang the walk.
    Fd file(
        openat(dir_fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (file.get() < 0 || fstat(file.get(), &st) != 0) {
      if (errno == ENOENT || errno == ELOOP) return 0;
      return -1;
    }
    if (!S_ISREG(st.st_mode)) {
      LOG_WARNING("left out of the zip, no longer a file: \"%s\"", path.c_str());
      return 0;
    }
    if (WriteHeader(a, entry, path, st) != 0) return -1;
    // The header promised st_size bytes: a file that shrinks meanwhile is
    // padded with zeros and one that grows is cut, so the archive stays valid.
    off_t left = st.st_size;
    bool short_read = false;
    while (left > 0) {
      const size_t want = static_cast<size_t>(std::min<off_t>(left, kFileChunk));
      ssize_t n = short_read ? 0 : read(file.get(), chunk_.get(), want);
      if (n < 0) {
        if (errno == EINTR) continue;
        return -1;
      }
      if (n == 0) {
        if (!short_read) LOG_WARNING("\"%s\" shrank while zipped; padded", path.c_str());
        short_read = true;
        memset(chunk_.get(), 0, want);
        n = static_cast<ssize_t>(want);
      }
      if (archive_write_data(a, chunk_.get(), static_cast<size_t>(n)) != n) return Fail(EIO);
      left -= n;
    }
    return 0;
  }

  int WriteLink(archive* a, archive_entry* entry, int dir_fd, const std::string& name,
                const std::string& path, const struct stat& st) {
    char target[PATH_MAX + 1];
    const ssize_t n = readlinkat(dir_fd, name.c_str(), target, sizeof(target) - 1);
    if (n < 0) return errno == ENOENT || errno == EINVAL ? 0 : -1;
    target[n] = '\0';
    return WriteHeader(a, entry, path, st, target);
  }

  const ArchiveOptions options_;
  Fd folder_;
  OutputBuffer* output_ = nullptr;
  int write_errno_ = 0;
  std::unique_ptr<char[]> chunk_;
};

}  // namespace

std::unique_ptr<ArchiveWriter> MakeLibarchiveZipWriter(const ArchiveOptions& options) {
  return std::make_unique<LibarchiveZipWriter>(options);
}

}  // namespace tparchive
