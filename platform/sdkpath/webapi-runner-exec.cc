// WebApiRunnerExec: a web-API call made from inside a request runs in a
// process of its own (the runner), so that it never shares the caller's
// process-wide database handles or identity switches.
//
//   kstx-webapi-runner --user NAME API METHOD VERSION < params > envelope
//
// The caller keeps root as its real (or saved) uid while its effective ids
// may be lowered; the child takes root back fully before exec, and the runner
// then lowers itself as entry.cgi does and serves the call for NAME.
#include <fcntl.h>
#include <grp.h>
#include <json/reader.h>
#include <json/writer.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sdk-path.h"

namespace {

constexpr const char* kRunnerPath = "/usr/kstx/webapi/kstx-webapi-runner";
constexpr size_t kMaxAnswer = 64 * 1024 * 1024;

using Clock = std::chrono::steady_clock;

int MillisLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 1000));
}

// Sends `input` to the runner and reads its answer until it closes its
// output, both before `deadline`. The input side is closed once sent, so
// that the runner sees its end. 0, -1 on an I/O error or an oversized
// answer, SDK::kRunnerTimedOut.
int Exchange(int& in_fd, int out_fd, const std::string& input, std::string& answer,
             Clock::time_point deadline) {
  (void)fcntl(in_fd, F_SETFL, O_NONBLOCK);
  (void)fcntl(out_fd, F_SETFL, O_NONBLOCK);
  size_t sent = 0;
  int rc = 0;
  char buf[65536];
  for (;;) {
    if (in_fd >= 0 && sent == input.size()) {
      close(in_fd);
      in_fd = -1;
    }
    pollfd fds[2] = {{out_fd, POLLIN, 0}, {in_fd, POLLOUT, 0}};
    const int wait_ms = MillisLeft(deadline);
    if (wait_ms == 0) return SDK::kRunnerTimedOut;
    const int ready = poll(fds, in_fd >= 0 ? 2 : 1, wait_ms);
    if (ready < 0 && errno != EINTR) return -1;
    if (ready <= 0) continue;
    if (in_fd >= 0 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      // A socket rather than a pipe: a runner that exits early gives EPIPE
      // here, not a SIGPIPE that would end the caller.
      const ssize_t n = send(in_fd, input.data() + sent, input.size() - sent, MSG_NOSIGNAL);
      if (n >= 0) {
        sent += static_cast<size_t>(n);
      } else if (errno != EAGAIN && errno != EINTR) {
        rc = -1;  // its answer may still tell why
        sent = input.size();
      }
    }
    if ((fds[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
      const ssize_t n = read(out_fd, buf, sizeof buf);
      if (n == 0) return rc;
      if (n < 0 && errno != EAGAIN && errno != EINTR) return -1;
      if (n > 0) {
        if (answer.size() + static_cast<size_t>(n) > kMaxAnswer) return -1;
        answer.append(buf, static_cast<size_t>(n));
      }
    }
  }
}

// Collects the runner, waiting no longer than `deadline`; 0 with `status`,
// -1 with errno, or SDK::kRunnerTimedOut.
int Reap(pid_t pid, int& status, Clock::time_point deadline) {
  for (;;) {
    const pid_t waited = waitpid(pid, &status, WNOHANG);
    if (waited == pid) return 0;
    if (waited < 0 && errno != EINTR) return -1;
    if (MillisLeft(deadline) == 0) return SDK::kRunnerTimedOut;
    usleep(2000);
  }
}

// Runs in the forked child: only async-signal-safe calls.
[[noreturn]] void ExecRunner(int in_fd, int out_fd, char* const argv[], char* const envp[]) {
  // A group of its own, so that a call past its time is ended together
  // with whatever it started.
  (void)setpgid(0, 0);
  if (dup2(in_fd, STDIN_FILENO) < 0 || dup2(out_fd, STDOUT_FILENO) < 0) _exit(126);
  // Root again before exec: the runner needs the account directory and then
  // chooses its own identity. Where the caller holds no root at all this
  // fails and the runner refuses to serve.
  if (setresuid(0, 0, 0) == 0) {
    (void)setresgid(0, 0, 0);
    (void)setgroups(0, nullptr);
  }
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

namespace SDK {

int WebApiRunnerExec(const std::string& api, const std::string& method, unsigned version,
                     const Json::Value& params, Json::Value& response, const std::string& user,
                     int timeout_ms) {
  if (api.empty() || method.empty() || user.empty()) return -1;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  const std::string input =
      Json::writeString(writer, params.isNull() ? Json::Value(Json::objectValue) : params);

  // Everything the child needs is made before fork.
  std::vector<std::string> args = {kRunnerPath, "--user", user,
                                   api,         method,   std::to_string(version)};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::string path_env = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char* envp[] = {path_env.data(), nullptr};

  int in[2], out[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0) return -1;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) ExecRunner(in[1], out[1], argv.data(), envp);
  close(in[1]);
  close(out[1]);
  if (pid < 0) {
    close(in[0]);
    close(out[0]);
    return -1;
  }
  (void)setpgid(pid, pid);  // either side may win; both ask the same
  std::string answer;
  int rc = Exchange(in[0], out[0], input, answer, deadline);
  if (in[0] >= 0) close(in[0]);
  close(out[0]);
  int status = 0;
  const int reaped = rc == kRunnerTimedOut ? kRunnerTimedOut : Reap(pid, status, deadline);
  if (reaped == kRunnerTimedOut) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return kRunnerTimedOut;
  }
  // A caller that ignores SIGCHLD cannot collect the status (ECHILD); the
  // answer then speaks for itself.
  if (reaped < 0 && errno != ECHILD) return -1;
  if (reaped == 0 && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) return -1;
  if (rc < 0) return -1;

  Json::CharReaderBuilder reader;
  Json::Value envelope;
  std::string errors;
  std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
  if (!parser->parse(answer.data(), answer.data() + answer.size(), &envelope, &errors) ||
      !envelope.isObject() || !envelope["success"].isBool()) {
    return -1;
  }
  response = std::move(envelope);
  return 0;
}

}  // namespace SDK
