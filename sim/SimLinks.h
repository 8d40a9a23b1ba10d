// The simulator's links: each serves one transport on a thread of its own; the session and
// socket pieces are shared with the fleet's connections. Internal to the simulator; tests and
// tools use Simulator and Fleet.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "SimFrame.h"
#include "SimGateway.h"

namespace tamrik::sim::detail {

using Clock = std::chrono::steady_clock;

// Answers waiting for their time. Ordinary answers leave in the order of their requests, so
// a delayed answer holds back the ones behind it; late answers keep their own time.
class Outbox {
 public:
  struct Item {
    Clock::time_point due;
    Delivery delivery;
    sockaddr_in peer{};  // where a datagram goes
  };

  void Add(Delivery delivery, Clock::time_point now, const sockaddr_in& peer = {});
  std::optional<Clock::time_point> NextDue() const;
  // Removes and returns the item due first if its time has come.
  std::optional<Item> TakeDue(Clock::time_point now);
  void Clear();

 private:
  std::deque<Item> items_;
  Clock::time_point lastInOrder_{};
};

// A non-blocking TCP socket listening on address:port (0: a free port), with SO_REUSEADDR so
// that a port whose connections linger in TIME_WAIT can be taken again. Throws
// std::system_error.
int ListenTcp(const std::string& address, uint16_t port, int backlog);
// The port a socket is bound to.
uint16_t BoundPort(int fd);
// Accepts one connection, non-blocking and without Nagle's delay; -1 when none is waiting.
int AcceptTcp(int listenFd);

// Sleeps until an absolute time on the monotonic clock, to well under 100 us.
void SleepUntil(Clock::time_point t);

// The gateway's side of one byte stream, without its I/O: received bytes are parsed into
// frames, each is served, and the answers wait in the outbox for their time. A link thread
// and the fleet's connections both drive one of these per peer.
class Session {
 public:
  Session(Gateway& gateway, LinkKind kind, uint32_t stallMs);

  // Feeds received bytes to the parser and schedules the answers to the frames found.
  void Receive(std::span<const uint8_t> bytes, Clock::time_point now, const sockaddr_in& peer = {});
  // Drops a start byte whose frame has not completed after the stall time.
  void CheckStall(Clock::time_point now);
  // The outbox item due first, if its time has come.
  std::optional<Outbox::Item> TakeDue(Clock::time_point now) { return outbox_.TakeDue(now); }
  // When something is next to do: an answer due, or a partial frame that will stall.
  std::optional<Clock::time_point> NextWake() const;
  // Forgets the bytes received and the answers not yet sent, as a new connection starts.
  void Reset();
  // Forgets a partial frame only: a datagram from another sender starts afresh.
  void ResetParser() { parser_.Reset(); }

 private:
  Gateway& gateway_;
  const LinkKind kind_;
  const uint32_t stallMs_;
  FrameParser parser_;
  Outbox outbox_;
  Clock::time_point lastInput_{};
};

class Link {
 public:
  Link(Gateway& gateway, LinkKind kind, uint32_t stallMs);
  virtual ~Link();
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  void Start();
  // Stops the thread and waits for it; safe to call more than once.
  void Stop();

 protected:
  virtual void Run() = 0;

  void Receive(std::span<const uint8_t> bytes, const sockaddr_in& peer = {}) {
    session_.Receive(bytes, Clock::now(), peer);
  }
  void CheckStall(Clock::time_point now) { session_.CheckStall(now); }
  // Runs every outbox item whose time has come.
  void RunDue();
  // Poll time-out in ms until the next thing to do (capped), from the outbox and the stall.
  int PollTimeout() const;

  // Sends one answer's bytes to the peer; pacing is done by the caller.
  virtual void Transmit(std::span<const uint8_t> bytes, const sockaddr_in& peer) = 0;
  virtual void DropPeer() = 0;
  // Writes bytes one by one (or a few at a time when late) at the line speed.
  void TransmitPaced(std::span<const uint8_t> bytes, uint32_t baud, const sockaddr_in& peer);
  // Writes all bytes to a non-blocking fd, waiting for room at most a second in all.
  bool WriteAll(int fd, std::span<const uint8_t> bytes, bool socket);
  // Waits for the stop signal at most ms.
  void WaitForStop(int ms);

  const LinkKind kind_;
  std::atomic<bool> stop_{false};
  int wakeFd_ = -1;
  Session session_;

 private:
  std::thread thread_;
};

class TcpLink : public Link {
 public:
  TcpLink(Gateway& gateway, const std::string& address, uint16_t port, uint32_t stallMs);
  ~TcpLink() override;
  uint16_t Port() const { return port_; }
  uint32_t ConnectionsAccepted() const { return accepted_.load(); }

 private:
  void Run() override;
  void Transmit(std::span<const uint8_t> bytes, const sockaddr_in& peer) override;
  void DropPeer() override;
  void CloseClient();

  int listenFd_ = -1;
  int clientFd_ = -1;
  uint16_t port_ = 0;
  std::atomic<uint32_t> accepted_{0};
};

class UdpLink : public Link {
 public:
  UdpLink(Gateway& gateway, const std::string& address, uint16_t port, uint32_t stallMs);
  ~UdpLink() override;
  uint16_t Port() const { return port_; }

 private:
  void Run() override;
  void Transmit(std::span<const uint8_t> bytes, const sockaddr_in& peer) override;
  void DropPeer() override {}

  int fd_ = -1;
  uint16_t port_ = 0;
  sockaddr_in lastPeer_{};
};

class PtyLink : public Link {
 public:
  PtyLink(Gateway& gateway, const std::string& linkPath, uint32_t stallMs);
  ~PtyLink() override;
  const std::string& SlavePath() const { return slavePath_; }

 private:
  void Run() override;
  void Transmit(std::span<const uint8_t> bytes, const sockaddr_in& peer) override;
  void DropPeer() override;

  int masterFd_ = -1;
  int slaveFd_ = -1;  // kept open so that the host's closing the device never hangs up the master
  std::string slavePath_;
  std::string linkPath_;
};

}  // namespace tamrik::sim::detail
