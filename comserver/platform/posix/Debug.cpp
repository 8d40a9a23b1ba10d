// Debug output. Windows hands each call to the debugger; here a host may install a sink,
// and without one every call becomes a line on stderr.
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

#include "platform/Platform.h"
#include "protocol/Text.h"
#include "platform/posix/Internal.h"

namespace tamrik::platform {

namespace {

// Recursive, and held while the sink runs: a sink may write debug output itself or swap
// the sink, and once SetDebugSink has returned the old sink is never called again, so a
// host may free its context right afterwards.
std::recursive_mutex& SinkMutex() {
  static std::recursive_mutex mutex;
  return mutex;
}
DebugSink g_sink = nullptr;
void* g_context = nullptr;

void WriteAll(int fd, const std::string& data) {
  size_t written = 0;
  while (written < data.size()) {
    ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere to report a broken stderr
    }
    written += static_cast<size_t>(n);
  }
}

}  // namespace


void SetDebugSink(DebugSink sink, void* context) {
  std::lock_guard lock(SinkMutex());
  g_sink = sink;
  g_context = context;
}

void OutputDebugText(const char* text) {
  if (text == nullptr) return;
  std::lock_guard lock(SinkMutex());
  if (g_sink != nullptr) {
    g_sink(g_context, text);
    return;
  }
  std::string line = protocol::Cp1252ToUtf8(text);
  line.push_back('\n');
  // One write per call, so lines from several threads or processes do not interleave.
  WriteAll(STDERR_FILENO, line);
}

void ShowMessageBox(const char* caption, const char* text) {
  std::string message = caption != nullptr ? caption : "";
  message += ": ";
  message += text != nullptr ? text : "";
  OutputDebugText(message.c_str());
}

}  // namespace tamrik::platform
