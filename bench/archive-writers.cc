// The zip of a download made by each writer, into a pipe that a thread reads
// and discards, as the web server would take it from the CGI.
//
//   bench_archive_writers DIR          twice per writer, the faster run:
//     writer=libarchive bytes=N seconds=S mib_per_s=M peak_rss_kib=K
//   bench_archive_writers --zip64-check [SCRATCH]
//     a folder with one sparse 4.5 GiB file and a small one, zipped by each
//     writer into a sparse archive file that `unzip -t` and `7z t` must accept
//     (about 4.5 GiB read per writer, a few MiB of disk).
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "archive-writer.h"

namespace {

using tparchive::ArchiveWriter;

struct Run {
  int rc = -1;
  long long bytes = 0;
  double seconds = 0;
};

// Streams the archive into a pipe; `sink` runs on a thread and gets the read end.
template <typename Sink>
Run StreamInto(ArchiveWriter& writer, Sink sink) {
  Run run;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return run;
  std::thread reader([&] {
    run.bytes = sink(fds[0]);
    close(fds[0]);
  });
  const auto begin = std::chrono::steady_clock::now();
  run.rc = writer.Stream(fds[1]);
  close(fds[1]);
  reader.join();
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return run;
}

long long Discard(int fd) {
  static char buffer[1 << 20];
  long long total = 0;
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n <= 0) return total;
    total += n;
  }
}

// Writes what it reads into `path`, leaving holes where whole blocks are zero.
long long SparseCopy(int fd, const std::string& path) {
  const int out = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) return Discard(fd);
  static char buffer[1 << 16];
  static const char zeros[1 << 16] = {};
  long long total = 0;
  size_t filled = 0;
  auto put = [&](size_t size) {
    if (size == sizeof(buffer) && memcmp(buffer, zeros, size) == 0) return;
    (void)!pwrite(out, buffer, size, total);
  };
  for (;;) {
    const ssize_t n = read(fd, buffer + filled, sizeof(buffer) - filled);
    if (n <= 0) break;
    filled += static_cast<size_t>(n);
    if (filled == sizeof(buffer)) {
      put(filled);
      total += static_cast<long long>(filled);
      filled = 0;
    }
  }
  if (filled > 0) put(filled);
  total += static_cast<long long>(filled);
  (void)!ftruncate(out, total);
  close(out);
  return total;
}

long PeakRssKib(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return usage.ru_maxrss;
}

int Measure(const char* dir) {
  struct Writer {
    const char* name;
    std::unique_ptr<ArchiveWriter> (*make)(const tparchive::ArchiveOptions&);
    int rss_of;  // the process whose peak is the writer's
  };
  const Writer writers[] = {{"libarchive", tparchive::MakeLibarchiveZipWriter, RUSAGE_SELF},
                            {"zip", tparchive::MakeZipProgramWriter, RUSAGE_CHILDREN}};
  for (const Writer& w : writers) {
    auto writer = w.make({});
    if (writer->Start(dir) != 0) {
      fprintf(stderr, "%s: cannot open %s: %s\n", w.name, dir, strerror(errno));
      return 1;
    }
    Run best;
    for (int i = 0; i < 2; ++i) {
      const Run run = StreamInto(*writer, Discard);
      if (run.rc != 0) {
        fprintf(stderr, "%s: stream failed: %s\n", w.name, strerror(errno));
        return 1;
      }
      if (i == 0 || run.seconds < best.seconds) best = run;
    }
    printf("writer=%s bytes=%lld seconds=%.3f mib_per_s=%.1f peak_rss_kib=%ld\n", w.name,
           best.bytes, best.seconds, static_cast<double>(best.bytes) / (1 << 20) / best.seconds,
           PeakRssKib(w.rss_of));
    fflush(stdout);
  }
  return 0;
}

int Check(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

int Zip64Check(const std::string& scratch) {
  namespace fs = std::filesystem;
  const std::string tree = scratch + "/tree";
  fs::create_directories(tree);
  {
    const int fd = open((tree + "/big.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const off_t size = (4LL << 30) + (512LL << 20);
    if (fd < 0 || ftruncate(fd, size) != 0 || pwrite(fd, "end", 3, size - 3) != 3) {
      fprintf(stderr, "cannot make the sparse file\n");
      return 1;
    }
    close(fd);
    FILE* small = fopen((tree + "/small.txt").c_str(), "w");
    fputs("after the big one\n", small);
    fclose(small);
  }
  int failures = 0;
  for (const char* name : {"libarchive", "zip"}) {
    auto writer = std::string(name) == "zip" ? tparchive::MakeZipProgramWriter({})
                                             : tparchive::MakeLibarchiveZipWriter({});
    const std::string zip = scratch + "/" + name + ".zip";
    if (writer->Start(tree) != 0) return 1;
    const Run run = StreamInto(*writer, [&](int fd) { return SparseCopy(fd, zip); });
    const int unzip = Check("unzip -tq '" + zip + "' >/dev/null");
    const int sevenzip = Check("7z t '" + zip + "' >/dev/null");
    const bool ok = run.rc == 0 && unzip == 0 && sevenzip == 0;
    failures += ok ? 0 : 1;
    printf("zip64_check writer=%s bytes=%lld unzip_t=%d 7z_t=%d %s\n", name, run.bytes, unzip,
           sevenzip, ok ? "ok" : "FAILED");
    fflush(stdout);
    fs::remove(zip);
  }
  fs::remove_all(tree);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc >= 2 && strcmp(argv[1], "--zip64-check") == 0) {
    char pattern[] = "/var/tmp/zip64-check-XXXXXX";
    std::string scratch = argc >= 3 ? argv[2] : "";
    if (scratch.empty()) {
      if (mkdtemp(pattern) == nullptr) return 1;
      scratch = pattern;
    }
    const int rc = Zip64Check(scratch);
    if (argc < 3) std::filesystem::remove_all(scratch);
    return rc;
  }
  if (argc != 2) {
    fprintf(stderr, "usage: %s DIR | --zip64-check [SCRATCH]\n", argv[0]);
    return 2;
  }
  return Measure(argv[1]);
}
