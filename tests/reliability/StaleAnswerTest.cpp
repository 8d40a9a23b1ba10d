// Answers that belong to an earlier request are never handed to a later caller: they are
// read, traced and dropped, whether they arrive between calls or ahead of the right answer.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "ReliabilitySupport.h"
#include "SimFrame.h"

namespace tamrik {
namespace {

using test::Link;
using test::LinkedDriver;
using Bytes = std::vector<uint8_t>;

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

class StaleAnswers : public ::testing::TestWithParam<Link> {};

TEST_P(StaleAnswers, ALateAnswerNeverReachesALaterCall) {
  LinkedDriver d(GetParam());
  ASSERT_EQ(d.openResult(), 0);
  d.sim().SetAnswerOverride(0x101, {0x11, 0x11});
  d.sim().FaultNextAnswer(sim::AnswerFault().Late(600));
  const auto start = std::chrono::steady_clock::now();
  int32_t value = 0, error = -1;
  EXPECT_EQ(d.com().kaVGetGatewayVersion(&value, &error), rc::kAnswerFailed);
  EXPECT_EQ(uint32_t(error), rc::kReadFailed);
  // The late answer is in the input queue before the next request goes out.
  std::this_thread::sleep_until(start + std::chrono::milliseconds(800));

  d.sim().SetAnswerOverride(0x101, {0x22, 0x22});
  d.sim().SetAnswerOverride(0x103, {0x33, 0x33});
  value = 0;
  EXPECT_EQ(d.com().kaVGetGatewayBootVersion(&value, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(value, 0x3333);
  value = 0;
  EXPECT_EQ(d.com().kaVGetGatewayVersion(&value, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(value, 0x2222);
}

TEST_P(StaleAnswers, FramesOfOtherRequestsAheadOfTheAnswerAreDroppedWithinTheCall) {
  test::TraceCapture trace;
  LinkedDriver d(GetParam(), 1);
  ASSERT_EQ(d.openResult(), 0);
  const Bytes stale = sim::BuildFrame(0x4101, Bytes{0x01, 0x02});
  int32_t value = 0, error = -1;

  // An answer, a refusal and a damaged frame of other requests, then the right one.
  Bytes damaged = sim::BuildFrame(0x4104, Bytes{0x06, 0x03, 0xE8, 0x03, 0x00, 0x00});
  damaged.back() ^= 0xFF;
  d.sim().QueueRawAnswer(Concat({stale, sim::BuildFrame(0x8005, {}), damaged, sim::BuildFrame(0x4103, Bytes{0x44, 0x33})}));
  trace.Clear();
  EXPECT_EQ(d.com().kaVGetGatewayBootVersion(&value, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(value, 0x3344);
  const std::vector<std::string> lines = trace.Lines();
  auto has = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
  EXPECT_TRUE(has("ComServer:Service: 4101"));
  EXPECT_TRUE(has("ComServer:Dropped answer 4101 GatewayVersion (intact)"));
  EXPECT_TRUE(has("ComServer:Dropped answer 8005 ProcessOutWrite (intact)"));
  EXPECT_TRUE(has("ComServer:Dropped answer 4104 ErrorList (check value wrong)"));
  EXPECT_TRUE(has("ComServer:Service: 4103"));

  // The privileged challenge and raw requests match the same way (raw: by the low 16 bits).
  d.sim().QueueRawAnswer(Concat({stale, sim::BuildFrame(0x410F, Bytes{0x78, 0x56, 0x34, 0x12})}));
  ASSERT_EQ(d.port().GenerateService(0x10F, nullptr, nullptr), 0u);
  int32_t challenge = 0, count = 0;
  EXPECT_EQ(d.port().ReceiveClock(0x10F, &challenge, &count, 1), 0u);
  EXPECT_EQ(challenge, 0x12345678);
  EXPECT_EQ(count, 1);

  d.sim().QueueRawAnswer(Concat({stale, sim::BuildFrame(0x4107, Bytes{0x09, 0x08})}));
  int32_t service = 0x107, sent = 0, received = 4;
  uint8_t data[4] = {};
  EXPECT_EQ(d.com().kaVDoService(&service, data, &sent, &received, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(service, 0x4107);
  EXPECT_EQ(received, 2);
  EXPECT_EQ(data[0], 0x09);

  // A stream of nothing but other answers ends the call after a bounded number of frames.
  Bytes flood;
  for (int i = 0; i < 16; ++i) flood = Concat({flood, stale});
  d.sim().QueueRawAnswer(Concat({flood, sim::BuildFrame(0x4103, Bytes{0x01, 0x00})}));
  EXPECT_EQ(d.com().kaVGetGatewayBootVersion(&value, &error), rc::kAnswerFailed);
  EXPECT_EQ(uint32_t(error), rc::kReadFailed);
}

INSTANTIATE_TEST_SUITE_P(Links, StaleAnswers, ::testing::Values(Link::Pty, Link::Tcp, Link::Udp),
                         [](const auto& info) { return std::string(test::LinkLabel(info.param)); });

TEST(StaleAnswersPolling, ADroppedFrameLeavesTheRequestOutstanding) {
  LinkedDriver d(Link::Tcp);
  ASSERT_EQ(d.openResult(), 0);
  int32_t service = 0x10000, count = 0, error = -1;
  uint8_t none[1] = {};
  ASSERT_EQ(d.com().kaVDoService(&service, none, &count, &count, &error), 0u);

  // Slow enough that the search after the dropped frame finds nothing yet.
  d.sim().FaultNextAnswer(sim::AnswerFault().Pace(1200));
  d.sim().QueueRawAnswer(Concat({sim::BuildFrame(0x4101, Bytes{0x01, 0x02}), sim::BuildFrame(0x4103, Bytes{0x07, 0x00})}));
  int32_t value = 0;
  uint32_t result = rc::kNoDataYet;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (result != 0 && std::chrono::steady_clock::now() < deadline) {
    result = d.com().kaVGetGatewayBootVersion(&value, &error);
    if (result != 0) {
      ASSERT_EQ(uint32_t(error), rc::kNoDataYet);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(value, 7);
  // Every call after the first only polled for the answer of the one request.
  EXPECT_EQ(d.sim().Requests().size(), 1u);
}

}  // namespace
}  // namespace tamrik
