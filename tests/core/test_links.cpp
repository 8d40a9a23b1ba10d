// One exchange end to end over each link kind, against the simulated gateway: the exact
// request bytes, the answer, every failure code, and the trace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ResultCodes.h"
#include "SimFrame.h"
#include "Simulator.h"
#include "com.h"
#include "common/TestPeers.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using test::InitSection;
using test::TempDir;

constexpr int kPtyComPort = 7;
const std::vector<uint8_t> kInputImageRequest = {0xAA, 0x03, 0x00, 0x00, 0x00, 0x29, 0xB3};

enum class Link { Pty, Tcp, Udp };

const char* LinkName(Link link) {
  switch (link) {
    case Link::Pty:
      return "pseudo-terminal";
    case Link::Tcp:
      return "TCP";
    default:
      return "UDP";
  }
}

// A driver object in its own directory, linked to its own simulator over one link kind.
// Short serial time-outs keep the failure cases quick.
class Linked {
 public:
  explicit Linked(Link link, int logfile = 0) {
    std::string config = InitSection(0, logfile, 1, 115200, 150);
    if (link == Link::Pty) {
      const std::string path = sim_.StartPty();
      config += "[Ports]\nCom" + std::to_string(kPtyComPort) + "=" + path + "\n";
    }
    dir_.Write("kaVcnf.ini", config);
    com_ = std::make_unique<Ccom>(dir_.path());
    int32_t error = -1;
    switch (link) {
      case Link::Pty:
        openResult_ = com_->kaVOpenComPort(kPtyComPort, &error);
        break;
      case Link::Tcp:
        openResult_ = com_->kaVOpenEthernet(std::to_string(sim_.StartTcp()).c_str(), "127.0.0.1", &error);
        break;
      case Link::Udp:
        openResult_ = com_->kaVOpenEthernet((std::to_string(sim_.StartUdp()) + ",UDP").c_str(), "127.0.0.1", &error);
        break;
    }
    openError_ = error;
  }
  Ccom& com() { return *com_; }
  CComPort& port() { return *&CcomTestPeer::Port(*com_); }
  sim::Simulator& sim() { return sim_; }
  uint32_t openResult() const { return openResult_; }
  int32_t openError() const { return openError_; }

 private:
  sim::Simulator sim_;
  TempDir dir_;
  std::unique_ptr<Ccom> com_;
  uint32_t openResult_ = 0;
  int32_t openError_ = 0;
};

class EveryLink : public ::testing::TestWithParam<Link> {};

TEST_P(EveryLink, InputImageRequestIsByteExactAndItsAnswerDecodes) {
  Linked linked(GetParam());
  ASSERT_EQ(linked.openResult(), 0u);
  ASSERT_EQ(linked.openError(), 0);
  linked.sim().QueueRawAnswer({0xAA, 0x03, 0x40, 0x02, 0x00, 0x11, 0x22, 0x36, 0x05});

  const int32_t ignoredCount = 99;
  ASSERT_EQ(linked.port().GenerateService(3, nullptr, &ignoredCount), 0u);
  int32_t values[4] = {-1, -1, -1, -1};
  int32_t count = 0;
  EXPECT_EQ(linked.port().AnswerReception(3, values, &count), 0u);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(values[0], 0x11);
  EXPECT_EQ(values[1], 0x22);
  EXPECT_EQ(values[2], -1);
  ASSERT_TRUE(linked.sim().WaitForRequests(1, 1000));
  EXPECT_EQ(linked.sim().Requests().at(0).frame, kInputImageRequest);
}

