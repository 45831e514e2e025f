// The zip of a folder's contents made by Debian's /usr/bin/zip, run in the
// folder, its output copied to the caller's descriptor.
//
// zip stores links as links (-y), nothing compressed (-0), and skips FIFOs
// unless told to read them. Debian's zip has neither a codepage option nor
// one to follow no link at all, so names are always UTF-8 here. For a folder
// with nothing in it zip answers "Nothing to do!" (exit 12) and writes
// nothing; the download still gets a valid empty zip.
//
// Debian's zip refuses a stored (-0) link when its output is not seekable
// ("zip -0 not supported for I/O on pipes or devices": it cannot size a link
// before reading it). A tree with a link is therefore zipped into an unnamed
// file beside the folder (the caller's private temporary folder) and sent
// from there once complete; any other tree streams straight through a pipe.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "archive-writer.h"
#include "hlibc.h"
#include "logger.h"
#include "stream-output.h"

namespace tparchive {
namespace {

constexpr const char* kZip = "/usr/bin/zip";
constexpr int kPipeSize = 1 << 20;
constexpr size_t kCopyChunk = 1 << 20;
constexpr int kNothingToDo = 12;

// Copies `in` to `out` until `in` ends: splice(2) moves pages between a pipe
// and a pipe or socket without passing through this process; read/write
// otherwise. `copied` counts the bytes. 0, or -1 with errno; `write_failed`
// tells which side failed.
int Copy(int in, int out, off_t& copied, bool& write_failed) {
  write_failed = false;
  bool use_splice = true;
  std::unique_ptr<char[]> buffer;
  for (;;) {
    if (use_splice) {
      const ssize_t n =
          splice(in, nullptr, out, nullptr, kCopyChunk, SPLICE_F_MOVE | SPLICE_F_MORE);
      if (n > 0) {
        copied += n;
        continue;
      }
      if (n == 0) return 0;
      if (errno == EINTR) continue;
      if (errno != EINVAL) {
        // A pipe of our own does not fail: the output did.
        write_failed = true;
        return -1;
      }
      use_splice = false;
      buffer.reset(new char[kCopyChunk]);
    }
    const ssize_t n = read(in, buffer.get(), kCopyChunk);
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (WriteAll(out, buffer.get(), static_cast<size_t>(n)) != 0) {
      write_failed = true;
      return -1;
    }
    copied += n;
  }
}

// Up to the first line or so of what zip said on its standard error.
std::string FirstWords(int fd) {
  char text[256] = {};
  const ssize_t n = pread(fd, text, sizeof(text) - 1, 0);
  if (n <= 0) return "";
  std::string said(text, static_cast<size_t>(n));
  while (!said.empty() && (said.back() == '\n' || said.back() == '\r')) said.pop_back();
  for (char& c : said) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return said;
}

class ZipProgramWriter final : public ArchiveWriter {
 public:
  explicit ZipProgramWriter(const ArchiveOptions& options) : options_(options) {}
  ~ZipProgramWriter() override {
    if (folder_ >= 0) close(folder_);
  }

  int Start(const std::string& folder) override {
    const int fd = OpenFolder(folder);
    if (fd < 0) return -1;
    if (folder_ >= 0) close(folder_);
    folder_ = fd;
    return 0;
  }

  int Stream(int out_fd) override {
    if (folder_ < 0) {
      errno = EINVAL;
      return -1;
    }
    if (!IsUnicode(options_.codepage)) {
      LOG_WARNING("names stay UTF-8: zip has no codepage option (asked for \"%s\")",
                  options_.codepage.c_str());
    }
    SigpipeHold hold;
    const int empty = IsEmptyFolder(folder_);
    if (empty < 0) return -1;
    if (empty == 1) return WriteAll(out_fd, kEmptyZip, sizeof(kEmptyZip));
    TryGrowPipe(out_fd, kPipeSize);
    const int links = HasSymlink(folder_);
    if (links < 0) return -1;
    if (links == 0) return RunZip(out_fd, -1);
    const int spool = openat(folder_, "..", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (spool < 0) {
      const int saved = errno;
      LOG_ERROR("no room beside the folder for zip's output: %s", strerror(saved));
      errno = saved;
      return -1;
    }
    int rc = RunZip(out_fd, spool);
    if (rc == 0) rc = SendSpool(spool, out_fd);
    const int saved = errno;
    close(spool);
    errno = saved;
    return rc;
  }

 private:
  // Sends the finished archive in `spool` to `out_fd`; 0, or -1 with errno.
  static int SendSpool(int spool, int out_fd) {
    struct stat st;
    if (fstat(spool, &st) != 0) return -1;
    off_t offset = 0;
    while (offset < st.st_size) {
      const ssize_t n = sendfile(out_fd, spool, &offset, kCopyChunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return n < 0 ? -1 : (errno = EIO, -1);
    }
    return 0;
  }

  // Runs zip, its output copied to `out_fd`, or written into `spool` when
  // that is a descriptor (then nothing reaches `out_fd` here).
  int RunZip(int out_fd, int spool) {
    const int err_fd = memfd_create("zip-stderr", MFD_CLOEXEC);
    if (err_fd < 0) return -1;
    // A fixed environment: zip reads options from ZIPOPT and ZIP, and picks
    // its name handling from the locale.
    char path_var[] = "PATH=/usr/bin:/bin";
    char locale_var[] = "LC_ALL=C.UTF-8";
    char* env[] = {path_var, locale_var, nullptr};
    HLIBCPopenOptions spawn;
    spawn.dir_fd = folder_;
    spawn.stderr_fd = err_fd;
    spawn.stdout_fd = spool;
    spawn.envp = env;
    int pid = -1;
    spawn.pid = &pid;
    FILE* zip =
        HLIBCPopenEx(&spawn, kZip, "r", "-q", "-0", "-r", "-y", "-UN=UTF8", "-", ".", nullptr);
    if (zip == nullptr) {
      const int saved = errno != 0 ? errno : EIO;
      close(err_fd);
      LOG_ERROR("cannot run %s: %s", kZip, strerror(saved));
      errno = saved;
      return -1;
    }
    TryGrowPipe(fileno(zip), kPipeSize);
    off_t copied = 0;
    bool write_failed = false;
    const int copy_rc = Copy(fileno(zip), out_fd, copied, write_failed);
    const int copy_errno = errno;
    // Nobody reads zip's output any more: it must not go on reading the
    // folder. HLIBCPclose then reaps it.
    if (copy_rc != 0) kill(pid, SIGKILL);
    const int status = HLIBCPclose(zip);
    const std::string said = FirstWords(err_fd);
    close(err_fd);
    if (copy_rc != 0) {
      errno = write_failed ? copy_errno : EIO;
      return -1;
    }
    if (status == 0) return 0;
    if (status == kNothingToDo && copied == 0) {
      // Emptied between the look and zip's own.
      return WriteAll(out_fd, kEmptyZip, sizeof(kEmptyZip));
    }
    LOG_ERROR("%s failed (status %d): %s", kZip, status, said.c_str());
    errno = EIO;
    return -1;
  }

  const ArchiveOptions options_;
  int folder_ = -1;
};

}  // namespace

std::unique_ptr<ArchiveWriter> MakeZipProgramWriter(const ArchiveOptions& options) {
  return std::make_unique<ZipProgramWriter>(options);
}

}  // namespace tparchive
