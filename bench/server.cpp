// tamrik-bench-server: the far end of every benchmark, always in a process of its own so
// that the benchmark measures two processes talking over the kernel, as a host and a
// gateway would.
//
//   tamrik-bench-server bare   tcp|udp|pty [--answer M]
//   tamrik-bench-server sim    tcp|udp|pty --model FILE [--pace BAUD] [--stats FILE]
//   tamrik-bench-server modbus tcp|rtu
//   common: --seconds S   (the server ends by itself after S seconds; default 300)
//
// bare: the limit of a transport. Answers every request frame (one datagram on UDP) with M
//   bytes at once and does nothing else; the M bytes are a well-formed answer to the
//   request's code, so that the driver can be run against it too.
// sim: the simulator's service engine and station model behind the plainest loop that
//   serves it: blocking read, frame search, answer, one write. With --pace the pty line
//   behaves as a UART at that speed in both directions: a request counts as received when
//   its last byte would have crossed the wire, and the answer leaves byte by byte. The
//   simulator's own time (request received to answer on the wire, and how late the last
//   answer byte left) is written to --stats when it stops.
// modbus: a libmodbus server with 16 holding registers, slave 1.
//
// Prints one line once it serves ("tcp 127.0.0.1 PORT", "udp 127.0.0.1 PORT", "pty PATH"),
// and stops on SIGTERM or SIGINT.
#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <modbus.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "SimEngine.h"
#include "SimFrame.h"
#include "SimStation.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStop(int) { g_stop = 1; }

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "tamrik-bench-server: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

int64_t NowNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void SleepUntilNs(int64_t ns) {
  timespec t{time_t(ns / 1000000000), long(ns % 1000000000)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR && !g_stop) {
  }
}

void Announce(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

bool WriteAll(int fd, const uint8_t* data, size_t n) {
  while (n > 0 && !g_stop) {
    const ssize_t w = write(fd, data, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += w;
    n -= size_t(w);
  }
  return n == 0;
}

// --- the transports --------------------------------------------------------------------

int ListenTcp() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Die("socket");
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Die("bind");
  if (listen(fd, 4) != 0) Die("listen");
  return fd;
}

int BindUdp() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Die("socket");
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Die("bind");
  return fd;
}

uint16_t PortOf(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) Die("getsockname");
  return ntohs(a.sin_port);
}

// Waits for one connection; -1 once the server is told to stop.
int AcceptOne(int listenFd) {
  while (!g_stop) {
    const int c = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (c >= 0) {
      const int on = 1;
      setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      return c;
    }
    if (errno != EINTR && errno != ECONNABORTED) Die("accept");
  }
  return -1;
}

// Listens on loopback, announces the port and serves one connection after the other with
// serve until the server is told to stop.
template <typename Serve>
void ServeTcp(Serve serve) {
  const int l = ListenTcp();
  Announce("tcp 127.0.0.1 " + std::to_string(PortOf(l)));
  while (!g_stop) {
    const int c = AcceptOne(l);
    if (c < 0) break;
    serve(c);
    close(c);
  }
}

struct Pty {
  int master = -1;
  int slave = -1;  // held open so that a client closing the device never hangs up the line
  std::string path;
};

Pty OpenRawPty() {
  Pty p;
  if (openpty(&p.master, &p.slave, nullptr, nullptr, nullptr) != 0) Die("openpty");
  termios t{};
  tcgetattr(p.slave, &t);
  cfmakeraw(&t);
  tcsetattr(p.slave, TCSANOW, &t);
  char name[PATH_MAX] = {};
  if (ptsname_r(p.master, name, sizeof name) != 0) Die("ptsname");
  p.path = name;
  return p;
}

// --- bare ---------------------------------------------------------------------------------

// Answers every request frame with the same number of bytes: a well-formed answer (request
// code + 0x4000, check value) with length - 7 data bytes, so that the driver can be run
// against the limit too. It reads nothing but the frame's header, allocates nothing per
// request, and keeps the answer of the last code it saw.
class BareAnswers {
 public:
  explicit BareAnswers(size_t length) : data_(length >= 7 ? length - 7 : 0) {
    for (size_t i = 0; i < data_.size(); ++i) data_[i] = uint8_t(i + 1);
  }
  const std::vector<uint8_t>& For(uint16_t requestCode) {
    const uint16_t code = uint16_t(requestCode + 0x4000);
    if (frame_.empty() || code != code_) {
      frame_ = tamrik::sim::BuildFrame(code, data_);
      code_ = code;
    }
    return frame_;
  }

