// Two threads on one driver object: while one busy-guarded method runs, another returns
// 0x999999 at once and touches nothing. Also built with ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ReliabilitySupport.h"

namespace tamrik {
namespace {

using test::Link;
using test::LinkedDriver;
using Method = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);

struct Guarded {
  const char* name;
  Method method;
};

const Guarded kGuarded[] = {
    {"kaVGetProcessInData", &Ccom::kaVGetProcessInData},   {"kaVSetProcessOutData", &Ccom::kaVSetProcessOutData},
    {"kaVGetProcessOutData", &Ccom::kaVGetProcessOutData}, {"kaVGetParameterData", &Ccom::kaVGetParameterData},
    {"kaVSetParameterData", &Ccom::kaVSetParameterData},   {"kaVGetDiagData", &Ccom::kaVGetDiagData},
    {"kaVGetTRBuffer", &Ccom::kaVGetTRBuffer},
};

TEST(Concurrency, ASecondGuardedMethodIsTurnedAwayWhileOneRuns) {
  LinkedDriver d(Link::Tcp);
  ASSERT_EQ(d.openResult(), 0);
  const size_t n = std::size(kGuarded);
  for (size_t i = 0; i < n; ++i) {
    const Guarded& first = kGuarded[i];
    const Guarded& second = kGuarded[(i + 1) % n];
    SCOPED_TRACE(std::string(first.name) + " then " + second.name);
    d.sim().ClearRequests();
    d.sim().FaultNextAnswer(sim::AnswerFault().Delay(80));
    std::vector<int32_t> data(1024, 0);
    int32_t count = 0, error = -1;
    uint32_t firstResult = 1;
    std::thread runner([&] { firstResult = (d.com().*first.method)(data.data(), &count, &error); });
    // The first method has sent its request and waits for the answer, which the simulator
    // holds back for less than the socket read waits.
    ASSERT_TRUE(d.sim().WaitForRequests(1, 2000));

    std::vector<int32_t> otherData(1024, 0x5A);
    int32_t otherCount = 77, otherError = 55;
    EXPECT_EQ((d.com().*second.method)(otherData.data(), &otherCount, &otherError), rc::kBusy);
    EXPECT_EQ(otherError, 55);
    EXPECT_EQ(otherCount, 77);
    EXPECT_EQ(otherData, std::vector<int32_t>(1024, 0x5A));
    runner.join();
    EXPECT_EQ(firstResult, 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(d.sim().Requests().size(), 1u);  // the turned-away call sent nothing
  }
}

TEST(Concurrency, OfTwoCallsStartedTogetherExactlyOneProceeds) {
  LinkedDriver d(Link::Tcp);
  ASSERT_EQ(d.openResult(), 0);
  d.sim().SetAnswerDelay(80);
  for (int round = 0; round < 8; ++round) {
    std::atomic<int> ready{0};
    uint32_t results[2] = {1, 1};
    int32_t errors[2] = {-1, -1};
    auto call = [&](int k) {
      std::vector<int32_t> data(1024, 0);
      int32_t count = 0;
      ready.fetch_add(1);
      while (ready.load() < 2) {
      }
      results[k] = d.com().kaVGetProcessInData(data.data(), &count, &errors[k]);
    };
    std::thread a(call, 0), b(call, 1);
    a.join();
    b.join();
    const int proceeded = (results[0] == 0) + (results[1] == 0);
    const int turnedAway = (results[0] == rc::kBusy) + (results[1] == rc::kBusy);
    EXPECT_EQ(proceeded, 1) << round;
    EXPECT_EQ(turnedAway, 1) << round;
    EXPECT_EQ(errors[results[0] == 0 ? 0 : 1], 0);
    EXPECT_EQ(errors[results[0] == 0 ? 1 : 0], -1);
  }
  // The guard is free again afterwards.
  std::vector<int32_t> data(1024, 0);
  int32_t count = 0, error = -1;
  EXPECT_EQ(d.com().kaVGetProcessInData(data.data(), &count, &error), 0u);
}

}  // namespace
}  // namespace tamrik
