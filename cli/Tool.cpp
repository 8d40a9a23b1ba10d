#include "Tool.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "protocol/Text.h"

namespace tamrik::cli {

Json ErrorObject(uint32_t code) {
  return {{"code", code}, {"name", tamrik_result_name(code)}, {"text", tamrik_result_text(code)}};
}

Json MethodError(const CallFailed& failure) {
  Json error = ErrorObject(failure.code);
  error["method"] = failure.method;
  return error;
}

std::string FormatCode(uint32_t code) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%X", code);
  return std::string(hex) + " " + tamrik_result_name(code) + ": " + tamrik_result_text(code);
}

std::string LinkText(const LinkOptions& link) {
  if (!link.tcp.empty()) return "TCP " + link.tcp;
  if (!link.udp.empty()) return "UDP " + link.udp;
  if (!link.serial.empty()) return "serial " + link.serial;
  if (link.demo) return "demonstration data";
  return "the simulated gateway";
}

namespace {

// What a failed opening means for a person: the socket family of codes said in words.
std::string OpenFailure(const Session& session, uint32_t code) {
  const std::string peer = session.Peer();
  if (peer.empty() || code < 4000000 || code > 4000000 + 20000) return {};
  switch (code - 4000000) {
    case 10061: return peer + " refused the connection";
    case 10060: return peer + " did not answer the connection in time";
    case 10051:
    case 10065: return peer + " cannot be reached";
    default: return "cannot connect to " + peer;
  }
}

}  // namespace

void Context::RefuseChange(const std::string& change) const {
  throw UsageError("would " + change + " on " + LinkText(link) + "; nothing was sent. Repeat with --yes to do it");
}

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
      if (code != 0) {
        throw CallFailed(session_->serial() ? "kaVOpenComPort" : "kaVOpenEthernet", code,
                         OpenFailure(*session_, code));
      }
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

void Check(const char* method, uint32_t status, const int32_t& error) {
  if (error != 0) throw CallFailed(method, uint32_t(error));
  if (status != 0) throw CallFailed(method, status);
}

std::vector<int32_t> ReceiveValues(const char* method, size_t capacity, const ReceiveCall& call) {
  std::vector<int32_t> data(std::max<size_t>(capacity, 1), 0);
  for (int attempt = 0;; ++attempt) {
    int32_t count = int32_t(capacity), error = 0;
    const uint32_t status = call(data.data(), &count, &error);
    // The count now says how much room the answer needed.
    if (uint32_t(error) == kAnswerTooLong && attempt == 0 && count > int32_t(capacity)) {
      capacity = size_t(count);
      data.assign(capacity, 0);
      continue;
    }
    Check(method, status, error);
    data.resize(size_t(std::clamp<int32_t>(count, 0, int32_t(capacity))));
    return data;
  }
}

std::string ReceiveText(const char* method, size_t capacity, const ReceiveTextCall& call) {
  std::vector<char> text(capacity + 1, '\0');
  for (int attempt = 0;; ++attempt) {
    int32_t count = int32_t(capacity), error = 0;
    const uint32_t status = call(text.data(), &count, &error);
    if (uint32_t(error) == kAnswerTooLong && attempt == 0 && count > int32_t(capacity)) {
      capacity = size_t(count);
      text.assign(capacity + 1, '\0');
      continue;
    }
    Check(method, status, error);
    const size_t length = size_t(std::clamp<int32_t>(count, 0, int32_t(capacity)));
    return protocol::Cp1252ToUtf8(std::string_view(text.data(), strnlen(text.data(), length)));
  }
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

bool ParseInteger(std::string_view text, int64_t low, int64_t high, int64_t* value) {
  const bool negative = !text.empty() && text.front() == '-';
  if (negative || (!text.empty() && text.front() == '+')) text.remove_prefix(1);
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  // The magnitude in 64 unsigned bits: from_chars refuses what does not fit, and a sign or
  // blank left after the prefix is no digit.
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return false;
  if (magnitude > (negative ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX))) return false;
  const int64_t number = negative ? int64_t(0 - magnitude) : int64_t(magnitude);
  if (number < low || number > high) return false;
  *value = number;
  return true;
}

int64_t ParseNumber(const std::string& text, const std::string& what, int64_t low, int64_t high) {
  int64_t value = 0;
  if (!ParseInteger(text, low, high, &value)) {
    throw UsageError(what + " '" + text + "' is not a number from " + std::to_string(low) + " to " +
                     std::to_string(high));
  }
  return value;
}

std::vector<uint8_t> ValuesToBytes(const std::vector<int32_t>& values) {
  std::vector<uint8_t> bytes;
  bytes.reserve(values.size());
  for (int32_t v : values) bytes.push_back(uint8_t(v & 0xFF));
  return bytes;
}

std::vector<int32_t> BytesToValues(const std::vector<uint8_t>& bytes) {
  return std::vector<int32_t>(bytes.begin(), bytes.end());
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

namespace {

volatile sig_atomic_t gStopRequested = 0;
int gStoppables = 0;
struct sigaction gOldInt, gOldTerm;

void OnStopSignal(int) { gStopRequested = 1; }

}  // namespace

Stoppable::Stoppable() {
  if (gStoppables++ > 0) return;
  gStopRequested = 0;
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait in the driver ends early, so the stop is seen soon.
  sigaction(SIGINT, &action, &gOldInt);
  sigaction(SIGTERM, &action, &gOldTerm);
}

Stoppable::~Stoppable() {
  if (--gStoppables > 0) return;
  sigaction(SIGINT, &gOldInt, nullptr);
  sigaction(SIGTERM, &gOldTerm, nullptr);
}

bool Stoppable::Requested() { return gStopRequested != 0; }

void Stoppable::Sleep(int64_t ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!Requested() && std::chrono::steady_clock::now() < end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    std::this_thread::sleep_for(std::min(left, std::chrono::milliseconds(20)));
  }
}

}  // namespace tamrik::cli
