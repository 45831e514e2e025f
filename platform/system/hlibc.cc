// Process helpers run programs without a shell: arguments reach the program
// as they are, so no caller has to quote anything.
#include "hlibc.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "keyvalue-file.h"

extern char** environ;

namespace {

std::vector<char*> CollectArgs(const char* path, va_list args) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path));
  while (const char* arg = va_arg(args, const char*)) argv.push_back(const_cast<char*>(arg));
  argv.push_back(nullptr);
  return argv;
}

void RedirectStdioToNull() {
  const int fd = open("/dev/null", O_RDWR);
  if (fd < 0) return;
  dup2(fd, STDIN_FILENO);
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  if (fd > STDERR_FILENO) close(fd);
}

// Points the child's standard input and/or output at /dev/null. A request's
// standard output is its answer: no program it runs may write into it.
void QuietStdio(posix_spawn_file_actions_t& actions, bool input, bool output) {
  if (input) posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (output) posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
}

// The exit code, 128 + signal for a killed program, -1 when waiting failed.
int WaitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Streams of HLIBCPopen and the programs behind them, for HLIBCPclose.
std::mutex g_popen_mutex;
std::map<FILE*, pid_t>& PopenChildren() {
  static auto* children = new std::map<FILE*, pid_t>;
  return *children;
}

}  // namespace

int HLIBCProcForkEx(int flags) {
  const pid_t pid = fork();
  if (pid != 0) return pid < 0 ? -1 : pid;
  if (flags & HLIBC_FORK_SETSID) setsid();
  if (flags & HLIBC_FORK_NULL_STDIO) RedirectStdioToNull();
  return 0;
}

int HLIBCProcForkChildNoWait() {
  // The grandchild's number comes back through a pipe: the middle process
  // exits at once so that the grandchild is adopted by init.
  int channel[2];
  if (pipe2(channel, O_CLOEXEC) != 0) return -1;
  const pid_t middle = fork();
  if (middle < 0) {
    close(channel[0]);
    close(channel[1]);
    return -1;
  }
  if (middle == 0) {
    close(channel[0]);
    setsid();
    const pid_t child = fork();
    if (child == 0) {
      close(channel[1]);
      RedirectStdioToNull();
      return 0;
    }
    const ssize_t n = write(channel[1], &child, sizeof(child));
    _exit(child > 0 && n == sizeof(child) ? 0 : 1);
  }
  close(channel[1]);
  pid_t child = -1;
  ssize_t n;
  do {
    n = read(channel[0], &child, sizeof(child));
  } while (n < 0 && errno == EINTR);
  close(channel[0]);
  const int status = WaitFor(middle);
  if (n != sizeof(child) || status != 0 || child <= 0) return -1;
  return child;
}

int HLIBCExec(const char* path, ...) {
  if (path == nullptr) return -1;
  va_list args;
  va_start(args, path);
  std::vector<char*> argv = CollectArgs(path, args);
  va_end(args);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  QuietStdio(actions, true, true);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, path, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  return WaitFor(pid);
}

int HLIBCBackgroundExec(const char* path, ...) {
  if (path == nullptr) return -1;
  va_list args;
  va_start(args, path);
  std::vector<char*> argv = CollectArgs(path, args);
  va_end(args);

  // A middle process in a session of its own starts the program and exits,
  // so that the program is nobody's child to wait for.
  const pid_t middle = fork();
  if (middle < 0) return -1;
  if (middle == 0) {
    setsid();
    RedirectStdioToNull();
    pid_t pid = 0;
    _exit(posix_spawn(&pid, path, nullptr, nullptr, argv.data(), environ) == 0 ? 0 : 1);
  }
  return WaitFor(middle) == 0 ? 0 : -1;
}

