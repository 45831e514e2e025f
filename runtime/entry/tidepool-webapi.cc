// tidepool-webapi: web-API requests served by processes forked from a
// parent that has the runtime and the modules loaded, instead of one exec of
// entry.cgi per request. Started as root beside lighttpd, which reaches it
// over SCGI.
//
//   tidepool-webapi [--socket PATH] [--peer-user NAME] [--time-limit SECONDS]
//                   [--max-children N] [--spares N]
//
// Parent:
//  1. start clean; load every module of the index and the login plugin, with
//     their libraries bound and their static data built, and set SQLite up:
//     the work an exec'd entry.cgi repeats for each request. Nothing of a
//     request, no session and no database is opened here;
//  2. listen on the socket, in a folder only root and the web server's group
//     may enter (0750 root:GROUP, the socket 0660);
//  3. fork a few children ahead of the requests (--spares), so that the fork
//     is not paid while a caller waits. Each child accepts one connection and
//     tells the parent, which forks the next;
//  4. reap children as they end; one that outlives the time limit (and is not
//     streaming a raw answer to its client) is killed a little later, when its
//     own timer did not end it. The parent never accepts a connection, never
//     serves a request and never changes its ids.
// Child:
//  5. while it waits, die with the parent;
//  6. accept one connection, tell the parent, stop listening; a peer other
//     than the web server's account or root is turned away;
//  7. signals back to their defaults, the connection becomes standard input
//     and output, the SCGI header becomes the environment, and from there on
//     it is entry.cgi: clean start, lowered ids, decoding, session, dispatch,
//     answer, exit. One child, one request.
// A new build of a module is taken up by restarting the parent: SIGHUP (what
// `driftway-control service --restart` sends to the pid in webapi.pid beside
// the socket) starts the program again in the same process, with the
// listening socket handed over, so that no request meets a closed socket.
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "login-plugin.h"
#include "module-dispatch.h"
#include "module-index.h"
#include "scgi.h"
#include "serve-request.h"

namespace kstxentry {
namespace {

constexpr const char* kDefaultSocket = "/tmp/tidepool-webapi/webapi.sock";
constexpr const char* kPidFileName = "webapi.pid";
// The listening socket's descriptor across a restart.
constexpr const char* kListenerVariable = "TIDEPOOL_WEBAPI_LISTENER";
// A hung child's own timer answers it; this is for one that blocked it.
constexpr unsigned kKillGraceSeconds = 2;

struct Options {
  std::string socket_path = kDefaultSocket;
  std::string peer_user = "www-data";
  unsigned time_limit = 300;
  unsigned max_children = 64;
  unsigned spares = 2;
};

struct Child {
  bool busy = false;  // has accepted its connection
  time_t deadline = 0;
  volatile std::uint8_t* streaming = nullptr;  // a page shared with the child
  bool killed = false;
};

void Log(const char* format, const char* detail) {
  std::fprintf(stderr, "tidepool-webapi: ");
  std::fprintf(stderr, format, detail);
  std::fputc('\n', stderr);
}

int Usage() {
  std::fprintf(stderr,
               "usage: tidepool-webapi [--socket PATH] [--peer-user NAME] [--time-limit SECONDS]"
               " [--max-children N] [--spares N]\n");
  return 2;
}

bool ParseCount(const char* text, unsigned& out) {
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value > 1000000) return false;
  out = static_cast<unsigned>(value);
  return true;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 >= argc) return false;
    const std::string name = argv[i];
    if (name == "--socket") {
      options.socket_path = argv[i + 1];
    } else if (name == "--peer-user") {
      options.peer_user = argv[i + 1];
    } else if (name == "--time-limit") {
      if (!ParseCount(argv[i + 1], options.time_limit)) return false;
    } else if (name == "--spares") {
      // Only the spares accept: without one nothing is served.
      if (!ParseCount(argv[i + 1], options.spares) || options.spares == 0) return false;
    } else if (name == "--max-children") {
      if (!ParseCount(argv[i + 1], options.max_children) || options.max_children == 0) {
        return false;
      }
    } else {
      return false;
    }
  }
  // An absolute path in a folder of its own, which gets the access rights.
  const std::string& path = options.socket_path;
  return path.size() < sizeof(sockaddr_un::sun_path) && !path.empty() && path.front() == '/' &&
         path.rfind('/') > 0;
}

// This program's file, as started: a restart runs whatever build is there now.
std::string g_program;

std::string SocketFolder(const Options& options) {
  return options.socket_path.substr(0, options.socket_path.rfind('/'));
}

