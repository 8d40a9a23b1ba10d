#include "FleetRun.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Fleet.h"
#include "MqttLoop.h"
#include "Process.h"
#include "Text.h"
#include "com.h"
#include "protocol/ServiceTable.h"

namespace tamrik::bench {
namespace {

constexpr uint32_t kPollMs = 100;                 // each gateway's inputs at 10 Hz
constexpr double kChangesPerGatewayPerSecond = 1;  // a plant's inputs do not all move at every poll
constexpr int32_t kModule = 1;                     // the default station's analogue module: 4 input bytes
constexpr const char* kPrefix = "bench";

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t ThreadCpuNs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// User and system time of a process so far, from /proc.
double ProcessCpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The command name may hold spaces; the fields counted from after its closing parenthesis.
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
  }
  return ticks / double(sysconf(_SC_CLK_TCK));
}

uint16_t FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof a;
  const bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
                  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0;
  if (fd >= 0) close(fd);
  if (!ok) throw std::runtime_error("no free loopback port");
  return ntohs(a.sin_port);
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

// The three times of every input change, by its sequence number (1, 2, ...): when the
// simulator's inputs took it, when the first answer carried it, and when its message
// reached the subscriber. Each slot is written once.
struct Changes {
  explicit Changes(size_t capacity) : set(capacity), read(capacity), received(capacity) {}
  std::vector<std::atomic<int64_t>> set, read, received;
  std::atomic<uint32_t> next{1};
};

// --- the broker and the subscriber ------------------------------------------------------

Child StartBroker(const std::string& broker, const std::string& dir, uint16_t port,
                  std::unique_ptr<Conversation>* talk) {
  const std::string conf = dir + "/mosquitto.conf";
  WriteText(conf, "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\npersistence false\n" +
                      "log_dest none\nmax_queued_messages 100000\n");
  // The broker writes nothing on its own (its log to a pipe stays in its buffer); the
  // subscriber's first connection tells when it listens.
  return StartChild({"/bin/sh", "-c", "echo broker; exec \"$0\" -c \"$1\"", broker, conf}, 5000, talk);
}

// Takes every inputs message, reads the sequence number out of the bytes and stamps it.
class Subscriber {
 public:
  Subscriber(uint16_t port, Changes& changes, size_t offset) : changes_(changes), offset_(offset) {
    mosquitto_lib_init();
    client_ = mosquitto_new(nullptr, true, this);
    if (client_ == nullptr) throw std::runtime_error("mosquitto_new failed");
    mosquitto_message_callback_set(client_, [](mosquitto*, void* self, const mosquitto_message* m) {
      static_cast<Subscriber*>(self)->Take(m);
    });
    // The broker was started just now: a few tries, five seconds in all.
    int rc = MOSQ_ERR_UNKNOWN;
    for (int attempt = 0; attempt < 250 && rc != MOSQ_ERR_SUCCESS; ++attempt) {
      rc = mosquitto_connect(client_, "127.0.0.1", port, 30);
      if (rc != MOSQ_ERR_SUCCESS) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (rc != MOSQ_ERR_SUCCESS) throw std::runtime_error("subscriber cannot reach the broker");
    mosquitto_subscribe(client_, nullptr, (std::string(kPrefix) + "/+/inputs").c_str(), 1);
    // The service's loop: with a thousand gateways this connection's descriptor is above 1023.
    network_ = std::make_unique<serve::MqttLoop>(client_);
  }
  ~Subscriber() {
    network_->Stop();
    mosquitto_disconnect(client_);
    mosquitto_destroy(client_);
    mosquitto_lib_cleanup();
  }
  uint64_t Messages() const { return messages_.load(); }

 private:
  void Take(const mosquitto_message* m) {
    const int64_t now = NowNs();
    messages_.fetch_add(1, std::memory_order_relaxed);
    const auto doc = nlohmann::json::parse(static_cast<const char*>(m->payload),
                                           static_cast<const char*>(m->payload) + m->payloadlen, nullptr, false);
    if (doc.is_discarded() || !doc.contains("bytes") || !doc["bytes"].is_array()) return;
    const auto& bytes = doc["bytes"];
    if (bytes.size() < offset_ + 4) return;
    uint32_t seq = 0;
    for (size_t b = 0; b < 4; ++b) seq |= bytes[offset_ + b].get<uint32_t>() << (8 * b);
    if (seq == 0 || seq >= changes_.received.size()) return;
    int64_t none = 0;
    changes_.received[seq].compare_exchange_strong(none, now);
  }

  Changes& changes_;
  size_t offset_;
  mosquitto* client_ = nullptr;
  std::unique_ptr<serve::MqttLoop> network_;
  std::atomic<uint64_t> messages_{0};
};

// --- the simulated side -------------------------------------------------------------------

struct SimSide {
  explicit SimSide(size_t count, size_t capacity) : changes(capacity), pending(count) {
    sim::FleetOptions options;
    options.count = uint32_t(count);
    options.threads = count > 200 ? 2 : 1;
    options.logCapacity = 0;
    options.station.animateInputs = false;
    fleet = std::make_unique<sim::Fleet>(options);
    for (size_t g = 0; g < count; ++g) {
      // Runs under the gateway's lock for every request, as EditStation does: the first read
      // after a change is the first answer that carries it.
      fleet->At(g).SetFaultRule([this, g](const sim::ParsedFrame& request) {
        if (request.code == kServiceProcessIn) {
          const uint32_t seq = pending[g].exchange(0, std::memory_order_relaxed);
          if (seq != 0) changes.read[seq].store(NowNs(), std::memory_order_relaxed);
        }
        return sim::AnswerFault{};
      });
    }
  }

