#include <gtest/gtest.h>

#include "Simulator.h"
#include "SimTestSupport.h"
#include "protocol/Codec.h"

namespace tamrik::sim::test {
namespace {

const Bytes kVersionRequest = HexBytes("AA 01 01 00 00 83 D0");
const std::string kVersionAnswer = "AA 01 41 02 00 02 01 44 AA";

Bytes Sent(Gateway& g, const Bytes& request = kVersionRequest) {
  const Delivery d = g.ServeFrame(request);
  return d.action == Delivery::Action::Send ? d.bytes : Bytes{};
}

TEST(SimFaults, NoiseGoesAheadOfTheStartByte) {
  Gateway g;
  g.SetNoise(5);
  for (int round = 0; round < 3; ++round) {
    const Bytes b = Sent(g);
    ASSERT_EQ(b.size(), 5u + 9u);
    for (size_t i = 0; i < 5; ++i) EXPECT_NE(b[i], 0xAA) << i;
    EXPECT_EQ(ToHex(Bytes(b.begin() + 5, b.end())), kVersionAnswer);
  }
  g.SetNoise(0);
  EXPECT_EQ(ToHex(Sent(g)), kVersionAnswer);
}

TEST(SimFaults, EveryNthAnswerHasAWrongCheckValue) {
  Gateway g;
  g.SetCorruptEvery(3);
  for (int i = 1; i <= 7; ++i) {
    const Bytes b = Sent(g);
    ASSERT_EQ(b.size(), 9u);
    EXPECT_EQ(protocol::VerifyCheckValue(b.data(), b.size()), i % 3 != 0) << i;
    EXPECT_EQ(ToHex(Bytes(b.begin(), b.end() - 2)), "AA 01 41 02 00 02 01") << i;
  }
}

TEST(SimFaults, RefusalsInAllFourForms) {
  Gateway g;
  g.RefuseService(257);
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0x8101, {})));
  g.RefuseService(257, {0xC000, std::nullopt});
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0xC101, {})));
  g.RefuseService(257, {0x8000, 0x05});
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0x8101, HexBytes("05"))));
  g.RefuseService(257, {0xC000, 0x07});
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0xC101, HexBytes("07"))));
  // Other services are untouched; a refused write changes nothing.
  g.RefuseService(5);
  EXPECT_EQ(ToHex(Sent(g, Request(5, HexBytes("11 22 33")))), ToHex(BuildFrame(0x8005, {})));
  EXPECT_EQ(ToHex(g.OutputImage()), "00 00 00");
  EXPECT_EQ(ToHex(Sent(g, Request(259))), ToHex(BuildFrame(0x4103, HexBytes("05 01"))));
  g.StopRefusing(257);
  EXPECT_EQ(ToHex(Sent(g)), kVersionAnswer);
}

TEST(SimFaults, SilenceTruncationAndDropChangeWhatLeaves) {
  Gateway g;
  g.SetSilence(true);
  EXPECT_EQ(g.ServeFrame(Request(5, {0x42})).action, Delivery::Action::Silence);
  EXPECT_EQ(ToHex(g.OutputImage()), "42 00 00");  // the request did reach the gateway
  g.SetSilence(false);

  g.SetTruncation(4);
  EXPECT_EQ(ToHex(Sent(g)), "AA 01 41 02");
  g.SetTruncation(100);  // longer than the frame: all of it
  EXPECT_EQ(ToHex(Sent(g)), kVersionAnswer);
  g.SetTruncation(std::nullopt);

  g.SetDropConnection(true);
  EXPECT_EQ(g.ServeFrame(kVersionRequest).action, Delivery::Action::Drop);
  g.ClearFaults();
  EXPECT_EQ(ToHex(Sent(g)), kVersionAnswer);
  const Counters c = g.GetCounters();
  EXPECT_EQ(c.requests, 5u);
  EXPECT_EQ(c.silenced, 2u);
}

