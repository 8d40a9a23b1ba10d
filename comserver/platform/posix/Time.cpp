#include <time.h>

#include <cerrno>

#include "platform/Platform.h"

namespace tamrik::platform {

void SleepMs(uint32_t ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  // A signal handler elsewhere in the host must not cut the pause short.
  while (::nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

uint64_t MonotonicMs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace tamrik::platform