  // Gives gateway g's analogue inputs the next sequence number; false when the log is full.
  bool Change(size_t g) {
    const uint32_t seq = changes.next.fetch_add(1);
    if (seq >= changes.set.size()) return false;
    fleet->At(g).EditStation([&](sim::Station& s) {
      std::vector<uint8_t>& in = s.modules[kModule].inputs;
      for (size_t b = 0; b < 4; ++b) in[b] = uint8_t(seq >> (8 * b));
      changes.set[seq].store(NowNs(), std::memory_order_relaxed);
      pending[g].store(seq, std::memory_order_relaxed);
    });
    return true;
  }

  uint64_t Requests() const {
    uint64_t sum = 0;
    for (size_t g = 0; g < fleet->Size(); ++g) sum += fleet->At(g).GetCounters().requests;
    return sum;
  }

  std::unique_ptr<sim::Fleet> fleet;
  Changes changes;
  std::vector<std::atomic<uint32_t>> pending;
};

// Each gateway changes once a second, the gateways one after another across the second.
class Changer {
 public:
  explicit Changer(SimSide& side) : side_(side), thread_([this] { Run(); }) {}
  ~Changer() {
    stop_ = true;
    thread_.join();
  }

 private:
  void Run() {
    const size_t count = side_.fleet->Size();
    const auto step = std::chrono::nanoseconds(int64_t(1e9 / kChangesPerGatewayPerSecond / double(count)));
    auto next = std::chrono::steady_clock::now();
    for (size_t k = 0; !stop_; ++k) {
      std::this_thread::sleep_until(next += step);
      if (!side_.Change(k % count)) return;
    }
  }

