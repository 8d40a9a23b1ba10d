#include "Tool.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tamrik::cli {

Session& Context::Connect(Purpose purpose, bool open) {
  if (!session_) {
    try {
      session_ = std::make_unique<Session>(link, purpose);
    } catch (const std::runtime_error& e) {
      throw UsageError(e.what());
    }
    if (!json && !printed) {
      // One line that says where the answers come from, on stderr so that the data on
      // stdout stay clean for pipes.
      std::fprintf(stderr, "tamrik: %s\n", session_->Describe().c_str());
    }
    if (open) {
      const uint32_t code = session_->Open();
      if (code != 0) throw CallFailed(session_->serial() ? "kaVOpenComPort" : "kaVOpenEthernet", code, ResultContext::OpenLink);
    }
  }
  return *session_;
}

void Context::Say(const std::string& text) const {
  if (json) return;
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

bool Context::Interactive() const { return !json && !noProgress && isatty(STDOUT_FILENO) == 1; }

void Check(const char* method, uint32_t status, const int32_t& error, ResultContext context) {
  if (error != 0) throw CallFailed(method, uint32_t(error), context);
  if (status != 0) throw CallFailed(method, status, context);
}

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::vector<uint8_t> ParseBytes(const std::vector<std::string>& args) {
  std::vector<uint8_t> bytes;
  for (const std::string& arg : args) {
    std::string piece;
    auto flush = [&]() {
      if (piece.empty()) return;
      std::string digits = piece;
      if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits = digits.substr(2);
      if (digits.size() % 2 == 1) digits.insert(digits.begin(), '0');
      for (size_t i = 0; i < digits.size(); i += 2) {
        const int hi = HexDigit(digits[i]);
        const int lo = HexDigit(digits[i + 1]);
        if (hi < 0 || lo < 0) throw UsageError("'" + piece + "' is not hexadecimal bytes");
        bytes.push_back(uint8_t(hi * 16 + lo));
      }
      piece.clear();
    };
    for (char c : arg) {
      if (c == ',' || c == ':' || c == ' ' || c == '\t') {
        flush();
      } else {
        piece += c;
      }
    }
    flush();
  }
  return bytes;
}

int64_t ParseNumber(const std::string& text, const char* what, int64_t low, int64_t high) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high) {
    throw UsageError(std::string(what) + " '" + text + "' is not a number from " + std::to_string(low) + " to " +
                     std::to_string(high));
  }
  return value;
}

std::vector<uint8_t> ValuesToBytes(const int32_t* values, int32_t count) {
  std::vector<uint8_t> bytes;
  bytes.reserve(size_t(count > 0 ? count : 0));
  for (int32_t i = 0; i < count; ++i) bytes.push_back(uint8_t(values[i] & 0xFF));
  return bytes;
}

std::vector<int32_t> BytesToValues(const std::vector<uint8_t>& bytes) {
  return std::vector<int32_t>(bytes.begin(), bytes.end());
}

int32_t DiagLength(uint32_t moduleId) {
  static constexpr int32_t kTable[16] = {0, 1, 1, 1, 1, 2, 3, 4, 6, 8, 12, 16, 24, 32, 64, 0};
  return kTable[(moduleId >> 12) & 15];
}

std::string FormatDuration(int32_t days, int32_t hours, int32_t minutes, int32_t seconds, int32_t ms) {
  char text[64];
  if (ms >= 0) {
    std::snprintf(text, sizeof text, "%dd %02d:%02d:%02d.%03d", days, hours, minutes, seconds, ms);
  } else {
    std::snprintf(text, sizeof text, "%dd %02d:%02d:%02d", days, hours, minutes, seconds);
  }
  return text;
}

}  // namespace tamrik::cli
