// The declared test peers of the driver object and the port object: what tests may look at
// and set inside them, named here once instead of reached as raw fields.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

#include "ComPort2.h"
#include "com.h"
#include "link/SocketLink.h"

namespace tamrik {

class CcomTestPeer {
 public:
  static CComPort& Port(Ccom& com) { return *com.port_; }
  static int32_t& ComPortNumber(Ccom& com) { return com.nComPort; }
  static int32_t& Baudrate(Ccom& com) { return com.nBaudrate; }
  static int32_t Demo(const Ccom& com) { return com.nDemo; }
  static int32_t Log(const Ccom& com) { return com.nLog; }
  static const std::string& ConfigFile(const Ccom& com) { return com.szConfigFile; }
  static const std::string& DemoFile(const Ccom& com) { return com.szDemoFile; }
  static const std::string& BootFile(const Ccom& com) { return com.szBootFile; }
  static const uint8_t* PrivilegedBits(const Ccom& com) { return com.abyPrivilegedBits; }
  // Holds the busy flag as another busy-guarded call would.
  static std::atomic<uint8_t>& Busy(Ccom& com) { return com.busy_; }
  // The process-wide state of the privileged exchange.
  static std::atomic<bool>& NewPrivilegedExchange() { return Ccom::bNewPrivilegedExchange; }
};

class CComPortTestPeer {
 public:
  static bool LinkOpen(const CComPort& port) { return port.link_ != nullptr; }
  static ExchangeState& Exchange(CComPort& port) { return port.exchange_; }
  static uint32_t LoadIndex(const CComPort& port) { return port.load_.index; }
  // Gives the port a download file as a reader would have left it.
  static void SetLoadFile(CComPort& port, FILE* file, uint32_t index) {
    port.load_.file.reset(file);
    port.load_.index = index;
  }
  // The local end of a socket link, or nothing when the port holds none.
  static const Ipv4Address* SocketLocal(const CComPort& port) {
    const auto* socket = dynamic_cast<const SocketLink*>(port.link_.get());
    return socket != nullptr ? &socket->local() : nullptr;
  }
  // Links the port to a stream socket made elsewhere (one end of a socket pair).
  static void AdoptStreamSocket(CComPort& port, platform::SocketHandle socket) {
    auto link = std::make_unique<SocketLink>(port.timings_, 2, 2);
    link->SetTrace(&CComPort::TraceFromLink, &port);
    link->Adopt(socket, false);
    port.link_ = std::move(link);
  }
};

}  // namespace tamrik
