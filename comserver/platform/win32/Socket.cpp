// IPv4 sockets over Windows Sockets 2. Error numbers are the system's own and pass through
// unchanged; the Linux side maps its errors onto these.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <climits>

#include "ResultCodes.h"
#include "platform/Platform.h"

namespace tamrik::platform {

namespace {

SOCKET Native(SocketHandle s) { return static_cast<SOCKET>(s); }

int32_t LastError() { return WSAGetLastError(); }

sockaddr_in Address(uint32_t addressNetworkOrder, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = addressNetworkOrder;
  return addr;
}

// select's time-out for the ms left; select takes a signed long of seconds, which any
// 32-bit count of ms fits.
timeval Timeout(uint32_t ms) {
  timeval tv{};
  tv.tv_sec = static_cast<long>(ms / 1000);
  tv.tv_usec = static_cast<long>(ms % 1000) * 1000;
  return tv;
}

// The error of a connection that failed while nobody was waiting on it: a failed
// non-blocking connect shows only in the exception set, and the socket keeps the reason.
int32_t PendingError(SOCKET s) {
  int error = 0;
  int len = sizeof error;
  if (getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &len) != 0) return LastError();
  return error;
}

// select on one socket: readable (or writable) and failed, at most timeoutMs. select's
// result; *failed tells whether the socket was in the exception set.
int SelectOne(SocketHandle s, bool writable, uint32_t timeoutMs, bool* failed) {
  fd_set ready;
  fd_set exceptions;
  FD_ZERO(&ready);
  FD_ZERO(&exceptions);
  FD_SET(Native(s), &ready);
  FD_SET(Native(s), &exceptions);
  timeval tv = Timeout(timeoutMs);
  const int r = select(0, writable ? nullptr : &ready, writable ? &ready : nullptr, &exceptions, &tv);
  *failed = r > 0 && FD_ISSET(Native(s), &exceptions);
  return r;
}

}  // namespace

int32_t NetStartup(uint8_t major, uint8_t minor) {
  WSADATA data;
  return WSAStartup(MAKEWORD(major, minor), &data);
}

void NetCleanup() { WSACleanup(); }

int32_t SocketLastError() { return LastError(); }

SocketHandle SocketCreate(bool datagram) {
  SOCKET s = WSASocketA(AF_INET, datagram ? SOCK_DGRAM : SOCK_STREAM, 0, nullptr, 0, 0);
  if (s == INVALID_SOCKET) return kInvalidSocket;
  // Every send is a whole request frame: no reason to hold one back (Nagle).
  if (!datagram) {
    const BOOL on = TRUE;
    (void)setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  }
  return static_cast<SocketHandle>(s);
}

void SocketSetNonBlocking(SocketHandle s) {
  u_long on = 1;
  (void)ioctlsocket(Native(s), FIONBIO, &on);
}

int32_t SocketBind(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port) {
  sockaddr_in addr = Address(addressNetworkOrder, port);
  if (bind(Native(s), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) return LastError();
  return 0;
}

int32_t SocketConnect(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port) {
  // Windows refuses these destinations at once. Said here as well so that a Windows
  // emulation that passes connect on to its host system behaves the same.
  if (addressNetworkOrder == htonl(INADDR_ANY) || port == 0) {
    WSASetLastError(wsa::kAddrNotAvail);
    return wsa::kAddrNotAvail;
  }
  sockaddr_in addr = Address(addressNetworkOrder, port);
  if (connect(Native(s), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) return LastError();
  return 0;
}

int32_t SocketSend(SocketHandle s, const uint8_t* buffer, uint32_t length) {
  const int n = length > INT_MAX ? INT_MAX : static_cast<int>(length);
  const int sent = send(Native(s), reinterpret_cast<const char*>(buffer), n, 0);
  if (sent == SOCKET_ERROR) return -LastError();
  return sent;
}

int32_t SocketRecv(SocketHandle s, uint8_t* buffer, uint32_t length) {
  const int n = length > INT_MAX ? INT_MAX : static_cast<int>(length);
  const int got = recv(Native(s), reinterpret_cast<char*>(buffer), n, 0);
  if (got == SOCKET_ERROR) return -LastError();
  return got;
}

int32_t SocketWaitReadable(SocketHandle s, uint32_t timeoutMs) {
  bool failed = false;
  const int r = SelectOne(s, false, timeoutMs, &failed);
  if (r == SOCKET_ERROR) return -LastError();
  if (r == 0) return 0;
  if (failed) {
    const int32_t error = PendingError(Native(s));
    if (error != 0) {
      WSASetLastError(error);
      return -error;
    }
  }
  return 1;  // data, or a close or reset that the next receive reports
}

int32_t SocketRecvWait(SocketHandle s, uint8_t* buffer, uint32_t length, uint32_t timeoutMs) {
  const int32_t ready = SocketWaitReadable(s, timeoutMs);
  if (ready < 0) return ready;
  if (ready == 0) {
    WSASetLastError(wsa::kWouldBlock);
    return -wsa::kWouldBlock;
  }
  return SocketRecv(s, buffer, length);
}

int32_t SocketWaitConnected(SocketHandle s, uint32_t timeoutMs) {
  if (s == kInvalidSocket) return 0;
  bool failed = false;
  // A failed connect shows in the exception set, with its error pending on the socket.
  const int r = SelectOne(s, true, timeoutMs, &failed);
  if (r == SOCKET_ERROR) return LastError();
  return failed ? PendingError(Native(s)) : 0;
}

void SocketClose(SocketHandle s) { (void)closesocket(Native(s)); }

}  // namespace tamrik::platform
