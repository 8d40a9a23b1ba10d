#include "Simulator.h"

#include <cerrno>
#include <system_error>

#include "SimLinks.h"

namespace tamrik::sim {

Simulator::Simulator(Station station) : Gateway(std::move(station)) {}

Simulator::~Simulator() { Stop(); }

namespace {
[[noreturn]] void AlreadyStarted(const char* what) {
  throw std::system_error(EALREADY, std::generic_category(), std::string(what) + " already started");
}
}  // namespace

uint16_t Simulator::StartTcp(uint16_t port, const std::string& address) {
  std::lock_guard lock(linksMutex_);
  if (tcp_) AlreadyStarted("TCP");
  auto link = std::make_unique<detail::TcpLink>(*this, address, port, stallMs_);
  link->Start();
  tcp_ = std::move(link);
  return tcp_->Port();
}

uint16_t Simulator::StartUdp(uint16_t port, const std::string& address) {
  std::lock_guard lock(linksMutex_);
  if (udp_) AlreadyStarted("UDP");
  auto link = std::make_unique<detail::UdpLink>(*this, address, port, stallMs_);
  link->Start();
  udp_ = std::move(link);
  return udp_->Port();
}

std::string Simulator::StartPty(const std::string& linkPath) {
  std::lock_guard lock(linksMutex_);
  if (pty_) AlreadyStarted("pseudo-terminal");
  auto link = std::make_unique<detail::PtyLink>(*this, linkPath, stallMs_);
  link->Start();
  pty_ = std::move(link);
  return pty_->SlavePath();
}

void Simulator::Stop() {
  std::unique_ptr<detail::TcpLink> tcp;
  std::unique_ptr<detail::UdpLink> udp;
  std::unique_ptr<detail::PtyLink> pty;
  {
    std::lock_guard lock(linksMutex_);
    tcp = std::move(tcp_);
    udp = std::move(udp_);
    pty = std::move(pty_);
  }
  // Joined outside the lock: a log sink on a link thread may still ask for a port. Each
  // link's destructor stops its thread before it closes the link's descriptors.
  tcp.reset();
  udp.reset();
  pty.reset();
}

uint16_t Simulator::TcpPort() const {
  std::lock_guard lock(linksMutex_);
  return tcp_ ? tcp_->Port() : 0;
}

std::string Simulator::PtyPath() const {
  std::lock_guard lock(linksMutex_);
  return pty_ ? pty_->SlavePath() : std::string();
}

uint32_t Simulator::TcpConnectionsAccepted() const {
  std::lock_guard lock(linksMutex_);
  return tcp_ ? tcp_->ConnectionsAccepted() : 0;
}

void Simulator::SetStallTimeout(uint32_t ms) {
  std::lock_guard lock(linksMutex_);
  stallMs_ = ms;
}

}  // namespace tamrik::sim