namespace {

// `options` null: the plain HLIBCPopen, whose child inherits everything else.
FILE* PopenWith(const HLIBCPopenOptions* options, const char* path, const char* mode,
                va_list args) {
  if (path == nullptr || mode == nullptr) return nullptr;
  const bool reading = mode[0] == 'r';
  if (!reading && mode[0] != 'w') return nullptr;
  std::vector<char*> argv = CollectArgs(path, args);

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  const int parent_end = reading ? fds[0] : fds[1];
  const int child_end = reading ? fds[1] : fds[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // The end the caller does not use is /dev/null: the program's output
  // never reaches this process's standard output, which may be an answer.
  QuietStdio(actions, !reading, reading);
  posix_spawn_file_actions_adddup2(&actions, child_end, reading ? STDOUT_FILENO : STDIN_FILENO);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  if (options != nullptr) {
    if (reading && options->stdout_fd >= 0) {
      posix_spawn_file_actions_adddup2(&actions, options->stdout_fd, STDOUT_FILENO);
    }
    if (options->stderr_fd >= 0) {
      posix_spawn_file_actions_adddup2(&actions, options->stderr_fd, STDERR_FILENO);
    } else {
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_RDWR, 0);
    }
    // The folder's descriptor, not its path: the child starts in exactly the
    // folder the caller opened, whatever was renamed since.
    if (options->dir_fd >= 0) posix_spawn_file_actions_addfchdir_np(&actions, options->dir_fd);
    sigset_t none;
    sigemptyset(&none);
    sigset_t pipe_only;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &pipe_only);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  pid_t pid = 0;
  const int rc =
      posix_spawn(&pid, path, &actions, &attr, argv.data(),
                  options != nullptr && options->envp != nullptr ? options->envp : environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  close(child_end);
  if (rc != 0) {
    close(parent_end);
    return nullptr;
  }
  FILE* stream = fdopen(parent_end, reading ? "r" : "w");
  if (stream == nullptr) {
    close(parent_end);
    WaitFor(pid);
    return nullptr;
  }
  if (options != nullptr && options->pid != nullptr) *options->pid = pid;
  std::lock_guard<std::mutex> lock(g_popen_mutex);
  PopenChildren()[stream] = pid;
  return stream;
}

}  // namespace

FILE* HLIBCPopen(const char* path, const char* mode, ...) {
  va_list args;
  va_start(args, mode);
  FILE* stream = PopenWith(nullptr, path, mode, args);
  va_end(args);
  return stream;
}

FILE* HLIBCPopenEx(const HLIBCPopenOptions* options, const char* path, const char* mode, ...) {
  const HLIBCPopenOptions defaults;
  va_list args;
  va_start(args, mode);
  FILE* stream = PopenWith(options != nullptr ? options : &defaults, path, mode, args);
  va_end(args);
  return stream;
}

int HLIBCPclose(FILE* stream) {
  if (stream == nullptr) return -1;
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(g_popen_mutex);
    auto it = PopenChildren().find(stream);
    if (it == PopenChildren().end()) return -1;
    pid = it->second;
    PopenChildren().erase(it);
  }
  fclose(stream);
  return WaitFor(pid);
}

int HLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, size_t size) {
  if (path == nullptr || key == nullptr || buffer == nullptr || size == 0) return -1;
  std::map<std::string, std::string> values;
  if (!tpsys::ReadKeyValues(path, values)) return -1;
  const auto it = values.find(key);
  if (it == values.end()) return -1;
  const size_t length = std::min(it->second.size(), size - 1);
  memcpy(buffer, it->second.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(length);
}

int HLIBCFileSetKeyValue(const char* path, const char* key, const char* value) {
  if (path == nullptr || key == nullptr || value == nullptr || *key == '\0') return -1;
  // A line break or quote would split or end the line on the next read.
  if (strpbrk(key, "=\n\r\" \t#") != nullptr || strpbrk(value, "\n\r\"") != nullptr) return -1;
  return tpsys::SetKeyValues(path, {{key, value}});
}
