#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>

#include <memory>
#include <thread>

#include "Simulator.h"
#include "SimTestSupport.h"

namespace tamrik::sim::test {
namespace {

const Bytes kVersionRequest = HexBytes("AA 01 01 00 00 83 D0");
const std::string kVersionAnswer = "AA 01 41 02 00 02 01 44 AA";
const std::string kFirstInputAnswer = "AA 03 40 06 00 01 01 01 01 01 01 D0 59";

TEST(SimTcp, AnswersRequestsHoweverTheyAreSplitOrBunched) {
  Simulator sim;
  const uint16_t port = sim.StartTcp();
  ASSERT_NE(port, 0);
  EXPECT_EQ(sim.TcpPort(), port);
  TcpClient c(port);
  ASSERT_TRUE(c.ok());

  ASSERT_TRUE(c.Send(HexBytes("AA 03 00 00 00 29 B3")));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kFirstInputAnswer);

  // One byte per write, with pauses the simulator must wait through.
  for (uint8_t b : kVersionRequest) {
    ASSERT_TRUE(c.Send({b}));
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);

  // Two requests and noise in one write: two answers, in order.
  Bytes both = HexBytes("00 55");
  both.insert(both.end(), kVersionRequest.begin(), kVersionRequest.end());
  const Bytes boot = Request(259);
  both.insert(both.end(), boot.begin(), boot.end());
  ASSERT_TRUE(c.Send(both));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), ToHex(BuildFrame(0x4103, HexBytes("05 01"))));
}

TEST(SimTcp, WritesAreKeptAcrossConnectionsAndANewConnectionTakesOver) {
  Simulator sim;
  const uint16_t port = sim.StartTcp();
  {
    TcpClient c(port);
    ASSERT_TRUE(c.Send(Request(5, HexBytes("0F 81 7E"))));
    EXPECT_EQ(ToHex(c.ReadFrame(1000)), ToHex(BuildFrame(0x4005, HexBytes("0F 81 7E"))));
  }
  TcpClient first(port);
  ASSERT_TRUE(first.ok());
  ASSERT_TRUE(first.Send(Request(4)));
  EXPECT_EQ(ToHex(first.ReadFrame(1000)), ToHex(BuildFrame(0x4004, HexBytes("0F 81 7E"))));

  // A second host connecting while the first is still there: the first is let go.
  TcpClient second(port);
  ASSERT_TRUE(second.ok());
  EXPECT_TRUE(first.SeesClose(1000));
  ASSERT_TRUE(second.Send(kVersionRequest));
  EXPECT_EQ(ToHex(second.ReadFrame(1000)), kVersionAnswer);
  EXPECT_EQ(sim.TcpConnectionsAccepted(), 3u);
}

TEST(SimTcp, DamagedAndStalledRequestsAreDroppedAndTheLinkRecovers) {
  Simulator sim;
  sim.SetStallTimeout(100);
  std::vector<std::string> lines;
  std::mutex linesMutex;
  sim.SetLogSink([&](const std::string& l) {
    std::lock_guard lock(linesMutex);
    lines.push_back(l);
  });
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());

  ASSERT_TRUE(c.Send(HexBytes("AA 01 01 00 00 83 D1")));  // wrong check value
  EXPECT_TRUE(c.Read(1, 150).empty());
  EXPECT_EQ(sim.GetCounters().badCheckValues, 1u);
  EXPECT_EQ(sim.Requests().size(), 0u);

  // A start byte whose frame never completes holds back the next request only until the
  // line has been quiet for the stall time.
  ASSERT_TRUE(c.Send(HexBytes("AA FF FF")));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const auto t0 = Clock::now();
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
  EXPECT_GE(MsSince(t0), 80);

  std::lock_guard lock(linesMutex);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("dropped, wrong check value: AA 01 01 00 00 83 D1"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("tcp    0x0101 GatewayVersion [0] -> AA 01 41 02 00 02 01 44 AA"), std::string::npos)
      << lines[1];
}

TEST(SimTcp, RequestLogRecordsWhatWasServed) {
  Simulator sim;
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());
  const auto t0 = Clock::now();
  ASSERT_TRUE(c.Send(Request(262, {2})));
  ASSERT_TRUE(c.Send(Request(275, HexBytes("02 01"))));
  ASSERT_TRUE(sim.WaitForRequests(2, 1000));
  const auto log = sim.Requests();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].link, LinkKind::Tcp);
  EXPECT_EQ(log[0].code, 262);
  EXPECT_EQ(ToHex(log[0].data), "02");
  EXPECT_EQ(ToHex(log[1].frame), ToHex(Request(275, HexBytes("02 01"))));
  EXPECT_GE(log[0].time, t0);
  EXPECT_LE(log[0].time, log[1].time);
  EXPECT_EQ(sim.GetStation().operationMode, 2);

  sim.ClearRequests();
  EXPECT_TRUE(sim.Requests().empty());
  const auto t1 = Clock::now();
  EXPECT_FALSE(sim.WaitForRequests(1, 50));
  EXPECT_GE(MsSince(t1), 45);
}

