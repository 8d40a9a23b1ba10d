// Loopback clients with bounded reads for the simulator's tests.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SimFrame.h"

namespace tamrik::sim::test {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

inline Bytes HexBytes(const std::string& text) {
  Bytes out;
  std::istringstream in(text);
  std::string tok;
  while (in >> tok) out.push_back(uint8_t(std::stoul(tok, nullptr, 16)));
  return out;
}

inline std::string ToHex(const Bytes& b) {
  std::string out;
  char buf[4];
  for (size_t i = 0; i < b.size(); ++i) {
    std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]);
    out += buf;
  }
  return out;
}

// A path in the test's temporary directory that no other test process uses at the same time.
inline std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + name + "_" + std::to_string(getpid());
}

inline Bytes Request(uint16_t code, const Bytes& data = {}) { return BuildFrame(code, data); }

inline int64_t MsSince(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// A descriptor that reads with a deadline; closes it on destruction.
class FdClient {
 public:
  FdClient() = default;
  explicit FdClient(int fd) : fd_(fd) {}
  ~FdClient() { Close(); }
  FdClient(const FdClient&) = delete;
  FdClient& operator=(const FdClient&) = delete;

  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int fd() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

  bool Send(const Bytes& b) { return write(fd_, b.data(), b.size()) == ssize_t(b.size()); }

  // Reads until n bytes came or timeoutMs passed; returns what came.
  Bytes Read(size_t n, int timeoutMs) {
    Bytes out;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out.size() < n) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, int(left)) <= 0) break;
      uint8_t buf[4096];
      const ssize_t got = read(fd_, buf, std::min(sizeof buf, n - out.size()));
      if (got <= 0) break;
      out.insert(out.end(), buf, buf + got);
    }
    return out;
  }

  // What one read returns once something is there, or nothing after timeoutMs.
  Bytes ReadSome(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return {};
    uint8_t buf[4096];
    const ssize_t got = read(fd_, buf, sizeof buf);
    return got > 0 ? Bytes(buf, buf + got) : Bytes{};
  }

  // Reads one answer frame (skipping nothing): header first, then the rest.
  Bytes ReadFrame(int timeoutMs) {
    Bytes head = Read(5, timeoutMs);
    if (head.size() < 5) return head;
    const size_t n = size_t(head[3] | head[4] << 8) + 2;
    Bytes rest = Read(n, timeoutMs);
    head.insert(head.end(), rest.begin(), rest.end());
    return head;
  }

  // True when the peer closed the connection within timeoutMs.
  bool SeesClose(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    uint8_t b;
    return read(fd_, &b, 1) == 0;
  }

 protected:
  int fd_ = -1;
};

class TcpClient : public FdClient {
 public:
  explicit TcpClient(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Close();
  }
};

class UdpClient : public FdClient {
 public:
  explicit UdpClient(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Close();
  }
  // One datagram, or nothing after timeoutMs.
  Bytes Receive(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return {};
    uint8_t buf[65536];
    const ssize_t got = recv(fd_, buf, sizeof buf, 0);
    return got > 0 ? Bytes(buf, buf + got) : Bytes{};
  }
};

class PtyClient : public FdClient {
 public:
  explicit PtyClient(const std::string& path) { fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); }
};

}  // namespace tamrik::sim::test