// Every symbol of the runtime's libraries is bound once here rather than
// lazily in each child. The child's environment is rebuilt from the request,
// so the variable goes no further.
void BindNowOrReexec(char** argv) {
  if (getenv("LD_BIND_NOW") != nullptr) {
    unsetenv("LD_BIND_NOW");
    return;
  }
  // The program's own path, so that the processes keep its name.
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return;
  self[length] = '\0';
  setenv("LD_BIND_NOW", "1", 1);
  execv(self, argv);
  unsetenv("LD_BIND_NOW");  // no re-exec: lazy binding only costs time
}

// The modules' code and static data, and the login plugin's, made ready
// once, and SQLite set up.
void Preload() {
  PreloadModules();
  if (dlopen(kLoginPluginPath, RTLD_NOW | RTLD_LOCAL) == nullptr) {
    Log("cannot preload the login plugin: %s", dlerror());
  }
  // SQLite's global set-up (allocator, mutexes, built-in functions), which
  // each request's first database would otherwise do; no database is opened.
  // A connection's page cache grows as pages are read rather than starting
  // with a block of pages that a request of a few queries never fills.
  sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
  if (sqlite3_initialize() != SQLITE_OK) Log("%s", "cannot initialise SQLite");
}

// The socket's folder: root's, entered only by root and `group`. A folder
// someone else made, or a link, is refused rather than trusted.
int PrepareFolder(const std::string& folder, gid_t group) {
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  struct stat st {};
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != 0) {
    errno = EPERM;
    return -1;
  }
  if (chown(folder.c_str(), 0, group) != 0 || chmod(folder.c_str(), 0750) != 0) return -1;
  return 0;
}

// The socket a restarting parent handed over, when it is the one asked for.
int InheritedListener(const std::string& path) {
  const char* text = getenv(kListenerVariable);
  if (text == nullptr) return -1;
  const int fd = std::atoi(text);
  unsetenv(kListenerVariable);
  int listening = 0;
  socklen_t size = sizeof listening;
  sockaddr_un address{};
  socklen_t length = sizeof address;
  if (fd < 3 || getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 ||
      listening == 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      address.sun_family != AF_UNIX || path != address.sun_path) {
    return -1;
  }
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

void WritePidFile(const Options& options) {
  const std::string path = SocketFolder(options) + "/" + kPidFileName;
  const std::string temporary = path + ".new";
  FILE* f = std::fopen(temporary.c_str(), "we");
  if (f == nullptr) return;
  std::fprintf(f, "%d\n", static_cast<int>(getpid()));
  if (std::fclose(f) != 0 || rename(temporary.c_str(), path.c_str()) != 0)
    unlink(temporary.c_str());
}

int Listen(const Options& options, gid_t group) {
  const std::string folder = SocketFolder(options);
  if (!folder.empty() && PrepareFolder(folder, group) != 0) {
    Log("cannot prepare the socket's folder: %s", std::strerror(errno));
    return -1;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, options.socket_path.c_str(), sizeof address.sun_path - 1);
  // A socket left by a parent that died; the folder is root's alone to write.
  unlink(options.socket_path.c_str());
  const mode_t mask = umask(0177);
  const bool bound =
      fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  umask(mask);
  if (!bound || chown(options.socket_path.c_str(), 0, group) != 0 ||
      chmod(options.socket_path.c_str(), 0660) != 0 || listen(fd, 128) != 0) {
    Log("cannot listen: %s", std::strerror(errno));
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

bool PeerAllowed(int fd, uid_t peer_uid) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return false;
  return cred.uid == peer_uid || cred.uid == 0;
}

// The request's side, once the connection is accepted.
[[noreturn]] void RunChild(int connection, volatile std::uint8_t* streaming, unsigned time_limit) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig : {SIGCHLD, SIGPIPE, SIGTERM, SIGINT, SIGHUP}) signal(sig, SIG_DFL);
  ScgiHeaders headers;
  // A peer that stalls before its header ends is given the request's limit.
  if (time_limit > 0) alarm(time_limit);
  if (dup2(connection, STDIN_FILENO) < 0 || dup2(connection, STDOUT_FILENO) < 0 ||
      ReadScgiHeaders(STDIN_FILENO, headers) != 0) {
    _exit(1);
  }
  alarm(0);
  close(connection);
  clearenv();
  for (const auto& [name, value] : headers) setenv(name.c_str(), value.c_str(), 1);
  RequestLimits limits;
  limits.time_limit_seconds = time_limit;
  limits.streaming = streaming;
  const int status = ServeRequestProcess(limits);
  // The answer is out and its connection closed. What is left, running the
  // destructors of every library loaded, changes nothing outside this process
  // (logs are written line by line) and costs the next caller a CPU.
  std::fflush(nullptr);
  _exit(status);
}

