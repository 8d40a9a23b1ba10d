#include "Placement.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tamrik::bench {

namespace {

// Every thread of pid: affinity belongs to a thread, and a far end may have several.
bool PlaceProcess(pid_t pid, const cpu_set_t& cpus) {
  bool all = true;
  std::error_code error;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks, error)) {
    const pid_t tid = pid_t(std::strtol(entry.path().filename().c_str(), nullptr, 10));
    if (tid > 0 && sched_setaffinity(tid, sizeof cpus, &cpus) != 0) all = false;
  }
  return all && !error;
}

// The parent of pid from /proc/PID/stat, or 0.
pid_t ParentOf(const std::filesystem::path& stat) {
  std::ifstream in(stat);
  std::string text;
  std::getline(in, text);
  // "pid (name) state ppid ...": the name may hold spaces and parentheses of its own.
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream rest(text.substr(close + 1));
  char state = 0;
  pid_t parent = 0;
  rest >> state >> parent;
  return parent;
}

// The processes and every process below them: a far end started through a wrapper
// (timeout) is the wrapper's child. Four generations are more than any far end has.
std::vector<pid_t> WithDescendants(std::vector<pid_t> pids) {
  std::vector<std::pair<pid_t, pid_t>> parents;  // (pid, parent) of every process
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const pid_t pid = pid_t(std::strtol(entry.path().filename().c_str(), nullptr, 10));
    if (pid > 0) parents.emplace_back(pid, ParentOf(entry.path() / "stat"));
  }
  size_t from = 0;
  for (int generation = 0; generation < 4 && from < pids.size(); ++generation) {
    const size_t to = pids.size();
    for (const auto& [pid, parent] : parents) {
      if (std::find(pids.begin() + std::ptrdiff_t(from), pids.begin() + std::ptrdiff_t(to), parent) !=
          pids.begin() + std::ptrdiff_t(to)) {
        pids.push_back(pid);
      }
    }
    from = to;
  }
  return pids;
}

}  // namespace

CpuPlacement::CpuPlacement() {
  CPU_ZERO(&allowed_);
  known_ = sched_getaffinity(0, sizeof allowed_, &allowed_) == 0;
}

std::string CpuPlacement::Apply(Placement placement, const std::vector<pid_t>& others) const {
  if (!known_) return "placed by the scheduler (no affinity)";
  int first = -1, last = -1;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed_)) continue;
    if (first < 0) first = cpu;
    last = cpu;
  }
  cpu_set_t own = allowed_, far = allowed_;
  if (placement != Placement::Spread && last >= 0) {
    CPU_ZERO(&own);
    CPU_SET(placement == Placement::Across ? first : last, &own);
    CPU_ZERO(&far);
    CPU_SET(last, &far);
  }
  bool placed = sched_setaffinity(0, sizeof own, &own) == 0;
  for (pid_t pid : WithDescendants(others)) placed = PlaceProcess(pid, far) && placed;
  if (!placed) return "placement refused: where the scheduler puts them";
  if (CPU_COUNT(&allowed_) == 1) return "on one CPU (the only one allowed)";
  if (placement == Placement::OneCpu) return "all on CPU " + std::to_string(last);
  if (placement == Placement::Across) {
    return "this one on CPU " + std::to_string(first) + ", every far end on CPU " + std::to_string(last);
  }
  return "placed by the scheduler on " + std::to_string(CPU_COUNT(&allowed_)) + " CPUs";
}

}  // namespace tamrik::bench
