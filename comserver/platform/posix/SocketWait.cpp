#include <cerrno>
#include <poll.h>

#include "platform/Platform.h"

namespace tamrik::platform {

void SocketWaitConnected(SocketHandle s, uint32_t timeoutMs) {
  if (s == kInvalidSocket) return;
  pollfd entry{int(s), POLLOUT, 0};
  const uint64_t deadline = MonotonicMs() + timeoutMs;
  for (;;) {
    const uint64_t now = MonotonicMs();
    if (now >= deadline) return;
    const int ready = poll(&entry, 1, int(deadline - now));
    if (ready != 0 && !(ready < 0 && errno == EINTR)) return;
  }
}

}  // namespace tamrik::platform
