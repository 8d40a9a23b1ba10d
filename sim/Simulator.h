// The gateway simulator: a Gateway (service engine, faults, scripted answers, request log)
// reachable over TCP, UDP and a pseudo-terminal, each served by a thread of its own. The
// destructor stops every thread.
//
//   tamrik::sim::Simulator sim;
//   const uint16_t port = sim.StartTcp();          // 127.0.0.1, ephemeral port
//   sim.FaultNextAnswer(AnswerFault().Noise(3));
//   ... the driver under test talks to 127.0.0.1:port ...
//   sim.WaitForRequests(1, 1000);
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "SimGateway.h"
#include "SimStation.h"

namespace tamrik::sim {

namespace detail {
class TcpLink;
class UdpLink;
class PtyLink;
}  // namespace detail

class Simulator : public Gateway {
 public:
  explicit Simulator(Station station = DefaultStation());
  ~Simulator() override;

  // Each link can be started once; the functions throw std::system_error when the system
  // refuses (port in use, no pseudo-terminal, link path taken by a file that is no link).
  // Port 0 picks a free port. The address is the one to listen on; the default keeps the
  // simulator reachable from this machine only.
  uint16_t StartTcp(uint16_t port = 0, const std::string& address = "127.0.0.1");
  uint16_t StartUdp(uint16_t port = 0, const std::string& address = "127.0.0.1");
  // Returns the slave device path; with linkPath, a symbolic link there points to it (an
  // older link there is replaced) and is removed again by Stop.
  std::string StartPty(const std::string& linkPath = {});

  // Stops and closes every link; a link may be started again afterwards.
  void Stop();

  uint16_t TcpPort() const;
  std::string PtyPath() const;
  uint32_t TcpConnectionsAccepted() const;

  // Time after which an unfinished request frame is given up (default 500 ms); links
  // started afterwards use it. 0 waits forever.
  void SetStallTimeout(uint32_t ms);

 private:
  mutable std::mutex linksMutex_;
  uint32_t stallMs_ = 500;
  std::unique_ptr<detail::TcpLink> tcp_;
  std::unique_ptr<detail::UdpLink> udp_;
  std::unique_ptr<detail::PtyLink> pty_;
};

}  // namespace tamrik::sim
