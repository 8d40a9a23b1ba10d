#include "Fleet.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <queue>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "SimLinks.h"

namespace tamrik::sim {

namespace {

using detail::Clock;
using detail::Session;

constexpr int kListenBacklog = 8;
constexpr int kMaxEvents = 256;
constexpr size_t kReadChunk = 16384;
// Answers a host does not read pile up to this much; then it is treated as gone.
constexpr size_t kMaxUnsent = size_t(1) << 20;
// Event ids: a gateway's listening socket by its index, a connection with the top bit set.
constexpr uint64_t kWakeId = ~uint64_t(0);
constexpr uint64_t kConnectionBit = uint64_t(1) << 63;

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void Watch(int epollFd, int fd, uint64_t id, uint32_t events, int op = EPOLL_CTL_ADD) {
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  if (epoll_ctl(epollFd, op, fd, &ev) != 0) ThrowErrno("epoll_ctl");
}

// An answer sent at a line speed: its bytes leave as their stop bits would have passed.
struct Pacer {
  std::vector<uint8_t> bytes;
  Clock::time_point start;
  Clock::duration byteTime;
  size_t written = 0;
  Clock::time_point NextByte() const { return start + byteTime * int64_t(written + 1); }
};

struct Connection {
  Connection(uint64_t id, int fd, size_t gateway, Gateway& g, uint32_t stallMs)
      : id(id), fd(fd), gateway(gateway), session(g, LinkKind::Tcp, stallMs) {}
  uint64_t id;
  int fd;
  size_t gateway;
  Session session;
  std::vector<uint8_t> unsent;  // what the socket did not take yet, in order
  std::optional<Pacer> pacer;
  std::optional<Clock::time_point> wake;  // the earliest timer set for it
  bool gone = false;                      // closed at the end of the step that found it
};

struct Slot {
  std::unique_ptr<Gateway> gateway;
  uint16_t port = 0;
  int listenFd = -1;                  // the serving thread's once started
  std::vector<uint64_t> connections;  // the serving thread's; oldest first
  std::atomic<uint32_t> accepted{0};
  std::atomic<uint32_t> open{0};
  std::atomic<bool> listening{false};
};

}  // namespace

// One serving thread: the listening sockets and connections of its share of the gateways.
class FleetWorker {
 public:
  FleetWorker(std::vector<Slot>& slots, const FleetOptions& options);
  ~FleetWorker();
  FleetWorker(const FleetWorker&) = delete;
  FleetWorker& operator=(const FleetWorker&) = delete;

  void Start() { thread_ = std::thread([this] { Run(); }); }
  void Stop();
  // Opens gateway i's listening socket on its port and watches it.
  void Listen(size_t i);
  // Closes gateway i's listening socket and connections.
  void Unplug(size_t i);
  // Runs command on the serving thread and waits for it; its exception comes back here.
  void Call(std::function<void()> command);

 private:
  void Run();
  void Dispatch(const epoll_event& ev, Clock::time_point now);
  void Accept(size_t i);
  void Read(Connection& c, Clock::time_point now);
  void Flush(Connection& c);
  void Step(Connection& c, Clock::time_point now);
  void StepPacer(Connection& c, Clock::time_point now);
  void Transmit(Connection& c, std::span<const uint8_t> bytes);
  void Reschedule(Connection& c);
  void Close(uint64_t id);
  void RunTimers(Clock::time_point now);
  int Timeout(Clock::time_point now) const;
  void RunCommands();

  using Timer = std::pair<Clock::time_point, uint64_t>;

  std::vector<Slot>& slots_;
  const FleetOptions& options_;
  int epollFd_ = -1;
  int wakeFd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::priority_queue<Timer, std::vector<Timer>, std::greater<>> timers_;
  uint64_t nextId_ = 0;
  std::vector<uint8_t> buffer_;
  std::mutex commandsMutex_;
  std::vector<std::packaged_task<void()>> commands_;
};

FleetWorker::FleetWorker(std::vector<Slot>& slots, const FleetOptions& options)
    : slots_(slots), options_(options), buffer_(kReadChunk) {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) ThrowErrno("epoll_create1");
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) {
    const int e = errno;
    close(epollFd_);
    throw std::system_error(e, std::generic_category(), "eventfd");
  }
  Watch(epollFd_, wakeFd_, kWakeId, EPOLLIN);
}

