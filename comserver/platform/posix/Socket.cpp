// IPv4 sockets that report errors with Windows Sockets numbers and behave, where the
// driver can tell, as Windows Sockets do.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <mutex>
#include <unordered_map>

#include "ResultCodes.h"
#include "platform/Platform.h"

namespace tamrik::platform {

namespace {

thread_local int32_t t_lastError = 0;

int32_t WsaFromErrno(int error) {
  switch (error) {
    case EINTR: return wsa::kInterrupted;
    case EBADF: return wsa::kBadHandle;
    case EACCES: case EPERM: return wsa::kAccess;
    case EFAULT: return wsa::kFault;
    case EINVAL: return wsa::kInvalid;
    case EMFILE: case ENFILE: return wsa::kTooManyFiles;
    case EAGAIN: return wsa::kWouldBlock;  // EWOULDBLOCK is the same number on Linux
    // A second connect while the first is under way; the first one's EINPROGRESS is
    // turned into would-block where it happens.
    case EINPROGRESS: return wsa::kInProgress;
    case EALREADY: return wsa::kAlready;
    case ENOTSOCK: return wsa::kNotSocket;
    case EDESTADDRREQ: return wsa::kDestAddrRequired;
    case EMSGSIZE: return wsa::kMsgSize;
    case EPROTOTYPE: return wsa::kProtoType;
    case ENOPROTOOPT: return wsa::kNoProtoOpt;
    case EPROTONOSUPPORT: return wsa::kProtoNoSupport;
    case ESOCKTNOSUPPORT: return wsa::kSocketNoSupport;
    case EOPNOTSUPP: return wsa::kOpNotSupp;
    case EPFNOSUPPORT: return wsa::kPfNoSupport;
    case EAFNOSUPPORT: return wsa::kAfNoSupport;
    case EADDRINUSE: return wsa::kAddrInUse;
    case EADDRNOTAVAIL: return wsa::kAddrNotAvail;
    case ENETDOWN: return wsa::kNetDown;
    case ENETUNREACH: return wsa::kNetUnreach;
    case ENETRESET: return wsa::kNetReset;
    case ECONNABORTED: return wsa::kConnAborted;
    // EPIPE: Linux says so once the connection is gone, whether the peer reset it or
    // closed it; Windows reports a send on such a connection as reset. The driver never
    // shuts a socket down itself, so it never meets the other meaning of EPIPE.
    case ECONNRESET: case EPIPE: return wsa::kConnReset;
    case ENOBUFS: case ENOMEM: return wsa::kNoBufs;
    case EISCONN: return wsa::kIsConn;
    case ENOTCONN: return wsa::kNotConn;
    case ESHUTDOWN: return wsa::kShutdown;
    case ETIMEDOUT: return wsa::kTimedOut;
    case ECONNREFUSED: return wsa::kConnRefused;
    case EHOSTDOWN: return wsa::kHostDown;
    case EHOSTUNREACH: return wsa::kHostUnreach;
    default: return wsa::kNetDown;  // "the network subsystem has failed"
  }
}

// What the driver needs to remember about a socket beyond what the descriptor holds.
//
// Linux reports the failure of a connection (a refused or timed-out connect, a reset) to
// the first call that asks and then answers later receives with 0 and sends with EPIPE.
// Windows keeps reporting the failure, and the driver's logic relies on that, so each
// stream socket keeps its failure here until it connects anew or is closed.
//
// A waiting receive is one blocking recvmsg with SO_RCVTIMEO as its bound: the same single
// system call a blocking client makes, where a poll before the receive would cost a second
// one per answer. So the first waiting receive clears O_NONBLOCK; the receives and sends
// that must not wait pass MSG_DONTWAIT instead, and a later connect gets the mode back.
struct SocketState {
  enum class Kind : uint8_t { Unknown, Stream, Datagram };
  int32_t failure = 0;
  Kind kind = Kind::Unknown;    // asked once, at the first receive
  bool waitsBlocking = false;   // O_NONBLOCK cleared for the waiting receives
  bool wasNonBlocking = false;  // ... and was set before
  uint32_t recvTimeoutMs = 0;   // SO_RCVTIMEO as last set; 0 means never set
};

std::mutex g_stateMutex;
std::unordered_map<int, SocketState> g_state;

void ForgetState(int fd) {
  std::lock_guard lock(g_stateMutex);
  g_state.erase(fd);
}

void RememberFailure(int fd, int32_t wsaError) {
  std::lock_guard lock(g_stateMutex);
  g_state[fd].failure = wsaError;
}

int32_t KnownFailure(int fd) {
  std::lock_guard lock(g_stateMutex);
  auto it = g_state.find(fd);
  return it == g_state.end() ? 0 : it->second.failure;
}

bool IsConnectionFailure(int error) {
  return error == ECONNREFUSED || error == ECONNRESET || error == ETIMEDOUT ||
         error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN;
}

int32_t Fail(int32_t wsaError) {
  t_lastError = wsaError;
  return wsaError;
}

int32_t FailErrno(int error) { return Fail(WsaFromErrno(error)); }

// The handle as a descriptor, or -1 (with the error recorded) when it cannot be one.
int Fd(SocketHandle s) {
  if (s < 0 || s > INT_MAX) {
    Fail(wsa::kNotSocket);
    return -1;
  }
  return static_cast<int>(s);
}

bool IsStream(int fd) {
  int type = 0;
  socklen_t len = sizeof type;
  return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_STREAM;
}

// Whether a receive must look for a cut datagram; the socket is asked once.
bool IsDatagram(SocketState& state, int fd) {
  if (state.kind == SocketState::Kind::Unknown) {
    state.kind = IsStream(fd) ? SocketState::Kind::Stream : SocketState::Kind::Datagram;
  }
  return state.kind == SocketState::Kind::Datagram;
}

// The known failure of the socket (0 when none) and, in *datagram, its kind: one look at
// the state, which every receive takes.
int32_t ReceiveState(int fd, bool* datagram) {
  std::lock_guard lock(g_stateMutex);
  SocketState& state = g_state[fd];
  *datagram = IsDatagram(state, fd);
  return state.failure;
}

// errno of a failed send or receive as the Windows Sockets number the caller sees.
int32_t TransferError(int fd, int error) {
  // Only a failed connection needs the socket's type. Would-block, which every waiting read
  // meets before its answer arrives, must not cost a system call of its own.
  if (!IsConnectionFailure(error)) return FailErrno(error);
  const bool stream = IsStream(fd);
  if (stream) {
    int32_t wsaError = WsaFromErrno(error);
    RememberFailure(fd, wsaError);
    return Fail(wsaError);
  }
  // An ICMP port-unreachable answer to an earlier datagram: Windows reports it as reset.
  if (error == ECONNREFUSED) return Fail(wsa::kConnReset);
  return FailErrno(error);
}

sockaddr_in Address(uint32_t addressNetworkOrder, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = addressNetworkOrder;
  return addr;
}

int64_t NowMs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// A new connect starts from the socket as its owner set it up: the failure of the last
// connection is gone, and a socket that was non-blocking connects without waiting again.
void RestoreMode(int fd) {
  SocketState state;
  {
    std::lock_guard lock(g_stateMutex);
    auto it = g_state.find(fd);
    if (it == g_state.end()) return;
    state = it->second;
    g_state.erase(it);
  }
  if (state.waitsBlocking && state.wasNonBlocking) {
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) (void)::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  }
  if (state.recvTimeoutMs != 0) {
    timeval none{};
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
  }
}

// Makes the descriptor's receives wait at most timeoutMs (not 0): O_NONBLOCK off once,
// SO_RCVTIMEO only when the bound changes, so that a run of exchanges with one bound costs
// no system call here. 0, or the error (recorded): the connection's known failure, or the
// socket's refusal. One look at the state a receive, with the socket's kind for *datagram:
// it is taken on every answer.
int32_t PrepareWait(int fd, uint32_t timeoutMs, bool* datagram) {
  std::lock_guard lock(g_stateMutex);
  SocketState& state = g_state[fd];
  if (state.failure != 0) return Fail(state.failure);
  *datagram = IsDatagram(state, fd);
  if (!state.waitsBlocking) {
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ((flags & O_NONBLOCK) != 0 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0)) {
      return FailErrno(errno);
    }
    state.waitsBlocking = true;
    state.wasNonBlocking = (flags & O_NONBLOCK) != 0;
  }
  if (state.recvTimeoutMs != timeoutMs) {
    timeval bound{};
    bound.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    bound.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound) != 0) {
      return FailErrno(errno);
    }
    state.recvTimeoutMs = timeoutMs;
  }
  return 0;
}

