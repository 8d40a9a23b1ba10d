// Where the processes of a benchmark run: all on one CPU, or where the scheduler puts them.
//
// Where the two processes of an exchange run decides its cost more than anything either of
// them does. A wake-up on the other CPU of this kind of virtual machine takes that CPU out of
// its halt, tens of microseconds, and the scheduler keeps a process that sleeps between
// requests where it last ran: one far end sits beside its client for a whole run, another
// across, and that, not the client, sets their round trips. On one CPU each exchange costs
// the two switches and the work of both ends, which is what the driver can be held to; with
// the processes spread, only sides that share one far end compare fairly.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace tamrik::bench {

// Across: this process on the first CPU allowed, every far end on the last, the worst case
// of Spread made on purpose, to look at it.
enum class Placement { OneCpu, Spread, Across };

// The CPUs this process may use when the run starts, and the placements made from them.
class CpuPlacement {
 public:
  CpuPlacement();

  // Puts this process and every thread of the given processes on the last CPU allowed
  // (OneCpu), or gives them every allowed CPU back (Spread). A description of the result,
  // for the table's heading.
  std::string Apply(Placement placement, const std::vector<pid_t>& others) const;

  static const char* Name(Placement placement) {
    return placement == Placement::OneCpu ? "one CPU" : placement == Placement::Spread ? "spread" : "across";
  }

 private:
  cpu_set_t allowed_;
  bool known_ = false;
};

}  // namespace tamrik::bench