FleetWorker::~FleetWorker() {
  Stop();
  for (auto& [id, c] : connections_) close(c->fd);
  close(wakeFd_);
  close(epollFd_);
}

void FleetWorker::Stop() {
  stop_ = true;
  const uint64_t one = 1;
  if (write(wakeFd_, &one, sizeof one) < 0) {
    // The counter cannot overflow from one write; nothing to do.
  }
  if (thread_.joinable()) thread_.join();
}

void FleetWorker::Call(std::function<void()> command) {
  std::packaged_task<void()> task(std::move(command));
  std::future<void> done = task.get_future();
  {
    std::lock_guard lock(commandsMutex_);
    commands_.push_back(std::move(task));
  }
  const uint64_t one = 1;
  if (write(wakeFd_, &one, sizeof one) < 0) {
    // As in Stop.
  }
  done.get();
}

void FleetWorker::RunCommands() {
  uint64_t count = 0;
  if (read(wakeFd_, &count, sizeof count) < 0) {
    // Nothing was signalled; the queue is looked at anyway.
  }
  std::vector<std::packaged_task<void()>> commands;
  {
    std::lock_guard lock(commandsMutex_);
    commands.swap(commands_);
  }
  for (auto& command : commands) command();
}

void FleetWorker::Listen(size_t i) {
  Slot& slot = slots_[i];
  if (slot.listenFd >= 0) return;
  const int fd = detail::ListenTcp(options_.address, slot.port, kListenBacklog);
  try {
    Watch(epollFd_, fd, i, EPOLLIN);
  } catch (...) {
    close(fd);
    throw;
  }
  // Set once, by the constructor's thread: the port stays the gateway's when it is plugged back.
  if (slot.port == 0) slot.port = detail::BoundPort(fd);
  slot.listenFd = fd;
  slot.listening = true;
}

void FleetWorker::Unplug(size_t i) {
  Slot& slot = slots_[i];
  if (slot.listenFd >= 0) close(slot.listenFd);
  slot.listenFd = -1;
  slot.listening = false;
  while (!slot.connections.empty()) Close(slot.connections.front());
}

void FleetWorker::Run() {
  std::vector<epoll_event> events(kMaxEvents);
  while (!stop_) {
    // Fails only when interrupted: the descriptors and the buffer are the thread's own.
    const int n = std::max(0, epoll_wait(epollFd_, events.data(), kMaxEvents, Timeout(Clock::now())));
    const auto now = Clock::now();
    bool wake = false;
    for (int k = 0; k < n; ++k) {
      if (events[size_t(k)].data.u64 == kWakeId)
        wake = true;
      else
        Dispatch(events[size_t(k)], now);
    }
    RunTimers(Clock::now());
    if (wake) RunCommands();
  }
}

void FleetWorker::Dispatch(const epoll_event& ev, Clock::time_point now) {
  if ((ev.data.u64 & kConnectionBit) == 0) {
    Accept(size_t(ev.data.u64));
    return;
  }
  // A connection closed earlier in this batch has no entry any more.
  const auto found = connections_.find(ev.data.u64);
  if (found == connections_.end()) return;
  Connection& c = *found->second;
  if (ev.events & EPOLLOUT) Flush(c);
  if (!c.gone && (ev.events & (EPOLLIN | EPOLLHUP | EPOLLERR))) Read(c, now);
  if (c.gone) Close(c.id);
}

void FleetWorker::Accept(size_t i) {
  Slot& slot = slots_[i];
  if (slot.listenFd < 0) return;
  for (int fd; (fd = detail::AcceptTcp(slot.listenFd)) >= 0;) {
    // A host that went away without a word leaves its connection behind; the oldest goes.
    if (slot.connections.size() >= kMaxConnectionsPerGateway) Close(slot.connections.front());
    const uint64_t id = kConnectionBit | nextId_++;
    auto c = std::make_unique<Connection>(id, fd, i, *slot.gateway, options_.stallMs);
    try {
      Watch(epollFd_, fd, id, EPOLLIN);
    } catch (const std::system_error&) {
      close(fd);
      continue;
    }
    connections_.emplace(id, std::move(c));
    slot.connections.push_back(id);
    ++slot.accepted;
    ++slot.open;
  }
}