TEST(SimFaults, OneShotFaultsApplyOnceInOrderAndWinOverEveryAnswerSettings) {
  Gateway g;
  g.SetAnswerDelay(20);
  g.FaultNextAnswer(AnswerFault().Truncate(3));
  g.FaultNextAnswer(AnswerFault().Corrupt().Delay(70));
  EXPECT_EQ(g.PendingOneShotFaults(), 2u);

  Delivery d = g.ServeFrame(kVersionRequest);
  EXPECT_EQ(ToHex(d.bytes), "AA 01 41");
  EXPECT_EQ(d.delayMs, 20u);
  d = g.ServeFrame(kVersionRequest);
  EXPECT_FALSE(protocol::VerifyCheckValue(d.bytes.data(), d.bytes.size()));
  EXPECT_EQ(d.delayMs, 70u);
  d = g.ServeFrame(kVersionRequest);
  EXPECT_EQ(ToHex(d.bytes), kVersionAnswer);
  EXPECT_EQ(d.delayMs, 20u);
  EXPECT_EQ(g.PendingOneShotFaults(), 0u);

  g.FaultNextAnswer(AnswerFault().Late(500));
  d = g.ServeFrame(kVersionRequest);
  EXPECT_TRUE(d.late);
  EXPECT_EQ(d.delayMs, 500u);
  g.FaultNextAnswer(AnswerFault().Refuse({0xC000, 0x09}));
  EXPECT_EQ(ToHex(Sent(g, Request(3))), ToHex(BuildFrame(0xC003, HexBytes("09"))));
}

TEST(SimFaults, RawAnswersAndOverridesReplaceTheModel) {
  Gateway g;
  g.SetNoise(2);  // byte faults leave raw answers alone
  g.QueueRawAnswer(HexBytes("AA 03 40 02 00 11 22 36 05"));
  g.QueueRawAnswer(HexBytes("01 02"));
  g.QueueRawAnswer({});  // an empty raw answer is scripted silence
  EXPECT_EQ(ToHex(Sent(g, Request(3))), "AA 03 40 02 00 11 22 36 05");
  EXPECT_EQ(ToHex(Sent(g)), "01 02");
  EXPECT_EQ(g.ServeFrame(kVersionRequest).action, Delivery::Action::Silence);
  EXPECT_EQ(g.PendingRawAnswers(), 0u);
  EXPECT_EQ(Sent(g).size(), 2u + 9u);  // back to the model
  g.SetNoise(0);

  g.SetAnswerOverride(257, HexBytes("34 12"));
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0x4101, HexBytes("34 12"))));
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0x4101, HexBytes("34 12"))));
  g.RefuseService(257);
  EXPECT_EQ(ToHex(Sent(g)), ToHex(BuildFrame(0x8101, {})));
  g.StopRefusing(257);
  g.ClearAnswerOverride(257);
  EXPECT_EQ(ToHex(Sent(g)), kVersionAnswer);

  // The log keeps the requests and what went back for them.
  const auto log = g.Requests();
  ASSERT_EQ(log.size(), 8u);
  EXPECT_EQ(log[0].code, 3);
  EXPECT_EQ(ToHex(log[0].answer), "AA 03 40 02 00 11 22 36 05");
  EXPECT_TRUE(log[2].answer.empty());
  EXPECT_EQ(ToHex(log[7].frame), ToHex(kVersionRequest));
}

