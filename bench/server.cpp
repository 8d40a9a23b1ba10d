// tamrik-bench-server: the far end of every benchmark, always in a process of its own so
// that the benchmark measures two processes talking over the kernel, as a host and a
// gateway would.
//
//   tamrik-bench-server bare   tcp|udp|pty [--request N] [--answer M]
//   tamrik-bench-server sim    tcp|udp|pty --model FILE [--pace BAUD] [--stats FILE]
//   tamrik-bench-server modbus tcp|rtu
//   common: --seconds S   (the server ends by itself after S seconds; default 300)
//
// bare: the limit of a transport. Reads N request bytes (one datagram on UDP) and answers
//   with M bytes, nothing else; the M bytes are a well-formed answer frame of the input
//   service, so that the driver can be run against it too.
// sim: the simulator's service engine and station model behind the plainest loop that
//   serves it: blocking read, frame search, answer, one write. With --pace the pty line
//   behaves as a UART at that speed in both directions: a request counts as received when
//   its last byte would have crossed the wire, and the answer leaves byte by byte. The
//   turnaround (request received to first answer byte on the wire) is written to --stats.
// modbus: a libmodbus server with 16 holding registers, slave 1.
//
// Prints one line once it serves ("tcp 127.0.0.1 PORT", "udp 127.0.0.1 PORT", "pty PATH"),
// and stops on SIGTERM or SIGINT.
#include <arpa/inet.h>
#include <fcntl.h>
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

std::vector<uint8_t> BareAnswer(size_t length) {
  // The input service's answer with length - 7 data bytes: a real frame, so that the same
  // server also shows what the driver costs without a simulator behind it.
  std::vector<uint8_t> data(length >= 7 ? length - 7 : 0);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i + 1);
  std::vector<uint8_t> frame = tamrik::sim::BuildFrame(0x4003, data);
  frame.resize(length);
  return frame;
}

// Serves a byte stream: every `request` bytes read are answered with `answer`.
void BareStream(int fd, size_t request, const std::vector<uint8_t>& answer) {
  std::vector<uint8_t> buf(std::max<size_t>(request, 4096));
  size_t have = 0;
  while (!g_stop) {
    const ssize_t n = read(fd, buf.data() + have, buf.size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    have += size_t(n);
    while (have >= request) {
      if (!WriteAll(fd, answer.data(), answer.size())) return;
      have -= request;
      std::memmove(buf.data(), buf.data() + request, have);
    }
  }
}

void RunBare(const std::string& transport, size_t request, size_t answerLength) {
  const std::vector<uint8_t> answer = BareAnswer(answerLength);
  if (transport == "tcp") {
    const int l = ListenTcp();
    Announce("tcp 127.0.0.1 " + std::to_string(PortOf(l)));
    while (!g_stop) {
      const int c = AcceptOne(l);
      if (c < 0) break;
      BareStream(c, request, answer);
      close(c);
    }
  } else if (transport == "udp") {
    const int fd = BindUdp();
    Announce("udp 127.0.0.1 " + std::to_string(PortOf(fd)));
    std::vector<uint8_t> buf(65536);
    while (!g_stop) {
      sockaddr_in peer{};
      socklen_t len = sizeof peer;
      const ssize_t n = recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&peer), &len);
      if (n < 0) continue;
      sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer), len);
    }
  } else {
    const Pty p = OpenRawPty();
    Announce("pty " + p.path);
    BareStream(p.master, request, answer);
  }
}

// --- sim ----------------------------------------------------------------------------------