 private:
  std::vector<uint8_t> data_;
  std::vector<uint8_t> frame_;
  uint16_t code_ = 0;
};

// Length of the frame at the start of bytes (start byte, code, length, data, check value),
// or 0 while its header is incomplete. A byte that is no start byte counts as a frame of
// one byte, to be skipped.
size_t FrameLength(const uint8_t* bytes, size_t have) {
  if (have == 0) return 0;
  if (bytes[0] != 0xAA) return 1;
  if (have < 5) return 0;
  return size_t(bytes[3] | (bytes[4] << 8)) + 7;
}

void BareStream(int fd, BareAnswers& answers) {
  std::vector<uint8_t> buf(65536 + 7);
  size_t have = 0;
  while (!g_stop) {
    const ssize_t n = read(fd, buf.data() + have, buf.size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    have += size_t(n);
    size_t used = 0;
    for (;;) {
      const size_t length = FrameLength(buf.data() + used, have - used);
      if (length == 0 || length > have - used) break;
      if (length > 1) {
        const auto& answer = answers.For(uint16_t(buf[used + 1] | (buf[used + 2] << 8)));
        if (!WriteAll(fd, answer.data(), answer.size())) return;
      }
      used += length;
    }
    have -= used;
    std::memmove(buf.data(), buf.data() + used, have);
  }
}

void RunBare(const std::string& transport, size_t answerLength) {
  BareAnswers answers(answerLength);
  if (transport == "tcp") {
    ServeTcp([&answers](int c) { BareStream(c, answers); });
  } else if (transport == "udp") {
    const int fd = BindUdp();
    Announce("udp 127.0.0.1 " + std::to_string(PortOf(fd)));
    std::vector<uint8_t> buf(65536);
    while (!g_stop) {
      sockaddr_in peer{};
      socklen_t len = sizeof peer;
      const ssize_t n = recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&peer), &len);
      if (n < 3) continue;
      const auto& answer = answers.For(uint16_t(buf[1] | (buf[2] << 8)));
      sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer), len);
    }
  } else {
    const Pty p = OpenRawPty();
    Announce("pty " + p.path);
    BareStream(p.master, answers);
  }
}

// --- sim ----------------------------------------------------------------------------------

// What the simulator adds to an exchange beyond the wire time: from the moment the request
// has crossed the wire to the start of the answer, and how late its last byte left.
struct OwnTime {
  std::vector<int64_t> ns;
  void Add(int64_t v) {
    if (ns.size() < 1000000) ns.push_back(v);
  }
};

class SimServer {
 public:
  SimServer(tamrik::sim::Station station, uint32_t paceBaud)
      : engine_(std::move(station)), byteNs_(paceBaud ? int64_t(10) * 1000000000 / paceBaud : 0) {}

