// tamrik-bench: the driver's exchanges against the bare round trip of each transport and
// against libmodbus, image download throughput, serial timing, and the cost per call, in
// one run and one table. Every far end is a process of its own on this machine; all
// traffic stays on loopback and pseudo-terminals.
//
//   tamrik-bench [--quick] [--one-cpu|--spread|--across] [--only SECTIONS] [--server PATH]
//                [--sim PATH] [--python PATH]
#include <arpa/inet.h>
#include <sched.h>
#include <fcntl.h>
#include <modbus.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "AllocCount.h"
#include "Codec.h"
#include "FleetRun.h"
#include "Text.h"
#include "Placement.h"
#include "Process.h"
#include "com.h"
#include "protocol/Codec.h"

namespace tb = tamrik::bench;
using tamrik::bench::Format;

namespace {

// --- time and statistics ---------------------------------------------------------------------

int64_t NowNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

struct Stats {
  size_t count = 0;
  double perSecond = 0;
  // Exchanges per second over the fastest 90 %: the slowest tenth is where load from
  // elsewhere on the machine lands, at random, on whichever side runs at the time.
  double typicalPerSecond = 0;
  double meanUs = 0;
  double p50Us = 0;
  double p99Us = 0;
};

// Times of single exchanges, in ns.
class Samples {
 public:
  void Reserve(size_t more) {
    if (ns_.capacity() < ns_.size() + more) ns_.reserve(ns_.size() + more);
  }
  void Add(int64_t ns) { ns_.push_back(uint32_t(std::min<int64_t>(ns, UINT32_MAX))); }

  Stats Summary() const {
    Stats s;
    s.count = ns_.size();
    if (s.count == 0) return s;
    std::vector<uint32_t> sorted = ns_;
    std::sort(sorted.begin(), sorted.end());
    double total = 0;
    for (uint32_t v : sorted) total += v;
    s.perSecond = double(s.count) / (total / 1e9);
    const size_t kept = std::max<size_t>(1, sorted.size() * 9 / 10);
    double keptTotal = 0;
    for (size_t i = 0; i < kept; ++i) keptTotal += sorted[i];
    s.typicalPerSecond = double(kept) / (keptTotal / 1e9);
    s.meanUs = total / double(s.count) / 1000.0;
    s.p50Us = sorted[sorted.size() / 2] / 1000.0;
    s.p99Us = sorted[std::min(sorted.size() - 1, sorted.size() * 99 / 100)] / 1000.0;
    return s;
  }

 private:
  std::vector<uint32_t> ns_;
};

// One side of a comparison: what it does once, and the time each exchange took.
class Target {
 public:
  explicit Target(std::string name) : name_(std::move(name)) {}
  virtual ~Target() = default;
  const std::string& name() const { return name_; }

  // One exchange; false when it failed (no answer, a wrong answer).
  virtual bool Exchange() = 0;
  virtual std::string LastError() const { return {}; }

  // Up to n exchanges, recorded, ending early at the deadline. Throws after repeated
  // failures: a measurement of failing exchanges measures nothing.
  virtual void Run(size_t n, int64_t deadlineNs) {
    samples_.Reserve(n);
    for (size_t i = 0; i < n; ++i) {
      const int64_t t0 = NowNs();
      const bool ok = Exchange();
      const int64_t t1 = NowNs();
      if (ok) {
        samples_.Add(t1 - t0);
      } else {
        Failed();
      }
      if (t1 >= deadlineNs) break;
    }
  }

  // Exchanges that are not recorded (warming up, counting allocations).
  virtual void Unrecorded(size_t n) {
    for (size_t i = 0; i < n; ++i) {
      if (!Exchange()) Failed();
    }
  }

  // A side that shares its far end with another, where the far end serves one client at a
  // time, holds its link for its own turns only.
  virtual void BeginTurn() {}
  virtual void EndTurn() {}

  Stats Summary() const { return samples_.Summary(); }
  void ClearSamples() { samples_ = Samples(); }
  uint64_t failures() const { return failures_; }

 protected:
  void Record(int64_t ns) { samples_.Add(ns); }
  void Failed() {
    if (++failures_ > 10) throw std::runtime_error(name_ + ": exchanges fail: " + LastError());
  }

 private:
  std::string name_;
  Samples samples_;
  uint64_t failures_ = 0;
};

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

// --- bare round trip -------------------------------------------------------------------------

// Reads exactly n bytes; false on a time-out (the descriptor's own) or a closed end.
bool ReadExactly(int fd, uint8_t* buffer, size_t n) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = read(fd, buffer + got, n - got);
    if (r > 0) {
      got += size_t(r);
    } else if (r < 0 && errno == EINTR) {
      continue;
    } else {
      return false;
    }
  }
  return true;
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// The client side of the limit: write the request, read the answer, nothing else. Its
// blocking reads are bounded by the descriptor's own receive time-out, which costs no
// extra system call per exchange.
class BareClient : public Target {
 public:
  // request is 7 (the input service) or 263 (an image block): real request frames, so
  // that a simulator would answer them as well as the bare server does. open makes the
  // link: once, or for each turn.
  BareClient(std::string name, std::function<int()> open, size_t request, size_t answer, bool datagram,
             bool perTurn = false)
      : Target(std::move(name)), open_(std::move(open)), perTurn_(perTurn), request_(tamrik::protocol::kMaxFrame),
        answer_(answer), datagram_(datagram) {
    const std::vector<uint8_t> block(request > 7 ? request - 7 : 0, 0x5A);
    const int32_t count = int32_t(block.size());
    const uint32_t code = block.empty() ? 0x003 : 0x121;
    request_.resize(tamrik::protocol::BuildRequest(code, block.data(), &count, request_.data(), request_.size()));
    if (request_.size() != request) throw std::runtime_error("no request frame of " + std::to_string(request) + " bytes");
    if (!perTurn_) fd_ = open_();
  }
  ~BareClient() override {
    if (fd_ >= 0) close(fd_);
  }

  void BeginTurn() override {
    if (fd_ >= 0) return;
    fd_ = open_();
    // The first exchanges of a new link meet cold paths on both sides: not the link's rate.
    Unrecorded(2);
  }
  void EndTurn() override {
    if (!perTurn_ || fd_ < 0) return;
    close(fd_);
    fd_ = -1;
  }

  bool Exchange() override {
    if (write(fd_, request_.data(), request_.size()) != ssize_t(request_.size())) return false;
    if (datagram_) return recv(fd_, answer_.data(), answer_.size(), 0) == ssize_t(answer_.size());
    return ReadExactly(fd_, answer_.data(), answer_.size());
  }

