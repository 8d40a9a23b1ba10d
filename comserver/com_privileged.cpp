// Privileged mode: a challenge from the gateway, a response computed from it, and the
// gateway's privileged channel and name.
#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"

namespace tamrik {

namespace {

constexpr int32_t kMaxDescription = 128;
constexpr int32_t kStreamCapacity = 256;

}  // namespace

std::atomic<bool> Ccom::bNewPrivilegedExchange{true};

int32_t CComPort::BuildPrivilegedStream(uint32_t challenge, const char* description, const uint8_t bits[32],
                                        int32_t* stream) {
  const uint32_t response = protocol::PrivilegedResponse(challenge, bits);

  int32_t n = 0;
  if (description != nullptr) {
    while (n < kMaxDescription && description[n] != '\0') {
      stream[n] = uint8_t(description[n]);
      ++n;
    }
  }
  stream[n] = 0;
  for (int32_t k = 0; k < 4; ++k) stream[n + 1 + k] = int32_t((response >> (8 * k)) & 0xFF);
  return n + 5;
}

// The gateway may take its time over the response. On a polling link the method returns
// 0x10100 until the answer is there and is called again; a call that finds an exchange under
// way only waits for its answer.
uint32_t Ccom::kavEnterPrivilegedMode(const char* psClientDescription, int32_t* plError) {
  TraceMethod("kavEnterPrivilegedMode-->");
  if (nDemo == 0) {
    if (bNewPrivilegedExchange.load()) {
      uint32_t result = port_->GenerateService(kServiceChallenge, nullptr, nullptr);
      if (result != 0) {
        *plError = int32_t(result);
        return 0;
      }
      int32_t challenge = 0;
      int32_t count = 0;
      result = port_->ReceiveClock(kServiceChallenge, &challenge, &count, 1);
      if (result != 0) {
        *plError = int32_t(result);
        return rc::kAnswerFailed;
      }
      bNewPrivilegedExchange.store(false);
      int32_t stream[kStreamCapacity];
      const int32_t length =
          CComPort::BuildPrivilegedStream(uint32_t(challenge), psClientDescription, abyPrivilegedBits, stream);
      TraceMethod("kavEnterPrivilegedMode--> Stream:");
      result = port_->GenerateService(kServicePrivilegedRequest, stream, &length);
      if (result != 0) {
        *plError = int32_t(result);
        return 0;
      }
    }
    int32_t work = 0;
    int32_t count = 0;
    const uint32_t c = port_->AnswerReception(kServicePrivilegedRequest, &work, &count, 1);
    if (c != 0) {
      TraceMethodFormat("kavEnterPrivilegedMode<-- ERROR: %d", int32_t(c));
      if (c == rc::kNoDataYet) {
        *plError = int32_t(c);
        return 0;
      }
      bNewPrivilegedExchange.store(true);
      if ((c & 0x8000u) == 0) {
        *plError = int32_t(c);
        return 0;
      }
      if ((c & 0x4000u) == 0) {
        *plError = int32_t(rc::kPrivilegedRefused8);
        return 0;
      }
      *plError = int32_t(rc::kPrivilegedRefusedC);
      return rc::kPrivilegedRefusedC;
    }
    bNewPrivilegedExchange.store(true);
  }
  TraceMethod("kavEnterPrivilegedMode<--");
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVGetPrivilegedChannel(int32_t* plChannelId, int32_t* plError) {
  return RunExchange({.name = "kaVGetPrivilegedChannel",
                      .service = kServicePrivilegedChannel,
                      .values = plChannelId,
                      .capacity = 1,
                      .error = plError});
}

uint32_t Ccom::kavGetPrivilegedName(char* psName, int32_t* plSizeOfData, int32_t* plError) {
  return StringMethod("kavGetPrivilegedName", kServicePrivilegedName, nullptr, psName, plSizeOfData, plError);
}

}  // namespace tamrik
