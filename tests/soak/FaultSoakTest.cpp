// Fault soak: many exchanges against simulated gateways over TCP and a pseudo-terminal, one
// answer in ten bent by a fault picked at random. Every call must end with 0 and exactly the
// data the gateway stamped for it, or with a documented failure code; never with other data.
//
// Several driver objects per link kind run side by side, each with a gateway of its own, so
// that the time-outs the faults cost overlap. The soak stops after kTotal exchanges or after
// kTimeLimit, whichever comes first, and prints the count of every outcome.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "reliability/ReliabilitySupport.h"

namespace tamrik {
namespace {

using test::Link;
using test::LinkedDriver;
using Clock = std::chrono::steady_clock;

constexpr int kTotal = 100000;
constexpr auto kTimeLimit = std::chrono::seconds(150);
constexpr int kWorkersPerLink = 8;
constexpr int kFaultOneIn = 10;
// Short serial time-outs keep a failed exchange on the pseudo-terminal cheap.
constexpr int kSerialReadTotalConstant = 40;

enum class Fault { None, Noise, Corrupt, Truncate, Silence, Late, Refuse, Drop, kCount };
const char* FaultName(Fault f) {
  static const char* const names[] = {"none", "noise", "corrupt", "truncate", "silence", "late", "refuse", "drop"};
  return names[int(f)];
}

// Consecutive calls always use different services, so that an answer that arrives after its
// call gave up can only meet a call that must not take it.
struct Service {
  const char* name;
  uint16_t code;
  uint32_t (Ccom::*method)(int32_t*, int32_t*, int32_t*);
};
const Service kServices[] = {
    {"kaVGetProcessInData", 0x003, &Ccom::kaVGetProcessInData},
    {"kaVGetProcessOutData", 0x004, &Ccom::kaVGetProcessOutData},
    {"kaVGetParameterData", 0x006, &Ccom::kaVGetParameterData},
    {"kaVGetDiagData", 0x008, &Ccom::kaVGetDiagData},
};

struct Tally {
  std::map<std::string, uint64_t> outcomes;  // "ok", "error 0x10021", ...
  std::map<std::string, uint64_t> faults;
  std::vector<std::string> violations;  // wrong data or an undocumented code
  uint64_t exchanges = 0;
};

// The failures a faulted exchange may end with: read time-outs and short reads, no start
// byte, a wrong check value, a refusal of this very request, and a connection that failed.
bool Documented(uint32_t error, uint16_t code) {
  switch (error) {
    case rc::kReadFailed:
    case rc::kReadShort:
    case rc::kNoStartByte:
    case rc::kBadCheckValue:
    case rc::kWriteFailed:
      return true;
    default:
      break;
  }
  if (error == rc::kRefusalBase + (code | 0x8000u) || error == rc::kRefusalBase + (code | 0xC000u)) return true;
  if (error >= rc::kRefusalDataBase && error <= rc::kRefusalDataBase + 0xFF) return true;
  return error >= 10000 && error < 11100;  // a socket error of the dropped connection
}

void RunWorker(Link link, int worker, std::atomic<int>& total, Clock::time_point deadline, Tally& tally) {
  LinkedDriver d(link, 0, kSerialReadTotalConstant);
  if (d.openResult() != 0) {
    tally.violations.push_back("open failed: " + std::to_string(d.openResult()));
    return;
  }
  // How long a call waits before it gives up, so that a late answer comes after that.
  const uint32_t giveUpMs = link == Link::Tcp ? 2 * 110 : 2 * kSerialReadTotalConstant;
  std::mt19937 random(uint32_t(0x5EED0000 + worker * 2 + int(link)));
  std::vector<int32_t> data(256);
  for (uint32_t i = 0; total.fetch_add(1) < kTotal && Clock::now() < deadline; ++i) {
    const Service& service = kServices[i % std::size(kServices)];
    // Seven-bit bytes: a stamp never contains the start byte.
    const std::vector<uint8_t> stamp = {uint8_t(worker), uint8_t(i & 0x7F), uint8_t((i >> 7) & 0x7F),
                                        uint8_t((i >> 14) & 0x7F), uint8_t(service.code), uint8_t(int(link))};
    d.sim().SetAnswerOverride(service.code, stamp);

    Fault fault = Fault::None;
    if (random() % kFaultOneIn == 0) fault = Fault(1 + random() % (int(Fault::kCount) - 1));
    sim::AnswerFault f;
    switch (fault) {
      case Fault::Noise: f.Noise(1 + random() % 12); break;
      case Fault::Corrupt: f.Corrupt(); break;
      case Fault::Truncate: f.Truncate(1 + random() % (uint32_t(stamp.size()) + 6)); break;
      case Fault::Silence: f.Silent(); break;
      case Fault::Late: f.Late(giveUpMs + 40); break;
      case Fault::Refuse:
        f.Refuse({random() % 2 ? uint16_t(0x8000) : uint16_t(0xC000),
                  random() % 2 ? std::optional<uint8_t>(uint8_t(random() % 0x80)) : std::nullopt});
        break;
      case Fault::Drop: f.Drop(); break;
      default: break;
    }
    if (fault != Fault::None) d.sim().FaultNextAnswer(f);
    ++tally.faults[FaultName(fault)];

    const auto start = Clock::now();
    std::fill(data.begin(), data.end(), -1);
    int32_t count = -1, error = -1;
    const uint32_t result = (d.com().*service.method)(data.data(), &count, &error);
    ++tally.exchanges;
    if (result == 0 && error == 0) {
      const bool right = count == int32_t(stamp.size()) &&
                         std::equal(stamp.begin(), stamp.end(), data.begin(),
                                    [](uint8_t s, int32_t v) { return int32_t(s) == v; });
      if (right) {
        ++tally.outcomes["ok"];
      } else {
        tally.violations.push_back(std::string(service.name) + " delivered wrong data after fault " + FaultName(fault));
      }
    } else {
      // Refusals are counted by their kind, not by their code or data byte.
      char text[48];
      if (uint32_t(error) >= rc::kRefusalDataBase && uint32_t(error) <= rc::kRefusalDataBase + 0xFF) {
        snprintf(text, sizeof text, "refusal with a data byte");
      } else if ((uint32_t(error) & 0xFFFF0000u) == rc::kRefusalBase) {
        snprintf(text, sizeof text, "refusal 0x%X", uint32_t(error) & 0xF000u);
      } else {
        snprintf(text, sizeof text, "error 0x%X", uint32_t(error));
      }
      ++tally.outcomes[text];
      const bool frameOk = result == rc::kAnswerFailed || result == uint32_t(error);
      if (!frameOk || !Documented(uint32_t(error), service.code)) {
        tally.violations.push_back(std::string(service.name) + " returned " + std::to_string(result) + " with " +
                                   text + " after fault " + FaultName(fault));
      }
    }
    if (fault == Fault::Drop) {
      int32_t closeError = 0;
      d.com().kaVCloseComPort(0, &closeError);
      if (d.Open() != 0) tally.violations.push_back("reopen failed");
    }
    if (fault == Fault::Late) {
      // The late answer is sent before the next call begins, so that call meets it.
      std::this_thread::sleep_until(start + std::chrono::milliseconds(giveUpMs + 40 + 30));
    }
    if (tally.violations.size() > 20) return;
  }
  // A clean exchange at the end: nothing the faults left behind still disturbs the link.
  int32_t version = 0, error = -1;
  d.sim().ClearScript();
  // An answer to an earlier call may still be on its way; one call may meet it.
  for (int attempt = 0; attempt < 2 && d.com().kaVGetGatewayVersion(&version, &error) != 0; ++attempt) {
  }
  if (error != 0 || version != 0x0102) tally.violations.push_back("final exchange failed: " + std::to_string(error));
}

TEST(FaultSoak, EveryCallEndsWithItsOwnDataOrADocumentedCode) {
  std::atomic<int> total{0};
  const auto begin = Clock::now();
  const auto deadline = begin + kTimeLimit;
  const Link links[] = {Link::Tcp, Link::Pty};
  std::vector<Tally> tallies(std::size(links) * kWorkersPerLink);
  std::vector<std::thread> workers;
  for (size_t l = 0; l < std::size(links); ++l) {
    for (int w = 0; w < kWorkersPerLink; ++w) {
      Tally& tally = tallies[l * kWorkersPerLink + size_t(w)];
      workers.emplace_back([&, l, w] { RunWorker(links[l], w, total, deadline, tally); });
    }
  }
  for (std::thread& t : workers) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();

  uint64_t exchanges = 0, ok = 0;
  for (size_t l = 0; l < std::size(links); ++l) {
    Tally sum;
    for (int w = 0; w < kWorkersPerLink; ++w) {
      const Tally& t = tallies[l * kWorkersPerLink + size_t(w)];
      sum.exchanges += t.exchanges;
      for (const auto& [k, v] : t.outcomes) sum.outcomes[k] += v;
      for (const auto& [k, v] : t.faults) sum.faults[k] += v;
      for (const std::string& v : t.violations) ADD_FAILURE() << test::LinkLabel(links[l]) << ": " << v;
    }
    exchanges += sum.exchanges;
    ok += sum.outcomes["ok"];
    std::cout << test::LinkLabel(links[l]) << ": " << sum.exchanges << " exchanges\n  faults:";
    for (const auto& [k, v] : sum.faults) std::cout << " " << k << "=" << v;
    std::cout << "\n  outcomes:";
    for (const auto& [k, v] : sum.outcomes) std::cout << " " << k << "=" << v;
    std::cout << "\n";
  }
  std::cout << "total: " << exchanges << " exchanges in " << seconds << " s\n";
  EXPECT_GT(ok, exchanges * 8 / 10);
}

}  // namespace
}  // namespace tamrik