TEST(SimUdp, AnswersEachSenderWithOneDatagram) {
  Simulator sim;
  const uint16_t port = sim.StartUdp();
  ASSERT_NE(port, 0);
  UdpClient a(port), b(port);
  ASSERT_TRUE(a.ok() && b.ok());
  ASSERT_TRUE(a.Send(HexBytes("AA 03 00 00 00 29 B3")));
  ASSERT_TRUE(b.Send(kVersionRequest));
  EXPECT_EQ(ToHex(a.Receive(1000)), kFirstInputAnswer);
  EXPECT_EQ(ToHex(b.Receive(1000)), kVersionAnswer);

  // Faults reach datagrams the same way: noise and frame in one datagram.
  sim.FaultNextAnswer(AnswerFault().Noise(2));
  ASSERT_TRUE(a.Send(kVersionRequest));
  const Bytes noisy = a.Receive(1000);
  ASSERT_EQ(noisy.size(), 11u);
  EXPECT_EQ(ToHex(Bytes(noisy.begin() + 2, noisy.end())), kVersionAnswer);

  sim.FaultNextAnswer(AnswerFault().Silent());
  ASSERT_TRUE(a.Send(kVersionRequest));
  EXPECT_TRUE(a.Receive(150).empty());
  EXPECT_EQ(sim.Requests().back().link, LinkKind::Udp);
}

TEST(SimPty, DeviceCanBeOpenedClosedAndReopened) {
  const std::string link = TempPath("tamrik_sim_tty");
  Simulator sim;
  const std::string path = sim.StartPty(link);
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(sim.PtyPath(), path);
  char target[256] = {};
  ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
  EXPECT_EQ(std::string(target), path);

  for (int round = 0; round < 4; ++round) {
    PtyClient c(round % 2 ? link : path);
    ASSERT_TRUE(c.ok()) << round;
    ASSERT_TRUE(c.Send(kVersionRequest));
    EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer) << round;
  }

  // Raw mode: bytes a terminal would act on pass through unchanged in both directions.
  PtyClient c(path);
  ASSERT_TRUE(c.ok());
  const Bytes special = HexBytes("0D 0A 03");  // CR, LF, Ctrl-C
  ASSERT_TRUE(c.Send(Request(5, special)));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), ToHex(BuildFrame(0x4005, special)));
  EXPECT_EQ(ToHex(sim.OutputImage()), "0D 0A 03");

  // Dropping on a serial line: no answer, and the request bytes already sent are forgotten.
  sim.FaultNextAnswer(AnswerFault().Drop());
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_TRUE(c.Read(1, 150).empty());
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
  c.Close();

  sim.Stop();
  struct stat st {};
  EXPECT_NE(lstat(link.c_str(), &st), 0);  // the link went with the device
}

TEST(SimPty, PacedAnswerTakesTheTimeOfTheLine) {
  Simulator sim;
  PtyClient c(sim.StartPty());
  ASSERT_TRUE(c.ok());
  sim.SetPacing(19200);  // 0.52 ms per byte
  sim.SetAnswerOverride(22, Bytes(93, 0x11));  // 100-byte frame: 52 ms
  const auto t0 = Clock::now();
  ASSERT_TRUE(c.Send(Request(22)));
  EXPECT_EQ(c.ReadFrame(1000).size(), 100u);
  const int64_t took = MsSince(t0);
  EXPECT_GE(took, 48);
  EXPECT_LT(took, 300);
}

TEST(SimLifetime, DestructionStopsPromptlyWithWorkPending) {
  auto sim = std::make_unique<Simulator>();
  const uint16_t tcpPort = sim->StartTcp();
  const uint16_t udpPort = sim->StartUdp();
  PtyClient pty(sim->StartPty());
  TcpClient tcp(tcpPort);
  UdpClient udp(udpPort);
  ASSERT_TRUE(tcp.ok() && udp.ok() && pty.ok());
  // Answers held back for ten seconds on every link, and a long paced answer under way.
  sim->SetLateAnswers(10000);
  ASSERT_TRUE(tcp.Send(kVersionRequest));
  ASSERT_TRUE(udp.Send(kVersionRequest));
  ASSERT_TRUE(sim->WaitForRequests(2, 1000));
  sim->SetLateAnswers(0);
  sim->SetPacing(300);
  sim->SetAnswerOverride(22, Bytes(1000, 0));
  ASSERT_TRUE(pty.Send(Request(22)));
  ASSERT_TRUE(sim->WaitForRequests(3, 1000));

  const auto t0 = Clock::now();
  sim.reset();
  EXPECT_LT(MsSince(t0), 500);
  EXPECT_TRUE(tcp.SeesClose(1000));
}

TEST(SimLifetime, LinksStartOnceAndReportRefusals) {
  Simulator sim;
  sim.StartTcp();
  EXPECT_THROW(sim.StartTcp(), std::system_error);
  EXPECT_THROW(Simulator().StartUdp(0, "not-an-address"), std::system_error);
  // A port that is taken.
  Simulator other;
  EXPECT_THROW(other.StartTcp(sim.TcpPort()), std::system_error);
  // A path that is a regular file is not replaced by the link.
  const std::string file = TempPath("tamrik_sim_not_a_link");
  { FILE* f = std::fopen(file.c_str(), "w"); ASSERT_TRUE(f); std::fclose(f); }
  EXPECT_THROW(other.StartPty(file), std::system_error);
  std::remove(file.c_str());
  // After Stop a link can be started again.
  sim.Stop();
  EXPECT_EQ(sim.TcpPort(), 0);
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
}

}  // namespace
}  // namespace tamrik::sim::test