// A child forked ahead of its request: waits for one connection.
[[noreturn]] void RunSpare(pid_t parent, int listener, int accepted_pipe, uid_t peer_uid,
                           volatile std::uint8_t* streaming, unsigned time_limit) {
  // A parent gone means lighttpd must see a closed socket (and answer 503),
  // not children that still accept.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
  // The page tells the parent about this request only, not its children's.
  madvise(const_cast<std::uint8_t*>(streaming), 4096, MADV_DONTFORK);
  // SIGTERM (the parent retiring its spares at a restart) may end this
  // spare only while it waits: once it holds a connection, the request is
  // served. So the signal stays blocked except inside ppoll, and accepting
  // never blocks (another spare may take the connection first).
  signal(SIGTERM, SIG_DFL);
  sigset_t waiting;
  sigprocmask(SIG_SETMASK, nullptr, &waiting);
  sigdelset(&waiting, SIGTERM);
  const int flags = fcntl(listener, F_GETFL);
  if (flags < 0 || (!(flags & O_NONBLOCK) && fcntl(listener, F_SETFL, flags | O_NONBLOCK) != 0)) {
    _exit(1);
  }
  int connection = -1;
  while (connection < 0) {
    pollfd ready = {listener, POLLIN, 0};
    if (ppoll(&ready, 1, nullptr, &waiting) < 0 && errno != EINTR) _exit(1);
    connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR &&
        errno != ECONNABORTED) {
      _exit(1);
    }
  }
  // A SIGTERM that came after the connection is dropped, not left pending.
  signal(SIGTERM, SIG_IGN);
  const pid_t self = getpid();
  (void)!write(accepted_pipe, &self, sizeof self);
  // From here the request finishes even if the parent dies, and it is known
  // by the name of what it runs, as on the CGI path.
  prctl(PR_SET_PDEATHSIG, 0);
  prctl(PR_SET_NAME, "entry.cgi");
  close(accepted_pipe);
  close(listener);
  if (!PeerAllowed(connection, peer_uid)) _exit(0);
  RunChild(connection, streaming, time_limit);
}

class Server {
 public:
  Server(const Options& options, char** argv, int listener, int signals, uid_t peer_uid)
      : options_(options),
        argv_(argv),
        listener_(listener),
        signals_(signals),
        peer_uid_(peer_uid) {}

