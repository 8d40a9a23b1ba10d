// The answer reception fed from a byte stream: start-byte search, header, frames of other
// requests dropped, check value, decoding into buffers of any size, polling mode, the clock
// reception of the privileged mode.
//
// Input: a selector byte, a service byte, a capacity byte, then the bytes the gateway sends.
#include <vector>

#include "FuzzSupport.h"
#include "ResultCodes.h"
#include "protocol/Codec.h"

namespace {

// Requests the driver sends, and raw requests.
constexpr uint32_t kServices[] = {0x001, 0x003, 0x004, 0x005, 0x006, 0x007, 0x008, 0x00D, 0x00F, 0x010, 0x011,
                                  0x01A, 0x01B, 0x100, 0x101, 0x102, 0x103, 0x104, 0x105, 0x106, 0x107, 0x10B,
                                  0x10C, 0x10D, 0x10F, 0x110, 0x112, 0x113, 0x114, 0x120, 0x121, 0x122, 0x130,
                                  0x131, 0x132, 0x902, 0x904, 0x912, 0x913, 0x10000, 0x10107, 0x1FFFF};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint8_t selector = data[0];
  const uint32_t service = kServices[data[1] % std::size(kServices)];
  // Capacity 255 stands for the caller who promises room for the largest answer.
  const size_t capacity = data[2] == 255 ? 70000 : data[2];
  tamrik::fuzz::StreamPort stream(data + 3, size - 3, (selector & 4) != 0);
  tamrik::CComPort& port = stream.port();
  tamrik::ExchangeState& exchange = tamrik::CComPortTestPeer::Exchange(port);
  if ((selector & 1) != 0) exchange.SwitchToPolling();
  if (((selector >> 1) & 1) != 0) exchange.Written();

  // Guard values around the caller's buffer show any write beyond its capacity.
  constexpr int32_t kGuard = 0x6D6D6D6D;
  std::vector<int32_t> values(capacity + 2, kGuard);
  for (int round = 0; round < 4; ++round) {
    int32_t count = 0;
    const uint32_t result = (selector & 8) != 0
                                ? port.ReceiveClock(service, values.data() + 1, &count, capacity)
                                : port.AnswerReception(service, values.data() + 1, &count, capacity);
    if (values.front() != kGuard || values.back() != kGuard) __builtin_trap();
    if (result != 0 && result != tamrik::rc::kNoDataYet && (result & 0xF0000u) == 0) break;
  }
  return 0;
}