struct Turnaround {
  uint64_t count = 0;
  int64_t sumNs = 0;
  int64_t maxNs = 0;
  void Add(int64_t ns) {
    ++count;
    sumNs += ns;
    maxNs = std::max(maxNs, ns);
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
      // pseudo-terminal delivers it at once, which is when the line would have begun.
      if (!parser_.HasPartialFrame()) firstByteNs_ = NowNs();
      parser_.Feed({buf.data(), size_t(n)});
      while (auto ev = parser_.Next()) {
        if (ev->kind != tamrik::sim::FrameParser::Kind::Frame) continue;
        if (!Answer(fd, ev->frame)) return;
        firstByteNs_ = NowNs();
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
      while (auto ev = parser_.Next()) {
        if (ev->kind != tamrik::sim::FrameParser::Kind::Frame) continue;
        const auto answer = engine_.Respond(ev->frame.code, ev->frame.data);
        if (!answer) continue;
        const std::vector<uint8_t> frame = tamrik::sim::BuildFrame(answer->code, answer->data);
        sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&peer), len);
      }
    }
  }

  const Turnaround& turnaround() const { return turnaround_; }

 private:
  bool Answer(int fd, const tamrik::sim::ParsedFrame& request) {
    if (byteNs_ == 0) {
      const auto answer = engine_.Respond(request.code, request.data);
      if (!answer) return true;
      const std::vector<uint8_t> frame = tamrik::sim::BuildFrame(answer->code, answer->data);
      return WriteAll(fd, frame.data(), frame.size());
    }
    // The request is in when its last stop bit has passed.
    const int64_t received = firstByteNs_ + byteNs_ * int64_t(request.raw.size());
    SleepUntilNs(received);
    const int64_t start = std::max(received, NowNs());
    const auto answer = engine_.Respond(request.code, request.data);
    if (!answer) return true;
    const std::vector<uint8_t> frame = tamrik::sim::BuildFrame(answer->code, answer->data);
    // The answer starts on the wire now; each byte is handed over when its stop bit has
    // passed, as a UART would deliver it.
    const int64_t wire = NowNs();
    turnaround_.Add(wire - start);
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
    return true;
  }

  tamrik::sim::ServiceEngine engine_;
  tamrik::sim::FrameParser parser_;
  const int64_t byteNs_;
  int64_t firstByteNs_ = 0;
  Turnaround turnaround_;
};

void RunSim(const std::string& transport, const std::string& model, uint32_t paceBaud,
            const std::string& statsFile) {
  std::string error;
  auto station = tamrik::sim::LoadStationFile(model, &error);
  if (!station) {
    std::fprintf(stderr, "tamrik-bench-server: %s\n", error.c_str());
    std::exit(1);
  }
  SimServer server(std::move(*station), paceBaud);
  if (transport == "tcp") {
    const int l = ListenTcp();
    Announce("tcp 127.0.0.1 " + std::to_string(PortOf(l)));
    while (!g_stop) {
      const int c = AcceptOne(l);
      if (c < 0) break;
      server.Stream(c);
      close(c);
    }
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
      const Turnaround& t = server.turnaround();
      std::fprintf(f, "%llu %lld %lld\n", static_cast<unsigned long long>(t.count),
                   static_cast<long long>(t.sumNs), static_cast<long long>(t.maxNs));
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
               "usage: tamrik-bench-server bare tcp|udp|pty [--request N] [--answer M]\n"
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
  size_t request = 7, answer = 16;
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
    if (arg == "--request") request = std::strtoul(value, nullptr, 10);
    else if (arg == "--answer") answer = std::strtoul(value, nullptr, 10);
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
  if (!known || request == 0 || answer < 7 || (mode == "sim" && model.empty())) {
    Usage();
    return 2;
  }

  // Without SA_RESTART a stop signal interrupts the blocking call the server sits in.
  struct sigaction sa {};
  sa.sa_handler = OnStop;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
  // Whatever becomes of the benchmark, this process does not outlive its bound.
  alarm(seconds);
  // Paced bytes need sleeps that end close to their time; the default slack is 50 us.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);

  if (mode == "bare") RunBare(transport, request, answer);
  else if (mode == "sim") RunSim(transport, model, pace, stats);
  else RunModbus(transport);
  return 0;
}