  SimSide& side_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// --- the single link, and where the analogue inputs lie in the image --------------------

struct Reference {
  size_t offset = 0;        // of the analogue module's bytes among the input values
  double cpuUs = 0;         // CPU time of one exchange on one link, back to back
};

Reference MeasureSingleLink(SimSide& side, size_t exchanges) {
  sim::Gateway& gateway = side.fleet->At(0);
  gateway.EditStation([](sim::Station& s) {
    s.modules[0].inputs = {0x11, 0x22};
    s.modules[kModule].inputs = {0x33, 0x44, 0x55, 0x66};
  });
  tamrik::Ccom com{tamrik::DriverConfig{}};
  int32_t error = 0;
  com.kaVOpenEthernet(std::to_string(side.fleet->TcpPort(0)).c_str(), "127.0.0.1", &error);
  if (error != 0) throw std::runtime_error("fleet: the reference link does not open: " + std::to_string(error));
  int32_t values[256] = {};
  int32_t size = 0;
  com.kaVGetProcessInData(values, &size, &error);
  Reference ref;
  constexpr int32_t kMarks[] = {0x33, 0x44, 0x55, 0x66};
  const int32_t* at = std::search(values, values + size, std::begin(kMarks), std::end(kMarks));
  if (error != 0 || at == values + size) {
    std::string seen;
    for (int32_t i = 0; i < size; ++i) seen += " " + std::to_string(values[i]);
    throw std::runtime_error("fleet: the reference link reads no marked inputs (error " + std::to_string(error) +
                             ", values" + seen + ")");
  }
  ref.offset = size_t(at - values);
  for (int i = 0; i < 500; ++i) com.kaVGetProcessInData(values, &size, &error);
  // The median of a few rounds: one round can meet a compile or a page-out elsewhere.
  constexpr size_t kRounds = 5;
  std::vector<double> perRound;
  size_t good = 0;
  for (size_t round = 0; round < kRounds; ++round) {
    const int64_t cpu0 = ThreadCpuNs();
    for (size_t i = 0; i < exchanges / kRounds; ++i)
      good += com.kaVGetProcessInData(values, &size, &error) == 0 && error == 0;
    perRound.push_back(double(ThreadCpuNs() - cpu0) / 1e3 / double(exchanges / kRounds));
  }
  ref.cpuUs = Percentile(perRound, 0.5);
  exchanges = exchanges / kRounds * kRounds;
  com.kaVCloseComPort(0, &error);
  if (good != exchanges) throw std::runtime_error("fleet: the reference link failed exchanges");
  gateway.EditStation([](sim::Station& s) {
    s.modules[0].inputs.assign(2, 0);
    s.modules[kModule].inputs.assign(4, 0);
  });
  return ref;
}

// --- the service --------------------------------------------------------------------------

std::string ServiceConfig(const sim::Fleet& fleet, uint16_t brokerPort) {
  std::ostringstream t;
  t << "[mqtt]\nhost = \"127.0.0.1\"\nport = " << brokerPort << "\nclient_id = \"tamrik-bench\"\nprefix = \"" << kPrefix
    << "\"\nqos = 1\nrepublish = 0\n\n[http]\nlisten = \"127.0.0.1:0\"\n";
  for (size_t g = 0; g < fleet.Size(); ++g) {
    t << "\n[[gateway]]\nname = \"" << sim::FleetGatewayName(g, fleet.Size()) << "\"\ntcp = \"127.0.0.1:"
      << fleet.TcpPort(g) << "\"\ninputs = " << kPollMs
      << "\noutputs = false\ndiagnosis = false\nerrors = false\nclock = false\n";
  }
  return t.str();
}

struct Service {
  Child child;
  std::unique_ptr<Conversation> talk;
  uint16_t httpPort = 0;
};

Service StartService(const FleetOptions& opt, const std::string& configPath, const std::string& logPath) {
  Service s;
  s.child = StartChild({"/bin/sh", "-c", "exec \"$0\" serve --config \"$1\" 2>\"$2\"", opt.tool, configPath, logPath},
                       60000, &s.talk);
  std::string line = s.child.line;
  const std::string mark = "http: listening on http://";
  for (int i = 0; i < 4 && line.rfind(mark, 0) != 0; ++i) {
    if (!s.talk->Receive(&line, 30000)) break;
  }
  if (line.rfind(mark, 0) != 0) {
    StopChild(s.child);
    throw std::runtime_error("fleet: tamrik serve did not say where it listens (see " + logPath + ")");
  }
  s.httpPort = uint16_t(std::stoi(line.substr(line.rfind(':') + 1)));
  return s;
}

// The sum over every gateway of each metric family of the service's /metrics.
std::map<std::string, double> MetricSums(uint16_t port) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(10, 0);
  std::map<std::string, double> sums;
  const auto reply = client.Get("/metrics");
  if (!reply || reply->status != 200) return sums;
  std::istringstream in(reply->body);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t nameEnd = line.find_first_of("{ ");
    const size_t valueAt = line.rfind(' ');
    if (nameEnd == std::string::npos || valueAt == std::string::npos) continue;
    sums[line.substr(0, nameEnd)] += std::strtod(line.c_str() + valueAt + 1, nullptr);
  }
  return sums;
}

