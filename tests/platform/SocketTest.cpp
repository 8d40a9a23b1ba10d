#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "ResultCodes.h"
#include "platform/Platform.h"

namespace tamrik::platform {
namespace {

using Clock = std::chrono::steady_clock;

const uint32_t kLoopback = htonl(INADDR_LOOPBACK);

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

uint16_t LocalPort(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  return ntohs(addr.sin_port);
}

// A socket of the test's own, bound to a free loopback port; listening when asked.
int PlainSocket(int type, bool listening) {
  int fd = ::socket(AF_INET, type, 0);
  EXPECT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = kLoopback;
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  if (listening) {
    EXPECT_EQ(::listen(fd, 4), 0);
  }
  return fd;
}

// Accepts one connection, waiting at most two seconds.
int AcceptOne(int listener) {
  pollfd p{listener, POLLIN, 0};
  if (::poll(&p, 1, 2000) != 1) return -1;
  return ::accept(listener, nullptr, nullptr);
}


TEST(Socket, RefusedConnectionIsReportedByEveryLaterCall) {
  EXPECT_EQ(NetStartup(2, 2), 0);
  // Bound but not listening: a connect to it is refused.
  int closed = PlainSocket(SOCK_STREAM, false);
  uint16_t port = LocalPort(closed);

  SocketHandle s = SocketCreate(false);
  ASSERT_NE(s, kInvalidSocket);
  SocketSetNonBlocking(s);
  int32_t result = SocketConnect(s, kLoopback, port);
  EXPECT_TRUE(result == wsa::kWouldBlock || result == wsa::kConnRefused) << result;
  EXPECT_EQ(SocketWaitReadable(s, 2000), 1);
  uint8_t buffer[8];
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnRefused);
  EXPECT_EQ(SocketLastError(), wsa::kConnRefused);
  EXPECT_EQ(SocketWaitReadable(s, 0), 1);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnRefused);
  EXPECT_EQ(SocketSend(s, buffer, 3), -wsa::kConnRefused);
  SocketClose(s);

  // The same when a send is the first to ask.
  s = SocketCreate(false);
  SocketSetNonBlocking(s);
  SocketConnect(s, kLoopback, port);
  SocketWaitReadable(s, 2000);
  EXPECT_EQ(SocketSend(s, buffer, 3), -wsa::kConnRefused);
  EXPECT_EQ(SocketSend(s, buffer, 3), -wsa::kConnRefused);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnRefused);
  SocketClose(s);

  // A blocking connect reports the refusal itself.
  s = SocketCreate(false);
  EXPECT_EQ(SocketConnect(s, kLoopback, port), wsa::kConnRefused);
  EXPECT_EQ(SocketLastError(), wsa::kConnRefused);
  SocketClose(s);
  ::close(closed);
  NetCleanup();
}

