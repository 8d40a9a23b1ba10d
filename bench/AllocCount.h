// Counts heap allocations made by this process while counting is switched on. The count
// comes from malloc and its relatives, which operator new also goes through, so it sees
// every allocation of the driver, C++ or C.
#pragma once

#include <cstdint>

namespace tamrik::bench {

// False in a sanitizer build, whose allocator cannot be wrapped; nothing is counted then.
bool AllocationCountingAvailable();

void StartCountingAllocations();
// Stops counting; the number of allocations since the start.
uint64_t StopCountingAllocations();

}  // namespace tamrik::bench
