// Many simulated gateways in one process, seen from hosts on loopback: each on its own port
// with its own state, one gateway's faults never slowing another, unplugged and plugged back,
// a thousand at once, and the program's listing.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "Fleet.h"
#include "SimTestSupport.h"
#include "cli/ProcessSupport.h"

namespace tamrik::sim::test {
namespace {

const Bytes kVersionRequest = HexBytes("AA 01 01 00 00 83 D0");
const std::string kVersionAnswer = "AA 01 41 02 00 02 01 44 AA";

// The default station with inputs that stay as set, as a benchmark changes them.
Station StillStation() {
  Station s = DefaultStation();
  s.animateInputs = false;
  return s;
}

FleetOptions Options(uint32_t count, uint32_t threads = 1) {
  FleetOptions o;
  o.count = count;
  o.threads = threads;
  o.station = StillStation();
  return o;
}

// One request, one answer frame.
std::string Ask(TcpClient& c, const Bytes& request, int timeoutMs = 1000) {
  if (!c.Send(request)) return "(not sent)";
  return ToHex(c.ReadFrame(timeoutMs));
}

TEST(SimFleet, EachGatewayKeepsItsOwnStateOnItsOwnPort) {
  Fleet fleet(Options(5, 2));
  ASSERT_EQ(fleet.Size(), 5u);
  std::set<uint16_t> ports;
  for (size_t i = 0; i < fleet.Size(); ++i) ports.insert(fleet.TcpPort(i));
  EXPECT_EQ(ports.size(), 5u);
  EXPECT_EQ(ports.count(0), 0u);
  EXPECT_EQ(fleet.At(0).LogCapacity(), 16u);

  std::vector<std::unique_ptr<TcpClient>> clients;
  for (size_t i = 0; i < fleet.Size(); ++i) {
    clients.push_back(std::make_unique<TcpClient>(fleet.TcpPort(i)));
    ASSERT_TRUE(clients.back()->ok()) << i;
  }
  const Bytes written = HexBytes("0F 81 7E");
  EXPECT_EQ(Ask(*clients[2], Request(5, written)), ToHex(BuildFrame(0x4005, written)));
  EXPECT_EQ(Ask(*clients[2], Request(4)), ToHex(BuildFrame(0x4004, written)));
  for (size_t i : {0, 1, 3, 4}) EXPECT_EQ(Ask(*clients[i], Request(4)), ToHex(BuildFrame(0x4004, Bytes(3, 0)))) << i;
  EXPECT_EQ(ToHex(fleet.At(2).OutputImage()), "0F 81 7E");
  EXPECT_EQ(fleet.At(2).GetCounters().requests, 2u);
  EXPECT_EQ(fleet.At(3).GetCounters().requests, 1u);

  // Inputs changed from this thread show at the next read of that gateway only, and the
  // outputs written before stay: the edit does not start the gateway afresh.
  fleet.At(2).EditStation([](Station& s) { s.modules[1].inputs = HexBytes("10 20 30 40"); });
  EXPECT_EQ(Ask(*clients[2], Request(3)), ToHex(BuildFrame(0x4003, HexBytes("00 00 10 20 30 40"))));
  EXPECT_EQ(Ask(*clients[1], Request(3)), ToHex(BuildFrame(0x4003, Bytes(6, 0))));
  EXPECT_EQ(ToHex(fleet.At(2).OutputImage()), "0F 81 7E");

  // The request log stays within its cap.
  for (int k = 0; k < 20; ++k) ASSERT_EQ(Ask(*clients[0], kVersionRequest), kVersionAnswer) << k;
  EXPECT_EQ(fleet.At(0).Requests().size(), 16u);
  EXPECT_EQ(fleet.At(0).GetCounters().requests, 21u);
}

TEST(SimFleet, PortsFollowOneAnotherFromTheFirstPortAsked) {
  // A free port found now may be taken by the time the fleet binds it, or its neighbours
  // may be in use: a few tries, each from a port the system just handed out.
  for (int attempt = 0; attempt < 5; ++attempt) {
    uint16_t base = 0;
    {
      Fleet probe(Options(1));
      base = probe.TcpPort(0);
    }
    if (base > 65533) continue;
    FleetOptions o = Options(3);
    o.firstPort = base;
    try {
      Fleet fleet(o);
      for (size_t i = 0; i < 3; ++i) EXPECT_EQ(fleet.TcpPort(i), base + i);
      TcpClient c(base + 2);
      EXPECT_EQ(Ask(c, kVersionRequest), kVersionAnswer);
      return;
    } catch (const std::system_error&) {
      // Taken meanwhile: try again.
    }
  }
  ADD_FAILURE() << "no three free ports in a row in five tries";
}

TEST(SimFleet, ASlowOrSilentGatewayDoesNotHoldUpTheOthers) {
  // All on one thread, the hardest case for the gateways that answer at once.
  FleetOptions o = Options(4, 1);
  o.stallMs = 100;
  Fleet fleet(o);
  TcpClient slow(fleet.TcpPort(0)), silent(fleet.TcpPort(1)), quick(fleet.TcpPort(2)), stalled(fleet.TcpPort(3));
  ASSERT_TRUE(slow.ok() && silent.ok() && quick.ok() && stalled.ok());
  fleet.At(0).SetAnswerDelay(600);
  fleet.At(1).SetSilence(true);

  const auto t0 = Clock::now();
  ASSERT_TRUE(slow.Send(kVersionRequest));
  ASSERT_TRUE(silent.Send(kVersionRequest));
  ASSERT_TRUE(stalled.Send(HexBytes("AA FF FF")));  // a frame that never completes
  for (int k = 0; k < 5; ++k) {
    const auto asked = Clock::now();
    EXPECT_EQ(Ask(quick, kVersionRequest), kVersionAnswer) << k;
    EXPECT_LT(MsSince(asked), 250) << k;
  }
  EXPECT_EQ(ToHex(slow.ReadFrame(1000)), kVersionAnswer);
  EXPECT_GE(MsSince(t0), 590);
  EXPECT_TRUE(silent.Read(1, 100).empty());
  EXPECT_EQ(fleet.At(1).GetCounters().silenced, 1u);

  // The stalled start byte was given up on its own, without a new byte to wake it.
  EXPECT_EQ(Ask(stalled, kVersionRequest), kVersionAnswer);

  // Faults that change the bytes, once each.
  fleet.At(2).FaultNextAnswer(AnswerFault().Noise(2));
  ASSERT_TRUE(quick.Send(kVersionRequest));
  const Bytes noisy = quick.Read(11, 1000);
  ASSERT_EQ(noisy.size(), 11u);
  EXPECT_EQ(ToHex(Bytes(noisy.begin() + 2, noisy.end())), kVersionAnswer);
  fleet.At(2).FaultNextAnswer(AnswerFault().Corrupt());
  EXPECT_EQ(Ask(quick, kVersionRequest), "AA 01 41 02 00 02 01 BB AA");

  // Late answers keep their own time: the second request's answer comes first.
  fleet.At(3).FaultNextAnswer(AnswerFault().Late(400));
  ASSERT_TRUE(stalled.Send(Request(4)));
  EXPECT_EQ(Ask(stalled, kVersionRequest, 300), kVersionAnswer);
  EXPECT_EQ(ToHex(stalled.ReadFrame(1000)), ToHex(BuildFrame(0x4004, Bytes(3, 0))));

  // A paced answer takes the time of its line, and the answer behind it waits for it.
  fleet.At(2).SetPacing(19200);                       // 0.52 ms per byte
  fleet.At(2).SetAnswerOverride(22, Bytes(93, 0x11));  // a frame of 100 bytes: 52 ms
  const auto paced = Clock::now();
  ASSERT_TRUE(quick.Send(Request(22)));
  ASSERT_TRUE(quick.Send(kVersionRequest));
  EXPECT_EQ(quick.ReadFrame(1000).size(), 100u);
  EXPECT_GE(MsSince(paced), 48);
  EXPECT_EQ(ToHex(quick.ReadFrame(1000)), kVersionAnswer);
  EXPECT_GE(MsSince(paced), 52);
}

TEST(SimFleet, DroppedAndUnpluggedGatewaysComeBack) {
  Fleet fleet(Options(3, 2));
  const Bytes written = HexBytes("01 02 03");
  {
    TcpClient c(fleet.TcpPort(0));
    fleet.At(0).SetDropConnection(true);
    ASSERT_TRUE(c.Send(kVersionRequest));
    EXPECT_TRUE(c.SeesClose(1000));
  }
  fleet.At(0).SetDropConnection(false);
  TcpClient again(fleet.TcpPort(0));
  EXPECT_EQ(Ask(again, kVersionRequest), kVersionAnswer);
  EXPECT_EQ(fleet.ConnectionsAccepted(0), 2u);

  // Unplugged: the open connection ends and new ones are refused; the others go on.
  TcpClient host(fleet.TcpPort(1));
  EXPECT_EQ(Ask(host, Request(5, written)), ToHex(BuildFrame(0x4005, written)));
  const uint16_t port = fleet.TcpPort(1);
  fleet.SetListening(1, false);
  EXPECT_FALSE(fleet.Listening(1));
  EXPECT_TRUE(host.SeesClose(1000));
  EXPECT_FALSE(TcpClient(port).ok());
  EXPECT_EQ(fleet.OpenConnections(1), 0u);
  EXPECT_EQ(Ask(again, kVersionRequest), kVersionAnswer);

  // Plugged back: the same port, the same state.
  fleet.SetListening(1, true);
  EXPECT_TRUE(fleet.Listening(1));
  EXPECT_EQ(fleet.TcpPort(1), port);
  TcpClient back(port);
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(Ask(back, Request(4)), ToHex(BuildFrame(0x4004, written)));
  EXPECT_THROW(fleet.SetListening(3, true), std::out_of_range);

  // A few hosts at once; one more lets the oldest go.
  std::vector<std::unique_ptr<TcpClient>> hosts;
  for (size_t k = 0; k <= kMaxConnectionsPerGateway; ++k) {
    hosts.push_back(std::make_unique<TcpClient>(fleet.TcpPort(2)));
    EXPECT_EQ(Ask(*hosts.back(), kVersionRequest), kVersionAnswer) << k;
  }
  EXPECT_TRUE(hosts.front()->SeesClose(1000));
  for (size_t k = 1; k < hosts.size(); ++k) EXPECT_EQ(Ask(*hosts[k], kVersionRequest), kVersionAnswer) << k;
  EXPECT_EQ(fleet.OpenConnections(2), uint32_t(kMaxConnectionsPerGateway));
}

TEST(SimFleet, AThousandGatewaysStartAndEachAnswersItsHost) {
  constexpr uint32_t kCount = 1000;
  std::string error;
  ASSERT_TRUE(RaiseDescriptorLimit(FleetDescriptors(kCount) + kCount, &error)) << error;
  const auto t0 = Clock::now();
  FleetOptions o = Options(kCount, 2);
  o.logCapacity = 0;
  Fleet fleet(o);
  EXPECT_LT(MsSince(t0), 2000);

  std::vector<std::unique_ptr<TcpClient>> hosts;
  for (size_t i = 0; i < kCount; ++i) {
    hosts.push_back(std::make_unique<TcpClient>(fleet.TcpPort(i)));
    ASSERT_TRUE(hosts.back()->ok()) << i;
    ASSERT_TRUE(hosts.back()->Send(Request(5, {uint8_t(i), uint8_t(i >> 8), 0x5A})));
  }
  size_t answered = 0;
  for (size_t i = 0; i < kCount; ++i) {
    const Bytes data = {uint8_t(i), uint8_t(i >> 8), 0x5A};
    answered += ToHex(hosts[i]->ReadFrame(2000)) == ToHex(BuildFrame(0x4005, data));
    EXPECT_EQ(fleet.At(i).OutputImage(), data) << i;
  }
  EXPECT_EQ(answered, kCount);
  EXPECT_LT(MsSince(t0), 10000);
  EXPECT_TRUE(fleet.At(999).Requests().empty());
  EXPECT_EQ(fleet.At(999).GetCounters().requests, 1u);
}

TEST(SimFleet, NamesArePaddedToTheWidthOfTheCount) {
  EXPECT_EQ(FleetGatewayName(0, 1), "gw1");
  EXPECT_EQ(FleetGatewayName(8, 9), "gw9");
  EXPECT_EQ(FleetGatewayName(0, 10), "gw01");
  EXPECT_EQ(FleetGatewayName(0, 1000), "gw0001");
  EXPECT_EQ(FleetGatewayName(999, 1000), "gw1000");
  EXPECT_THROW(Fleet([] {
                 FleetOptions o;
                 o.count = 10;
                 o.firstPort = 65530;
                 return o;
               }()),
               std::system_error);
}

TEST(SimFleetProgram, ListsItsGatewaysServesThemAndStopsOnSignal) {
  tamrik::test::Process sim({TAMRIK_SIM_PROGRAM, "--gateways", "12", "--tcp", "0", "--refuse", "4"});
  ASSERT_TRUE(sim.WaitForOutput("gw12 ", 5000)) << sim.out() << sim.err();
  const std::regex line(R"(gw(\d\d) 127\.0\.0\.1:(\d+))");
  std::vector<uint16_t> ports;
  std::istringstream out(sim.out());
  for (std::string text; std::getline(out, text);) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, line)) << text;
    EXPECT_EQ(std::stoul(m[1].str()), ports.size() + 1);
    ports.push_back(uint16_t(std::stoul(m[2].str())));
  }
  ASSERT_EQ(ports.size(), 12u);
  EXPECT_EQ(std::set<uint16_t>(ports.begin(), ports.end()).size(), 12u);

  // Each listed gateway answers, with the faults of the command line.
  for (size_t i : {0, 6, 11}) {
    TcpClient c(ports[i]);
    EXPECT_EQ(Ask(c, kVersionRequest), kVersionAnswer) << i;
    EXPECT_EQ(Ask(c, Request(4)), ToHex(BuildFrame(0x8004, {}))) << i;
  }
  const tamrik::test::RunResult stopped = sim.Stop(5000);
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_EQ(stopped.err, "");

  const tamrik::test::RunResult refused = tamrik::test::Run({TAMRIK_SIM_PROGRAM, "--gateways", "3", "--pty"}, 5000);
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.err.rfind("tamrik-sim: --gateways serves TCP only", 0), 0u) << refused.err;
}

}  // namespace
}  // namespace tamrik::sim::test