TEST(SimFaults, LogLinesNameTheServiceAndWhatWentBack) {
  Gateway g;
  std::vector<std::string> lines;
  g.SetLogSink([&](const std::string& line) { lines.push_back(line); });
  g.ServeFrame(kVersionRequest);
  g.ServeFrame(Request(2));  // no service of the table
  g.ServeFrame(Request(0x4101, {7}));  // the answer code of a service, sent as a request
  g.FaultNextAnswer(AnswerFault().Silent());
  g.ServeFrame(Request(5, HexBytes("11 22")));
  g.FaultNextAnswer(AnswerFault().Late(300));
  g.ServeFrame(kVersionRequest);
  g.ServeFrame(HexBytes("AA 01 01 00 00 83 D1"));
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_NE(lines[0].find("direct 0x0101 GatewayVersion [0] -> " + kVersionAnswer), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("0x0002 [0] -> AA 02 80 00 00"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("0x4101 [1] 07 -> AA 01 C1 00 00"), std::string::npos) << lines[2];
  EXPECT_NE(lines[3].find("0x0005 ProcessOutWrite [2] 11 22 -> (no answer)"), std::string::npos) << lines[3];
  EXPECT_NE(lines[4].find(" (late 300 ms)"), std::string::npos) << lines[4];
  EXPECT_NE(lines[5].find("dropped, wrong check value: AA 01 01 00 00 83 D1"), std::string::npos) << lines[5];
}

// The CODE[:BASE[:BYTE]] text of the programs' --refuse options: read whole, or refused
// whole, never a value cut down to fit its field.
TEST(SimFaults, RefusalTextsAreReadWholeOrRefused) {
  struct Good {
    std::string text;
    uint16_t code;
    Refusal refusal;
  };
  const Good goods[] = {
      {"0x101", 0x101, {0x8000, std::nullopt}}, {"3:0x8000:5", 3, {0x8000, 5}},
      {"0x3FFF:0xC000", 0x3FFF, {0xC000, std::nullopt}}, {"263:49152:255", 263, {0xC000, 0xFF}},
      {"0:0X8000:0x0", 0, {0x8000, 0}}, {"010", 10, {0x8000, std::nullopt}},  // decimal, as everywhere
  };
  for (const Good& good : goods) {
    uint16_t code = 7;
    Refusal refusal{0xC000, 9};
    std::string error;
    EXPECT_TRUE(ParseRefusal(good.text, &code, &refusal, &error)) << good.text << ": " << error;
    EXPECT_EQ(code, good.code) << good.text;
    EXPECT_EQ(refusal.base, good.refusal.base) << good.text;
    EXPECT_EQ(refusal.data, good.refusal.data) << good.text;
  }

  const char* const mistakes[] = {
      // The code: beyond 0x3FFF, beyond 16, 32 and 64 bits (each would wrap to 0x101), signed,
      // padded, empty, not a number.
      "0x4000", "0x10101", "65793", "0x100000101", "4294967553", "0x10000000000000101", "-1",
      "-0xFFFFFFFFFFFFFEFF", "+5", " 5", "5 ", "", "0x", "x101", "one",
      // The base: only the two refusal forms, whatever its low 16 bits are.
      "0x101:", "0x101:0x9000", "0x101:0x18000", "0x101:0x100008000", "0x101:-0x8000", "0x101:0x4000",
      // The byte, and too many parts.
      "0x101::7", "0x101:0x8000:", "0x101:0x8000:0x100", "0x101:0x8000:0x105", "0x101:0x8000:-1",
      "0x101:0x8000:7:1", ":"};
  for (const char* text : mistakes) {
    uint16_t code = 7;
    Refusal refusal{0xC000, 9};
    std::string error;
    EXPECT_FALSE(ParseRefusal(text, &code, &refusal, &error)) << text;
    EXPECT_NE(error.find(std::string("'") + text + "':"), std::string::npos) << error;
    // Nothing of a refused text is taken.
    EXPECT_EQ(code, 7) << text;
    EXPECT_EQ(refusal.base, 0xC000) << text;
    EXPECT_EQ(refusal.data, 9) << text;
  }
}

// --- on the wire ------------------------------------------------------------------------

TEST(SimFaultsOnTheWire, DelayHoldsTheAnswerAndLaterAnswersQueueBehindIt) {
  Simulator sim;
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());
  sim.FaultNextAnswer(AnswerFault().Delay(150));
  const auto t0 = Clock::now();
  ASSERT_TRUE(c.Send(kVersionRequest));
  ASSERT_TRUE(c.Send(Request(3)));  // not delayed, but ordered behind the first
  EXPECT_TRUE(c.Read(1, 100).empty());
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
  EXPECT_GE(MsSince(t0), 150);
  EXPECT_EQ(c.ReadFrame(1000).size(), 13u);
  EXPECT_LT(MsSince(t0), 600);
}

