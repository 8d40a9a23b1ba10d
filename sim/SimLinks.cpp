#include "SimLinks.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

namespace tamrik::sim::detail {

namespace {

constexpr int kMaxPollMs = 200;
constexpr int kWriteBudgetMs = 1000;

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in MakeAddress(const std::string& address, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1)
    throw std::system_error(EINVAL, std::generic_category(), "not an IPv4 address: " + address);
  return a;
}

bool SamePeer(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

}  // namespace

// --- sockets ------------------------------------------------------------------------------

uint16_t BoundPort(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) ThrowErrno("getsockname");
  return ntohs(a.sin_port);
}

int ListenTcp(const std::string& address, uint16_t port, int backlog) {
  const sockaddr_in a = MakeAddress(address, port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) ThrowErrno("socket");
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
    const int e = errno;
    close(fd);
    throw std::system_error(e, std::generic_category(), "bind TCP " + address + ":" + std::to_string(port));
  }
  if (listen(fd, backlog) != 0) {
    const int e = errno;
    close(fd);
    throw std::system_error(e, std::generic_category(), "listen");
  }
  return fd;
}

int AcceptTcp(int listenFd) {
  const int c = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (c < 0) return -1;
  const int on = 1;
  setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return c;
}

// --- outbox -------------------------------------------------------------------------------

void Outbox::Add(Delivery delivery, Clock::time_point now, const sockaddr_in& peer) {
  Item item{now + std::chrono::milliseconds(delivery.delayMs), std::move(delivery), peer};
  if (!item.delivery.late) {
    item.due = std::max(item.due, lastInOrder_);
    lastInOrder_ = item.due;
  }
  // Stable: among items due at the same time the earlier one stays first.
  const auto pos = std::upper_bound(items_.begin(), items_.end(), item.due,
                                    [](Clock::time_point t, const Item& i) { return t < i.due; });
  items_.insert(pos, std::move(item));
}

std::optional<Clock::time_point> Outbox::NextDue() const {
  if (items_.empty()) return std::nullopt;
  return items_.front().due;
}

std::optional<Outbox::Item> Outbox::TakeDue(Clock::time_point now) {
  if (items_.empty() || items_.front().due > now) return std::nullopt;
  Item item = std::move(items_.front());
  items_.pop_front();
  return item;
}

void Outbox::Clear() {
  items_.clear();
  lastInOrder_ = {};
}

void SleepUntil(Clock::time_point t) {
  // steady_clock is CLOCK_MONOTONIC here; an absolute sleep does not drift with the loop.
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  timespec ts{time_t(ns / 1000000000), long(ns % 1000000000)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

// --- session ------------------------------------------------------------------------------

Session::Session(Gateway& gateway, LinkKind kind, uint32_t stallMs)
    : gateway_(gateway), kind_(kind), stallMs_(stallMs) {}

void Session::Receive(std::span<const uint8_t> bytes, Clock::time_point now, const sockaddr_in& peer) {
  if (!bytes.empty()) lastInput_ = now;
  parser_.Feed(bytes);
  while (auto ev = parser_.Next()) {
    if (ev->kind == FrameParser::Kind::BadCheckValue) {
      gateway_.NoteBadFrame(ev->frame.raw, kind_);
      continue;
    }
    Delivery d = gateway_.Serve(ev->frame, kind_);
    if (d.action != Delivery::Action::Silence) outbox_.Add(std::move(d), now, peer);
  }
}

void Session::CheckStall(Clock::time_point now) {
  if (stallMs_ == 0 || now - lastInput_ < std::chrono::milliseconds(stallMs_)) return;
  // Everything buffered is older than the stall time: no start byte in it will complete.
  while (parser_.HasPartialFrame() && parser_.DropStalledStart()) Receive({}, now);
}

std::optional<Clock::time_point> Session::NextWake() const {
  std::optional<Clock::time_point> next = outbox_.NextDue();
  if (stallMs_ && parser_.HasPartialFrame()) {
    const auto stall = lastInput_ + std::chrono::milliseconds(stallMs_);
    next = next ? std::min(*next, stall) : stall;
  }
  return next;
}

void Session::Reset() {
  parser_.Reset();
  outbox_.Clear();
}

// --- link -----------------------------------------------------------------------------------

Link::Link(Gateway& gateway, LinkKind kind, uint32_t stallMs) : kind_(kind), session_(gateway, kind, stallMs) {
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) ThrowErrno("eventfd");
}

Link::~Link() {
  Stop();
  if (wakeFd_ >= 0) close(wakeFd_);
}

void Link::Start() {
  thread_ = std::thread([this] {
    // Pacing needs sleeps that end close to their time; the default slack is 50 us.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    Run();
  });
}

void Link::Stop() {
  stop_ = true;
  const uint64_t one = 1;
  if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
    // The eventfd counter cannot overflow from one write; nothing to do.
  }
  if (thread_.joinable()) thread_.join();
}

