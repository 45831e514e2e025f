// inotify on every folder (the daemon's watcher) against fanotify on the
// whole file system, on the same tree and the same changes:
//
//   bench_notify_probe DIR FOLDERS FILES CHANGES
//       Makes FILES empty files in FOLDERS folders under DIR (100 per
//       level), then for each notifier: the time and CPU to start watching
//       it, the kernel memory that costs (slab objects of its marks) and the
//       process's; then CHANGES files created with content, a tenth renamed
//       within their folder, a tenth moved to another folder and a tenth
//       deleted, drained every 500 changes: the events each reported, the CPU
//       per event to turn them into "this folder of the view changed" (for
//       fanotify: the folder's handle opened and its path read back, the
//       only way to learn where an event happened), and the events that
//       came from outside DIR (the rest of the file system, which a
//       file-system mark sees too).
//
// Runs as root; a kernel or sandbox that refuses a file-system mark is
// reported, not an error. One "name value" line per figure.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "watcher.h"

namespace {

[[noreturn]] void Die(const std::string& what) {
  fprintf(stderr, "bench_notify_probe: %s: %s\n", what.c_str(), strerror(errno));
  exit(1);
}

double ThreadCpu() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double Wall() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

long RssKib() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
  return 0;
}

// Bytes held in the slab cache `name` (objects times object size), from
// /sys/kernel/slab, which also names caches the kernel merged with others
// (their other users add noise); -1 when it cannot be read.
long long SlabBytes(const std::string& name) {
  const std::string dir = "/sys/kernel/slab/" + name + "/";
  std::ifstream objects(dir + "objects"), size(dir + "object_size");
  long long count = 0, bytes = 0;
  if (!(objects >> count) || !(size >> bytes)) return -1;
  return count * bytes;
}

void Put(const char* name, double value) { printf("%s %.6g\n", name, value); }

std::string Folder(const std::string& dir, long k) {
  return dir + "/t" + std::to_string(k / 100) + "/f" + std::to_string(k % 100);
}

// inotify through the daemon's own watcher.
struct Inotify {
  long events = 0;  // reports of a changed folder
  watch::Watcher watcher{watch::Watcher::Callbacks{
      [this](uint64_t, const std::string&, unsigned) { ++events; },
      [](uint64_t, const std::string& why) { printf("inotify-rescan %s\n", why.c_str()); }}};
  double cpu = 0;
  void Drain() {
    const double c0 = ThreadCpu();
    watcher.OnReadable();
    cpu += ThreadCpu() - c0;
  }
};

struct Fanotify {
  int fd = -1;
  int mount_fd = -1;
  std::string root;
  long events = 0;   // records, each naming a folder and an entry
  long outside = 0;  // of them, outside the root
  long unresolved = 0;
  double cpu = 0;
  std::map<uint32_t, long> by_mask;

  void Drain() {
    const double c0 = ThreadCpu();
    alignas(fanotify_event_metadata) char buf[256 * 1024];
    for (;;) {
      ssize_t n = read(fd, buf, sizeof buf);  // FAN_EVENT_NEXT counts it down
      if (n <= 0) break;
      for (auto* m = reinterpret_cast<fanotify_event_metadata*>(buf); FAN_EVENT_OK(m, n);
           m = FAN_EVENT_NEXT(m, n)) {
        ++events;
        by_mask[static_cast<uint32_t>(m->mask)]++;
        if (m->mask & FAN_Q_OVERFLOW) {
          printf("fanotify-overflow 1\n");
          continue;
        }
        auto* info = reinterpret_cast<fanotify_event_info_fid*>(m + 1);
        if (m->event_len <= sizeof *m || (info->hdr.info_type != FAN_EVENT_INFO_TYPE_DFID_NAME &&
                                          info->hdr.info_type != FAN_EVENT_INFO_TYPE_DFID)) {
          ++unresolved;
          continue;
        }
        auto* handle = reinterpret_cast<file_handle*>(info->handle);
        // Where it happened is only known by opening the folder's handle.
        const int dir = open_by_handle_at(mount_fd, handle, O_PATH | O_CLOEXEC);
        if (dir < 0) {
          ++unresolved;
          continue;
        }
        char path[4096];
        const ssize_t len =
            readlink(("/proc/self/fd/" + std::to_string(dir)).c_str(), path, sizeof path - 1);
        close(dir);
        if (len <= 0) {
          ++unresolved;
          continue;
        }
        path[len] = '\0';
        if (strncmp(path, root.c_str(), root.size()) != 0) ++outside;
      }
    }
    cpu += ThreadCpu() - c0;
  }
};