 private:
  std::function<int()> open_;
  bool perTurn_;
  int fd_ = -1;
  std::vector<uint8_t> request_;
  std::vector<uint8_t> answer_;
  bool datagram_;
};

int ConnectSocket(uint16_t port, bool datagram) {
  const int fd = socket(AF_INET, (datagram ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail("socket");
  if (!datagram) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  timeval timeout{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  const sockaddr_in a = Loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) Fail("connect");
  return fd;
}

int OpenRawTty(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) Fail("open " + path);
  termios t{};
  tcgetattr(fd, &t);
  cfmakeraw(&t);
  // A read returns what has arrived, waiting at most two seconds for the first byte.
  t.c_cc[VMIN] = 0;
  t.c_cc[VTIME] = 20;
  tcsetattr(fd, TCSANOW, &t);
  return fd;
}

// --- the driver ----------------------------------------------------------------------------

// Where a driver connects: tcp or udp to a loopback port, or pty through a COM port number.
struct DriverLink {
  std::string transport;
  uint16_t port = 0;
  int comPort = 0;
};

class DriverClient : public Target {
 public:
  DriverClient(std::string name, const tamrik::DriverConfig& config, DriverLink link, bool perTurn = false)
      : Target(std::move(name)), com_(std::make_unique<tamrik::Ccom>(config)), link_(std::move(link)),
        perTurn_(perTurn) {
    if (!perTurn_) Open();
  }
  ~DriverClient() override { Close(); }

  void BeginTurn() override {
    if (open_) return;
    Open();
    Unrecorded(2);  // as a bare client does after its connect
  }
  void EndTurn() override {
    if (perTurn_) Close();
  }

  bool Exchange() override {
    int32_t size = 0, error = 0;
    const uint32_t status = com_->kaVGetProcessInData(values_, &size, &error);
    if (status == 0 && error == 0 && size == 9) return true;
    lastError_ = Format("status 0x%X, error 0x%X, %d values", status, uint32_t(error), size);
    return false;
  }

  tamrik::Ccom& com() { return *com_; }
  std::string LastError() const override { return lastError_; }

 private:
  void Open() {
    int32_t error = 0;
    const std::string& t = link_.transport;
    if (t == "tcp") {
      com_->kaVOpenEthernet(std::to_string(link_.port).c_str(), "127.0.0.1", &error);
    } else if (t == "udp") {
      com_->kaVOpenEthernet((std::to_string(link_.port) + ",UDP").c_str(), "127.0.0.1", &error);
    } else {
      com_->kaVOpenComPort(link_.comPort, &error);
    }
    if (error != 0) throw std::runtime_error(name() + ": driver open failed: " + std::to_string(error));
    open_ = true;
  }
  void Close() {
    if (!open_) return;
    int32_t error = 0;
    com_->kaVCloseComPort(0, &error);
    open_ = false;
  }

  std::unique_ptr<tamrik::Ccom> com_;
  DriverLink link_;
  bool perTurn_;
  bool open_ = false;
  int32_t values_[256] = {};
  std::string lastError_;
};

// --- libmodbus -------------------------------------------------------------------------------

class ModbusClient : public Target {
 public:
  ModbusClient(std::string name, modbus_t* ctx) : Target(std::move(name)), ctx_(ctx) {
    if (ctx_ == nullptr) throw std::runtime_error("libmodbus: no context");
    modbus_set_slave(ctx_, 1);
    modbus_set_response_timeout(ctx_, 2, 0);
    if (modbus_connect(ctx_) != 0) {
      const std::string error = modbus_strerror(errno);
      modbus_free(ctx_);
      throw std::runtime_error("libmodbus connect: " + error);
    }
  }
  ~ModbusClient() override {
    modbus_close(ctx_);
    modbus_free(ctx_);
  }

  bool Exchange() override {
    return modbus_read_registers(ctx_, 0, 4, registers_) == 4 && registers_[3] == 0x1103;
  }

 private:
  modbus_t* ctx_;
  uint16_t registers_[4] = {};
};

// --- Python ----------------------------------------------------------------------------------

// Calls made in a child process (bench/python_client.py under /usr/bin/python3), which
// times each one itself: the interpreter's own cost is the point of these rows, and a turn
// of calls at a time keeps the talk between the two processes out of every call's time.
class RemoteClient : public Target {
 public:
  RemoteClient(std::string name, std::unique_ptr<tb::Conversation> talk)
      : Target(std::move(name)), talk_(std::move(talk)) {}

  bool Exchange() override { return Turn(1, 2000000000LL, false); }
  void Run(size_t n, int64_t deadlineNs) override {
    if (!Turn(n, std::max<int64_t>(deadlineNs - NowNs(), 0), true)) Failed();
  }
  void Unrecorded(size_t n) override {
    if (!Turn(n, 10000000000LL, false)) Failed();
  }
  std::string LastError() const override { return lastError_; }

 private:
  // Up to n calls within budgetNs; false when a call failed. A child that falls silent
  // ends the run: there is nothing left to measure.
  bool Turn(size_t n, int64_t budgetNs, bool record) {
    std::string answer;
    if (!talk_->Send("run " + std::to_string(n) + " " + std::to_string(budgetNs)) ||
        !talk_->Receive(&answer, int(budgetNs / 1000000) + 5000)) {
      throw std::runtime_error(name() + ": the Python client does not answer");
    }
    std::istringstream in(answer);
    std::string word;
    in >> word;
    if (word != "ok") {
      lastError_ = answer;
      return false;
    }
    for (long long ns = 0; in >> ns;) {
      if (record) Record(ns);
    }
    return true;
  }

  std::unique_ptr<tb::Conversation> talk_;
  std::string lastError_;
};

// --- set-up ----------------------------------------------------------------------------------

struct Options {
  bool quick = false;
  // All on one CPU, then where the scheduler puts them; --one-cpu or --spread for one alone.
  std::vector<tb::Placement> placements = {tb::Placement::OneCpu, tb::Placement::Spread};
  std::string only;  // sections to run, by name; all when empty
  std::string profile;  // run only this side, for strace, perf or callgrind
  size_t count = 20000;
  std::string server = TAMRIK_BENCH_SERVER;
  std::string sim = TAMRIK_BENCH_SIM;
  std::string python = "/usr/bin/python3";
  std::string tool = TAMRIK_BENCH_TOOL;
  std::string fleet;  // sizes for the fleet section alone
};

class TempDir {
 public:
  TempDir() {
    char templ[] = "/tmp/tamrik-bench-XXXXXX";
    if (mkdtemp(templ) == nullptr) Fail("mkdtemp");
    path_ = templ;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

// The station behind every driver exchange: three modules whose inputs make 9 bytes, so
// that the input service answers with 16 bytes.
constexpr const char* kStationModel =
    "identity = TAMRIK-BENCH\n"
    "[module]\nid = 0x021101\ntype = D\ninputs = 2\noutputs = 2\n"
    "[module]\nid = 0x045203\ntype = A\ninputs = 4\n"
    "[module]\nid = 0x021102\ntype = D\ninputs = 3\noutputs = 1\n";

uint16_t PortFrom(const std::string& line) {
  // "tcp 127.0.0.1 PORT" from our server, "tcp 127.0.0.1:PORT" from the simulator program.
  const size_t at = line.find_last_of(" :");
  if (at == std::string::npos) throw std::runtime_error("no port in '" + line + "'");
  return uint16_t(std::strtoul(line.c_str() + at + 1, nullptr, 10));
}

std::string PtyFrom(const std::string& line) {
  std::istringstream in(line);
  std::string word, path;
  in >> word >> path;
  if (word != "pty" || path.empty()) throw std::runtime_error("no device in '" + line + "'");
  return path;
}

class Servers {
 public:
  ~Servers() {
    for (auto& c : children_) tb::StopChild(c);
  }
  // placed: the child goes where the run's placement puts the benchmark; the paced far ends
  // keep every CPU, so that their wake-ups on the clock never wait behind the others.
  tb::Child& Start(const std::vector<std::string>& argv, std::unique_ptr<tb::Conversation>* talk = nullptr,
                   bool placed = true) {
    children_.push_back(tb::StartChild(argv, 5000, talk));
    if (placed) placed_.push_back(children_.back().pid);
    return children_.back();
  }
  const std::vector<pid_t>& placed() const { return placed_; }

 private:
  std::deque<tb::Child> children_;  // references handed out stay valid as it grows
  std::vector<pid_t> placed_;
};

// The driver's configuration: tracing off, no demonstration, the serial read time-outs the
// driver writes by default, and the devices of the pseudo-terminals as COM ports. Made in
// memory, as a host of the C interface makes it with tamrik_create_with.
tamrik::DriverConfig DriverSettings(const std::vector<std::pair<int, std::string>>& ports) {
  tamrik::DriverConfig config;
  config.baudrate = 115200;
  for (const auto& [number, path] : ports) config.ports[number] = path;
  return config;
}

// --- output ----------------------------------------------------------------------------------

struct Verdict {
  std::string target;
  std::string measured;
  bool holds = false;
};
std::vector<Verdict> g_verdicts;

void Judge(const std::string& target, const std::string& measured, bool holds) {
  g_verdicts.push_back({target, measured, holds});
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

void PrintRow(const char* transport, const std::string& what, const Stats& s, const std::string& ratios) {
  std::printf("  %-4s %-31s %6zu %8.0f %8.0f %7.1f %8.1f  %s\n", transport, what.c_str(), s.count, s.perSecond,
              s.typicalPerSecond, s.p50Us, s.p99Us, ratios.c_str());
}

// How x compares with reference: x's exchanges per second over the reference's, over the
// fastest 90 % and over all exchanges.
double Ratio(const Stats& x, const Stats& reference) { return x.typicalPerSecond / reference.typicalPerSecond; }
std::string Ratios(const Stats& x, const Stats& reference) {
  return Format("%5.2f %5.2f", Ratio(x, reference), x.perSecond / reference.perSecond);
}

// --- sections --------------------------------------------------------------------------------

constexpr const char* kTimeout = "/usr/bin/timeout";
constexpr int kComSim = 11, kComProgram = 12, kComBare = 13, kComPaced = 14;
constexpr uint32_t kPaceBaud = 115200;
constexpr size_t kImageSize = 4 * 1024 * 1024;
constexpr size_t kImageBlock = 256;

struct Transport {
  std::string name;  // tcp, udp, pty
  tb::Child bareEnd, responderEnd, simEnd, simBlockEnd, imageBareEnd, programEnd, modbusEnd, blockEnd;
  tb::Child pythonSimEnd, pymodbusEnd;
  std::unique_ptr<Target> bare;
  std::unique_ptr<DriverClient> driver;         // against the simulator's engine
  std::unique_ptr<DriverClient> driverProgram;  // against the tamrik-sim program
  std::unique_ptr<DriverClient> driverBare;     // against the bare responder
  std::unique_ptr<Target> modbus;
  std::unique_ptr<Target> bareSim;              // bare client against the driver's simulator engine
  std::unique_ptr<Target> blockBare;            // 263 bytes out, 7 back: one image block
  std::unique_ptr<Target> blockSim;             // the same against the simulator's engine
  std::unique_ptr<DriverClient> imageBare;      // a driver downloading to the bare server
  std::unique_ptr<Target> python;               // Gateway.inputs() of the Python package
  std::unique_ptr<Target> pymodbus;             // pymodbus against a libmodbus server
  double allocationsPerExchange = -1;
  std::vector<double> downloadSeconds;      // against the simulator's engine
  Samples downloadBlocks;
  std::vector<double> bareDownloadSeconds;  // against the bare server
  Samples bareDownloadBlocks;
  std::vector<Target*> Exchangers() {
    std::vector<Target*> all = {bare.get(), driver.get(), driverProgram.get(), driverBare.get(), bareSim.get()};
    for (Target* t : {modbus.get(), python.get(), pymodbus.get()}) {
      if (t != nullptr) all.push_back(t);
    }
    return all;
  }
};

void StartEnds(const Options& opt, const TempDir& dir, Servers& servers, Transport& tr) {
  const std::string model = dir.File("station.model");
  const std::string& t = tr.name;
  tr.bareEnd = servers.Start({opt.server, "bare", t});
  // The same bare server again, for the driver: each client has a far end of its own.
  tr.responderEnd = servers.Start({opt.server, "bare", t});
  // The driver and the bare client it is compared with take turns here.
  tr.simEnd = servers.Start({opt.server, "sim", t, "--model", model});
  // The simulator program runs until it is stopped; timeout bounds it all the same, should
  // this process be killed before it can stop it.
  const std::string bound = "300";
  if (t == "pty") tr.programEnd = servers.Start({kTimeout, bound, opt.sim, "--pty", "--model", model});
  else tr.programEnd = servers.Start({kTimeout, bound, opt.sim, "--" + t, "0", "--model", model});
  if (t == "tcp") {
    tr.modbusEnd = servers.Start({opt.server, "modbus", "tcp"});
    // The Python clients' own: each server has one client at a time.
    tr.pythonSimEnd = servers.Start({opt.server, "sim", t, "--model", model});
    tr.pymodbusEnd = servers.Start({opt.server, "modbus", "tcp"});
  }
  if (t == "pty") tr.modbusEnd = servers.Start({opt.server, "modbus", "rtu"});
  if (t != "pty") {
    tr.blockEnd = servers.Start({opt.server, "bare", t, "--answer", "7"});
    tr.imageBareEnd = servers.Start({opt.server, "bare", t, "--answer", "7"});
    tr.simBlockEnd = servers.Start({opt.server, "sim", t, "--model", model});
  }
}

// The driver and the bare client it is held to share one simulator process, so that both
// meet the same placement of it: where the scheduler puts a process that sleeps between
// requests sticks to it, and decides the round trip more than either client does. Where that
// far end takes one client at a time (a TCP connection, a pseudo-terminal), each of the two
// holds its link for its own turns only.
void ConnectClients(const tamrik::DriverConfig& config, Transport& tr) {
  const std::string& t = tr.name;
  const bool pty = t == "pty", udp = t == "udp";
  const bool perTurn = !udp;
  auto bareTo = [&](const tb::Child& end, size_t request, size_t answer, bool turns, const char* what) {
    const std::string line = end.line;
    std::function<int()> open = [line, pty, udp] {
      return pty ? OpenRawTty(PtyFrom(line)) : ConnectSocket(PortFrom(line), udp);
    };
    return std::make_unique<BareClient>(t + " " + what, std::move(open), request, answer, udp, turns);
  };
  auto driverTo = [&](const tb::Child& end, int comPort, bool turns, const char* what) {
    const DriverLink link{t, pty ? uint16_t(0) : PortFrom(end.line), comPort};
    return std::make_unique<DriverClient>(t + " " + what, config, link, turns);
  };
  tr.bare = bareTo(tr.bareEnd, 7, 16, false, "bare");
  tr.bareSim = bareTo(tr.simEnd, 7, 16, perTurn, "bare/sim");
  tr.driver = driverTo(tr.simEnd, kComSim, perTurn, "driver");
  tr.driverProgram = driverTo(tr.programEnd, kComProgram, false, "driver/program");
  tr.driverBare = driverTo(tr.responderEnd, kComBare, false, "driver/bare");
  if (pty) {
    tr.modbus = std::make_unique<ModbusClient>(t + " libmodbus",
                                               modbus_new_rtu(PtyFrom(tr.modbusEnd.line).c_str(), 115200, 'N', 8, 1));
    return;
  }
  if (!udp) tr.modbus = std::make_unique<ModbusClient>(t + " libmodbus", modbus_new_tcp("127.0.0.1", PortFrom(tr.modbusEnd.line)));
  tr.blockBare = bareTo(tr.blockEnd, 263, 7, false, "bare block");
  tr.imageBare = driverTo(tr.imageBareEnd, 0, false, "driver image/bare");
  tr.blockSim = bareTo(tr.simBlockEnd, 263, 7, false, "bare block/sim");
}

// The Python rows of TCP: the package's Gateway.inputs() against the simulator's engine,
// pymodbus against libmodbus, each with a far end of its own.
void StartPythonClients(const Options& opt, Servers& servers, Transport& tr) {
  if (tr.name != "tcp") return;
  std::unique_ptr<tb::Conversation> talk;
  servers.Start({opt.python, TAMRIK_BENCH_PYTHON_CLIENT, "tamrik", std::to_string(PortFrom(tr.pythonSimEnd.line)),
                 "--package", TAMRIK_BENCH_PYTHON_PACKAGE, "--library", TAMRIK_BENCH_LIBRARY},
                &talk);
  tr.python = std::make_unique<RemoteClient>("tcp python", std::move(talk));
  servers.Start({opt.python, TAMRIK_BENCH_PYTHON_CLIENT, "pymodbus", std::to_string(PortFrom(tr.pymodbusEnd.line))},
                &talk);
  tr.pymodbus = std::make_unique<RemoteClient>("tcp pymodbus", std::move(talk));
}

// Rounds of every side in turn, so that a burst of load from elsewhere falls on all of
// them alike and the ratios of one run stay fair.
void MeasureExchanges(std::vector<Transport>& transports, size_t socketCount, size_t ptyCount, double seconds) {
  // Many short rounds: the sides take turns often enough to meet the same conditions.
  constexpr int kRounds = 200;
  for (Transport& tr : transports) {
    for (Target* t : tr.Exchangers()) t->EndTurn();
    for (Target* t : tr.Exchangers()) {
      t->BeginTurn();
      t->Unrecorded(200);
      t->EndTurn();
    }
  }
  const int64_t end = NowNs() + int64_t(seconds * 1e9);
  for (int round = 0; round < kRounds; ++round) {
    const int64_t roundEnd = NowNs() + (end - NowNs()) / (kRounds - round);
    for (Transport& tr : transports) {
      const size_t n = (tr.name == "pty" ? ptyCount : socketCount) / kRounds;
      const std::vector<Target*> all = tr.Exchangers();
      // Each side gets its share of the round's time; a slow side ends early, not late.
      const int64_t share = (roundEnd - NowNs()) / int64_t(all.size() * transports.size());
      // And each side opens a round as often as the others: the first turn after another
      // link's pays for waking this one (on a pseudo-terminal the kernel's worker that
      // carries the bytes, which runs wherever it is put), and a side that always came first
      // would carry all of it, 10 % of a pseudo-terminal's rate on a busy machine.
      for (size_t i = 0; i < all.size(); ++i) {
        Target* side = all[(i + size_t(round)) % all.size()];
        side->BeginTurn();
        side->Run(n, NowNs() + std::max<int64_t>(share, 50000000));
        side->EndTurn();
      }
    }
  }
  // The driver downloads images and counts allocations next.
  for (Transport& tr : transports) tr.driver->BeginTurn();
}

void CountAllocations(std::vector<Transport>& transports) {
  if (!tb::AllocationCountingAvailable()) return;
  constexpr size_t kCounted = 1000;
  for (Transport& tr : transports) {
    tr.driver->BeginTurn();
    tr.driver->Unrecorded(50);
    tb::StartCountingAllocations();
    tr.driver->Unrecorded(kCounted);
    tr.allocationsPerExchange = double(tb::StopCountingAllocations()) / double(kCounted);
  }
}

std::string MakeImage(const TempDir& dir) {
  std::string bytes(kImageSize, '\0');
  uint32_t x = 0x2545F491;
  for (char& c : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = char(x);
  }
  const std::string path = dir.File("image.bin");
  WriteFile(path, bytes);
  return path;
}

// One whole image download; its time in seconds. The time of every call that sends a
// block goes to blocks. Every 128 blocks, between() runs outside the time taken, so that
// the limit is measured in turns with the download and meets the same conditions.
double Download(tamrik::Ccom& com, const std::string& image, double limitSeconds, Samples* blocks,
                const std::function<void()>& between = {}) {
  int64_t t0 = NowNs();
  int32_t start = -1, count = 0, error = 0;
  com.kaVInitImageDownload(image.c_str(), &start, &count, &error);
  if (error != 0) throw std::runtime_error("image announcement failed: " + std::to_string(error));
  int64_t taken = NowNs() - t0;
  const int64_t deadline = t0 + int64_t(limitSeconds * 1e9);
  if (blocks != nullptr) blocks->Reserve(size_t(count));
  for (int32_t i = 0; i <= count; ++i) {
    if (between && i % 128 == 127) between();
    int32_t block = 0;
    const int64_t b0 = NowNs();
    com.kaVDownloadImageBlock(&block, &error);
    const int64_t b1 = NowNs();
    taken += b1 - b0;
    if (error != 0) throw std::runtime_error("image block failed: " + std::to_string(error));
    // The last call also sends the end of the download: not a block's time alone.
    if (block == -1) return double(taken) / 1e9;
    if (blocks != nullptr) blocks->Add(b1 - b0);
    if (b1 > deadline) throw std::runtime_error("image download took longer than its bound");
  }
  throw std::runtime_error("image download did not end with its last block");
}

void MeasureImages(std::vector<Transport>& transports, const std::string& image, int rounds) {
  for (Transport& tr : transports) {
    if (!tr.blockBare) continue;
    tr.driver->BeginTurn();
    tr.blockBare->Unrecorded(200);
    tr.blockSim->Unrecorded(200);
    const auto limit = [&tr] {
      // Turns as long as the download's own, so that each side starts cold as often.
      tr.blockBare->Run(128, NowNs() + 1000000000LL);
      tr.blockSim->Run(128, NowNs() + 1000000000LL);
    };
    // Two whole downloads first: the simulator keeps the last image, so only from the third
    // on does it write into pages it has touched before. A fresh page costs this kind of
    // virtual machine some 10 us, 1,024 of them a 4 MiB image: the far end's cost, not
    // the link's or the driver's, and a gateway writing into its own memory never pays it.
    for (int warm = 0; warm < 2; ++warm) {
      Download(tr.driver->com(), image, 30, nullptr);
      Download(tr.imageBare->com(), image, 30, nullptr);
    }
    for (int round = 0; round < rounds; ++round) {
      tr.downloadSeconds.push_back(Download(tr.driver->com(), image, 30, &tr.downloadBlocks, limit));
      tr.bareDownloadSeconds.push_back(Download(tr.imageBare->com(), image, 30, &tr.bareDownloadBlocks, limit));
    }
  }
}

struct SerialResult {
  Stats exchange;
  Stats bare;
  double ownMeanUs = 0;  // the simulator's own time per exchange, beyond the wire time
  double ownP50Us = 0;
  double wireUs = 0;
  uint64_t served = 0;
};

// The own time of a paced server, which writes it when it stops: count, sum and median.
void StopPaced(tb::Child& paced, const std::string& statsFile, SerialResult* r) {
  tb::StopChild(paced);
  std::ifstream in(statsFile);
  unsigned long long count = 0;
  long long sumNs = 0, medianNs = 0;
  if (!(in >> count >> sumNs >> medianNs) || count == 0) throw std::runtime_error("no own time from the paced server");
  if (r == nullptr) return;
  r->served = count;
  r->ownMeanUs = double(sumNs) / double(count) / 1000.0;
  r->ownP50Us = double(medianNs) / 1000.0;
}

SerialResult MeasureSerial(const TempDir& dir, const tamrik::DriverConfig& config, tb::Child& paced, tb::Child& pacedBare, size_t count) {
  SerialResult r;
  {
    DriverClient driver("pty driver paced", config, {"pty", 0, kComPaced});
    BareClient bare("pty bare paced", [&pacedBare] { return OpenRawTty(PtyFrom(pacedBare.line)); }, 7, 16, false);
    driver.Unrecorded(10);
    bare.Unrecorded(10);
    const int64_t end = NowNs() + 10000000000LL;
    for (int round = 0; round < 4; ++round) {
      bare.Run(count / 4, end);
      driver.Run(count / 4, end);
    }
    r.exchange = driver.Summary();
    r.bare = bare.Summary();
  }
  StopPaced(pacedBare, dir.File("paced-bare.stats"), nullptr);
  StopPaced(paced, dir.File("paced.stats"), &r);
  r.wireUs = (7 + 16) * 10 * 1e6 / kPaceBaud;
  return r;
}

// One side alone, so that a profiler attached to this process sees nothing else.
int Profile(const Options& opt, std::vector<Transport>& transports, const std::string& image) {
  for (Transport& tr : transports) {
    if (opt.profile == tr.name + " image" || opt.profile == tr.name + " image/bare") {
      tr.driver->BeginTurn();
      const double seconds =
          Download((opt.profile == tr.name + " image" ? tr.driver : tr.imageBare)->com(), image, 60, nullptr);
      std::printf("%s: %.3f s, %.2f MiB/s\n", opt.profile.c_str(), seconds, kImageSize / seconds / 1048576.0);
      return 0;
    }
    std::vector<Target*> all = tr.Exchangers();
    if (tr.blockBare) all.push_back(tr.blockBare.get());
    if (tr.blockSim) all.push_back(tr.blockSim.get());
    for (Target* t : all) {
      if (t->name() != opt.profile) continue;
      t->BeginTurn();
      t->Unrecorded(200);
      t->Run(opt.count, NowNs() + 60000000000LL);
      const Stats s = t->Summary();
      std::printf("%s: %zu exchanges, %.0f per s, p50 %.1f us, p99 %.1f us\n", opt.profile.c_str(), s.count,
                  s.perSecond, s.p50Us, s.p99Us);
      return 0;
    }
  }
  std::fprintf(stderr, "tamrik-bench: no side named '%s'\n", opt.profile.c_str());
  return 2;
}

// A row of ratios alone: one side over another.
void PrintRatioRow(const char* link, const char* what, const std::string& ratios) {
  std::printf("  %-4s %-31s %6s %8s %8s %7s %8s  %s\n", link, what, "", "", "", "", "", ratios.c_str());
}

// The Python package's call beside the C exchange and pymodbus.
void PrintPythonRows(Transport& tr, bool judged) {
  const char* t = tr.name.c_str();
  const Stats bare = tr.bare->Summary();
  const Stats driver = tr.driver->Summary();
  const Stats python = tr.python->Summary();
  const Stats pymodbus = tr.pymodbus->Summary();
  PrintRow(t, "Python Gateway.inputs()", python, Ratios(python, bare));
  PrintRow(t, "pymodbus, 4 registers", pymodbus, Ratios(pymodbus, bare));
  PrintRatioRow(t, "Python over the driver", Ratios(python, driver));
  PrintRatioRow(t, "Python over pymodbus", Ratios(python, pymodbus));
  if (!judged) return;
  const double vsC = Ratio(python, driver);
  Judge(Format("%s: Python inputs() >= 0.7x the C exchange", t),
        Format("%.2f (all %.2f)", vsC, python.perSecond / driver.perSecond), vsC >= 0.7);
  const double vsPymodbus = Ratio(python, pymodbus);
  Judge(Format("%s: Python inputs() >= 3x pymodbus", t),
        Format("%.2f (all %.2f)", vsPymodbus, python.perSecond / pymodbus.perSecond), vsPymodbus >= 3);
}

// The tables of one placement. The ratios against the limit are held to their targets in the
// reference placement, all on one CPU, where the limit and every side pay the same two
// switches a round trip; with the processes spread, each far end is a process of its own
// that the scheduler places on its own, and the limit's far end is not the driver's. The
// driver against a bare client at one and the same far end is held to its target in both.
struct Placed {
  const char* name;
  bool reference;
};

void PrintExchanges(std::vector<Transport>& transports, const Placed& placed) {
  std::printf("\n1-3. Exchange of the input service: 7-byte request, 16-byte answer (9 data bytes); %s\n",
              placed.name);
  std::printf("  %-4s %-31s %6s %8s %8s %7s %8s  %5s %5s\n", "link", "what", "count", "per s", "90% /s",
              "p50 us", "p99 us", "90%", "all");
  for (Transport& tr : transports) {
    const char* t = tr.name.c_str();
    const Stats bare = tr.bare->Summary();
    const Stats driver = tr.driver->Summary();
    PrintRow(t, "bare round trip (the limit)", bare, Ratios(bare, bare));
    PrintRow(t, "driver, simulator engine", driver, Ratios(driver, bare));
    PrintRow(t, "driver, tamrik-sim program", tr.driverProgram->Summary(), Ratios(tr.driverProgram->Summary(), bare));
    PrintRow(t, "driver, bare responder", tr.driverBare->Summary(), Ratios(tr.driverBare->Summary(), bare));
    const Stats bareSim = tr.bareSim->Summary();
    PrintRow(t, "bare client, simulator engine", bareSim, Ratios(bareSim, bare));
    const double parity = driver.p50Us / bareSim.p50Us - 1;
    PrintRatioRow(t, "driver over bare client, p50", Format("%+.1f %%", 100 * parity));
    Judge(Format("%s, %s: driver p50 within 10 %% of bare client", t, placed.name), Format("%+.1f %%", 100 * parity),
          std::fabs(parity) <= 0.10);
    const double ratio = Ratio(driver, bare);
    if (placed.reference) {
      Judge(Format("%s: driver >= 0.90 of bare round trip", t),
            Format("%.2f (all %.2f)", ratio, driver.perSecond / bare.perSecond), ratio >= 0.90);
    }
    if (tr.modbus) {
      const Stats modbus = tr.modbus->Summary();
      PrintRow(t, tr.name == "pty" ? "libmodbus RTU, 4 registers" : "libmodbus TCP, 4 registers", modbus,
               Ratios(modbus, bare));
      const double vs = Ratio(driver, modbus);
      PrintRatioRow(t, "driver over libmodbus", Ratios(driver, modbus));
      if (placed.reference) {
        Judge(Format("%s: driver >= 1.2x libmodbus", t),
              Format("%.2f (all %.2f)", vs, driver.perSecond / modbus.perSecond), vs >= 1.2);
      }
    }
    if (tr.python) PrintPythonRows(tr, placed.reference);
  }
  std::printf("  90%% /s: exchanges per second over the fastest 90 %%, where load from elsewhere on the machine\n"
              "  does not reach; ratios: this side's exchanges per second over the limit's, over the fastest\n"
              "  90 %% and over all. The driver and the bare client of the simulator engine take turns at one\n"
              "  and the same far end.\n");

}

void PrintImages(std::vector<Transport>& transports, const Placed& placed) {
  std::printf("\n4. Image download, %zu bytes in %zu-byte blocks (%zu blocks, announcement and end); %s\n",
              kImageSize, kImageBlock, kImageSize / kImageBlock, placed.name);
  std::printf("  %-4s %-31s %6s %8s %8s %7s %8s  %5s %5s %8s\n", "link", "what", "count", "per s", "90% /s",
              "p50 us", "p99 us", "90%", "all", "MiB/s");
  for (Transport& tr : transports) {
    if (!tr.blockBare) continue;
    const char* t = tr.name.c_str();
    const Stats bare = tr.blockBare->Summary();
    const Stats blocks = tr.downloadBlocks.Summary();
    const Stats bareBlocks = tr.bareDownloadBlocks.Summary();
    const double count = double(kImageSize / kImageBlock);
    const double mib = double(kImageSize) / (1024.0 * 1024.0);
    // One round trip per block, and one each for the announcement and the end.
    const double boundSeconds = count * bare.meanUs / 1e6 + 2 * tr.bare->Summary().meanUs / 1e6;
    auto average = [](const std::vector<double>& v) {
      double total = 0;
      for (double x : v) total += x;
      return total / double(v.size());
    };
    const double seconds = average(tr.downloadSeconds);
    const double bareSeconds = average(tr.bareDownloadSeconds);
    // The rate column of the downloads compares whole downloads with the bound.
    PrintRow(t, "bare round trip (the limit)", bare, Ratios(bare, bare) + Format(" %8.2f", mib / boundSeconds));
    PrintRow(t, "bare client, simulator engine", tr.blockSim->Summary(), Ratios(tr.blockSim->Summary(), bare));
    PrintRow(t, "driver, simulator engine", blocks,
             Format("%5.2f %5.2f %8.2f", Ratio(blocks, bare), boundSeconds / seconds, mib / seconds));
    PrintRow(t, "driver, bare responder", bareBlocks,
             Format("%5.2f %5.2f %8.2f", Ratio(bareBlocks, bare), boundSeconds / bareSeconds, mib / bareSeconds));
    const double ratio = Ratio(blocks, bare);
    if (placed.reference) {
      Judge(Format("%s: image >= 0.93 of the round-trip bound", t),
            Format("%.2f (all %.2f)", ratio, boundSeconds / seconds), ratio >= 0.93);
    }
  }
  std::printf("  one row a block: bare rows 263 bytes out, 7 back; driver rows one kaVDownloadImageBlock call\n"
              "  (the last, which also ends the download, not counted). MiB/s: the bound (one bare round trip\n"
              "  per block, announcement and end) and whole downloads; 'all' of a download is its MiB/s over\n"
              "  the bound\n");
  if (!placed.reference) {
    std::printf("  each row's far end is a process of its own, which the scheduler may keep beside its client\n"
                "  or across for the whole run: these figures are shown, not judged\n");
  }

}

void PrintSerial(const TempDir& dir, const tamrik::DriverConfig& config, tb::Child& paced, tb::Child& pacedBare,
                 bool quick) {
  const SerialResult serial = MeasureSerial(dir, config, paced, pacedBare, quick ? 100 : 600);
  const double expected = serial.wireUs + serial.ownP50Us;
  const double off = serial.exchange.p50Us / expected - 1;
  std::printf("\n5. Serial timing: pseudo-terminal paced at %u baud in both directions, 10 bits per byte\n",
              kPaceBaud);
  std::printf("  wire time of 7 + 16 bytes %.1f us; simulator's own time p50 %.1f us, mean %.1f us (%llu answers)\n",
              serial.wireUs, serial.ownP50Us, serial.ownMeanUs, static_cast<unsigned long long>(serial.served));
  std::printf("  %-31s %6s %8s %7s %8s  %s\n", "", "count", "mean us", "p50 us", "p99 us", "p50 over wire + own");
  std::printf("  %-31s %6zu %8.1f %7.1f %8.1f  %+.1f %%\n", "bare client", serial.bare.count, serial.bare.meanUs,
              serial.bare.p50Us, serial.bare.p99Us, 100 * (serial.bare.p50Us / expected - 1));
  std::printf("  %-31s %6zu %8.1f %7.1f %8.1f  %+.1f %%\n", "driver", serial.exchange.count, serial.exchange.meanUs,
              serial.exchange.p50Us, serial.exchange.p99Us, 100 * off);
  Judge("pty 115200: within 5 % of wire time + turnaround",
        Format("%+.1f %% (mean %+.1f %%)", 100 * off,
               100 * (serial.exchange.meanUs / (serial.wireUs + serial.ownMeanUs) - 1)),
        std::fabs(off) <= 0.05);

}

void PrintCostPerCall(std::vector<Transport>& transports, bool quick) {
  std::printf("\n6. Cost per call\n");
  for (Transport& tr : transports) {
    if (tr.allocationsPerExchange < 0) {
      std::printf("  %-4s heap allocations per exchange: not counted (sanitizer build)\n", tr.name.c_str());
      continue;
    }
    std::printf("  %-4s heap allocations per exchange, tracing off: %.3f\n", tr.name.c_str(),
                tr.allocationsPerExchange);
    Judge(Format("%s: no heap allocation per exchange", tr.name.c_str()), Format("%.3f", tr.allocationsPerExchange),
          tr.allocationsPerExchange == 0);
  }
  const auto codec = tb::RunCodecBenchmarks("BM_Codec", quick ? 0.05 : 0.3);
  double codecNs = -1;
  for (const auto& c : codec) {
    std::printf("  %-40s %8.1f ns CPU (%lld iterations)\n", c.name.c_str(), c.cpuNs, c.iterations);
    if (c.name == "BM_CodecExchange") codecNs = c.cpuNs;
  }
  Judge("codec alone < 1 us per exchange", Format("%.0f ns", codecNs), codecNs >= 0 && codecNs < 1000);

}

void PrintVerdicts(std::vector<Transport>& transports) {
  for (Transport& tr : transports) {
    std::vector<Target*> all = tr.Exchangers();
    for (Target* t : {tr.blockBare.get(), tr.blockSim.get()}) {
      if (t != nullptr) all.push_back(t);
    }
    for (Target* t : all) {
      if (t->failures() > 0) {
        std::printf("\n  %s: %llu failed exchanges (left out of the figures)\n", t->name().c_str(),
                    static_cast<unsigned long long>(t->failures()));
      }
    }
  }
  std::printf("\nTargets\n");
  for (const Verdict& v : g_verdicts) {
    std::printf("  %-58s %-20s %s\n", v.target.c_str(), v.measured.c_str(), v.holds ? "holds" : "MISSED");
  }
}

// The clients go before their far ends, which the servers' destructor stops.
void ReleaseClients(std::vector<Transport>& transports) {
  for (Transport& tr : transports) {
    tr.bare.reset();
    tr.driver.reset();
    tr.driverProgram.reset();
    tr.driverBare.reset();
    tr.modbus.reset();
    tr.bareSim.reset();
    tr.blockBare.reset();
    tr.blockSim.reset();
    tr.imageBare.reset();
    tr.python.reset();
    tr.pymodbus.reset();
  }
}

bool KnownSections(const std::string& list) {
  std::istringstream names(list);
  for (std::string name; std::getline(names, name, ',');) {
    if (name != "exchanges" && name != "images" && name != "serial" && name != "cost" && name != "fleet") return false;
  }
  return !list.empty();
}

// Options from the command line; false (after the usage text) for anything else.
bool ParseOptions(int argc, char** argv, Options* out) {
  Options& opt = *out;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") opt.quick = true;
    else if (arg == "--spread") opt.placements = {tb::Placement::Spread};
    else if (arg == "--one-cpu") opt.placements = {tb::Placement::OneCpu};
    else if (arg == "--across") opt.placements = {tb::Placement::Across};
    else if (arg == "--only" && i + 1 < argc && KnownSections(argv[i + 1])) opt.only = argv[++i];
    else if (arg == "--server" && i + 1 < argc) opt.server = argv[++i];
    else if (arg == "--sim" && i + 1 < argc) opt.sim = argv[++i];
    else if (arg == "--python" && i + 1 < argc) opt.python = argv[++i];
    else if (arg == "--profile" && i + 1 < argc) opt.profile = argv[++i];
    else if (arg == "--count" && i + 1 < argc) opt.count = std::strtoul(argv[++i], nullptr, 10);
    else if (arg == "--fleet" && i + 1 < argc) opt.fleet = argv[++i];
    else if (arg == "--tool" && i + 1 < argc) opt.tool = argv[++i];
    else {
      std::fprintf(stderr,
                   "usage: tamrik-bench [--quick] [--one-cpu|--spread|--across] [--only SECTION[,SECTION...]]\n"
                   "         [--server PATH] [--sim PATH] [--python PATH] [--tool PATH]\n"
                   "         SECTION: exchanges images serial cost fleet\n"
                   "       tamrik-bench --profile 'LINK SIDE' [--count N]   one side alone, for a profiler\n"
                   "         LINK: tcp udp pty; SIDE: bare, driver, driver/program, driver/bare, bare/sim,\n"
                   "         libmodbus, bare block, bare block/sim, image, image/bare; tcp python,\n"
                   "         tcp pymodbus\n"
                   "       tamrik-bench --fleet N[,N...] [--quick]   the fleet section alone, at these sizes\n");
      return false;
    }
  }
  return true;
}

void RunFleet(const Options& opt, const TempDir& dir) {
  tb::FleetOptions fleet;
  fleet.tool = opt.tool;
  fleet.dir = dir.path();
  fleet.seconds = opt.quick ? 5 : 20;
  if (!opt.fleet.empty()) {
    fleet.sizes.clear();
    std::istringstream sizes(opt.fleet);
    for (std::string n; std::getline(sizes, n, ',');) fleet.sizes.push_back(std::strtoul(n.c_str(), nullptr, 10));
  }
  for (const tb::FleetVerdict& v : tb::RunFleet(fleet)) Judge(v.target, v.measured, v.holds);
}

tb::Child& StartPaced(const Options& opt, const TempDir& dir, Servers& servers, const char* statsFile) {
  return servers.Start({opt.server, "sim", "pty", "--model", dir.File("station.model"), "--pace",
                        std::to_string(kPaceBaud), "--stats", dir.File(statsFile)},
                       nullptr, false);
}

void PrintHeader() {
  std::printf("tamrik benchmarks: one run, every ratio from this run (load average at start %s)\n",
              LoadAverage().c_str());
#if !defined(NDEBUG)
  std::printf("note: not an optimised build; its figures say little about the driver's speed\n");
#endif
  if (!tb::AllocationCountingAvailable()) {
    std::printf("note: a sanitizer build; its figures say nothing about the driver's speed\n");
  }
  std::fflush(stdout);
}

// Every section in one run: the exchanges, image downloads, serial timing, cost per call and
// the fleet, then the verdicts.
bool Wants(const Options& opt, const std::string& section) {
  if (opt.only.empty()) return true;
  std::istringstream names(opt.only);
  for (std::string name; std::getline(names, name, ',');) {
    if (name == section) return true;
  }
  return false;
}

void ClearMeasurements(std::vector<Transport>& transports) {
  for (Transport& tr : transports) {
    for (Target* t : tr.Exchangers()) t->ClearSamples();
    for (Target* t : {tr.blockBare.get(), tr.blockSim.get()}) {
      if (t != nullptr) t->ClearSamples();
    }
    tr.downloadSeconds.clear();
    tr.bareDownloadSeconds.clear();
    tr.downloadBlocks = Samples();
    tr.bareDownloadBlocks = Samples();
  }
}

// The exchanges and the image downloads in each placement in turn, with the same far ends.
void MeasurePlacements(const Options& opt, const tb::CpuPlacement& cpus, const Servers& servers,
                       std::vector<Transport>& transports, const std::string& image) {
  for (const tb::Placement placement : opt.placements) {
    const Placed placed{tb::CpuPlacement::Name(placement), placement == tb::Placement::OneCpu};
    std::printf("\n== %s: processes %s\n", placed.name, cpus.Apply(placement, servers.placed()).c_str());
    ClearMeasurements(transports);
    if (Wants(opt, "exchanges")) {
      MeasureExchanges(transports, opt.quick ? 2000 : 40000, opt.quick ? 1000 : 20000, opt.quick ? 20 : 90);
      PrintExchanges(transports, placed);
    }
    if (Wants(opt, "images")) {
      MeasureImages(transports, image, opt.quick ? 1 : 2);
      PrintImages(transports, placed);
    }
    std::fflush(stdout);
  }
  // What follows is the paced line's and the process's own: every CPU again.
  cpus.Apply(tb::Placement::Spread, servers.placed());
}

// Every section in one run: the exchanges and image downloads in each placement, serial
// timing, cost per call and the fleet, then the verdicts.
int RunAll(const Options& opt, const TempDir& dir, int64_t began) {
  WriteFile(dir.File("station.model"), kStationModel);
  const std::string image = MakeImage(dir);
  const tb::CpuPlacement cpus;
  Servers servers;
  std::vector<Transport> transports(3);
  for (size_t i = 0; i < transports.size(); ++i) transports[i].name = std::array{"tcp", "udp", "pty"}[i];
  tb::Child& paced = StartPaced(opt, dir, servers, "paced.stats");
  tb::Child& pacedBare = StartPaced(opt, dir, servers, "paced-bare.stats");
  for (Transport& tr : transports) StartEnds(opt, dir, servers, tr);
  const tamrik::DriverConfig config = DriverSettings({{kComSim, PtyFrom(transports[2].simEnd.line)},
                          {kComProgram, PtyFrom(transports[2].programEnd.line)},
                          {kComBare, PtyFrom(transports[2].responderEnd.line)},
                          {kComPaced, PtyFrom(paced.line)}});
  for (Transport& tr : transports) ConnectClients(config, tr);
  for (Transport& tr : transports) StartPythonClients(opt, servers, tr);
  if (!opt.profile.empty()) {
    std::printf("processes %s\n", cpus.Apply(opt.placements.front(), servers.placed()).c_str());
    return Profile(opt, transports, image);
  }

  MeasurePlacements(opt, cpus, servers, transports, image);
  if (Wants(opt, "serial")) PrintSerial(dir, config, paced, pacedBare, opt.quick);
  if (Wants(opt, "cost")) {
    CountAllocations(transports);
    PrintCostPerCall(transports, opt.quick);
  }
  if (Wants(opt, "fleet")) RunFleet(opt, dir);

  PrintVerdicts(transports);
  std::printf("\n(%.0f s; load average at end %s)\n", double(NowNs() - began) / 1e9, LoadAverage().c_str());
  ReleaseClients(transports);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!ParseOptions(argc, argv, &opt)) return 2;
  tb::InstallChildCleanup();
  const int64_t began = NowNs();
  try {
    TempDir dir;
    PrintHeader();
    if (opt.fleet.empty()) return RunAll(opt, dir, began);
    // The fleet section alone needs none of the other far ends.
    RunFleet(opt, dir);
    std::vector<Transport> none;
    PrintVerdicts(none);
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "tamrik-bench: %s\n", e.what());
    tb::StopAllChildren();
    return 1;
  }
  return 0;
}