TEST_P(EveryLink, GatewayVersionAndEveryFailureCode) {
  {
    Linked linked(GetParam());
    int32_t version = int32_t(0xFFFFFFFF), error = -1;
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
    // The answer fills the two low bytes and keeps the caller's upper ones.
    EXPECT_EQ(uint32_t(version), 0xFFFF0102u);

    // A few bytes of noise ahead of the frame are skipped.
    linked.sim().FaultNextAnswer(sim::AnswerFault().Noise(3));
    version = 0;
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(version, 0x0102);

    // Refusals arrive as composed codes and the method reports that its answer failed.
    linked.sim().FaultNextAnswer(sim::AnswerFault().Refuse({0xC000, std::nullopt}));
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), 0x2C101u);
    linked.sim().FaultNextAnswer(sim::AnswerFault().Refuse({0x8000, uint8_t(5)}));
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), 0x30005u);

    linked.sim().FaultNextAnswer(sim::AnswerFault().Corrupt());
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), rc::kBadCheckValue);

    // Silence: the start byte never comes and neither does the header.
    linked.sim().FaultNextAnswer(sim::AnswerFault().Silent());
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), rc::kReadFailed);

    // After all that the link still works.
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
  }
  {
    // Ten bytes of noise use up the search; the header read still succeeds on the frame.
    Linked linked(GetParam());
    linked.sim().FaultNextAnswer(sim::AnswerFault().Noise(10));
    int32_t version = 0, error = -1;
    EXPECT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), rc::kNoStartByte);
  }
}

INSTANTIATE_TEST_SUITE_P(Links, EveryLink, ::testing::Values(Link::Pty, Link::Tcp, Link::Udp),
                         [](const auto& info) { return std::string(LinkName(info.param)) == "pseudo-terminal"
                                                           ? std::string("Pty")
                                                           : std::string(LinkName(info.param)); });

TEST(Trace, ATracedSerialExchangeWritesTheDocumentedLines) {
  test::TraceCapture trace;
  Linked linked(Link::Pty, 1);
  ASSERT_EQ(linked.openResult(), 0u);
  trace.Clear();
  int32_t version = 0, error = -1;
  ASSERT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), 0u);
  const std::vector<std::string> expected = {
      "ComServer:kavGetGatewayVersion-->",
      "ComServer:Write Stream (len:0007): AA0101000083D0",
      "ComServer:Read Stream (len:0001): AA",
      "ComServer:Read Stream (len:0004): 01410200",
      "ComServer:L\xE4nge: 9",
      "ComServer:Service: 4101",
      "ComServer:Read Stream (len:0004): 020144AA",
      "ComServer:kavGetGatewayVersion<--",
  };
  EXPECT_EQ(trace.Lines(), expected);
}

TEST(Trace, SocketReadsAndCloseAreTraced) {
  test::TraceCapture trace;
  Linked linked(Link::Tcp, 1);
  ASSERT_EQ(linked.openResult(), 0u);
  int32_t version = 0, error = -1;
  ASSERT_EQ(linked.com().kaVGetGatewayVersion(&version, &error), 0u);
  linked.com().kaVCloseComPort(0, &error);
  std::vector<std::string> lines = trace.Lines();
  auto count = [&](const std::string& line) { return std::count(lines.begin(), lines.end(), line); };
  EXPECT_EQ(count("ComServer:Read In"), 3);
  EXPECT_EQ(count("ComServer:Read OUT"), 3);
  EXPECT_EQ(count("ComServer:Read Stream (len:0001): AA"), 1);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.rfind("ComServer:Socket WSAGetLastError: ", 0) == 0; }),
            1);
}

