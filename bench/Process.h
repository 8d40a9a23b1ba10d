// The benchmark's far ends run as processes of their own. Each one is started here, tells
// on its first output line where it serves, and is stopped by its process id: at the end
// of its section, or by the exit and signal handlers when the benchmark ends early.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace tamrik::bench {

struct Child {
  pid_t pid = -1;
  std::string line;  // the first line it printed: where it serves
};

// The standard input and output of a child that takes turns with the benchmark: one line
// out, one line back. Owns both descriptors.
class Conversation {
 public:
  Conversation(int toChild, int fromChild) : to_(toChild), from_(fromChild) {}
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  bool Send(const std::string& line);
  // The next line, without its end; false when none came within timeoutMs.
  bool Receive(std::string* line, int timeoutMs);

 private:
  int to_;
  int from_;
  std::string pending_;  // read beyond the last line handed out
};

// Starts argv[0] with the arguments and waits at most timeoutMs for its first line.
// Throws std::runtime_error when it cannot be started or says nothing in time. With talk,
// the child's standard input and output stay open for the conversation that follows.
Child StartChild(const std::vector<std::string>& argv, int timeoutMs = 5000,
                 std::unique_ptr<Conversation>* talk = nullptr);

// SIGTERM, a bounded wait, then SIGKILL. Safe to call for a child already stopped.
void StopChild(Child& child);

// Stops every child still running; installed for exit and for SIGINT and SIGTERM.
void StopAllChildren();
void InstallChildCleanup();

}  // namespace tamrik::bench