TEST(Socket, StreamExchangeWaitsAndReportsThePeer) {
  int listener = PlainSocket(SOCK_STREAM, true);
  SocketHandle s = SocketCreate(false);
  // Requests leave whole and at once, never held back for an acknowledgement.
  int noDelay = 0;
  socklen_t noDelayLength = sizeof noDelay;
  ASSERT_EQ(::getsockopt(int(s), IPPROTO_TCP, TCP_NODELAY, &noDelay, &noDelayLength), 0);
  EXPECT_NE(noDelay, 0);
  SocketSetNonBlocking(s);
  int32_t result = SocketConnect(s, kLoopback, LocalPort(listener));
  EXPECT_TRUE(result == 0 || result == wsa::kWouldBlock) << result;
  int peer = AcceptOne(listener);
  ASSERT_GE(peer, 0);
  SocketWaitConnected(s, 2000);

  // Nothing there yet: would block at once, and a wait runs out its time.
  uint8_t buffer[16];
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kWouldBlock);
  EXPECT_EQ(SocketLastError(), wsa::kWouldBlock);
  auto start = Clock::now();
  EXPECT_EQ(SocketWaitReadable(s, 150), 0);
  int64_t elapsed = MsSince(start);
  EXPECT_GE(elapsed, 149);
  EXPECT_LT(elapsed, 150 + 400);
  EXPECT_EQ(SocketWaitReadable(s, 0), 0);

  // Readiness ends the wait early.
  EXPECT_EQ(SocketSend(s, reinterpret_cast<const uint8_t*>("\xAA\x01\x02"), 3), 3);
  char request[3];
  ASSERT_EQ(::recv(peer, request, 3, MSG_WAITALL), 3);
  EXPECT_EQ(std::memcmp(request, "\xAA\x01\x02", 3), 0);
  std::thread answer([peer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::send(peer, "answer", 6, 0);
  });
  start = Clock::now();
  EXPECT_EQ(SocketWaitReadable(s, 3000), 1);
  elapsed = MsSince(start);
  answer.join();
  EXPECT_GE(elapsed, 90);
  EXPECT_LT(elapsed, 100 + 400);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), 6);
  EXPECT_EQ(std::string(buffer, buffer + 6), "answer");

  // The thread's last error is its own.
  SocketRecv(s, buffer, sizeof buffer);
  ASSERT_EQ(SocketLastError(), wsa::kWouldBlock);
  int32_t otherThread = -1;
  std::thread([&otherThread] { otherThread = SocketLastError(); }).join();
  EXPECT_EQ(otherThread, 0);

  // An orderly close by the peer: readable, and a receive of 0 bytes.
  ::close(peer);
  EXPECT_EQ(SocketWaitReadable(s, 2000), 1);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), 0);
  SocketClose(s);

  // A reset by the peer stays a reset for every later call.
  s = SocketCreate(false);
  SocketSetNonBlocking(s);
  SocketConnect(s, kLoopback, LocalPort(listener));
  peer = AcceptOne(listener);
  ASSERT_GE(peer, 0);
  SocketWaitConnected(s, 2000);
  linger abort{1, 0};
  ASSERT_EQ(::setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
  ::close(peer);
  EXPECT_EQ(SocketWaitReadable(s, 2000), 1);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnReset);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnReset);
  EXPECT_EQ(SocketSend(s, buffer, 1), -wsa::kConnReset);
  SocketClose(s);
  ::close(listener);
}

// The waiting receive switches the socket into a mode of its own; the calls that must not
// wait have to stay that way around it, and the wait has to keep its bound.
TEST(Socket, WaitingReceiveKeepsItsBoundAndLeavesOtherCallsWithoutWait) {
  int listener = PlainSocket(SOCK_STREAM, true);
  SocketHandle s = SocketCreate(false);
  SocketSetNonBlocking(s);
  SocketConnect(s, kLoopback, LocalPort(listener));
  int peer = AcceptOne(listener);
  ASSERT_GE(peer, 0);
  SocketWaitConnected(s, 2000);

  uint8_t buffer[16];
  auto start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 150), -wsa::kWouldBlock);
  int64_t elapsed = MsSince(start);
  EXPECT_GE(elapsed, 149);
  EXPECT_LT(elapsed, 150 + 400);
  EXPECT_EQ(SocketLastError(), wsa::kWouldBlock);
  start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 0), -wsa::kWouldBlock);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kWouldBlock);
  EXPECT_LT(MsSince(start), 100);

  // A bound that changes between waits is the one that holds.
  start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 40), -wsa::kWouldBlock);
  elapsed = MsSince(start);
  EXPECT_GE(elapsed, 39);
  EXPECT_LT(elapsed, 40 + 400);

  // An answer that arrives during the wait ends it.
  std::thread answer([peer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::send(peer, "answer", 6, 0);
  });
  start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 3000), 6);
  elapsed = MsSince(start);
  answer.join();
  EXPECT_GE(elapsed, 90);
  EXPECT_LT(elapsed, 100 + 400);
  EXPECT_EQ(std::string(buffer, buffer + 6), "answer");

  // A send into a full connection still does not wait: the peer reads nothing. (A send
  // that did wait is cut off after a second, so a fault shows as time, not as a hang.)
  int small = 4096;
  timeval safety{1, 0};
  ASSERT_EQ(::setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
  ASSERT_EQ(::setsockopt(static_cast<int>(s), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  ASSERT_EQ(::setsockopt(static_cast<int>(s), SOL_SOCKET, SO_SNDTIMEO, &safety, sizeof safety), 0);
  static uint8_t block[4096];
  int32_t sent = 0;
  start = Clock::now();
  for (int i = 0; i < 4096 && (sent = SocketSend(s, block, sizeof block)) > 0; ++i) {
  }
  EXPECT_EQ(sent, -wsa::kWouldBlock);
  EXPECT_LT(MsSince(start), 500);

  // Set non-blocking again by its owner, the socket still waits when asked to.
  SocketSetNonBlocking(s);
  start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 60), -wsa::kWouldBlock);
  EXPECT_GE(MsSince(start), 59);

  // A reset during the wait ends it and stays.
  std::thread reset([peer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    linger abort{1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(peer);
  });
  start = Clock::now();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 3000), -wsa::kConnReset);
  EXPECT_LT(MsSince(start), 1000);
  reset.join();
  EXPECT_EQ(SocketRecvWait(s, buffer, sizeof buffer, 3000), -wsa::kConnReset);
  EXPECT_EQ(SocketRecv(s, buffer, sizeof buffer), -wsa::kConnReset);
  SocketClose(s);

  // Datagrams: a cut one is reported by the waiting receive as by the other.
  SocketHandle a = SocketCreate(true);
  SocketHandle b = SocketCreate(true);
  ASSERT_EQ(SocketBind(a, kLoopback, 0), 0);
  ASSERT_EQ(SocketBind(b, kLoopback, 0), 0);
  ASSERT_EQ(SocketConnect(a, kLoopback, LocalPort(static_cast<int>(b))), 0);
  ASSERT_EQ(SocketConnect(b, kLoopback, LocalPort(static_cast<int>(a))), 0);
  SocketSetNonBlocking(b);
  EXPECT_EQ(SocketSend(a, reinterpret_cast<const uint8_t*>("0123456789"), 10), 10);
  EXPECT_EQ(SocketRecvWait(b, buffer, 4, 2000), -wsa::kMsgSize);
  EXPECT_EQ(std::string(buffer, buffer + 4), "0123");
  EXPECT_EQ(SocketRecvWait(b, buffer, sizeof buffer, 0), -wsa::kWouldBlock);
  SocketClose(a);
  SocketClose(b);
  ::close(listener);
}