TEST(SerialLine, OpenCloseAndTimings) {
  sim::Simulator sim;
  const std::string path = sim.StartPty();
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 1) + "[Ports]\nCom2=" + path + "\nCom9=" + dir.File("none") + "\n");
  test::TraceCapture trace;
  Ccom com(dir.path());
  int32_t error = -1;

  // No device behind the port number: result and return value alike, traced or not.
  EXPECT_EQ(com.kaVOpenComPort(9, &error), rc::kComNoDevice);
  EXPECT_EQ(uint32_t(error), rc::kComNoDevice);
  EXPECT_EQ(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(com)), 0);

  EXPECT_EQ(com.kaVOpenComPort(2, &error), 0u);
  EXPECT_EQ(error, 0);
  // The device is held exclusively while open.
  platform::SerialOpenError openError;
  EXPECT_EQ(platform::SerialOpen(2, CcomTestPeer::ConfigFile(com), &openError), nullptr);
  EXPECT_EQ(openError, platform::SerialOpenError::AccessDenied);
  // A second open of the port object itself is refused and leaves the line as it was.
  EXPECT_EQ(CcomTestPeer::Port(com).Open(2, 115200, 0), rc::kComAlreadyOpen);
  EXPECT_EQ(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(com)), 1);
  // Opening again through the method closes first, so it succeeds.
  EXPECT_EQ(com.kaVOpenComPort(2, &error), 0u);

  trace.Clear();
  CcomTestPeer::Port(com).ChangeTimings(true);
  CcomTestPeer::Port(com).ChangeTimings(true);
  EXPECT_EQ(CcomTestPeer::Port(com).Timings().activeTotalConstant, 3000u);
  CcomTestPeer::Port(com).ChangeTimings(false);
  const std::vector<std::string> expected = {"ComServer:ComPort ChangeTimings: 3000", "ComServer:ComPort Timings OK",
                                             "ComServer:ComPort ChangeTimings: 500"};
  EXPECT_EQ(trace.Lines(), expected);
  CcomTestPeer::Port(com).ChangeTimings(true);
  // Reopening starts again in normal timing.
  EXPECT_EQ(com.kaVOpenComPort(2, &error), 0u);
  EXPECT_EQ(CcomTestPeer::Port(com).Timings().activeTotalConstant, 500u);

  // Opening Ethernet closes the serial line: the device is free again.
  EXPECT_EQ(com.kaVOpenEthernet("1,UDP", "127.0.0.1", &error), 0u);
  platform::SerialDevice* device = platform::SerialOpen(2, CcomTestPeer::ConfigFile(com), &openError);
  EXPECT_NE(device, nullptr);
  if (device != nullptr) platform::SerialClose(device);
  EXPECT_EQ(com.kaVCloseComPort(2, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(com.kaVCloseComPort(2, &error), 0u);
  EXPECT_EQ(uint32_t(error), rc::kNothingOpen);
  // While nothing is open a timing change does nothing.
  trace.Clear();
  CcomTestPeer::Port(com).ChangeTimings(true);
  EXPECT_TRUE(trace.Lines().empty());
}

TEST(SerialLine, ShortReadsReportTheShortfallAndStillDump) {
  sim::Simulator sim;
  const std::string path = sim.StartPty();
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 1, 1, 9600, 100) + "[Ports]\nCom2=" + path + "\n");
  test::TraceCapture trace;
  Ccom com(dir.path());
  int32_t error = -1;
  ASSERT_EQ(com.kaVOpenComPort(2, &error), 0u);
  // The simulator answers the request with two bytes only.
  sim.QueueRawAnswer({0x12, 0x34});
  ASSERT_EQ(CcomTestPeer::Port(com).GenerateService(0x101, nullptr, nullptr), 0u);
  uint8_t buffer[5] = {0, 0, 0, 0, 0};
  trace.Clear();
  EXPECT_EQ(CcomTestPeer::Port(com).ReadStream(buffer, 5), rc::kReadShort);
  EXPECT_EQ(buffer[0], 0x12);
  EXPECT_EQ(buffer[1], 0x34);
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{"ComServer:Read Stream (len:0005): 1234000000"});
}

TEST(StreamLayer, NothingOpenFailsReadsAndWrites) {
  CComPort port;
  port.SetTracing(true);
  test::TraceCapture trace;
  uint8_t byte = 0x55;
  EXPECT_EQ(port.ReadStream(&byte, 1), rc::kReadFailed);
  EXPECT_EQ(port.WriteStream(&byte, 1), rc::kWriteFailed);
  EXPECT_EQ(CComPortTestPeer::Exchange(port).phase(), ExchangeState::Phase::RequestWritten);
  EXPECT_EQ(port.GenerateService(3, nullptr, nullptr), rc::kWriteFailed);
  // A failed read of length 0 dumps nothing; a successful one dumps its header alone.
  trace.Clear();
  EXPECT_EQ(port.ReadStream(&byte, 0), rc::kReadFailed);
  EXPECT_TRUE(trace.Lines().empty());
  EXPECT_EQ(port.Close(), rc::kNothingOpen);
}