  // Serves a byte stream until it ends or the server stops.
  void Stream(int fd) {
    parser_.Reset();
    std::vector<uint8_t> buf(65536);
    while (!g_stop) {
      const ssize_t n = read(fd, buf.data(), buf.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      // A UART hands over a request's first byte one byte time after it started; the
      // pseudo-terminal delivers it at once, which is when the line would have begun. Only a
      // paced line needs the time.
      if (byteNs_ != 0 && !parser_.HasPartialFrame()) firstByteNs_ = NowNs();
      parser_.Feed({buf.data(), size_t(n)});
      while (parser_.Next(&event_)) {
        if (event_.kind != tamrik::sim::FrameParser::Kind::Frame) continue;
        if (!Answer(fd, event_.frame)) return;
        if (byteNs_ != 0) firstByteNs_ = NowNs();
      }
    }
  }

  void Datagrams(int fd) {
    std::vector<uint8_t> buf(65536);
    while (!g_stop) {
      sockaddr_in peer{};
      socklen_t len = sizeof peer;
      const ssize_t n = recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&peer), &len);
      if (n <= 0) continue;
      parser_.Reset();
      parser_.Feed({buf.data(), size_t(n)});
      while (parser_.Next(&event_)) {
        if (event_.kind != tamrik::sim::FrameParser::Kind::Frame) continue;
        const auto answer = engine_.Respond(event_.frame.code, event_.frame.data);
        if (!answer) continue;
        tamrik::sim::BuildFrame(answer->code, answer->data, &frame_);
        sendto(fd, frame_.data(), frame_.size(), 0, reinterpret_cast<sockaddr*>(&peer), len);
      }
    }
  }

  const OwnTime& own() const { return own_; }

 private:
  bool Answer(int fd, const tamrik::sim::ParsedFrame& request) {
    if (byteNs_ == 0) {
      const auto answer = engine_.Respond(request.code, request.data);
      if (!answer) return true;
      tamrik::sim::BuildFrame(answer->code, answer->data, &frame_);
      return WriteAll(fd, frame_.data(), frame_.size());
    }
    // The request is in when its last stop bit has passed.
    const int64_t received = firstByteNs_ + byteNs_ * int64_t(request.raw.size());
    SleepUntilNs(received);
    const auto answer = engine_.Respond(request.code, request.data);
    if (!answer) return true;
    const std::vector<uint8_t> frame = tamrik::sim::BuildFrame(answer->code, answer->data);
    // The answer starts on the wire now; each byte is handed over when its stop bit has
    // passed, as a UART would deliver it.
    const int64_t wire = NowNs();
    size_t written = 0;
    while (written < frame.size() && !g_stop) {
      const size_t due = std::min(frame.size(), size_t((NowNs() - wire) / byteNs_));
      if (due > written) {
        if (!WriteAll(fd, frame.data() + written, due - written)) return false;
        written = due;
      } else {
        SleepUntilNs(wire + byteNs_ * int64_t(written + 1));
      }
    }
    // A wake-up that comes late delays the exchange as much as a slow answer does: both
    // count as the simulator's own time.
    const int64_t lastDue = wire + byteNs_ * int64_t(frame.size());
    own_.Add((wire - received) + std::max<int64_t>(0, NowNs() - lastDue));
    return true;
  }

  tamrik::sim::ServiceEngine engine_;
  tamrik::sim::FrameParser parser_;
  // Kept from one request to the next: a gateway answers from buffers it already has.
  tamrik::sim::FrameParser::Event event_;
  std::vector<uint8_t> frame_;
  const int64_t byteNs_;
  int64_t firstByteNs_ = 0;
  OwnTime own_;
};

void RunSim(const std::string& transport, const std::string& model, uint32_t paceBaud,
            const std::string& statsFile) {
  std::string error;
  auto station = tamrik::sim::LoadStationFile(model, &error);
  if (!station) {
    std::fprintf(stderr, "tamrik-bench-server: %s\n", error.c_str());
    std::exit(1);
  }
  // Freed image buffers stay with the process, so that a download after the first ones
  // writes into pages that are already there (see the image section of the benchmark).
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
  SimServer server(std::move(*station), paceBaud);
  if (transport == "tcp") {
    ServeTcp([&server](int c) { server.Stream(c); });
  } else if (transport == "udp") {
    const int fd = BindUdp();
    Announce("udp 127.0.0.1 " + std::to_string(PortOf(fd)));
    server.Datagrams(fd);
  } else {
    const Pty p = OpenRawPty();
    Announce("pty " + p.path);
    server.Stream(p.master);
  }
  if (!statsFile.empty()) {
    if (FILE* f = std::fopen(statsFile.c_str(), "w")) {
      std::vector<int64_t> ns = server.own().ns;
      std::sort(ns.begin(), ns.end());
      long long sum = 0;
      for (int64_t v : ns) sum += v;
      // count, sum, median, in ns
      std::fprintf(f, "%zu %lld %lld\n", ns.size(), sum, ns.empty() ? 0LL : static_cast<long long>(ns[ns.size() / 2]));
      std::fclose(f);
    }
  }
}

// --- libmodbus ------------------------------------------------------------------------------