// Until every gateway has been polled a few times; false when that takes too long.
bool AllPolled(sim::Fleet& fleet, int64_t timeoutNs) {
  const int64_t end = NowNs() + timeoutNs;
  while (NowNs() < end) {
    size_t polled = 0;
    for (size_t g = 0; g < fleet.Size(); ++g) polled += fleet.At(g).GetCounters().requests >= 5;
    if (polled == fleet.Size()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return false;
}

// --- one size -----------------------------------------------------------------------------

struct Row {
  size_t gateways = 0;
  double exchangesPerSecond = 0;
  double madePercent = 0;    // polls the simulator saw, of those due in the window
  double onTimePercent = -1;  // from the service's own count; -1 when it has none
  double cpuUs = 0, singleCpuUs = 0;
  double changeP50 = 0, changeP99 = 0, answerP50 = 0, answerP99 = 0;  // ms
  size_t changes = 0, lost = 0;
  uint64_t messages = 0;     // inputs messages the subscriber received
};

struct Window {
  int64_t ns = 0;
  double cpu = 0;
  uint64_t requests = 0;
  std::map<std::string, double> metrics;
};

Window Take(SimSide& side, const Service& service) {
  return {NowNs(), ProcessCpuSeconds(service.child.pid), side.Requests(), MetricSums(service.httpPort)};
}

void Latencies(const Changes& changes, int64_t from, int64_t to, Row& row) {
  std::vector<double> change, answer;
  for (size_t seq = 1; seq < changes.set.size(); ++seq) {
    const int64_t set = changes.set[seq].load();
    if (set < from || set > to) continue;
    ++row.changes;
    const int64_t got = changes.received[seq].load(), read = changes.read[seq].load();
    if (got == 0) {
      ++row.lost;
      continue;
    }
    change.push_back(double(got - set) / 1e6);
    if (read != 0) answer.push_back(double(got - read) / 1e6);
  }
  row.changeP50 = Percentile(change, 0.5);
  row.changeP99 = Percentile(change, 0.99);
  row.answerP50 = Percentile(answer, 0.5);
  row.answerP99 = Percentile(answer, 0.99);
}

void Summarise(const Window& a, const Window& b, size_t gateways, Row& row) {
  const double seconds = double(b.ns - a.ns) / 1e9;
  const double exchanges = double(b.requests - a.requests);
  row.exchangesPerSecond = exchanges / seconds;
  row.madePercent = 100.0 * exchanges / (double(gateways) * seconds * 1000.0 / kPollMs);
  row.cpuUs = (b.cpu - a.cpu) * 1e6 / exchanges;
  const auto count = [&](const Window& w, const char* name) {
    const auto it = w.metrics.find(name);
    return it == w.metrics.end() ? -1.0 : it->second;
  };
  const double polls = count(b, "tamrik_gateway_polls_total") - count(a, "tamrik_gateway_polls_total");
  const double late = count(b, "tamrik_gateway_polls_late_total") - count(a, "tamrik_gateway_polls_late_total");
  if (count(a, "tamrik_gateway_polls_late_total") >= 0 && polls > 0) row.onTimePercent = 100.0 * (polls - late) / polls;
}

Row MeasureSize(const FleetOptions& opt, size_t gateways) {
  const size_t capacity = size_t(double(gateways) * (opt.seconds + 120) * kChangesPerGatewayPerSecond) + 16;
  SimSide side(gateways, capacity);
  Row row;
  row.gateways = gateways;
  const Reference ref = MeasureSingleLink(side, opt.seconds < 10 ? 3000 : 20000);
  row.singleCpuUs = ref.cpuUs;

  const uint16_t brokerPort = FreePort();
  std::unique_ptr<Conversation> brokerTalk;
  Child broker = StartBroker(opt.broker, opt.dir, brokerPort, &brokerTalk);
  Subscriber subscriber(brokerPort, side.changes, ref.offset);
  const std::string configPath = opt.dir + "/fleet-" + std::to_string(gateways) + ".toml";
  WriteText(configPath, ServiceConfig(*side.fleet, brokerPort));
  const std::string logPath = opt.dir + "/serve-" + std::to_string(gateways) + ".log";
  Service service = StartService(opt, configPath, logPath);
  if (!AllPolled(*side.fleet, 60000000000LL)) {
    StopChild(service.child);
    StopChild(broker);
    throw std::runtime_error("fleet: not every gateway was polled within 60 s");
  }
  {
    Changer changer(side);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const Window a = Take(side, service);
    std::this_thread::sleep_for(std::chrono::milliseconds(int64_t(opt.seconds * 1000)));
    const Window b = Take(side, service);
    Summarise(a, b, gateways, row);
    // Changes of the last half second may still be on their way when the window closes.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Latencies(side.changes, a.ns, b.ns - 500000000, row);
    row.messages = subscriber.Messages();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  StopChild(service.child);
  StopChild(broker);
  if (row.lost > 0) {
    // What the service said is the first place to look; the folder goes at the end of the run.
    std::ifstream log(logPath);
    std::fprintf(stderr, "fleet %zu: %zu changes lost, %llu inputs messages received; the service said:\n%s\n",
                 gateways, row.lost, static_cast<unsigned long long>(row.messages),
                 std::string((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>()).substr(0, 4000).c_str());
  }
  return row;
}

void PrintRowOf(const Row& r) {
  const std::string onTime = r.onTimePercent < 0 ? "   n/a" : Format("%6.2f", r.onTimePercent);
  std::printf("  %6zu %9.0f %6.2f %s %8.1f %6.2f %8.1f %6.1f %8.1f %6.1f %6zu %4zu\n", r.gateways,
              r.exchangesPerSecond, r.madePercent, onTime.c_str(), r.cpuUs, r.cpuUs / r.singleCpuUs, r.changeP50,
              r.changeP99, r.answerP50, r.answerP99, r.changes, r.lost);
}

}  // namespace

std::vector<FleetVerdict> RunFleet(const FleetOptions& opt) {
  std::printf("\n7. Fleet: tamrik serve polls N simulated gateways' inputs at 10 Hz each and publishes\n"
              "   every change through mosquitto on loopback; each gateway's inputs change once a second\n");
  std::printf("  %6s %9s %6s %6s %8s %6s %15s %15s %6s %4s\n", "gates", "exch/s", "made%", "ontime", "cpu us",
              "x one", "change->msg ms", "answer->msg ms", "chgs", "lost");
  std::printf("  %6s %9s %6s %6s %8s %6s %8s %6s %8s %6s\n", "", "", "", "", "", "", "p50", "p99", "p50", "p99");
  std::fflush(stdout);
  std::vector<Row> rows;
  for (size_t n : opt.sizes) {
    rows.push_back(MeasureSize(opt, n));
    PrintRowOf(rows.back());
    std::fflush(stdout);
  }
  std::printf("  (made%%: polls the simulator served of those due; ontime: polls the service began within\n"
              "   10 %% of their interval after they were due; cpu us: the service's CPU time per exchange,\n"
              "   x one: against one link's back-to-back exchange, measured on the quiet machine before\n"
              "   the service starts (the median of five rounds); change->msg includes the wait for the\n"
              "   next poll, answer->msg starts at the answer that carried the change)\n");
  if (rows.empty()) return {};
  const Row& big = rows.back();
  const std::string n = std::to_string(big.gateways);
  return {
      {"fleet " + n + " x 10 Hz: polls on time >= 99.9 %",
       big.onTimePercent < 0 ? "not counted" : Format("%.2f %%", big.onTimePercent), big.onTimePercent >= 99.9},
      {"fleet " + n + ": p99 change (as answered) to subscriber < 25 ms", Format("%.1f ms", big.answerP99),
       big.answerP99 < 25 && big.lost == 0},
      {"fleet " + n + ": CPU per exchange <= 1.5x one link", Format("%.2fx", big.cpuUs / big.singleCpuUs),
       big.cpuUs <= 1.5 * big.singleCpuUs},
  };
}

}  // namespace tamrik::bench
