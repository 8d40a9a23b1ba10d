// A driver object linked to its own simulated gateway over a pseudo-terminal, loopback TCP
// or loopback UDP, with short serial time-outs so that failures cost little time.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ResultCodes.h"
#include "Simulator.h"
#include "com.h"
#include "common/TestPeers.h"
#include "common/TestSupport.h"

namespace tamrik::test {

enum class Link { Pty, Tcp, Udp };

inline const char* LinkLabel(Link link) {
  switch (link) {
    case Link::Pty:
      return "Pty";
    case Link::Tcp:
      return "Tcp";
    default:
      return "Udp";
  }
}

inline constexpr int kPtyComPort = 7;

class LinkedDriver {
 public:
  explicit LinkedDriver(Link link, int logfile = 0, int readTotalConstant = 150) : link_(link) {
    DriverConfig config;
    config.logfile = logfile;
    config.baudrate = 115200;
    config.readTotalConstant = readTotalConstant;
    if (link == Link::Pty) config.ports[kPtyComPort] = sim_.StartPty();
    if (link == Link::Tcp) tcpPort_ = sim_.StartTcp();
    if (link == Link::Udp) udpPort_ = sim_.StartUdp();
    com_ = std::make_unique<Ccom>(config);
    openResult_ = Open();
  }

  // Opens (again) the link the driver was made for; the open's error code.
  int32_t Open() {
    int32_t error = -1;
    switch (link_) {
      case Link::Pty:
        com_->kaVOpenComPort(kPtyComPort, &error);
        break;
      case Link::Tcp:
        com_->kaVOpenEthernet(std::to_string(tcpPort_).c_str(), "127.0.0.1", &error);
        break;
      case Link::Udp:
        com_->kaVOpenEthernet((std::to_string(udpPort_) + ",UDP").c_str(), "127.0.0.1", &error);
        break;
    }
    return error;
  }

  Ccom& com() { return *com_; }
  CComPort& port() { return *&CcomTestPeer::Port(*com_); }
  sim::Simulator& sim() { return sim_; }
  Link link() const { return link_; }
  int32_t openResult() const { return openResult_; }

 private:
  Link link_;
  sim::Simulator sim_;
  uint16_t tcpPort_ = 0;
  uint16_t udpPort_ = 0;
  std::unique_ptr<Ccom> com_;
  int32_t openResult_ = -1;
};

}  // namespace tamrik::test
