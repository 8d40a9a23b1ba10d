// Debug output. Windows hands each call to the debugger; here a host may install a sink,
// and without one every call becomes a line on stderr.
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

#include "platform/Platform.h"
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

// Code points of 0x80..0x9F; 0 marks the positions the code page leaves undefined.
constexpr char16_t kHighControls[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
    0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

namespace posix {

std::string Cp1252ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 2);
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    char32_t cp = byte;
    if (byte >= 0x80 && byte <= 0x9F) {
      cp = kHighControls[byte - 0x80];
      if (cp == 0) cp = 0xFFFD;
    }
    AppendUtf8(out, cp);
  }
  return out;
}

}  // namespace posix

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
  std::string line = posix::Cp1252ToUtf8(text);
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