void Link::WaitForStop(int ms) {
  pollfd p{wakeFd_, POLLIN, 0};
  poll(&p, 1, ms);
}

void Link::RunDue() {
  while (!stop_) {
    auto item = session_.TakeDue(Clock::now());
    if (!item) return;
    switch (item->delivery.action) {
      case Delivery::Action::Send:
        if (item->delivery.paceBaud)
          TransmitPaced(item->delivery.bytes, item->delivery.paceBaud, item->peer);
        else
          Transmit(item->delivery.bytes, item->peer);
        break;
      case Delivery::Action::Drop:
        DropPeer();
        break;
      case Delivery::Action::Silence:
        break;
    }
  }
}

int Link::PollTimeout() const {
  const auto now = Clock::now();
  const std::optional<Clock::time_point> next = session_.NextWake();
  if (!next) return kMaxPollMs;
  if (*next <= now) return 0;
  // Round up so that the loop does not wake a moment early and spin.
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(*next - now).count();
  return int(std::min<int64_t>((us + 999) / 1000, kMaxPollMs));
}

void Link::TransmitPaced(std::span<const uint8_t> bytes, uint32_t baud, const sockaddr_in& peer) {
  // Ten bit times per byte; a byte is handed over when its stop bit has passed, as a UART
  // would deliver it.
  const auto byteTime = std::chrono::nanoseconds(int64_t(10) * 1000000000 / baud);
  const auto start = Clock::now();
  if (kind_ == LinkKind::Udp) {
    const auto end = start + byteTime * int64_t(bytes.size());
    while (!stop_ && Clock::now() < end) SleepUntil(std::min(end, Clock::now() + std::chrono::milliseconds(50)));
    if (!stop_) Transmit(bytes, peer);
    return;
  }
  size_t written = 0;
  while (written < bytes.size() && !stop_) {
    const auto elapsed = Clock::now() - start;
    const size_t due = std::min(bytes.size(), size_t(elapsed / byteTime));
    if (due > written) {
      // Behind time (a slow wake-up): catch up with one write rather than drift.
      Transmit(bytes.subspan(written, due - written), peer);
      written = due;
    } else {
      SleepUntil(start + byteTime * int64_t(written + 1));
    }
  }
}

bool Link::WriteAll(int fd, std::span<const uint8_t> bytes, bool socket) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(kWriteBudgetMs);
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = socket ? send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL)
                             : write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += size_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || stop_) return false;
    pollfd p[2] = {{fd, POLLOUT, 0}, {wakeFd_, POLLIN, 0}};
    poll(p, 2, int(left));
  }
  return true;
}

// --- TCP ----------------------------------------------------------------------------------

TcpLink::TcpLink(Gateway& gateway, const std::string& address, uint16_t port, uint32_t stallMs)
    : Link(gateway, LinkKind::Tcp, stallMs), listenFd_(ListenTcp(address, port, 4)), port_(BoundPort(listenFd_)) {}

TcpLink::~TcpLink() {
  Stop();
  CloseClient();
  if (listenFd_ >= 0) close(listenFd_);
}

void TcpLink::CloseClient() {
  if (clientFd_ >= 0) close(clientFd_);
  clientFd_ = -1;
  session_.Reset();
}

void TcpLink::Run() {
  std::vector<uint8_t> buf(65536);
  while (!stop_) {
    pollfd fds[3] = {{wakeFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}, {clientFd_, POLLIN, 0}};
    const nfds_t n = clientFd_ >= 0 ? 3 : 2;
    if (poll(fds, n, PollTimeout()) < 0 && errno != EINTR) WaitForStop(10);
    if (stop_) break;
    // The current client first: a new connection below may replace it.
    if (n == 3 && fds[2].revents) {
      const ssize_t got = recv(clientFd_, buf.data(), buf.size(), 0);
      if (got > 0)
        Receive({buf.data(), size_t(got)});
      else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
        CloseClient();
    }
    if (fds[1].revents & POLLIN) {
      const int c = AcceptTcp(listenFd_);
      if (c >= 0) {
        // One host at a time: a new connection means the old one is gone or abandoned.
        CloseClient();
        clientFd_ = c;
        ++accepted_;
      }
    }
    CheckStall(Clock::now());
    RunDue();
  }
}

void TcpLink::Transmit(std::span<const uint8_t> bytes, const sockaddr_in&) {
  if (clientFd_ < 0) return;
  if (!WriteAll(clientFd_, bytes, true)) CloseClient();
}

void TcpLink::DropPeer() { CloseClient(); }

// --- UDP ----------------------------------------------------------------------------------

