#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace tamrik::bench {

namespace {

// Fixed room, so that the signal handler walks it without taking a lock or allocating.
constexpr int kMaxChildren = 32;
volatile pid_t g_children[kMaxChildren] = {};

void Remember(pid_t pid) {
  for (auto& slot : g_children) {
    if (slot == 0) {
      slot = pid;
      return;
    }
  }
}

void Forget(pid_t pid) {
  for (auto& slot : g_children) {
    if (slot == pid) slot = 0;
  }
}

void SleepMs(int ms) {
  timespec t{0, long(ms) * 1000000};
  nanosleep(&t, nullptr);
}

// Reaps pid within timeoutMs; true when it is gone.
bool Reap(pid_t pid, int timeoutMs) {
  for (int waited = 0;; waited += 5) {
    const pid_t r = waitpid(pid, nullptr, WNOHANG);
    if (r == pid || (r < 0 && errno == ECHILD)) return true;
    if (waited >= timeoutMs) return false;
    SleepMs(5);
  }
}

void OnSignal(int sig) {
  for (auto& slot : g_children) {
    if (slot > 0) kill(slot, SIGKILL);
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

}  // namespace

Conversation::~Conversation() {
  if (to_ >= 0) close(to_);
  if (from_ >= 0) close(from_);
}

bool Conversation::Send(const std::string& line) {
  const std::string text = line + "\n";
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t n = write(to_, text.data() + sent, text.size() - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += size_t(n);
  }
  return true;
}

bool Conversation::Receive(std::string* line, int timeoutMs) {
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    const size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      line->assign(pending_, 0, end);
      pending_.erase(0, end + 1);
      return true;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
    if (elapsed >= timeoutMs) return false;
    pollfd p{from_, POLLIN, 0};
    if (poll(&p, 1, int(timeoutMs - elapsed)) <= 0) continue;
    char chunk[4096];
    const ssize_t n = read(from_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    pending_.append(chunk, size_t(n));
  }
}

Child StartChild(const std::vector<std::string>& argv, int timeoutMs, std::unique_ptr<Conversation>* talk) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
  int in[2] = {-1, -1};
  if (talk != nullptr && pipe2(in, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  if (talk != nullptr) posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  Child child;
  const int rc = posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (talk != nullptr) close(in[0]);
  // Owns out[0] (and in[1]) from here on, also when the child fails to start.
  auto conversation = std::make_unique<Conversation>(in[1], out[0]);
  if (rc != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  Remember(child.pid);

  if (!conversation->Receive(&child.line, timeoutMs)) {
    StopChild(child);
    throw std::runtime_error(argv[0] + " did not say where it serves");
  }
  if (talk != nullptr) *talk = std::move(conversation);
  return child;
}

void StopChild(Child& child) {
  if (child.pid <= 0) return;
  kill(child.pid, SIGTERM);
  if (!Reap(child.pid, 2000)) {
    kill(child.pid, SIGKILL);
    Reap(child.pid, 2000);
  }
  Forget(child.pid);
  child.pid = -1;
}

void StopAllChildren() {
  for (auto& slot : g_children) {
    if (slot > 0) {
      Child c{slot, {}};
      StopChild(c);
    }
  }
}

void InstallChildCleanup() {
  std::atexit(StopAllChildren);
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  signal(SIGHUP, OnSignal);
  // A reader that stops early (bench/run | head) must not leave the far ends behind.
  signal(SIGPIPE, OnSignal);
}

}  // namespace tamrik::bench