TEST(Ethernet, ArgumentStringsAndAddresses) {
  sim::Simulator sim;
  const uint16_t tcp = sim.StartTcp();
  const uint16_t udp = sim.StartUdp();
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  Ccom com(dir.path());
  int32_t error = -1;
  int32_t version = 0;

  struct Case {
    std::string arg;
    std::string address;
    uint32_t result;
    bool exchanges;
  };
  const Case cases[] = {
      {std::to_string(tcp), "127.0.0.1", 0, true},
      {std::to_string(tcp) + ",TCP", "127.0.0.1", 0, true},
      {std::to_string(udp) + ",UDP", "127.0.0.1", 0, true},
      // The keyword takes the character after it along: "<port>,UDP,x" leaves "<port>x".
      {std::to_string(udp) + ",UDP,x", "127.0.0.1", 0, true},
      {std::to_string(udp) + ",udp", "127.0.0.1", 2, false},
      {std::to_string(udp) + ",X", "127.0.0.1", 2, false},
      {std::to_string(tcp), "0.0.0.0", 4010049, false},
      {std::to_string(tcp), "gateway.local", 4010049, false},
      // A comma first is no keyword: TCP to port 0, which no system connects to.
      {",UDP", "127.0.0.1", 4010049, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arg + " " + c.address);
    EXPECT_EQ(com.kaVOpenEthernet(c.arg.c_str(), c.address.c_str(), &error), c.result);
    EXPECT_EQ(uint32_t(error), c.result);
    // A socket link stays for the close to end, also when its open failed.
    EXPECT_TRUE(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(com)));
    if (c.exchanges) {
      version = 0;
      EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
      EXPECT_EQ(error, 0);
      EXPECT_EQ(version, 0x0102);
    }
    // Closing a socket link always succeeds, also after a failed open.
    EXPECT_EQ(com.kaVCloseComPort(0, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_FALSE(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(com)));
  }
}

TEST(Ethernet, UdpByPortNumberBindsTheFixedLocalAddress) {
  // This machine has no 192.168.0.1, so the bind fails before anything could be sent; the
  // baud rate plays no part, whatever is stored.
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 1, 1, 14400));
  test::TraceCapture trace;
  Ccom com(dir.path());
  int32_t error = -1;
  for (int32_t port : {4000, 70000}) {
    EXPECT_EQ(com.kaVOpenComPort(port, &error), uint32_t(wsa::kAddrNotAvail));
    EXPECT_EQ(error, wsa::kAddrNotAvail);
    const Ipv4Address* local = CComPortTestPeer::SocketLocal(CcomTestPeer::Port(com));
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->port, port == 4000 ? 4000 : 4464);
    EXPECT_EQ(local->address, htonl(0xC0A80001));
    EXPECT_EQ(com.kaVCloseComPort(0, &error), 0u);
    EXPECT_EQ(error, 0);
  }
  int count = 0;
  for (const std::string& line : trace.Lines()) count += line.rfind("ComServer:Socket WSAGetLastError: ", 0) == 0;
  EXPECT_EQ(count, 2);
}

