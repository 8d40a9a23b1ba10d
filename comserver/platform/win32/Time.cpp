#include <windows.h>

#include "platform/Platform.h"

namespace tamrik::platform {

void SleepMs(uint32_t ms) { Sleep(ms); }

uint64_t MonotonicMs() { return GetTickCount64(); }

}  // namespace tamrik::platform