UdpLink::UdpLink(Gateway& gateway, const std::string& address, uint16_t port, uint32_t stallMs)
    : Link(gateway, LinkKind::Udp, stallMs) {
  const sockaddr_in a = MakeAddress(address, port);
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) ThrowErrno("socket");
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
    const int e = errno;
    close(fd_);
    throw std::system_error(e, std::generic_category(), "bind UDP " + address + ":" + std::to_string(port));
  }
  port_ = BoundPort(fd_);
}

UdpLink::~UdpLink() {
  Stop();
  if (fd_ >= 0) close(fd_);
}

void UdpLink::Run() {
  std::vector<uint8_t> buf(65536);
  while (!stop_) {
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {fd_, POLLIN, 0}};
    if (poll(fds, 2, PollTimeout()) < 0 && errno != EINTR) WaitForStop(10);
    if (stop_) break;
    if (fds[1].revents & POLLIN) {
      sockaddr_in peer{};
      socklen_t len = sizeof peer;
      const ssize_t got = recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&peer), &len);
      if (got > 0) {
        // A frame split over datagrams is put together only from one sender.
        if (!SamePeer(peer, lastPeer_)) session_.ResetParser();
        lastPeer_ = peer;
        Receive({buf.data(), size_t(got)}, peer);
      }
    }
    CheckStall(Clock::now());
    RunDue();
  }
}

void UdpLink::Transmit(std::span<const uint8_t> bytes, const sockaddr_in& peer) {
  sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
}

// --- pseudo-terminal ------------------------------------------------------------------------

PtyLink::PtyLink(Gateway& gateway, const std::string& linkPath, uint32_t stallMs)
    : Link(gateway, LinkKind::Pty, stallMs) {
  if (openpty(&masterFd_, &slaveFd_, nullptr, nullptr, nullptr) != 0) ThrowErrno("openpty");
  fcntl(masterFd_, F_SETFD, FD_CLOEXEC);
  fcntl(slaveFd_, F_SETFD, FD_CLOEXEC);
  fcntl(masterFd_, F_SETFL, fcntl(masterFd_, F_GETFL) | O_NONBLOCK);
  termios t{};
  tcgetattr(slaveFd_, &t);
  cfmakeraw(&t);
  tcsetattr(slaveFd_, TCSANOW, &t);
  char name[PATH_MAX] = {};
  if (ptsname_r(masterFd_, name, sizeof name) != 0) {
    const int e = errno;
    close(masterFd_);
    close(slaveFd_);
    throw std::system_error(e, std::generic_category(), "ptsname");
  }
  slavePath_ = name;

  if (!linkPath.empty()) {
    struct stat st {};
    if (lstat(linkPath.c_str(), &st) == 0) {
      // Replace a stale link from an earlier run, but never a file that is not a link.
      if (!S_ISLNK(st.st_mode) || unlink(linkPath.c_str()) != 0) {
        close(masterFd_);
        close(slaveFd_);
        throw std::system_error(EEXIST, std::generic_category(), "cannot replace " + linkPath);
      }
    }
    if (symlink(slavePath_.c_str(), linkPath.c_str()) != 0) {
      const int e = errno;
      close(masterFd_);
      close(slaveFd_);
      throw std::system_error(e, std::generic_category(), "symlink " + linkPath);
    }
    linkPath_ = linkPath;
  }
}

PtyLink::~PtyLink() {
  Stop();
  if (!linkPath_.empty()) {
    char target[PATH_MAX] = {};
    const ssize_t n = readlink(linkPath_.c_str(), target, sizeof target - 1);
    if (n > 0 && slavePath_ == std::string(target, size_t(n))) unlink(linkPath_.c_str());
  }
  close(masterFd_);
  close(slaveFd_);
}

void PtyLink::Run() {
  std::vector<uint8_t> buf(4096);
  while (!stop_) {
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {masterFd_, POLLIN, 0}};
    if (poll(fds, 2, PollTimeout()) < 0 && errno != EINTR) WaitForStop(10);
    if (stop_) break;
    if (fds[1].revents & POLLIN) {
      const ssize_t got = read(masterFd_, buf.data(), buf.size());
      if (got > 0)
        Receive({buf.data(), size_t(got)});
      else if (got < 0 && errno == EIO)
        WaitForStop(20);  // no slave open: wait calmly instead of spinning on the error
    } else if (fds[1].revents & (POLLHUP | POLLERR)) {
      WaitForStop(20);
    }
    CheckStall(Clock::now());
    RunDue();
  }
}

void PtyLink::Transmit(std::span<const uint8_t> bytes, const sockaddr_in&) {
  // A host that does not read lets the terminal's queue fill; what does not fit within the
  // write budget is lost, as on a line nobody listens to.
  WriteAll(masterFd_, bytes, false);
}

void PtyLink::DropPeer() {
  // A serial line cannot be disconnected; the closest is a gateway that forgets what it
  // has been sent so far.
  session_.Reset();
  uint8_t buf[256];
  while (read(masterFd_, buf, sizeof buf) > 0) {
  }
}

}  // namespace tamrik::sim::detail