// One recv: the number of bytes, or minus the Windows Sockets error. A plain recv, where
// recvmsg's message header costs a fifth of a microsecond more on every answer. Only a
// datagram can be cut: asked with MSG_TRUNC (which on a stream would drop the bytes), the
// receive tells its whole length, and the part that fitted is in the buffer, as on Windows.
int32_t ReceiveOnce(int fd, uint8_t* buffer, uint32_t length, int flags, bool datagram) {
  const size_t room = length > INT32_MAX ? static_cast<size_t>(INT32_MAX) : length;
  const ssize_t got = ::recv(fd, buffer, room, datagram ? flags | MSG_TRUNC : flags);
  if (got < 0) return -TransferError(fd, errno);
  if (static_cast<size_t>(got) > room) return -Fail(wsa::kMsgSize);
  return static_cast<int32_t>(got);
}

}  // namespace

int32_t NetStartup(uint8_t major, uint8_t minor) { return 0; }

void NetCleanup() {}

int32_t SocketLastError() { return t_lastError; }

SocketHandle SocketCreate(bool datagram) {
  int fd = ::socket(AF_INET, (datagram ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    FailErrno(errno);
    return kInvalidSocket;
  }
  ForgetState(fd);  // left by an earlier descriptor of the same number
  // Every send is a whole request frame: holding one back until the last is acknowledged
  // (Nagle) gains nothing and costs a gateway's delayed acknowledgement after a request it
  // never answered.
  if (!datagram) {
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return fd;
}

void SocketSetNonBlocking(SocketHandle s) {
  int fd = Fd(s);
  if (fd < 0) return;
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    FailErrno(errno);
    return;
  }
  // The next waiting receive has to take O_NONBLOCK off again.
  std::lock_guard lock(g_stateMutex);
  auto it = g_state.find(fd);
  if (it != g_state.end()) it->second.waitsBlocking = false;
}

int32_t SocketBind(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port) {
  int fd = Fd(s);
  if (fd < 0) return wsa::kNotSocket;
  sockaddr_in addr = Address(addressNetworkOrder, port);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    return FailErrno(errno);
  }
  return 0;
}

