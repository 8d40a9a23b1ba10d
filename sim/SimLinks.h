// The simulator's links: each serves one transport on a thread of its own. Internal to the
// simulator; tests and tools use Simulator.
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

// Sleeps until an absolute time on the monotonic clock, to well under 100 us.
void SleepUntil(Clock::time_point t);

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

  // Feeds received bytes to the parser and schedules the answers to the frames found.
  void Receive(std::span<const uint8_t> bytes, const sockaddr_in& peer = {});
  // Drops a start byte whose frame has not completed after the stall time.
  void CheckStall(Clock::time_point now);
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

  Gateway& gateway_;
  const LinkKind kind_;
  const uint32_t stallMs_;
  std::atomic<bool> stop_{false};
  int wakeFd_ = -1;
  FrameParser parser_;
  Outbox outbox_;
  Clock::time_point lastInput_{};

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