TEST(Socket, ConnectWaitEndsWithTheConnectionOrItsTime) {
  // A backlog of 0 takes one connection; the next one's handshake stays unanswered.
  int listener = PlainSocket(SOCK_STREAM, false);
  ASSERT_EQ(::listen(listener, 0), 0);
  uint16_t port = LocalPort(listener);

  SocketHandle first = SocketCreate(false);
  SocketSetNonBlocking(first);
  SocketConnect(first, kLoopback, port);
  auto start = Clock::now();
  SocketWaitConnected(first, 2000);
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_EQ(SocketSend(first, reinterpret_cast<const uint8_t*>("x"), 1), 1);

  SocketHandle second = SocketCreate(false);
  SocketSetNonBlocking(second);
  SocketConnect(second, kLoopback, port);
  start = Clock::now();
  SocketWaitConnected(second, 200);
  int64_t elapsed = MsSince(start);
  EXPECT_GE(elapsed, 199);
  EXPECT_LT(elapsed, 200 + 400);

  // A refused connection ends the wait at once; the refusal comes with the next call.
  int closed = PlainSocket(SOCK_STREAM, false);
  SocketHandle refused = SocketCreate(false);
  SocketSetNonBlocking(refused);
  SocketConnect(refused, kLoopback, LocalPort(closed));
  start = Clock::now();
  SocketWaitConnected(refused, 2000);
  EXPECT_LT(MsSince(start), 1000);
  uint8_t buffer[4] = {};
  EXPECT_EQ(SocketSend(refused, buffer, 1), -wsa::kConnRefused);

  SocketClose(first);
  SocketClose(second);
  SocketClose(refused);
  ::close(closed);
  ::close(listener);
}