TEST(SimFaultsOnTheWire, LateAnswerArrivesWhileTheHostWaitsForTheNextOne) {
  Simulator sim;
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());
  sim.FaultNextAnswer(AnswerFault().Late(250));
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_TRUE(c.Read(1, 120).empty());  // the host's time-out passes
  // The next request is answered at once; the held-back answer follows later.
  ASSERT_TRUE(c.Send(Request(259)));
  EXPECT_EQ(ToHex(c.ReadFrame(500)), ToHex(BuildFrame(0x4103, HexBytes("05 01"))));
  EXPECT_EQ(ToHex(c.ReadFrame(1000)), kVersionAnswer);
}

TEST(SimFaultsOnTheWire, NoiseTruncationAndCorruptionReachTheHostAsSet) {
  Simulator sim;
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());
  sim.FaultNextAnswer(AnswerFault().Noise(3));
  sim.FaultNextAnswer(AnswerFault().Truncate(5));
  sim.FaultNextAnswer(AnswerFault().Corrupt());
  ASSERT_TRUE(c.Send(kVersionRequest));
  const Bytes noisy = c.Read(12, 1000);
  ASSERT_EQ(noisy.size(), 12u);
  EXPECT_EQ(ToHex(Bytes(noisy.begin() + 3, noisy.end())), kVersionAnswer);

  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_EQ(ToHex(c.Read(9, 200)), "AA 01 41 02 00");

  ASSERT_TRUE(c.Send(kVersionRequest));
  const Bytes bad = c.Read(9, 1000);
  EXPECT_EQ(ToHex(bad), "AA 01 41 02 00 02 01 BB AA");
}

TEST(SimFaultsOnTheWire, DropClosesTheConnectionAndANewOneWorks) {
  Simulator sim;
  const uint16_t port = sim.StartTcp();
  {
    TcpClient c(port);
    ASSERT_TRUE(c.ok());
    sim.FaultNextAnswer(AnswerFault().Drop());
    ASSERT_TRUE(c.Send(kVersionRequest));
    EXPECT_TRUE(c.SeesClose(1000));
  }
  TcpClient again(port);
  ASSERT_TRUE(again.ok());
  ASSERT_TRUE(again.Send(kVersionRequest));
  EXPECT_EQ(ToHex(again.ReadFrame(1000)), kVersionAnswer);
  EXPECT_EQ(sim.TcpConnectionsAccepted(), 2u);
}

TEST(SimFaultsOnTheWire, PacingSpreadsTheBytesAtTheLineSpeed) {
  Simulator sim;
  TcpClient c(sim.StartTcp());
  ASSERT_TRUE(c.ok());
  // 207 bytes at 115200 baud: 10 bits each, about 18 ms in all.
  sim.SetAnswerOverride(22, Bytes(200, 0x55));
  sim.SetPacing(115200);
  ASSERT_TRUE(c.Send(Request(22)));
  Bytes first = c.Read(1, 1000);
  ASSERT_EQ(first.size(), 1u);
  const auto t0 = Clock::now();
  // Unpaced, the rest would be there with the first byte; paced, it trickles in.
  Bytes rest;
  while (rest.size() < 206 && MsSince(t0) < 1000) {
    const Bytes part = c.ReadSome(50);
    if (part.empty()) break;
    rest.insert(rest.end(), part.begin(), part.end());
  }
  const auto took = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  ASSERT_EQ(rest.size(), 206u);
  EXPECT_GT(took, 206 * 0.0868 * 0.8);
  EXPECT_LT(took, 206 * 0.0868 * 2 + 60);

  // 9 bytes at 9600 baud: a little over 9 ms.
  sim.SetPacing(9600);
  const auto t1 = Clock::now();
  ASSERT_TRUE(c.Send(kVersionRequest));
  EXPECT_EQ(ToHex(c.Read(9, 1000)), kVersionAnswer);
  const double slowTook = std::chrono::duration<double, std::milli>(Clock::now() - t1).count();
  EXPECT_GE(slowTook, 9 * 10.0 / 9.6 * 0.9);
}

}  // namespace
}  // namespace tamrik::sim::test