  int Run() {
    int accepted[2];
    if (pipe2(accepted, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
    accepted_read_ = accepted[0];
    accepted_write_ = accepted[1];
    for (;;) {
      TopUp();
      pollfd fds[2] = {{signals_, POLLIN, 0}, {accepted_read_, POLLIN, 0}};
      const bool waiting = options_.time_limit > 0 && busy_ > 0;
      const bool backing_off = idle_ < options_.spares && children_.size() < options_.max_children;
      const int ready = poll(fds, 2, backing_off ? 100 : waiting ? 1000 : -1);
      if (ready < 0 && errno != EINTR) return 1;
      if (fds[1].revents & POLLIN) Accepted();
      if (fds[0].revents & POLLIN) {
        signalfd_siginfo info{};
        while (read(signals_, &info, sizeof info) == sizeof info) {
          if (info.ssi_signo == SIGHUP) Restart();
          if (info.ssi_signo != SIGCHLD && info.ssi_signo != SIGHUP) return Stop();
        }
        Reap();
      }
      KillOverdue();
    }
  }

 private:
  // Spares up to the number asked for, within the limit of children; after
  // a spare died idle (it could not accept), not again for a moment.
  void TopUp() {
    const time_t now = time(nullptr);
    if (now == idle_death_) return;
    while (idle_ < options_.spares && children_.size() < options_.max_children) {
      void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      if (page == MAP_FAILED) return;
      auto* streaming = static_cast<volatile std::uint8_t*>(page);
      const pid_t parent = getpid();
      const pid_t pid = fork();
      if (pid == 0) {
        close(signals_);
        close(accepted_read_);
        RunSpare(parent, listener_, accepted_write_, peer_uid_, streaming, options_.time_limit);
      }
      if (pid < 0) {
        munmap(page, 4096);
        return;
      }
      children_[pid].streaming = streaming;
      ++idle_;
    }
  }

  void Accepted() {
    pid_t pid;
    while (read(accepted_read_, &pid, sizeof pid) == sizeof pid) {
      auto it = children_.find(pid);
      if (it == children_.end() || it->second.busy) continue;
      it->second.busy = true;
      --idle_;
      ++busy_;
      if (options_.time_limit > 0) {
        it->second.deadline = time(nullptr) + options_.time_limit + kKillGraceSeconds;
      }
    }
  }

  void Reap() {
    // A child may end before its word has been read.
    Accepted();
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      auto it = children_.find(pid);
      if (it == children_.end()) continue;
      Child& child = it->second;
      if (WIFSIGNALED(status) && !child.killed && !stopping_) {
        Log("a request's process died of signal %s", strsignal(WTERMSIG(status)));
      }
      if (child.busy) {
        --busy_;
      } else {
        --idle_;
        if (!stopping_) idle_death_ = time(nullptr);
      }
      munmap(const_cast<std::uint8_t*>(child.streaming), 4096);
      children_.erase(it);
    }
  }

  void KillOverdue() {
    const time_t now = time(nullptr);
    for (auto& [pid, child] : children_) {
      if (!child.busy || child.killed || child.deadline == 0 || now < child.deadline ||
          *child.streaming != 0) {
        continue;
      }
      Log("%s", "a request outlived its time limit and is killed");
      kill(pid, SIGKILL);
      child.killed = true;
    }
  }

  // The spares go; the program starts again in this process, keeping the
  // socket; requests under way finish, and the new program reaps them.
  void Restart() {
    Accepted();
    for (const auto& [pid, child] : children_) {
      if (!child.busy) kill(pid, SIGTERM);
    }
    fcntl(listener_, F_SETFD, 0);
    setenv(kListenerVariable, std::to_string(listener_).c_str(), 1);
    execv(g_program.c_str(), argv_);
    Log("cannot start again: %s", std::strerror(errno));
    unsetenv(kListenerVariable);
    fcntl(listener_, F_SETFD, FD_CLOEXEC);
  }

  int Stop() {
    // New requests find no socket; those under way finish, the spares go.
    stopping_ = true;
    unlink(options_.socket_path.c_str());
    unlink((SocketFolder(options_) + "/" + kPidFileName).c_str());
    close(listener_);
    for (const auto& [pid, child] : children_) {
      if (!child.busy) kill(pid, SIGTERM);
    }
    return 0;
  }

  const Options& options_;
  char** const argv_;
  const int listener_;
  const int signals_;
  const uid_t peer_uid_;
  int accepted_read_ = -1;
  int accepted_write_ = -1;
  std::map<pid_t, Child> children_;
  unsigned idle_ = 0;
  unsigned busy_ = 0;
  time_t idle_death_ = 0;
  bool stopping_ = false;
};

int Main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return Usage();
  if (getuid() != 0 || geteuid() != 0) {
    std::fprintf(stderr, "tidepool-webapi: must be started by root\n");
    return 2;
  }
  BindNowOrReexec(argv);
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return 1;
  g_program.assign(self, static_cast<size_t>(length));
  umask(022);
  if (chdir("/") != 0) return 1;
  const int inherited = InheritedListener(options.socket_path);
  if (inherited >= 0) {
    close_range(3, static_cast<unsigned>(inherited) - 1, 0);
    close_range(static_cast<unsigned>(inherited) + 1, ~0u, 0);
  } else {
    close_range(3, ~0u, 0);
  }
  const passwd* peer = getpwnam(options.peer_user.c_str());
  if (peer == nullptr) {
    Log("no such user: %s", options.peer_user.c_str());
    return 2;
  }
  const uid_t peer_uid = peer->pw_uid;
  const gid_t peer_gid = peer->pw_gid;

  Preload();
  sigset_t handled;
  sigemptyset(&handled);
  for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, sig);
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  // A client gone before its answer is the child's concern, never the parent's.
  signal(SIGPIPE, SIG_IGN);
  const int signals = signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
  const int listener = inherited >= 0 ? inherited : Listen(options, peer_gid);
  if (signals < 0 || listener < 0) return 1;
  WritePidFile(options);
  std::fprintf(stderr, "tidepool-webapi: serving on %s\n", options.socket_path.c_str());
  Server server(options, argv, listener, signals, peer_uid);
  return server.Run();
}

}  // namespace
}  // namespace kstxentry

int main(int argc, char** argv) { return kstxentry::Main(argc, argv); }
