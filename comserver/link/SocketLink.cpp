#include "link/SocketLink.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ResultCodes.h"
#include "protocol/Codec.h"
#include "protocol/LinkArgument.h"

namespace tamrik {

using platform::kInvalidSocket;

namespace {

// The UDP link by port number uses these two fixed addresses.
constexpr const char* kUdpLocalAddress = "192.168.0.1";
constexpr const char* kUdpRemoteAddress = "192.168.0.99";

// A TCP connection gets this long to be made before the open returns.
constexpr uint32_t kConnectWaitMs = 100;

}  // namespace

SocketLink::SocketLink(const PortTimings& timings, uint8_t major, uint8_t minor)
    : timings_(timings), startup_(platform::NetStartup(major, minor)) {}

SocketLink::~SocketLink() {
  // A link replaced without a close still gives its socket and its start-up back.
  if (!closed_) {
    if (socket_ != kInvalidSocket) platform::SocketClose(socket_);
    platform::NetCleanup();
  }
}

uint32_t SocketLink::OpenByPort(int32_t nPort) {
  if (startup_ != 0) return uint32_t(startup_);
  socket_ = platform::SocketCreate(true);
  if (socket_ == kInvalidSocket) return rc::kNoSocket;
  datagram_ = true;
  byPortNumber_ = true;

  const uint16_t port = uint16_t(uint32_t(nPort) & 0xFFFF);
  local_.port = port;
  protocol::ParseIpv4(kUdpLocalAddress, &local_.address);
  const int32_t bindError = platform::SocketBind(socket_, local_.address, port);
  if (bindError != 0) return uint32_t(bindError);

  remote_.port = port;
  protocol::ParseIpv4(kUdpRemoteAddress, &remote_.address);
  if (platform::SocketConnect(socket_, remote_.address, port) != 0) return 1;
  // The reads wait with a bound of their own; the socket itself never blocks the caller.
  platform::SocketSetNonBlocking(socket_);
  return rc::kOk;
}

uint32_t SocketLink::OpenByAddress(const char* argument, const char* address) {
  if (startup_ != 0) return 1;
  const protocol::EthernetArgument parsed = protocol::ParseEthernetArgument(argument);
  if (parsed.transport != protocol::EthernetTransport::None) {
    datagram_ = parsed.transport == protocol::EthernetTransport::Udp;
    socket_ = platform::SocketCreate(datagram_);
  }
  if (socket_ == kInvalidSocket) return 2;
  platform::SocketSetNonBlocking(socket_);

  remote_.port = parsed.port;
  // Windows Sockets refuses 0.0.0.0 and an unconvertible address at once, where Linux would
  // quietly connect to the local host; report both the same way everywhere.
  if (address == nullptr || !protocol::ParseIpv4(address, &remote_.address) || remote_.address == 0) {
    return rc::kConnectErrorBase + uint32_t(wsa::kAddrNotAvail);
  }
  const int32_t error = platform::SocketConnect(socket_, remote_.address, remote_.port);
  if (error != 0 && error != wsa::kWouldBlock) return rc::kConnectErrorBase + uint32_t(error);
  // Give a TCP connection the tenth of a second it was always given, but no longer than it
  // needs: the wait ends as soon as the connection is made. A connection refused (or found
  // unreachable) within it is reported as the failed connect it is, not left for the first
  // request to meet as a write failure.
  const int32_t outcome = platform::SocketWaitConnected(socket_, kConnectWaitMs);
  if (outcome != 0) return rc::kConnectErrorBase + uint32_t(outcome);
  return rc::kOk;
}

void SocketLink::Adopt(platform::SocketHandle socket, bool datagram) {
  socket_ = socket;
  datagram_ = datagram;
  platform::SocketSetNonBlocking(socket_);
}

uint32_t SocketLink::ReadBoundMs() const {
  return byPortNumber_ ? timings_.activeTotalConstant : timings_.socketAnswerMs;
}

// Serves exactly `length` bytes from the staging area, receiving into it as needed. Bytes
// received beyond what this read needs stay there for the next read: nothing is dropped and
// nothing is served twice.
uint32_t SocketLink::Read(uint8_t* buffer, int32_t length, ReadWait wait) {
  if (length < 0) return rc::kReadFailed;
  if (socket_ == kInvalidSocket) return uint32_t(wsa::kNotSocket);
  Trace("Read In");
  const uint32_t wanted = uint32_t(length);
  const uint32_t bound =
      byPortNumber_ ? timings_.readTotalMultiplier * wanted + timings_.activeTotalConstant : timings_.socketAnswerMs;
  uint64_t deadline = 0;
  bool started = false;
  uint32_t copied = 0;
  while (true) {
    const uint32_t take = std::min(wanted - copied, stagedEnd_ - stagedBegin_);
    if (take > 0) {
      memcpy(buffer + copied, staging_ + stagedBegin_, take);
      stagedBegin_ += take;
      copied += take;
    }
    if (copied == wanted) break;
    stagedBegin_ = 0;
    stagedEnd_ = 0;
    int32_t received;
    if (wait == ReadWait::ReturnWhenEmpty && copied == 0) {
      received = platform::SocketRecv(socket_, staging_, kStagingSize);
      if (received == -wsa::kWouldBlock) return rc::kNoDataYet;
    } else {
      // One waiting receive, not a look followed by a wait: an answer that is not there
      // yet costs the same single system call as in a blocking client.
      const uint64_t now = platform::MonotonicMs();
      if (!started) {
        started = true;
        deadline = now + bound;
      } else if (now >= deadline) {
        if (trace_ != nullptr) {
          char text[48];
          snprintf(text, sizeof text, "WSAGetLastError: %X", uint32_t(wsa::kWouldBlock));
          Trace(text);
        }
        return rc::kReadShort;
      }
      received = platform::SocketRecvWait(socket_, staging_, kStagingSize, uint32_t(deadline - now));
    }
    if (received > 0) {
      stagedEnd_ = uint32_t(received);
      continue;
    }
    if (received == 0) {
      if (datagram_) continue;  // an empty datagram carries nothing
      return uint32_t(wsa::kConnReset);  // the peer closed the stream
    }
    if (received != -wsa::kWouldBlock) return uint32_t(-received);
  }
  Trace("Read OUT");
  return rc::kOk;
}

uint32_t SocketLink::Write(const uint8_t* buffer, int32_t length) {
  if (length < 0) return 1;
  const int32_t sent = platform::SocketSend(socket_, buffer, uint32_t(length));
  // A frame that leaves only in part is as lost as one that does not leave at all.
  return sent == length ? rc::kOk : 1;
}

uint32_t SocketLink::Close() {
  if (socket_ != kInvalidSocket) platform::SocketClose(socket_);
  socket_ = kInvalidSocket;
  // The thread's last socket error, whatever call left it: a close that went well says nothing.
  if (trace_ != nullptr) {
    char text[64];
    snprintf(text, sizeof text, "Socket WSAGetLastError: %x", uint32_t(platform::SocketLastError()));
    Trace(text);
  }
  platform::NetCleanup();
  closed_ = true;
  return rc::kOk;
}

}  // namespace tamrik
