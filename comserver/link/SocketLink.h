// A socket to the gateway: a TCP or UDP link by address (non-blocking, each answer read bounded
// by the socket answer time), or the UDP link by port number between two fixed addresses
// (reads bounded by the serial line's time-outs).
#pragma once

#include <cstdint>

#include "link/Link.h"
#include "platform/Platform.h"

namespace tamrik {

// An IPv4 endpoint as the socket layer takes it.
struct Ipv4Address {
  uint32_t address = 0;  // network byte order
  uint16_t port = 0;     // host byte order
};

class SocketLink final : public Link {
 public:
  // The socket layer is started here, before anything can fail, so that the Close of a link
  // whose open failed still ends it exactly once.
  SocketLink(const PortTimings& timings, uint8_t major, uint8_t minor);
  ~SocketLink() override;
  SocketLink(const SocketLink&) = delete;
  SocketLink& operator=(const SocketLink&) = delete;

  // The UDP link by port number. 0, the start-up's error, 0xFFFFFFFF without a socket, the
  // bind's error, or 1 when connect failed.
  uint32_t OpenByPort(int32_t nPort);
  // TCP or UDP by argument string ("502", "502,UDP", "502,TCP") and dotted address. 0, 1 when
  // the socket layer did not start, 2 without a socket, 4000000 + error when connect failed
  // (also when the connection was refused within the wait for it).
  uint32_t OpenByAddress(const char* argument, const char* address);

  // A socket connected elsewhere (one end of a socket pair), made non-blocking.
  void Adopt(platform::SocketHandle socket, bool datagram);
  const Ipv4Address& local() const { return local_; }

  uint32_t Read(uint8_t* buffer, int32_t length, ReadWait wait) override;
  uint32_t Write(const uint8_t* buffer, int32_t length) override;
  uint32_t ReadBoundMs() const override;
  uint32_t Close() override;

  // The trace lines a socket read writes ("Read In", "Read OUT", the time-out's error).
  void SetTrace(void (*trace)(void* context, const char* text), void* context) {
    trace_ = trace;
    traceContext_ = context;
  }

 private:
  void Trace(const char* text) const {
    if (trace_ != nullptr) trace_(traceContext_, text);
  }

  const PortTimings& timings_;
  int32_t startup_ = 0;  // the start-up's result
  platform::SocketHandle socket_ = platform::kInvalidSocket;
  bool datagram_ = false;
  bool byPortNumber_ = false;  // reads bounded by the serial time-outs
  bool closed_ = false;
  Ipv4Address local_;
  Ipv4Address remote_;

  // Received bytes not yet served: a read takes what it needs, and what is left stays for the
  // next read, as it would in a serial line's input queue.
  static constexpr uint32_t kStagingSize = 1000;
  uint8_t staging_[kStagingSize] = {};
  uint32_t stagedBegin_ = 0;
  uint32_t stagedEnd_ = 0;

  void (*trace_)(void*, const char*) = nullptr;
  void* traceContext_ = nullptr;
};

}  // namespace tamrik