void FleetWorker::Read(Connection& c, Clock::time_point now) {
  const ssize_t got = recv(c.fd, buffer_.data(), buffer_.size(), 0);
  if (got > 0) {
    c.session.Receive({buffer_.data(), size_t(got)}, now);
    Step(c, now);
  } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    c.gone = true;
  }
}

// Sends what waits for room, and stops asking for room once all is out.
void FleetWorker::Flush(Connection& c) {
  if (c.unsent.empty()) return;
  const ssize_t n = send(c.fd, c.unsent.data(), c.unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
    c.gone = true;
    return;
  }
  if (n > 0) c.unsent.erase(c.unsent.begin(), c.unsent.begin() + n);
  if (c.unsent.empty()) Watch(epollFd_, c.fd, c.id, EPOLLIN, EPOLL_CTL_MOD);
}

void FleetWorker::Transmit(Connection& c, std::span<const uint8_t> bytes) {
  size_t done = 0;
  if (c.unsent.empty()) {
    const ssize_t n = send(c.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      c.gone = true;
      return;
    }
    done = n > 0 ? size_t(n) : 0;
    if (done == bytes.size()) return;
    Watch(epollFd_, c.fd, c.id, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
  }
  c.unsent.insert(c.unsent.end(), bytes.begin() + ptrdiff_t(done), bytes.end());
  if (c.unsent.size() > kMaxUnsent) c.gone = true;
}

// Everything whose time has come: stalled frames given up, answers sent or dropped. A paced
// answer holds back the ones behind it until its last byte is out, as on the line.
void FleetWorker::Step(Connection& c, Clock::time_point now) {
  c.session.CheckStall(now);
  while (!c.gone) {
    if (c.pacer) {
      StepPacer(c, now);
      if (c.pacer) break;
    }
    auto item = c.session.TakeDue(now);
    if (!item) break;
    Delivery& d = item->delivery;
    if (d.action == Delivery::Action::Drop) {
      c.gone = true;
    } else if (d.action == Delivery::Action::Send && d.paceBaud) {
      c.pacer = Pacer{std::move(d.bytes), now, std::chrono::nanoseconds(int64_t(10) * 1000000000 / d.paceBaud)};
    } else if (d.action == Delivery::Action::Send) {
      Transmit(c, d.bytes);
    }
  }
  if (!c.gone) Reschedule(c);
}

void FleetWorker::StepPacer(Connection& c, Clock::time_point now) {
  Pacer& p = *c.pacer;
  const size_t due = std::min(p.bytes.size(), size_t((now - p.start) / p.byteTime));
  if (due > p.written) {
    // Behind time (a late wake-up): catch up in one write rather than drift.
    Transmit(c, std::span<const uint8_t>(p.bytes).subspan(p.written, due - p.written));
    p.written = due;
  }
  if (p.written == p.bytes.size()) c.pacer.reset();
}

void FleetWorker::Reschedule(Connection& c) {
  const std::optional<Clock::time_point> next = c.pacer ? c.pacer->NextByte() : c.session.NextWake();
  if (!next || (c.wake && *c.wake <= *next)) return;
  c.wake = next;
  timers_.emplace(*next, c.id);
}

void FleetWorker::RunTimers(Clock::time_point now) {
  while (!timers_.empty() && timers_.top().first <= now) {
    const Timer timer = timers_.top();
    timers_.pop();
    const auto found = connections_.find(timer.second);
    // Only the connection's latest timer counts; earlier ones were superseded.
    if (found == connections_.end() || found->second->wake != timer.first) continue;
    Connection& c = *found->second;
    c.wake.reset();
    Step(c, now);
    if (c.gone) Close(c.id);
  }
}

int FleetWorker::Timeout(Clock::time_point now) const {
  if (timers_.empty()) return -1;
  const auto due = timers_.top().first;
  if (due <= now) return 0;
  // Rounded up: waking a moment early would only spin.
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(due - now).count();
  return int(std::min<int64_t>((us + 999) / 1000, 60000));
}

void FleetWorker::Close(uint64_t id) {
  const auto found = connections_.find(id);
  if (found == connections_.end()) return;
  Connection& c = *found->second;
  close(c.fd);
  Slot& slot = slots_[c.gateway];
  std::erase(slot.connections, id);
  --slot.open;
  connections_.erase(found);
}

// --- the fleet ------------------------------------------------------------------------------

struct Fleet::Impl {
  explicit Impl(FleetOptions o) : options(std::move(o)), slots(options.count) {}
  ~Impl() {
    workers.clear();  // the threads stop before the sockets they watch are closed
    for (Slot& slot : slots) {
      if (slot.listenFd >= 0) close(slot.listenFd);
    }
  }
  FleetWorker& WorkerOf(size_t i) { return *workers[i % workers.size()]; }

  FleetOptions options;
  std::vector<Slot> slots;
  std::vector<std::unique_ptr<FleetWorker>> workers;
};

Fleet::Fleet(FleetOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
  const FleetOptions& o = impl_->options;
  if (o.firstPort != 0 && size_t(o.firstPort) + o.count - 1 > 65535)
    throw std::system_error(EINVAL, std::generic_category(), "the fleet's ports would go beyond 65535");
  const size_t threads = std::max<size_t>(1, std::min<size_t>(o.threads, o.count));
  for (size_t w = 0; w < threads; ++w) impl_->workers.push_back(std::make_unique<FleetWorker>(impl_->slots, o));
  for (size_t i = 0; i < impl_->slots.size(); ++i) {
    Slot& slot = impl_->slots[i];
    slot.gateway = std::make_unique<Gateway>(o.station);
    slot.gateway->SetLogCapacity(o.logCapacity);
    slot.port = o.firstPort ? uint16_t(o.firstPort + i) : 0;
    // Before the threads start, so the constructor's own thread may open the sockets.
    impl_->WorkerOf(i).Listen(i);
  }
  for (auto& worker : impl_->workers) worker->Start();
}

Fleet::~Fleet() = default;

size_t Fleet::Size() const { return impl_->slots.size(); }
uint16_t Fleet::TcpPort(size_t i) const { return impl_->slots.at(i).port; }
const std::string& Fleet::Address() const { return impl_->options.address; }
Gateway& Fleet::At(size_t i) { return *impl_->slots.at(i).gateway; }
bool Fleet::Listening(size_t i) const { return impl_->slots.at(i).listening; }
uint32_t Fleet::ConnectionsAccepted(size_t i) const { return impl_->slots.at(i).accepted; }
uint32_t Fleet::OpenConnections(size_t i) const { return impl_->slots.at(i).open; }

void Fleet::SetListening(size_t i, bool listening) {
  if (i >= impl_->slots.size()) throw std::out_of_range("no gateway " + std::to_string(i) + " in the fleet");
  FleetWorker& worker = impl_->WorkerOf(i);
  worker.Call([&worker, i, listening] { listening ? worker.Listen(i) : worker.Unplug(i); });
}

std::string FleetGatewayName(size_t i, size_t count) {
  const std::string number = std::to_string(i + 1);
  const size_t width = std::to_string(count).size();
  return "gw" + std::string(width > number.size() ? width - number.size() : 0, '0') + number;
}

size_t FleetDescriptors(size_t count) { return 2 * count + 64; }

bool RaiseDescriptorLimit(size_t needed, std::string* error) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    *error = std::string("cannot read the open-file limit: ") + std::strerror(errno);
    return false;
  }
  if (limit.rlim_cur >= needed) return true;
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed) {
    *error = "the open-file limit is " + std::to_string(limit.rlim_max) + " (hard), " + std::to_string(needed) +
             " are needed; raise the hard limit (ulimit -Hn, limits.conf or the service's LimitNOFILE)";
    return false;
  }
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    *error = std::string("cannot raise the open-file limit: ") + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace tamrik::sim
