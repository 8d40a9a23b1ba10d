// Data, information and control methods against the simulated gateway: request bytes, the
// unpacking of the answers, and the diagnosis list.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "common/TestPeers.h"
#include "MethodsTestSupport.h"
#include "ResultCodes.h"

namespace tamrik {
namespace {

using test::Bytes;
using test::LiveDriver;
using test::Request;
using Values = std::vector<int32_t>;

std::string DiagValue(const LiveDriver& live, const char* key) {
  return test::DemoValue(live.dir().File("kaVcnf.ini"), "DiagList", key);
}

TEST(LiveDataMethods, ImagesTravelOneBytePerValue) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t data[16];
  int32_t count = 16;
  int32_t error = -1;

  // Inputs of the default station: a digital module of two bytes, an analogue one of four.
  EXPECT_EQ(com.kaVGetProcessInData(data, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(Values(data, data + count), (Values{1, 1, 1, 1, 1, 1}));

  // Only the low byte of each value goes out; the gateway's echo comes back into plData.
  int32_t outputs[] = {0x101, 0x2FF, 0x03};
  count = 3;
  EXPECT_EQ(com.kaVSetProcessOutData(outputs, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(Values(outputs, outputs + 3), (Values{0x01, 0xFF, 0x03}));
  count = 0;
  EXPECT_EQ(com.kaVGetProcessOutData(data, &count, &error), 0u);
  EXPECT_EQ(Values(data, data + count), (Values{0x01, 0xFF, 0x03}));

  int32_t parameters[] = {9, 8, 7, 6, 5};
  count = 5;
  EXPECT_EQ(com.kaVSetParameterData(parameters, &count, &error), 0u);
  EXPECT_EQ(com.kaVGetParameterData(data, &count, &error), 0u);
  EXPECT_EQ(Values(data, data + count), (Values{9, 8, 7, 6, 5}));

  const std::vector<Request> expected = {
      {3, {}}, {5, {0x01, 0xFF, 0x03}}, {4, {}}, {7, {9, 8, 7, 6, 5}}, {6, {}}};
  EXPECT_EQ(live.Requests(), expected);

  // An empty write still goes out, as a frame without data.
  count = 0;
  EXPECT_EQ(com.kaVSetProcessOutData(outputs, &count, &error), 0u);
  EXPECT_EQ(live.Requests().back(), (Request{5, {}}));
}

TEST(LiveDataMethods, ModuleListRecordsTheDiagnosisLayoutOnlyWhileTracing) {
  test::TraceCapture quiet;
  {
    LiveDriver live(sim::DefaultStation(), 1);
    int32_t data[8];
    int32_t count = 8;
    int32_t error = -1;
    EXPECT_EQ(live.com().kaVGetModuleList(data, &count, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Values(data, data + count), (Values{0x021101, 0x045203, 0x013004}));
    EXPECT_EQ(DiagValue(live, "ModCnt"), "3");
    EXPECT_EQ(DiagValue(live, "GWDiagLen"), "");
    EXPECT_EQ(DiagValue(live, "GWDiagData"), "");
    EXPECT_EQ(DiagValue(live, "MoDiagLen0"), "1");
    EXPECT_EQ(DiagValue(live, "MoDiagLen1"), "2");
    EXPECT_EQ(DiagValue(live, "MoDiagLen2"), "1");

    // The list with status keeps each value whole: identifier above the status byte.
    count = 8;
    EXPECT_EQ(live.com().kaVGetModulIdStatusList(data, &count, &error), 0u);
    EXPECT_EQ(Values(data, data + count), (Values{0x02110101, 0x04520301, 0x01300401}));

    // Then the diagnosis is split by that layout: two gateway bytes, then 1, 2, 1.
    live.sim().EditStation([](sim::Station& s) {
      s.gatewayDiagnosis = {0xA0, 0xA1};
      s.modules[0].diagnosis = {0x10};
      s.modules[1].diagnosis = {0x20, 0x2F};
      s.modules[2].diagnosis = {0x30};
    });
    count = 8;
    EXPECT_EQ(live.com().kaVGetDiagData(data, &count, &error), 0u);
    EXPECT_EQ(Values(data, data + count), (Values{0xA0, 0xA1, 0x10, 0x20, 0x2F, 0x30}));
    EXPECT_EQ(DiagValue(live, "GWDiagLen"), "6");
    EXPECT_EQ(DiagValue(live, "GWDiagData"), "a0,a1");
    EXPECT_EQ(DiagValue(live, "MoDiagData0"), "10");
    EXPECT_EQ(DiagValue(live, "MoDiagData1"), "20,2f");
    EXPECT_EQ(DiagValue(live, "MoDiagData2"), "30");

    // The first byte of each group is dropped; the other three are the identifier.
    live.Answer(0x4001, {0x05, 0x34, 0x12, 0x00});
    count = 8;
    EXPECT_EQ(live.com().kaVGetModuleList(data, &count, &error), 0u);
    EXPECT_EQ(Values(data, data + count), (Values{0x001234}));
    EXPECT_EQ(DiagValue(live, "ModCnt"), "1");
    EXPECT_EQ(DiagValue(live, "MoDiagLen0"), "1");
  }
  {
    // With tracing off neither method touches the list.
    LiveDriver live;
    int32_t data[8];
    int32_t count = 8;
    int32_t error = -1;
    EXPECT_EQ(live.com().kaVGetModuleList(data, &count, &error), 0u);
    EXPECT_EQ(live.com().kaVGetDiagData(data, &count, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(live.dir().Read("kaVcnf.ini").find("DiagList"), std::string::npos);
  }
}

TEST(LiveDataMethods, DiagnosisSplitStaysInsideTheAnswer) {
  test::TraceCapture quiet;
  LiveDriver live(sim::DefaultStation(), 1,
                  "[DiagList]\nModCnt=2\nMoDiagLen0=1\nMoDiagLen1=2\nGWDiagData=old\n");
  Ccom& com = live.com();
  int32_t data[8];
  int32_t count = 0;
  int32_t error = -1;
  live.Answer(0x4008, {0, 1, 2, 3, 4});
  EXPECT_EQ(com.kaVGetDiagData(data, &count, &error), 0u);
  EXPECT_EQ(DiagValue(live, "GWDiagLen"), "5");
  EXPECT_EQ(DiagValue(live, "MoDiagData1"), "03,04");
  EXPECT_EQ(DiagValue(live, "MoDiagData0"), "02");
  EXPECT_EQ(DiagValue(live, "GWDiagData"), "00,01");

  // Recorded lengths of 4 and 3 against 5 bytes: module 1 takes bytes 2 to 4, module 0 only
  // the two of its bytes that lie in the answer, and the gateway's record stays.
  platform::ProfileWriteString("DiagList", "MoDiagLen0", "4", live.dir().File("kaVcnf.ini"));
  platform::ProfileWriteString("DiagList", "MoDiagLen1", "3", live.dir().File("kaVcnf.ini"));
  live.Answer(0x4008, {0x10, 0x11, 0x12, 0x13, 0x14});
  EXPECT_EQ(com.kaVGetDiagData(data, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(DiagValue(live, "MoDiagData1"), "12,13,14");
  EXPECT_EQ(DiagValue(live, "MoDiagData0"), "10,11");
  EXPECT_EQ(DiagValue(live, "GWDiagData"), "00,01");

  // A module whose recorded length is 0 gets the empty text.
  platform::ProfileWriteString("DiagList", "MoDiagLen0", "0", live.dir().File("kaVcnf.ini"));
  live.Answer(0x4008, {0x20, 0x21, 0x22});
  EXPECT_EQ(com.kaVGetDiagData(data, &count, &error), 0u);
  EXPECT_EQ(DiagValue(live, "MoDiagData0"), "");
  EXPECT_EQ(DiagValue(live, "MoDiagData1"), "20,21,22");
}

TEST(LiveGatewayMethods, InformationFromTheDefaultStation) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  char text[256];
  int32_t size = 0;
  EXPECT_EQ(com.kaVGetGatewayBootFunctionIdString(text, &size, &error), 0u);
  EXPECT_EQ(std::string(text, size_t(size)), "TAMRIK-SIM BOOT");

  // 16-bit answers fill the two low bytes and keep the caller's upper two.
  int32_t value = int32_t(0xFFFFFFFF);
  EXPECT_EQ(com.kaVGetGatewayVersion(&value, &error), 0u);
  EXPECT_EQ(uint32_t(value), 0xFFFF0102u);
  value = 0x7ABB0000;
  EXPECT_EQ(com.kaVGetGatewayBootVersion(&value, &error), 0u);
  EXPECT_EQ(value, 0x7ABB0105);
  value = 0x11110000;
  EXPECT_EQ(com.kaVGetCurrentGwSwitches(&value, &error), 0u);
  EXPECT_EQ(value, 0x11110003);
  // The operation mode fills the low byte only.
  value = 0x22222200;
  EXPECT_EQ(com.kaVGetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(value, 0x22222201);

  EXPECT_EQ(com.kaVGetGatewayId(&value, &error), 0u);
  EXPECT_EQ(value, 0x12345678);
  EXPECT_EQ(com.kaVGetStationAddress(&value, &error), 0u);
  EXPECT_EQ(value, 3);

  int32_t data[16];
  int32_t count = 0;
  EXPECT_EQ(com.kavGetBootFctsHwInfo(data, &count, &error), 0u);
  EXPECT_EQ(count, 6);  // bytes, not words
  EXPECT_EQ(Values(data, data + 3), (Values{0x0001, 0x0200, 0x1000}));
  EXPECT_EQ(com.kaVGetModuleSWRev(data, &count, &error), 0u);
  EXPECT_EQ(Values(data, data + count), (Values{0x10, 0x10, 0x10}));
  EXPECT_EQ(com.kaVGetModuleTyp(data, &count, &error), 0u);
  EXPECT_EQ(Values(data, data + count), (Values{1, 2, 1}));

  // The error list of the default station; every value of the buffer is cleared first.
  int32_t entries = -1;
  int32_t records[20];
  std::fill(std::begin(records), std::end(records), -9);
  int32_t bufferSize = 20;
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(entries, 2);
  EXPECT_EQ(Values(records, records + 20),
            (Values{7, 0x11, 0, 0, 0, 1, 0, 9, 0x22, 0, 0, 0, 10, 0, 0xAA, 0xBB, 0, 0, 0, 0}));
  EXPECT_EQ(error, 0);

  live.sim().EditStation([](sim::Station& s) { s.trBuffer = {0xDE, 0xAD}; });
  EXPECT_EQ(com.kaVGetTRBuffer(data, &count, &error), 0u);
  EXPECT_EQ(Values(data, data + count), (Values{0xDE, 0xAD}));
  EXPECT_EQ(com.kaVClearTRBuffer(&error), 0u);
  EXPECT_EQ(com.kaVGetTRBuffer(data, &count, &error), 0u);
  EXPECT_EQ(count, 0);
}

TEST(LiveGatewayMethods, AnswersAreUnpackedByTheirLength) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  int32_t value = int32_t(0xFFFFFFFF);
  live.Answer(0x4101, {0x34, 0x12});
  EXPECT_EQ(com.kaVGetGatewayVersion(&value, &error), 0u);
  EXPECT_EQ(uint32_t(value), 0xFFFF1234u);

  // Station address: one byte, four or more (the first four), else unchanged.
  struct Address {
    Bytes answer;
    int32_t expected;
  };
  for (const Address& a : {Address{{0x05}, 5}, Address{{0xC0, 0xA8, 0x00, 0x0A}, 0x0A00A8C0},
                           Address{{0x01, 0x02}, 99}, Address{{0x01, 0x02, 0x03}, 99},
                           Address{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, 0x04030201}}) {
    value = 99;
    error = -1;
    live.Answer(0x410C, a.answer);
    EXPECT_EQ(com.kaVGetStationAddress(&value, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(value, a.expected) << a.answer.size();
  }

  // The clock, split into days, hours, minutes and seconds.
  struct Clock {
    uint32_t ms;
    Values expected;
  };
  for (const Clock& c : {Clock{90061001, {1, 1, 1, 1}}, Clock{0xFFFFFFFF, {49, 17, 2, 47}}}) {
    live.Answer(0x410F, {uint8_t(c.ms), uint8_t(c.ms >> 8), uint8_t(c.ms >> 16), uint8_t(c.ms >> 24)});
    int32_t days = -1, hours = -1, minutes = -1, seconds = -1;
    EXPECT_EQ(com.kaVGetGatewayTime(&days, &hours, &minutes, &seconds, &error), 0u);
    EXPECT_EQ((Values{days, hours, minutes, seconds}), c.expected);
  }

  int32_t data[8] = {};
  int32_t count = 0;
  live.Answer(0x4114, {0x01, 0x00, 0x02, 0x00, 0x03, 0x00});
  EXPECT_EQ(com.kavGetBootFctsHwInfo(data, &count, &error), 0u);
  EXPECT_EQ(count, 6);
  EXPECT_EQ(Values(data, data + 3), (Values{1, 2, 3}));

  // A text answer longer than 200 characters delivers the first 200.
  char text[400];
  memset(text, '#', sizeof text);
  int32_t size = 0;
  live.Answer(0x4100, Bytes(300, 'x'));
  EXPECT_EQ(com.kaVGetGatewayIdSring(text, &size, &error), 0u);
  EXPECT_EQ(size, 200);
  EXPECT_EQ(std::string(text, 201), std::string(200, 'x') + "#");
}

TEST(LiveGatewayMethods, ErrorListRecordsAndMalformedLists) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t entries = -1;
  int32_t records[20];
  int32_t bufferSize = 20;
  int32_t error = -1;

  const Bytes list = {0x06, 0x11, 0xE8, 0x03, 0x00, 0x00, 0x08, 0x22, 0x10, 0x27, 0x00, 0x00, 0xAA, 0xBB};
  live.Answer(0x4104, list);
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(entries, 2);
  EXPECT_EQ(Values(records, records + 16), (Values{7, 0x11, 0, 0, 0, 1, 0, 9, 0x22, 0, 0, 0, 10, 0, 0xAA, 0xBB}));

  // A buffer of ten values takes the first record only; nothing is written past it.
  std::fill(std::begin(records), std::end(records), -9);
  bufferSize = 10;
  live.Answer(0x4104, list);
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(entries, 1);
  EXPECT_EQ(Values(records, records + 11), (Values{7, 0x11, 0, 0, 0, 1, 0, 0, 0, 0, -9}));

  // An empty list: no entries.
  bufferSize = 20;
  live.Answer(0x4104, {});
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(entries, 0);

  // Length byte below 6, an entry past the data, more than 30 entries: refused.
  Bytes thirtyOne;
  for (int i = 0; i < 31; ++i) thirtyOne.insert(thirtyOne.end(), {6, uint8_t(i), 0, 0, 0, 0});
  for (const Bytes& bad : {Bytes{0x05, 0x11, 0, 0, 0}, Bytes{0x06, 0x11, 0, 0, 0, 0, 0x09, 0x22, 0, 0, 0, 0},
                           thirtyOne}) {
    error = -1;
    live.Answer(0x4104, bad);
    EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), rc::kAnswerMalformed);
  }
}

TEST(LiveGatewayMethods, ControlRequestsCarryTheirBytes) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  int32_t value = 0x0102;
  EXPECT_EQ(com.kaVSetGatewayLeds(&value, &error), 0u);
  EXPECT_EQ(error, 0);
  value = 0x302;
  EXPECT_EQ(com.kaVSetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(value, 2);  // the gateway's answer byte
  value = 0x17;
  EXPECT_EQ(com.kaVSetStationAddress(&value, &error), 0u);
  EXPECT_EQ(com.kaVExecHardwareReset(&error), 0u);
  EXPECT_EQ(com.kaVGatewayFbiReset(&error), 0u);
  EXPECT_EQ(com.kaVGatewayFbiStart(&error), 0u);
  EXPECT_EQ(error, 0);

  const std::vector<Request> expected = {{0x113, {0x02, 0x01}}, {0x106, {0x02}}, {0x106, {0x17}},
                                         {0x10A, {}},           {0x0D, {}},        {0x0E, {}}};
  EXPECT_EQ(live.Requests(), expected);
  EXPECT_EQ(live.sim().GetStation().leds, 0x0102);
  EXPECT_EQ(live.sim().GetEngineState().hardwareResets, 1u);
  EXPECT_EQ(live.sim().GetEngineState().fbiResets, 1u);
  EXPECT_EQ(live.sim().GetEngineState().fbiStarts, 1u);

  // Answers with more data than the single value holds: the rest is dropped.
  value = 0;
  live.Answer(0x4113, {0x44, 0x55, 0x66});
  EXPECT_EQ(com.kaVSetGatewayLeds(&value, &error), 0u);
  EXPECT_EQ(value, 0x44);
}

TEST(LiveGatewayMethods, ThreeMethodsSelectTheNormalReadTimeOutFirst) {
  // A serial link over the simulator's pseudo-terminal, so that the read time-out in force
  // can be seen; the firmware time-out is selected before each call.
  sim::Simulator simulator;
  const std::string device = simulator.StartPty();
  for (int demo : {0, 1}) {
    SCOPED_TRACE(demo);
    test::TempDir dir;
    dir.Write("kaVcnf.ini", test::InitSection(demo, 0, 5) + "[Ports]\nCom5=" + device + "\n");
    dir.Write("kaVdmo.ini", "[Station]\nGatewayId=00000001\n");
    Ccom com(dir.path());
    int32_t error = -1;
    ASSERT_EQ(com.kaVOpenComPort(5, &error), 0u);
    using Call = std::function<uint32_t(Ccom&, int32_t*)>;
    const std::pair<Call, bool> calls[] = {
        {[](Ccom& c, int32_t* e) { return c.kaVExecHardwareReset(e); }, true},
        {[](Ccom& c, int32_t* e) { int32_t v = 1; return c.kaVSetGatewayOperationMode(&v, e); }, true},
        {[](Ccom& c, int32_t* e) { int32_t v = 0; return c.kaVGetGatewayId(&v, e); }, true},
        {[](Ccom& c, int32_t* e) { int32_t v = 0; return c.kaVGetGatewayVersion(&v, e); }, false},
    };
    for (const auto& [call, selects] : calls) {
      CcomTestPeer::Port(com).ChangeTimings(true);
      ASSERT_EQ(CcomTestPeer::Port(com).Timings().activeTotalConstant, 3000u);
      EXPECT_EQ(call(com, &error), 0u);
      EXPECT_EQ(error, 0);
      EXPECT_EQ(CcomTestPeer::Port(com).Timings().activeTotalConstant, selects ? 500u : 3000u);
    }
    com.kaVCloseComPort(5, &error);
  }
}

}  // namespace
}  // namespace tamrik
