// Privileged mode: the response stream, the challenge and response exchange with its
// refusals and its wait on a polling link, and the privileged channel and name.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>

#include "common/TestPeers.h"
#include "MethodsTestSupport.h"
#include "ResultCodes.h"
#include "SimEngine.h"

namespace tamrik {
namespace {

using test::Bytes;
using test::LiveDriver;
using test::Request;

std::array<uint8_t, 32> Identity() {
  std::array<uint8_t, 32> table;
  std::iota(table.begin(), table.end(), uint8_t(0));
  return table;
}

std::array<uint8_t, 32> Reversed() {
  std::array<uint8_t, 32> table;
  for (int i = 0; i < 32; ++i) table[size_t(i)] = uint8_t(31 - i);
  return table;
}

uint32_t ResponseOf(const Bytes& stream) {
  const size_t n = stream.size();
  return uint32_t(stream[n - 4]) | uint32_t(stream[n - 3]) << 8 | uint32_t(stream[n - 2]) << 16 |
         uint32_t(stream[n - 1]) << 24;
}

Bytes Stream(uint32_t challenge, const char* description, const uint8_t* table) {
  int32_t values[256];
  const int32_t length = CComPort::BuildPrivilegedStream(challenge, description, table, values);
  EXPECT_GE(length, 5);
  EXPECT_LE(length, 133);
  return Bytes(values, values + length);
}

TEST(PrivilegedStream, DescriptionZeroByteAndResponse) {
  const std::array<uint8_t, 32> identity = Identity();
  EXPECT_EQ(Stream(1, "", identity.data()), (Bytes{0, 1, 0, 0, 0}));
  EXPECT_EQ(Stream(2, "", identity.data()), (Bytes{0, 3, 0, 0, 0}));  // the Gray step
  EXPECT_EQ(Stream(2, nullptr, identity.data()), (Bytes{0, 3, 0, 0, 0}));
  EXPECT_EQ(Stream(0x80000000, "ab", identity.data()), (Bytes{'a', 'b', 0, 0, 0, 0, 0xC0}));

  // Only the first 128 characters of a description are sent.
  const std::string longText(200, 'q');
  const Bytes stream = Stream(0, longText.c_str(), identity.data());
  ASSERT_EQ(stream.size(), 133u);
  EXPECT_EQ(Bytes(stream.begin(), stream.begin() + 128), Bytes(128, 'q'));
  EXPECT_EQ(Bytes(stream.begin() + 128, stream.end()), (Bytes{0, 0, 0, 0, 0}));

  // Each table entry names the challenge bit that feeds its output bit, taken modulo 32.
  const std::array<uint8_t, 32> reversed = Reversed();
  EXPECT_EQ(ResponseOf(Stream(1, "", reversed.data())), 0xC0000000u);
  std::array<uint8_t, 32> wide = identity;
  wide[0] = 32 + 5;
  // Bits 0 and 5 both come from challenge bit 5: 0x21, then the Gray step gives 0x31.
  EXPECT_EQ(ResponseOf(Stream(1u << 5, "", wide.data())), 0x00000031u);

  // For any permutation and challenge, undoing the Gray step gives back the gathered bits:
  // bit i of it is the challenge's bit table[i].
  std::mt19937 random(12345);
  for (int round = 0; round < 50; ++round) {
    std::array<uint8_t, 32> table = identity;
    std::shuffle(table.begin(), table.end(), random);
    const uint32_t challenge = uint32_t(random());
    uint32_t gathered = ResponseOf(Stream(challenge, "x", table.data()));
    for (uint32_t shift = 1; shift < 32; shift <<= 1) gathered ^= gathered >> shift;
    for (uint32_t i = 0; i < 32; ++i) {
      EXPECT_EQ((gathered >> i) & 1u, (challenge >> table[i]) & 1u) << "bit " << i << " round " << round;
    }
  }
}

sim::Station PrivilegedStation() {
  sim::Station station = sim::DefaultStation();
  station.fixedClockMs = 2;
  station.privilegedChannel = 0x0A0B0C0D;
  station.privilegedName = "OPERATOR-7";
  return station;
}

TEST(PrivilegedMode, ChallengeResponseAndTheTracesOfAnExchange) {
  test::TraceCapture trace;
  LiveDriver live(PrivilegedStation(), 1);
  Ccom& com = live.com();
  CcomTestPeer::NewPrivilegedExchange() = true;
  trace.Clear();

  int32_t error = -1;
  EXPECT_EQ(com.kavEnterPrivilegedMode("host A", &error), 0u);
  EXPECT_EQ(error, 0);
  const std::vector<Request> expected = {{0x10F, {}}, {0x130, {'h', 'o', 's', 't', ' ', 'A', 0, 3, 0, 0, 0}}};
  EXPECT_EQ(live.Requests(), expected);
  EXPECT_EQ(live.sim().GetEngineState().privilegedClient, "host A");
  EXPECT_TRUE(CcomTestPeer::NewPrivilegedExchange().load());

  std::vector<std::string> methodLines;
  for (const std::string& line : trace.Lines()) {
    if (line.rfind("ComServer:kav", 0) == 0) methodLines.push_back(line);
  }
  EXPECT_EQ(methodLines, (std::vector<std::string>{"ComServer:kavEnterPrivilegedMode-->",
                                                   "ComServer:kavEnterPrivilegedMode--> Stream:",
                                                   "ComServer:kavEnterPrivilegedMode<--"}));

  int32_t channel = 0;
  EXPECT_EQ(com.kaVGetPrivilegedChannel(&channel, &error), 0u);
  EXPECT_EQ(channel, 0x0A0B0C0D);

  // Exactly the name's bytes are written, without a terminating zero.
  char name[16];
  memset(name, '#', sizeof name);
  int32_t size = 0;
  live.Answer(0x4132, {'A', 'B', 'C', 'D', 'E'});
  EXPECT_EQ(com.kavGetPrivilegedName(name, &size, &error), 0u);
  EXPECT_EQ(size, 5);
  EXPECT_EQ(std::string(name, 6), "ABCDE#");
  EXPECT_EQ(com.kavGetPrivilegedName(name, &size, &error), 0u);
  EXPECT_EQ(std::string(name, size_t(size)), "OPERATOR-7");
}

TEST(PrivilegedMode, TheConfiguredPermutationIsUsed) {
  sim::Station station = PrivilegedStation();
  station.fixedClockMs = 0x12345678;
  station.privilegedTable = Reversed();
  std::string bits;
  for (int i = 31; i >= 0; --i) bits += std::to_string(i) + (i ? "," : "");
  LiveDriver live(station, 0, "[Privileged]\nBits=" + bits + "\n");
  CcomTestPeer::NewPrivilegedExchange() = true;
  int32_t error = -1;
  EXPECT_EQ(live.com().kavEnterPrivilegedMode("", &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(live.Requests().back().second.size(), 5u);
}

TEST(PrivilegedMode, RefusalsMapToTheirCodesAndStartOver) {
  test::TraceCapture trace;
  sim::Station station = PrivilegedStation();
  station.privilegedTable = Reversed();  // the driver answers with the identity table
  LiveDriver live(station, 1);
  Ccom& com = live.com();
  CcomTestPeer::NewPrivilegedExchange() = true;
  trace.Clear();

  int32_t error = -1;
  EXPECT_EQ(com.kavEnterPrivilegedMode("h", &error), 0u);
  EXPECT_EQ(uint32_t(error), rc::kPrivilegedRefused8);
  const std::vector<std::string> lines = trace.Lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "ComServer:kavEnterPrivilegedMode<-- ERROR: 164144"), lines.end());
  EXPECT_EQ(std::find(lines.begin(), lines.end(), "ComServer:kavEnterPrivilegedMode<--"), lines.end());

  live.sim().EditStation([](sim::Station& s) { s.privilegedRefusalBase = 0xC000; });
  EXPECT_EQ(com.kavEnterPrivilegedMode("h", &error), rc::kPrivilegedRefusedC);
  EXPECT_EQ(uint32_t(error), rc::kPrivilegedRefusedC);

  // A refusal that carries one data byte is reported as it is.
  live.Answer(0x410F, {2, 0, 0, 0});
  live.Answer(0x8130, {0x05});
  EXPECT_EQ(com.kavEnterPrivilegedMode("h", &error), 0u);
  EXPECT_EQ(uint32_t(error), rc::kRefusalDataBase + 0x05);

  // Every refusal started over: each call fetched a challenge of its own.
  std::vector<uint16_t> codes;
  for (const Request& r : live.Requests()) codes.push_back(r.first);
  EXPECT_EQ(codes, (std::vector<uint16_t>{0x10F, 0x130, 0x10F, 0x130, 0x10F, 0x130}));
  EXPECT_TRUE(CcomTestPeer::NewPrivilegedExchange().load());
}

TEST(PrivilegedMode, OnAPollingLinkLaterCallsOnlyWaitForTheAnswer) {
  LiveDriver live(PrivilegedStation());
  Ccom& com = live.com();
  CcomTestPeer::NewPrivilegedExchange() = true;
  int32_t service = 0x10000, sizes[2] = {0, 0}, error = -1;
  uint8_t none[1] = {};
  ASSERT_EQ(com.kaVDoService(&service, none, &sizes[0], &sizes[1], &error), 0u);

  live.sim().FaultNextAnswer({});
  live.sim().FaultNextAnswer({.delayMs = 200});
  int waits = 0;
  uint32_t result = 0;
  error = int32_t(rc::kNoDataYet);
  for (int call = 0; call < 200 && uint32_t(error) == rc::kNoDataYet; ++call) {
    result = com.kavEnterPrivilegedMode("poller", &error);
    if (uint32_t(error) == rc::kNoDataYet && result == 0) ++waits;
    if (uint32_t(error) == rc::kNoDataYet) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(error, 0);
  EXPECT_GT(waits, 0);  // the answer to the response was waited for
  const std::vector<Request> expected = {{0x10F, {}}, {0x130, {'p', 'o', 'l', 'l', 'e', 'r', 0, 3, 0, 0, 0}}};
  EXPECT_EQ(live.Requests(), expected);
  EXPECT_EQ(live.sim().GetEngineState().privilegedClient, "poller");
}

}  // namespace
}  // namespace tamrik