TEST(Socket, DatagramsKeepTheirBoundariesAndReportCuts) {
  SocketHandle a = SocketCreate(true);
  SocketHandle b = SocketCreate(true);
  ASSERT_NE(a, kInvalidSocket);
  ASSERT_NE(b, kInvalidSocket);
  ASSERT_EQ(SocketBind(a, kLoopback, 0), 0);
  ASSERT_EQ(SocketBind(b, kLoopback, 0), 0);
  ASSERT_EQ(SocketConnect(a, kLoopback, LocalPort(static_cast<int>(b))), 0);
  ASSERT_EQ(SocketConnect(b, kLoopback, LocalPort(static_cast<int>(a))), 0);
  SocketSetNonBlocking(b);

  uint8_t buffer[64];
  EXPECT_EQ(SocketRecv(b, buffer, sizeof buffer), -wsa::kWouldBlock);

  EXPECT_EQ(SocketSend(a, reinterpret_cast<const uint8_t*>("0123456789"), 10), 10);
  EXPECT_EQ(SocketSend(a, reinterpret_cast<const uint8_t*>("abc"), 3), 3);
  EXPECT_EQ(SocketSend(a, reinterpret_cast<const uint8_t*>("defgh"), 5), 5);
  ASSERT_EQ(SocketWaitReadable(b, 2000), 1);

  // Longer than asked for: cut, the first part delivered, the rest gone.
  std::memset(buffer, 0, sizeof buffer);
  EXPECT_EQ(SocketRecv(b, buffer, 4), -wsa::kMsgSize);
  EXPECT_EQ(SocketLastError(), wsa::kMsgSize);
  EXPECT_EQ(std::string(buffer, buffer + 4), "0123");
  EXPECT_EQ(SocketRecv(b, buffer, sizeof buffer), 3);
  EXPECT_EQ(std::string(buffer, buffer + 3), "abc");
  EXPECT_EQ(SocketRecv(b, buffer, 5), 5);
  EXPECT_EQ(std::string(buffer, buffer + 5), "defgh");
  EXPECT_EQ(SocketRecv(b, buffer, sizeof buffer), -wsa::kWouldBlock);

  // A datagram to a port nobody holds comes back as unreachable, which Windows reports
  // to the next receive as a reset.
  int gone = PlainSocket(SOCK_DGRAM, false);
  uint16_t gonePort = LocalPort(gone);
  ::close(gone);
  SocketHandle c = SocketCreate(true);
  SocketSetNonBlocking(c);
  ASSERT_EQ(SocketConnect(c, kLoopback, gonePort), 0);
  EXPECT_EQ(SocketSend(c, buffer, 4), 4);
  EXPECT_EQ(SocketWaitReadable(c, 2000), 1);
  EXPECT_EQ(SocketRecv(c, buffer, sizeof buffer), -wsa::kConnReset);
  EXPECT_EQ(SocketRecv(c, buffer, sizeof buffer), -wsa::kWouldBlock);  // not sticky

  SocketClose(a);
  SocketClose(b);
  SocketClose(c);
}

TEST(Socket, AddressErrorsUseWindowsNumbers) {
  // A second bind to a port in use.
  for (bool datagram : {false, true}) {
    SocketHandle first = SocketCreate(datagram);
    SocketHandle second = SocketCreate(datagram);
    ASSERT_EQ(SocketBind(first, kLoopback, 0), 0);
    uint16_t port = LocalPort(static_cast<int>(first));
    EXPECT_EQ(SocketBind(second, kLoopback, port), wsa::kAddrInUse) << datagram;
    EXPECT_EQ(SocketLastError(), wsa::kAddrInUse);
    SocketClose(first);
    SocketClose(second);
  }

  // Windows refuses the address 0.0.0.0 and port 0 as a destination; Linux would take
  // the first for this machine.
  SocketHandle s = SocketCreate(true);
  EXPECT_EQ(SocketConnect(s, htonl(INADDR_ANY), 4000), wsa::kAddrNotAvail);
  EXPECT_EQ(SocketLastError(), wsa::kAddrNotAvail);
  EXPECT_EQ(SocketConnect(s, kLoopback, 0), wsa::kAddrNotAvail);
  SocketClose(s);

  // Handles that are no sockets.
  uint8_t buffer[4];
  EXPECT_EQ(SocketRecv(kInvalidSocket, buffer, 4), -wsa::kNotSocket);
  EXPECT_EQ(SocketSend(kInvalidSocket, buffer, 4), -wsa::kNotSocket);
  EXPECT_EQ(SocketWaitReadable(kInvalidSocket, 10), -wsa::kNotSocket);
  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  EXPECT_EQ(SocketRecv(pipeEnds[0], buffer, 4), -wsa::kNotSocket);
  EXPECT_EQ(SocketBind(pipeEnds[0], kLoopback, 0), wsa::kNotSocket);
  ::close(pipeEnds[0]);
  ::close(pipeEnds[1]);
}

}  // namespace
}  // namespace tamrik::platform
