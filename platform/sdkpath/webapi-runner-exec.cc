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
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "sdk-path.h"

namespace {

constexpr const char* kRunnerPath = "/usr/kstx/webapi/kstx-webapi-runner";
constexpr size_t kMaxAnswer = 64 * 1024 * 1024;

int WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    // A socket rather than a pipe: a runner that exits early gives EPIPE
    // here, not a SIGPIPE that would end the caller.
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

int ReadAll(int fd, std::string& out) {
  char buf[65536];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return 0;
    if (out.size() + static_cast<size_t>(n) > kMaxAnswer) return -1;
    out.append(buf, static_cast<size_t>(n));
  }
}

// Runs in the forked child: only async-signal-safe calls.
[[noreturn]] void ExecRunner(int in_fd, int out_fd, char* const argv[], char* const envp[]) {
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
                     const Json::Value& params, Json::Value& response, const std::string& user) {
  if (api.empty() || method.empty() || user.empty()) return -1;
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
  // The runner reads all its input before it answers, so writing first
  // cannot block both sides.
  const int sent = WriteAll(in[0], input);
  close(in[0]);
  std::string answer;
  const int got = ReadAll(out[0], answer);
  close(out[0]);
  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  const int wait_error = waited < 0 ? errno : 0;
  // A caller that ignores SIGCHLD cannot collect the status (ECHILD); the
  // answer then speaks for itself.
  const bool reaped = waited == pid;
  if (reaped && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) return -1;
  if (sent < 0 || got < 0 || (!reaped && wait_error != ECHILD)) return -1;

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
