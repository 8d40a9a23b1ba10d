// The one transport a port object holds: a serial line, a stream socket or a datagram socket.
// The port object chooses it at open and destroys it at close; everything above it (the stream
// layer, the service protocol, the downloads) goes through this interface and never asks which
// kind of link it talks to.
#pragma once

#include <cstdint>

namespace tamrik {

// How long a link by address (TCP or UDP) waits for an answer to begin, unless configured.
inline constexpr uint32_t kDefaultSocketAnswerMs = 110;

// The read time-outs of the port object: the Windows serial driver's three values, the one in
// force (the firmware timing raises it during downloads), and the bound of a link by address.
// The port owns them; a link reads them where it waits. These defaults are the driver's.
struct PortTimings {
  uint32_t readInterval = 200;
  uint32_t readTotalMultiplier = 0;
  uint32_t readTotalConstant = 500;
  uint32_t readTotalConstantFW = 3000;
  uint32_t activeTotalConstant = 500;
  uint32_t socketAnswerMs = kDefaultSocketAnswerMs;
};

// How a read waits when nothing has arrived: up to the link's bound, or (the start-byte search
// of a polling link) not at all, with 0x10100.
enum class ReadWait { Bounded, ReturnWhenEmpty };

class Link {
 public:
  virtual ~Link() = default;

  // Exactly length bytes into buffer: 0, or the code of the failure.
  virtual uint32_t Read(uint8_t* buffer, int32_t length, ReadWait wait) = 0;
  // length bytes out in one transfer: 0, or the code of the failure.
  virtual uint32_t Write(const uint8_t* buffer, int32_t length) = 0;
  // How long one read of an answer may wait, for the budget of a whole reception.
  virtual uint32_t ReadBoundMs() const = 0;
  // Whether the link keeps device read time-outs, which the firmware timing changes; those
  // that do take the one in force from the port's timings.
  virtual bool HasDeviceTimeouts() const { return false; }
  virtual void ApplyDeviceTimeouts() {}
  // Ends the link; the result that closing the port reports.
  virtual uint32_t Close() = 0;
};

}  // namespace tamrik