void ServeModbus(modbus_t* ctx, modbus_mapping_t* map) {
  uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH > MODBUS_TCP_MAX_ADU_LENGTH ? MODBUS_RTU_MAX_ADU_LENGTH
                                                                      : MODBUS_TCP_MAX_ADU_LENGTH];
  while (!g_stop) {
    const int n = modbus_receive(ctx, query);
    if (n > 0) {
      modbus_reply(ctx, query, n, map);
    } else if (n < 0 && errno != EINTR && errno != EMBBADCRC) {
      return;  // the client went away
    }
  }
}

void RunModbus(const std::string& transport) {
  modbus_mapping_t* map = modbus_mapping_new(0, 0, 16, 0);
  if (map == nullptr) Die("modbus_mapping_new");
  for (int i = 0; i < 16; ++i) map->tab_registers[i] = uint16_t(0x1100 + i);
  if (transport == "tcp") {
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", 0);
    if (ctx == nullptr) Die("modbus_new_tcp");
    const int l = modbus_tcp_listen(ctx, 1);
    if (l < 0) Die("modbus_tcp_listen");
    Announce("tcp 127.0.0.1 " + std::to_string(PortOf(l)));
    while (!g_stop) {
      int listenFd = l;
      if (modbus_tcp_accept(ctx, &listenFd) < 0) {
        if (errno == EINTR) continue;
        Die("modbus_tcp_accept");
      }
      // The same as our own servers get, so that neither side waits on Nagle.
      const int on = 1;
      setsockopt(modbus_get_socket(ctx), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      ServeModbus(ctx, map);
      close(modbus_get_socket(ctx));
    }
    modbus_free(ctx);
  } else {
    const Pty p = OpenRawPty();
    // The RTU back end reads and writes its descriptor; the master end of the pair is ours.
    modbus_t* ctx = modbus_new_rtu(p.path.c_str(), 115200, 'N', 8, 1);
    if (ctx == nullptr) Die("modbus_new_rtu");
    modbus_set_slave(ctx, 1);
    modbus_set_socket(ctx, p.master);
    Announce("pty " + p.path);
    ServeModbus(ctx, map);
    modbus_free(ctx);
  }
  modbus_mapping_free(map);
}

void Usage() {
  std::fprintf(stderr,
               "usage: tamrik-bench-server bare tcp|udp|pty [--answer M]\n"
               "       tamrik-bench-server sim tcp|udp|pty --model FILE [--pace BAUD] [--stats FILE]\n"
               "       tamrik-bench-server modbus tcp|rtu\n"
               "       common: --seconds S (default 300)\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    Usage();
    return 2;
  }
  const std::string mode = argv[1], transport = argv[2];
  size_t answer = 16;
  uint32_t pace = 0;
  unsigned seconds = 300;
  std::string model, stats;
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) {
      Usage();
      return 2;
    }
    const char* value = argv[++i];
    if (arg == "--answer") answer = std::strtoul(value, nullptr, 10);
    else if (arg == "--pace") pace = uint32_t(std::strtoul(value, nullptr, 10));
    else if (arg == "--seconds") seconds = unsigned(std::strtoul(value, nullptr, 10));
    else if (arg == "--model") model = value;
    else if (arg == "--stats") stats = value;
    else {
      Usage();
      return 2;
    }
  }
  const bool known = (mode == "bare" || mode == "sim") ? (transport == "tcp" || transport == "udp" || transport == "pty")
                     : mode == "modbus"                ? (transport == "tcp" || transport == "rtu")
                                                       : false;
  if (!known || answer < 7 || (mode == "sim" && model.empty())) {
    Usage();
    return 2;
  }

  // Without SA_RESTART a stop signal interrupts the blocking call the server sits in. The
  // libmodbus server waits in a call that starts again after a signal, and has nothing to
  // report when it stops: the default action ends it at once.
  if (mode != "modbus") {
    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
  }
  signal(SIGPIPE, SIG_IGN);
  // Whatever becomes of the benchmark, this process does not outlive its bound.
  alarm(seconds);
  // Paced bytes need sleeps that end close to their time; the default slack is 50 us.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);

  if (mode == "bare") RunBare(transport, answer);
  else if (mode == "sim") RunSim(transport, model, pace, stats);
  else RunModbus(transport);
  return 0;
}