void WriteFile(const std::string& path, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Die("create " + path);
  std::string bytes(size, 'x');
  if (size && write(fd, bytes.data(), size) != static_cast<ssize_t>(size)) Die("write " + path);
  close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: bench_notify_probe DIR FOLDERS FILES CHANGES\n");
    return 2;
  }
  const std::string dir = argv[1];
  const long folders = atol(argv[2]), files = atol(argv[3]), changes = atol(argv[4]);
  if (folders <= 0 || folders > 10000 || files < 0 || changes < 0) {
    fprintf(stderr, "bench_notify_probe: 1..10000 folders\n");
    return 2;
  }
  mkdir(dir.c_str(), 0755);
  for (long k = 0; k < folders; ++k) {
    mkdir((dir + "/t" + std::to_string(k / 100)).c_str(), 0755);
    mkdir(Folder(dir, k).c_str(), 0755);
  }
  for (long i = 0; i < files; ++i)
    WriteFile(Folder(dir, i % folders) + "/e" + std::to_string(i), 0);
  sync();

  // inotify: a watch per folder.
  Inotify in;
  const auto inotify_slab = [] {
    return SlabBytes("inotify_inode_mark") + SlabBytes("fsnotify_mark_connector");
  };
  const long long slab0 = inotify_slab();
  long rss0 = RssKib();
  double w0 = Wall(), c0 = ThreadCpu();
  if (in.watcher.AddView(1, dir) < 0) Die("inotify on " + dir);
  Put("inotify-setup-s", Wall() - w0);
  Put("inotify-setup-cpu-s", ThreadCpu() - c0);
  Put("inotify-folders", static_cast<double>(in.watcher.Stats().at(0).folders));
  Put("inotify-rss-kib", static_cast<double>(RssKib() - rss0));
  if (slab0 >= 0) Put("inotify-kernel-kib", static_cast<double>(inotify_slab() - slab0) / 1024.0);

  // fanotify: one mark on the file system holding DIR.
  Fanotify fa;
  fa.root = dir + "/";
  const auto fanotify_slab = [] {
    return SlabBytes("fanotify_mark") + SlabBytes("fsnotify_mark_connector");
  };
  const long long fslab0 = fanotify_slab();
  rss0 = RssKib();
  w0 = Wall();
  c0 = ThreadCpu();
  fa.fd = fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_NONBLOCK | FAN_CLOEXEC,
                        O_RDONLY | O_LARGEFILE);
  const uint64_t mask = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_MODIFY |
                        FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_ONDIR;
  bool fanotify = fa.fd >= 0;
  if (fanotify &&
      fanotify_mark(fa.fd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, dir.c_str()) != 0) {
    printf("fanotify-refused %s\n", strerror(errno));
    fanotify = false;
  } else if (!fanotify) {
    printf("fanotify-refused %s\n", strerror(errno));
  }
  if (fanotify) {
    fa.mount_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Put("fanotify-setup-s", Wall() - w0);
    Put("fanotify-setup-cpu-s", ThreadCpu() - c0);
    Put("fanotify-rss-kib", static_cast<double>(RssKib() - rss0));
    if (fslab0 >= 0) {
      Put("fanotify-kernel-kib", static_cast<double>(fanotify_slab() - fslab0) / 1024.0);
    }
  }

  // The same changes seen by both.
  const double changes_w0 = Wall();
  for (long i = 0; i < changes; ++i) {
    const std::string folder = Folder(dir, (i * 7) % folders);
    const std::string name = folder + "/n" + std::to_string(i);
    WriteFile(name, 4096);
    if (i % 10 == 1 && rename(name.c_str(), (name + ".renamed").c_str()) != 0) Die("rename");
    if (i % 10 == 2 &&
        rename(name.c_str(),
               (Folder(dir, (i * 7 + 1) % folders) + "/m" + std::to_string(i)).c_str()) != 0)
      Die("move");
    if (i % 10 == 3 && unlink(name.c_str()) != 0) Die("unlink");
    if (i % 500 == 499) {
      in.Drain();
      if (fanotify) fa.Drain();
    }
  }
  usleep(100000);
  in.Drain();
  if (fanotify) fa.Drain();
  Put("changes-s", Wall() - changes_w0);
  Put("changes", static_cast<double>(changes));
  Put("inotify-reports", static_cast<double>(in.events));
  Put("inotify-drain-cpu-s", in.cpu);
  Put("inotify-us-per-change", changes ? in.cpu * 1e6 / static_cast<double>(changes) : 0);
  if (fanotify) {
    Put("fanotify-events", static_cast<double>(fa.events));
    Put("fanotify-outside", static_cast<double>(fa.outside));
    Put("fanotify-unresolved", static_cast<double>(fa.unresolved));
    Put("fanotify-drain-cpu-s", fa.cpu);
    Put("fanotify-us-per-event", fa.events ? fa.cpu * 1e6 / static_cast<double>(fa.events) : 0);
    Put("fanotify-us-per-change", changes ? fa.cpu * 1e6 / static_cast<double>(changes) : 0);
    for (const auto& [m, count] : fa.by_mask) printf("fanotify-mask-%#x %ld\n", m, count);
  }
  return 0;
}