int32_t SocketConnect(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port) {
  int fd = Fd(s);
  if (fd < 0) return wsa::kNotSocket;
  RestoreMode(fd);
  // Windows refuses the unspecified address and port 0 as a destination at once; Linux
  // would take 0.0.0.0 for this machine and connect there.
  if (addressNetworkOrder == htonl(INADDR_ANY) || port == 0) return Fail(wsa::kAddrNotAvail);
  sockaddr_in addr = Address(addressNetworkOrder, port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return 0;
  int error = errno;
  if (error == EINPROGRESS) return Fail(wsa::kWouldBlock);
  if (error == EINTR) {
    // A blocking connect cut short by a signal goes on in the background; wait for its
    // outcome as Windows, which has no signals, would have.
    pollfd p{fd, POLLOUT, 0};
    int r;
    do {
      r = ::poll(&p, 1, -1);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return FailErrno(errno);
    int soError = 0;
    socklen_t len = sizeof soError;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) return FailErrno(errno);
    if (soError == 0) return 0;
    error = soError;
  }
  return FailErrno(error);
}

int32_t SocketSend(SocketHandle s, const uint8_t* buffer, uint32_t length) {
  int fd = Fd(s);
  if (fd < 0) return -wsa::kNotSocket;
  if (int32_t failure = KnownFailure(fd)) return -Fail(failure);
  size_t n = length > INT32_MAX ? INT32_MAX : length;
  ssize_t sent;
  do {
    sent = ::send(fd, buffer, n, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return -TransferError(fd, errno);
  return static_cast<int32_t>(sent);
}

int32_t SocketRecv(SocketHandle s, uint8_t* buffer, uint32_t length) {
  int fd = Fd(s);
  if (fd < 0) return -wsa::kNotSocket;
  bool datagram = false;
  if (const int32_t failure = ReceiveState(fd, &datagram)) return -Fail(failure);
  int32_t got;
  do {
    got = ReceiveOnce(fd, buffer, length, MSG_DONTWAIT, datagram);
  } while (got == -wsa::kInterrupted);
  return got;
}

int32_t SocketRecvWait(SocketHandle s, uint8_t* buffer, uint32_t length, uint32_t timeoutMs) {
  int fd = Fd(s);
  if (fd < 0) return -wsa::kNotSocket;
  if (timeoutMs == 0) return SocketRecv(s, buffer, length);  // SO_RCVTIMEO 0 would never end
  bool datagram = false;
  if (const int32_t failure = PrepareWait(fd, timeoutMs, &datagram)) return -failure;
  const int32_t got = ReceiveOnce(fd, buffer, length, 0, datagram);
  // A signal ends the wait early; the caller, who keeps the deadline, waits again.
  if (got == -wsa::kInterrupted) return -Fail(wsa::kWouldBlock);
  return got;
}

int32_t SocketWaitReadable(SocketHandle s, uint32_t timeoutMs) {
  int fd = Fd(s);
  if (fd < 0) return -wsa::kNotSocket;
  // A failure that a receive has already taken from the socket is still to be reported.
  if (KnownFailure(fd) != 0) return 1;
  const int64_t deadline = NowMs() + timeoutMs;
  for (;;) {
    int64_t left = deadline - NowMs();
    if (left < 0) left = 0;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    if (r < 0) {
      if (errno == EINTR) continue;
      return -FailErrno(errno);
    }
    if (r == 0) {
      if (left > INT_MAX) continue;
      return 0;
    }
    if ((p.revents & POLLNVAL) != 0) return -Fail(wsa::kNotSocket);
    return 1;  // data, an error or a hang-up: the next receive reports which
  }
}

int32_t SocketWaitConnected(SocketHandle s, uint32_t timeoutMs) {
  int fd = Fd(s);
  if (fd < 0) return 0;
  // Writable once the connection is made, error and hang-up once it failed.
  const int64_t deadline = NowMs() + timeoutMs;
  for (;;) {
    int64_t left = deadline - NowMs();
    if (left < 0) left = 0;
    pollfd p{fd, POLLOUT, 0};
    int r = ::poll(&p, 1, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      FailErrno(errno);
      return 0;  // the wait failed, not the connection
    }
    if (r == 0 && left > INT_MAX) continue;
    if (r == 0) return 0;
    int soError = 0;
    socklen_t len = sizeof soError;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) return FailErrno(errno);
    if (soError == 0) return 0;
    // Reading SO_ERROR clears it; the socket keeps reporting the failure all the same.
    const int32_t wsaError = WsaFromErrno(soError);
    RememberFailure(fd, wsaError);
    return Fail(wsaError);
  }
}

void SocketClose(SocketHandle s) {
  int fd = Fd(s);
  if (fd < 0) return;
  ForgetState(fd);
  if (::close(fd) != 0 && errno != EINTR) FailErrno(errno);
}

}  // namespace tamrik::platform
