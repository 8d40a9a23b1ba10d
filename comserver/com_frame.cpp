// The frame every method of one exchange runs in: the busy guard, the entry and exit traces,
// the caller's room, demonstration mode or the exchange, and the unpacking of the answer.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ResultCodes.h"
#include "com.h"

namespace tamrik {

namespace {

constexpr size_t kStringCapacity = 200;
constexpr int32_t kMaxDemoText = 0x10000;
constexpr const char* kStation = "Station";

}  // namespace

bool Ccom::EnterBusy() {
  uint8_t expected = 0;
  return busy_.compare_exchange_strong(expected, 1, std::memory_order_acq_rel);
}

void Ccom::TraceMethod(const char* text) {
  if (nLog == 1) port_->Trace(text);
}

void Ccom::TraceMethodFormat(const char* format, ...) {
  if (nLog != 1 || !port_->Tracing()) return;
  // Method texts may carry host strings of any length; a trace line stays bounded.
  char text[200];
  va_list args;
  va_start(args, format);
  // The analyzer of clang 14 loses va_start in variadic member functions.
  vsnprintf(text, sizeof text, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(args);
  port_->Trace(text);
}

bool Ccom::CallerRoom(const int32_t* count, int32_t* error, size_t* room) const {
  if (!countIsCapacity_) {
    *room = protocol::kUnbounded;
    return true;
  }
  if (*count < 0) {
    *error = int32_t(rc::kBadArgument);
    return false;
  }
  *room = size_t(*count);
  return true;
}

bool Ccom::Exchange(uint32_t serviceCode, const void* requestData, const int32_t* requestCount, int32_t* values,
                    int32_t* count, size_t capacity, int32_t* error, RequestFailure onRequestFailure,
                    uint32_t* methodReturn, AnswerOverflow overflow) {
  uint32_t result = port_->GenerateService(serviceCode, requestData, requestCount);
  if (result != 0) {
    *error = int32_t(result);
    *methodReturn = onRequestFailure == RequestFailure::ReturnCode ? result : 0;
    return false;
  }
  int32_t scratchCount = 0;
  result = port_->AnswerReception(serviceCode, values, count != nullptr ? count : &scratchCount, capacity, overflow);
  if (result != 0) {
    *error = int32_t(result);
    *methodReturn = rc::kAnswerFailed;
    return false;
  }
  return true;
}

uint32_t Ccom::RunExchange(const ExchangeMethod& m) {
  // The busy guard is taken before anything else and released on every return.
  if (m.busyGuarded && !EnterBusy()) return rc::kBusy;
  struct Release {
    Ccom* com;
    ~Release() {
      if (com != nullptr) com->LeaveBusy();
    }
  } release{m.busyGuarded ? this : nullptr};

  size_t capacity = m.capacity;
  AnswerOverflow overflow = AnswerOverflow::Truncate;
  if (capacity == kCallerCapacity) {
    if (!CallerRoom(m.count, m.error, &capacity)) return rc::kBadArgument;
    overflow = Overflow();
  }
  if (m.entryTrace != nullptr) TraceMethod(m.entryTrace);
  else TraceMethodFormat("%s-->", m.name);
  // Version 1 answers from the demonstration file, 0 talks to the gateway, and any other
  // value does neither: the method only traces and reports success.
  if (nDemo == 1) {
    if (m.demo) {
      if (const std::optional<uint32_t> early = m.demo()) return *early;
    }
  } else if (nDemo == 0) {
    int32_t work = 0;
    int32_t workCount = 0;
    int32_t* values = m.values;
    if (values == nullptr) {
      values = &work;
      capacity = 1;
    }
    uint32_t methodReturn = 0;
    if (!Exchange(m.service, m.request, m.requestCount, values, m.count != nullptr ? m.count : &workCount, capacity,
                  m.error, m.onRequestFailure, &methodReturn, overflow)) {
      return methodReturn;
    }
    if (m.afterAnswer) {
      if (const std::optional<uint32_t> early = m.afterAnswer()) return *early;
    }
  }
  TraceMethodFormat("%s<--", m.name);
  *m.error = 0;
  return 0;
}

uint32_t Ccom::ArrayExchange(const char* name, uint32_t serviceCode, int32_t* plData, int32_t* plSizeOfData,
                             int32_t* error) {
  return RunExchange({.name = name,
                      .service = serviceCode,
                      .request = plData,
                      .requestCount = plSizeOfData,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = error,
                      .onRequestFailure = RequestFailure::ReturnCode});
}

uint32_t Ccom::StringMethod(const char* name, uint32_t serviceCode, const char* demoKey, char* text, int32_t* size,
                            int32_t* error) {
  size_t room = 0;
  if (!CallerRoom(size, error, &room)) return rc::kBadArgument;
  // Whether a text of n characters may be delivered; when not, the count tells what it needed.
  auto fits = [&](size_t n) {
    if (n <= room) return true;
    *size = int32_t(n);
    *error = int32_t(rc::kAnswerTooLong);
    return false;
  };
  int32_t work[kStringCapacity] = {};
  int32_t count = 0;
  return RunExchange({
      .name = name,
      .service = serviceCode,
      .values = work,
      .count = &count,
      .capacity = kStringCapacity,
      .error = error,
      .demo = [&]() -> std::optional<uint32_t> {
        // Texts the gateway alone knows are not part of the demonstration: nothing changes.
        if (demoKey == nullptr) return std::nullopt;
        // The count on entry is the caller's buffer size, terminating zero included. A host of
        // the C interface states its capacity instead, and a longer text fails rather than
        // being cut.
        const int32_t demoRoom = countIsCapacity_ ? kMaxDemoText : std::clamp(*size, 0, kMaxDemoText);
        const std::string value = DemoText(kStation, demoKey, uint32_t(demoRoom));
        if (!fits(value.size())) return rc::kAnswerFailed;
        // Texts go to the host without a terminating zero; the count tells their length.
        memcpy(text, value.data(), value.size());  // NOLINT(bugprone-not-null-terminated-result)
        *size = int32_t(value.size());
        return std::nullopt;
      },
      .afterAnswer = [&]() -> std::optional<uint32_t> {
        // An answer of a code that delivers nothing still reports its length; never more than
        // the work buffer holds.
        count = std::clamp(count, 0, int32_t(kStringCapacity));
        if (!fits(size_t(count))) return rc::kAnswerFailed;
        for (int32_t i = 0; i < count; ++i) text[i] = char(work[i]);
        *size = count;
        return std::nullopt;
      },
  });
}

}  // namespace tamrik
