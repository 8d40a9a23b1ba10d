// The benchmark's far ends run as processes of their own. Each one is started here, tells
// on its first output line where it serves, and is stopped by its process id: at the end
// of its section, or by the exit and signal handlers when the benchmark ends early.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tamrik::bench {

struct Child {
  pid_t pid = -1;
  std::string line;  // the first line it printed: where it serves
};

// Starts argv[0] with the arguments and waits at most timeoutMs for its first line.
// Throws std::runtime_error when it cannot be started or says nothing in time.
Child StartChild(const std::vector<std::string>& argv, int timeoutMs = 5000);

// SIGTERM, a bounded wait, then SIGKILL. Safe to call for a child already stopped.
void StopChild(Child& child);

// Stops every child still running; installed for exit and for SIGINT and SIGTERM.
void StopAllChildren();
void InstallChildCleanup();

}  // namespace tamrik::bench
