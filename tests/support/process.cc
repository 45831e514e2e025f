#include "process.h"

#include <grp.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

extern char** environ;

namespace tptest {

ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, const std::string& input,
                         int as_uid) {
  ProcessResult result;
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe(in_pipe) || pipe(out_pipe) || pipe(err_pipe)) return result;
  std::vector<std::string> env_strings;
  for (const auto& [k, v] : env) env_strings.push_back(k + "=" + v);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (int fd : {in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]})
      close(fd);
    if (as_uid >= 0 && (setgroups(0, nullptr) != 0 || setresgid(as_uid, as_uid, as_uid) != 0 ||
                        setresuid(as_uid, as_uid, as_uid) != 0)) {
      _exit(126);
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env_strings) envp.push_back(e.data());
    envp.push_back(nullptr);
    execve(args[0], args.data(), env.empty() ? environ : envp.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  if (input.empty()) {
    close(in_pipe[1]);
    in_pipe[1] = -1;
  }
  pollfd fds[3] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}, {in_pipe[1], POLLOUT, 0}};
  int open_outputs = 2;
  char buffer[65536];
  while (open_outputs > 0) {
    int n = poll(fds, 3, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
        ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
        if (got <= 0) {
          close(fds[i].fd);
          fds[i].fd = -1;
          --open_outputs;
        } else {
          (i == 0 ? result.out : result.err).append(buffer, got);
        }
      }
    }
    if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t put = write(fds[2].fd, input.data() + written, input.size() - written);
      if (put > 0) written += put;
      if (put < 0 || written == input.size()) {
        close(fds[2].fd);
        fds[2].fd = -1;
      }
    }
  }
  if (fds[2].fd >= 0) close(fds[2].fd);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

bool Eventually(const std::function<bool()>& done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

ProcessResult RunControl(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/var/packages/Tidepool/target/bin/driftway-control"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv);
}

void AppendSetting(const std::string& key, const std::string& value) {
  std::ofstream("/var/packages/Tidepool/etc/setting.conf", std::ios::app)
      << key << "=\"" << value << "\"\n";
}

}  // namespace tptest