// The UDP link by port number talks from 192.168.0.1 to 192.168.0.99, addresses this
// machine must not reach out of. tests/netns-run gives the test a network namespace of its
// own with both on its loopback device; anywhere else the test has nothing to talk to.
TEST(UdpByPortInNamespace, CarriesExchangesBoundedByTheSerialTimeOut) {
  {
    const int probe = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(0xC0A80001);
    const bool ours = bind(probe, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    close(probe);
    if (!ours) GTEST_SKIP() << "no 192.168.0.1 here; run through tests/netns-run";
  }
  sim::Simulator sim;
  ASSERT_EQ(sim.StartUdp(4000, "192.168.0.99"), 4000);
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0, 1, 9600, 300));
  Ccom com(dir.path());
  int32_t error = -1;
  ASSERT_EQ(com.kaVOpenComPort(4000, &error), 0u);
  EXPECT_EQ(error, 0);

  int32_t version = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(version, 0x0102);
  }

  // Without an answer the call ends with the serial total time-out of the profile (300 ms),
  // not with the fixed bound of the links by address.
  sim.SetSilence(true);
  const auto start = std::chrono::steady_clock::now();
  com.kaVGetGatewayVersion(&version, &error);
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  EXPECT_NE(error, 0);
  EXPECT_GE(elapsed, 290);
  EXPECT_LT(elapsed, 300 + 500);

  // The link is not worse for it.
  sim.SetSilence(false);
  version = 0;
  EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(version, 0x0102);
  EXPECT_EQ(com.kaVCloseComPort(0, &error), 0u);
}

TEST(Ethernet, DatagramsAreServedPieceByPieceAndMayCarryPartsOfAFrame) {
  // A gateway of our own that answers in two datagrams.
  const int server = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(server, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
  timeval timeout{2, 0};
  setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

  std::thread peer([&] {
    for (int round = 0; round < 2; ++round) {
      uint8_t request[64];
      sockaddr_in from{};
      socklen_t fromLength = sizeof from;
      if (recvfrom(server, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&from), &fromLength) <= 0) return;
      const std::vector<uint8_t> data = {0x34, 0x12};
      const std::vector<uint8_t> answer = sim::BuildFrame(0x4101, data);
      const size_t split = round == 0 ? answer.size() : 3;
      sendto(server, answer.data(), split, 0, reinterpret_cast<sockaddr*>(&from), fromLength);
      if (split < answer.size()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        sendto(server, answer.data() + split, answer.size() - split, 0, reinterpret_cast<sockaddr*>(&from), fromLength);
      }
    }
  });
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  Ccom com(dir.path());
  int32_t error = -1;
  ASSERT_EQ(com.kaVOpenEthernet((std::to_string(ntohs(address.sin_port)) + ",UDP").c_str(), "127.0.0.1", &error), 0u);
  for (int round = 0; round < 2; ++round) {
    int32_t version = 0;
    EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u) << round;
    EXPECT_EQ(error, 0);
    EXPECT_EQ(version, 0x1234);
  }
  peer.join();
  close(server);
}

TEST(Ethernet, ServiceBaudrateIndexAndNothingSentInDemonstration) {
  Linked linked(Link::Tcp);
  int32_t error = -1;
  const std::pair<int32_t, uint8_t> cases[] = {{9600, 0}, {19200, 1}, {38400, 2}, {57600, 3}, {115200, 4}, {14400, 0}};
  for (const auto& [rate, index] : cases) {
    int32_t value = rate;
    EXPECT_EQ(linked.com().kaVSetGatewayServiceBaudrate(&value, &error), 0u);
    EXPECT_EQ(error, 0);
  }
  const std::vector<sim::RequestRecord> requests = linked.sim().Requests();
  ASSERT_EQ(requests.size(), std::size(cases));
  for (size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].code, 0x110);
    EXPECT_EQ(requests[i].data, std::vector<uint8_t>{cases[i].second});
  }
  // An answer longer than the one work value is cut, not written beyond it.
  const std::vector<uint8_t> longData(40, 0xEE);
  linked.sim().QueueRawAnswer(sim::BuildFrame(0x4110, longData));
  int32_t value = 9600;
  EXPECT_EQ(linked.com().kaVSetGatewayServiceBaudrate(&value, &error), 0u);
  EXPECT_EQ(error, 0);

  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(1, 0));
  Ccom demo(dir.path());
  EXPECT_EQ(demo.kaVSetGatewayServiceBaudrate(&value, &error), 0u);
  EXPECT_EQ(error, 0);
}

}  // namespace
}  // namespace tamrik
