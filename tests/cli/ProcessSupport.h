// Running the tool and the simulator program as subprocesses: output captured, every wait
// bounded, every process stopped by its own PID.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace tamrik::test {

struct RunResult {
  int status = -1;  // exit status; 128 + signal when killed; -1 when it could not start
  std::string out;
  std::string err;
  bool timedOut = false;
};

class Process {
 public:
  explicit Process(const std::vector<std::string>& args) {
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0) return;
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
      close(outPipe[0]);
      close(outPipe[1]);
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    out_ = outPipe[0];
    err_ = errPipe[0];
  }
  ~Process() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
    if (err_ >= 0) close(err_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  const std::string& out() const { return outText_; }
  const std::string& err() const { return errText_; }

  // Reads until the captured stdout holds a complete line containing text, or timeoutMs.
  bool WaitForOutput(const std::string& text, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
      const size_t at = outText_.find(text);
      if (at != std::string::npos && outText_.find('\n', at) != std::string::npos) return true;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !Pump(int(left.count()))) return false;
    }
  }

  // Waits for the process to end by itself, at most timeoutMs; then kills it.
  RunResult Finish(int timeoutMs) {
    RunResult result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out_ >= 0 || err_ >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        result.timedOut = true;
        kill(pid_, SIGKILL);
        break;
      }
      Pump(int(left.count()));
    }
    result.status = Reap();
    result.out = outText_;
    result.err = errText_;
    return result;
  }

  // SIGTERM, then as Finish.
  RunResult Stop(int timeoutMs) {
    if (pid_ > 0 && !reaped_) kill(pid_, SIGTERM);
    return Finish(timeoutMs);
  }

 private:
  // One poll of both pipes; false when both are closed.
  bool Pump(int timeoutMs) {
    pollfd fds[2];
    int n = 0;
    if (out_ >= 0) fds[n++] = {out_, POLLIN, 0};
    if (err_ >= 0) fds[n++] = {err_, POLLIN, 0};
    if (n == 0) return false;
    if (poll(fds, nfds_t(n), std::min(timeoutMs, 100)) <= 0) return true;
    for (int i = 0; i < n; ++i) {
      if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      char buffer[4096];
      const ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
      const bool isOut = fds[i].fd == out_;
      if (got > 0) {
        (isOut ? outText_ : errText_).append(buffer, size_t(got));
      } else {
        close(fds[i].fd);
        (isOut ? out_ : err_) = -1;
      }
    }
    return true;
  }

  int Reap() {
    if (pid_ <= 0) return -1;
    if (reaped_) return status_;
    int raw = 0;
    waitpid(pid_, &raw, 0);
    reaped_ = true;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  bool reaped_ = false;
  int status_ = -1;
  std::string outText_;
  std::string errText_;
};

inline RunResult Run(const std::vector<std::string>& args, int timeoutMs = 30000) {
  Process process(args);
  if (!process.started()) return {};
  return process.Finish(timeoutMs);
}

}  // namespace tamrik::test
