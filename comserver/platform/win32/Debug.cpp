// Debug output goes to the debugger (OutputDebugStringA), where a debugger or a debug
// output viewer shows it. A host that installed a sink (the same hook the Linux library
// offers) gets every call as well; the debugger keeps getting them either way.
#include <windows.h>

#include "platform/Platform.h"

namespace tamrik::platform {

namespace {

// Held while the sink runs, and recursive by nature, so that a sink may write debug output
// itself or swap the sink, and once SetDebugSink has returned the old sink is never called
// again: a host may free its context right afterwards.
struct Lock {
  CRITICAL_SECTION section;
  Lock() { InitializeCriticalSection(&section); }
};
CRITICAL_SECTION& SinkLock() {
  static Lock lock;
  return lock.section;
}

DebugSink g_sink = nullptr;
void* g_context = nullptr;

class SinkGuard {
 public:
  SinkGuard() { EnterCriticalSection(&SinkLock()); }
  ~SinkGuard() { LeaveCriticalSection(&SinkLock()); }
  SinkGuard(const SinkGuard&) = delete;
  SinkGuard& operator=(const SinkGuard&) = delete;
};

}  // namespace

void SetDebugSink(DebugSink sink, void* context) {
  SinkGuard guard;
  g_sink = sink;
  g_context = context;
}

void OutputDebugText(const char* text) {
  if (text == nullptr) return;
  OutputDebugStringA(text);
  SinkGuard guard;
  if (g_sink != nullptr) g_sink(g_context, text);
}

void ShowMessageBox(const char* caption, const char* text) {
  // The answer is of no interest: the box only tells the operator what went wrong.
  (void)MessageBoxA(nullptr, text != nullptr ? text : "", caption != nullptr ? caption : "", MB_OKCANCEL);
}

}  // namespace tamrik::platform
