// Stream, monitoring, DeviceNet and raw-service methods against the simulated gateway, and
// the driver's own memory area.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "common/TestPeers.h"
#include "MethodsTestSupport.h"
#include "ResultCodes.h"

namespace tamrik {
namespace {

using test::Bytes;
using test::LiveDriver;
using test::Request;
using Values = std::vector<int32_t>;

int64_t ElapsedMs(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

TEST(LiveStreamMethods, SegmentedWriteRepeatsTheHeaderAndPausesPerSegment) {
  LiveDriver live(sim::DefaultStation(), 0, "StreamSegmentSleepTime=20\n");
  Ccom& com = live.com();
  int32_t error = -1;

  // H = 0x21, S = 4, ten bytes: 4 + 4 + 2.
  int32_t block[12] = {0x21, 4, 0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9};
  int32_t count = 12;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(com.kaVSetModuleStreamSegmentData(block, &count, &error), 0u);
  EXPECT_GE(ElapsedMs(start), 3 * 20);
  EXPECT_EQ(error, 0);
  std::vector<Request> expected = {{0x10, {0x21, 0xD0, 0xD1, 0xD2, 0xD3}},
                                   {0x10, {0x21, 0xD4, 0xD5, 0xD6, 0xD7}},
                                   {0x10, {0x21, 0xD8, 0xD9}}};
  EXPECT_EQ(live.Requests(), expected);
  EXPECT_EQ(block[2], 0xD0);  // the answers go to a work buffer of the driver's own

  // As many data bytes as the segment length: one request. One byte with S = 19 (given in
  // the low byte of a larger value): one request of two bytes.
  live.sim().ClearRequests();
  int32_t exact[5] = {0x33, 3, 1, 2, 3};
  count = 5;
  EXPECT_EQ(com.kaVSetModuleStreamSegmentData(exact, &count, &error), 0u);
  int32_t single[3] = {0x144, 0x113, 0x1FF};
  count = 3;
  EXPECT_EQ(com.kaVSetModuleStreamSegmentData(single, &count, &error), 0u);
  expected = {{0x10, {0x33, 1, 2, 3}}, {0x10, {0x44, 0xFF}}};
  EXPECT_EQ(live.Requests(), expected);

  // Segment lengths outside 1 to 19 and data counts outside 1 to 127 are refused before
  // anything goes out.
  live.sim().ClearRequests();
  struct Bad {
    int32_t segmentLength;
    int32_t count;
  };
  for (const Bad& bad : {Bad{0, 5}, Bad{20, 5}, Bad{0xFF, 5}, Bad{4, 2}, Bad{4, 130}, Bad{4, 258 + 3}}) {
    std::vector<int32_t> data(size_t(std::max(bad.count, 2)), 7);
    data[0] = 0x21;
    data[1] = bad.segmentLength;
    count = bad.count;
    error = -1;
    EXPECT_EQ(com.kaVSetModuleStreamSegmentData(data.data(), &count, &error), rc::kBadArgument);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
  }
  EXPECT_TRUE(live.Requests().empty());

  // A failed answer to the second segment ends the block: the third is never sent.
  live.sim().FaultNextAnswer({});
  live.sim().FaultNextAnswer({.corruptCheckValue = true});
  count = 12;
  EXPECT_EQ(com.kaVSetModuleStreamSegmentData(block, &count, &error), rc::kAnswerFailed);
  EXPECT_EQ(uint32_t(error), rc::kBadCheckValue);
  EXPECT_EQ(live.Requests().size(), 2u);
}

TEST(LiveStreamMethods, PauseDefaultsTo255Milliseconds) {
  LiveDriver live;
  int32_t block[4] = {0x21, 4, 1, 2};
  int32_t count = 4;
  int32_t error = -1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(live.com().kaVSetModuleStreamSegmentData(block, &count, &error), 0u);
  EXPECT_GE(ElapsedMs(start), 255);
  EXPECT_EQ(error, 0);
}

TEST(LiveStreamMethods, PositionSizeListAndStatistics) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  int32_t position[3] = {0x1234, 0x0056, -1};
  EXPECT_EQ(com.kaVSetModuleStreamDataPosition(position, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(live.Requests().back(), (Request{0x11, {0x34, 0x56}}));
  EXPECT_EQ((Values{position[0], position[1], position[2]}), (Values{0x34, 0x56, -1}));

  // An answer longer than the two values is cut to them.
  live.Answer(0x4011, {9, 8, 7, 6});
  EXPECT_EQ(com.kaVSetModuleStreamDataPosition(position, &error), 0u);
  EXPECT_EQ((Values{position[0], position[1], position[2]}), (Values{9, 8, -1}));

  int32_t sizes[8];
  int32_t count = 0;
  EXPECT_EQ(com.kaVGetModuleStreamDataSizeList(sizes, &count, &error), 0u);
  EXPECT_EQ(Values(sizes, sizes + count), (Values{0, 16, 0}));

  int32_t time = 7, breaks = 7, data = 7;
  error = 7;
  EXPECT_EQ(com.kaVGetStatistics(&time, &breaks, &data, &error), 0u);
  EXPECT_EQ(com.kaVClrStatistics(&error), 0u);
  EXPECT_EQ((Values{time, breaks, data, error}), (Values{7, 7, 7, 7}));
}

TEST(LiveRawMethods, MonitoringAndDeviceNetServices) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  EXPECT_EQ(com.kaVSrvMbResetMonitoring(&error), 0u);
  EXPECT_EQ(com.kaVSrvMbStartMonitoring(&error), 0u);
  EXPECT_TRUE(live.sim().GetEngineState().monitoring);
  int32_t value = 0x0102;
  EXPECT_EQ(com.kaVSetGatewayLeds(&value, &error), 0u);  // recorded by the monitor
  EXPECT_EQ(com.kaVSrvMbStopMonitoring(&error), 0u);
  EXPECT_FALSE(live.sim().GetEngineState().monitoring);

  // No request data: a frame without data; the monitored frame comes back byte by byte.
  int32_t frame[64];
  int32_t count = 0;
  EXPECT_EQ(com.kaVSrvGetFirstDataFrame(frame, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  const Bytes recorded = sim::BuildFrame(0x113, Bytes{0x02, 0x01});
  EXPECT_EQ(Values(frame, frame + count), Values(recorded.begin(), recorded.end()));
  frame[0] = 0x1AB;
  count = 1;
  EXPECT_EQ(com.kaVSrvGetNextDataFrame(frame, &count, &error), 0u);
  EXPECT_EQ(count, 0);

  const std::vector<Request> monitoring = {{0x17, {}}, {0x18, {}}, {0x113, {2, 1}}, {0x19, {}},
                                           {0x1A, {}}, {0x1B, {0xAB}}};
  EXPECT_EQ(live.Requests(), monitoring);

  EXPECT_EQ(com.kaVSrvDNetGetEEPDNetSerialNumber(&value, &error), 0u);
  EXPECT_EQ(value, 0x01020304);
  live.Answer(0x4902, {0x04, 0x03, 0x02, 0x01});
  EXPECT_EQ(com.kaVSrvDNetGetEEPDNetSerialNumber(&value, &error), 0u);
  EXPECT_EQ(value, 0x01020304);

  char name[32];
  memset(name, '#', sizeof name);
  count = 0;
  EXPECT_EQ(com.kaVSrvDNetGetEEPToolIdent(name, &count, &error), 0u);
  EXPECT_EQ(std::string(name, size_t(count) + 1), "TAMRIK-SIM DNET#");

  // Attributes: the address bytes go out as given, the value comes back into plData.
  int32_t attribute[8] = {0x01, 0x01, 0x07};
  count = 3;
  EXPECT_EQ(com.kaVSrvDNetGetClassInstAttr(attribute, &count, &error), 0u);
  EXPECT_EQ(Values(attribute, attribute + count), (Values{'S', 'I', 'M'}));
  int32_t write[5] = {0x01, 0x01, 0x07, 'O', 'K'};
  count = 5;
  EXPECT_EQ(com.kaVSrvDNetSetClassInstAttr(write, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(live.Requests().back(), (Request{0x913, {1, 1, 7, 'O', 'K'}}));
  EXPECT_EQ((live.sim().GetStation().attributes.at({1, 1, 7})), (Bytes{'O', 'K'}));
}

TEST(LiveRawMethods, DoServiceSendsRawRequestsAndReportsRefusalsThroughTheCode) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  // Data unchanged; the answer's code comes back in service.
  int32_t service = 0x0107;
  uint8_t data[8] = {0xAA, 0x00, 0xFF, 0, 0, 0, 0, 0x5A};
  int32_t sendSize = 3, receiveSize = 8;
  live.Answer(0x4107, {0x10, 0x20, 0x30});
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(service, 0x4107);
  EXPECT_EQ(receiveSize, 3);
  EXPECT_EQ(Bytes(data, data + 4), (Bytes{0x10, 0x20, 0x30, 0}));
  EXPECT_EQ(live.Requests().back(), (Request{0x107, {0xAA, 0x00, 0xFF}}));

  // The capacity in plSizeOfRecData bounds the copy.
  memset(data, 0xEE, sizeof data);
  service = 0x0107;
  receiveSize = 2;
  live.Answer(0x4107, {1, 2, 3, 4});
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(receiveSize, 2);
  EXPECT_EQ(Bytes(data, data + 3), (Bytes{1, 2, 0xEE}));

  // A refusal is a valid answer: the code tells it, the error out-value stays 0.
  live.sim().RefuseService(0x0107, sim::Refusal{0xC000, std::nullopt});
  service = 0x0107;
  receiveSize = 8;
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(service, 0xC107);
  EXPECT_EQ(receiveSize, 0);

  // The code 0 goes out as a raw request with the code 0 (the gateway does not know it).
  service = 0;
  sendSize = 1;
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(live.Requests().back(), (Request{0x0000, {1}}));
  EXPECT_EQ(service, 0x8000);

  // No valid answer frame: the code in the out-value and as the return value, nothing received.
  live.sim().SetCorruptEvery(1);
  service = 0x0105;
  sendSize = 0;
  receiveSize = 8;
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), rc::kBadCheckValue);
  EXPECT_EQ(uint32_t(error), rc::kBadCheckValue);
  EXPECT_EQ(receiveSize, 0);
  EXPECT_EQ(service, 0x0105);

  // A request count the frame cannot carry is refused before anything goes out.
  live.sim().ClearRequests();
  for (int32_t bad : {-1, 65536}) {
    sendSize = bad;
    EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
  }
  EXPECT_TRUE(live.Requests().empty());
}

TEST(LiveRawMethods, PollingSwitchMakesRepeatedCallsCollectTheAnswer) {
  test::TraceCapture quiet;
  LiveDriver live(sim::DefaultStation(), 1);
  Ccom& com = live.com();
  int32_t service = 0x10000;
  int32_t error = 12345;
  int32_t sendSize = 0, receiveSize = 0;
  uint8_t data[16] = {};
  quiet.Clear();
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(service, 0x14000);
  EXPECT_EQ(error, 12345);
  EXPECT_TRUE(quiet.Lines().empty());  // no trace, nothing sent
  EXPECT_TRUE(CComPortTestPeer::Exchange(CcomTestPeer::Port(com)).polling());
  EXPECT_EQ(CComPortTestPeer::Exchange(CcomTestPeer::Port(com)).phase(), ExchangeState::Phase::Idle);
  EXPECT_TRUE(live.Requests().empty());

  // A late answer: the first call returns at once with 0x10100; later calls send nothing
  // new and pick the answer up when it is there.
  live.sim().FaultNextAnswer({.delayMs = 150});
  service = 0x0101;
  receiveSize = 16;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(com.kaVDoService(&service, data, &sendSize, &receiveSize, &error), rc::kNoDataYet);
  EXPECT_LT(ElapsedMs(start), 100);
  EXPECT_EQ(uint32_t(error), rc::kNoDataYet);
  uint32_t result = rc::kNoDataYet;
  for (int attempt = 0; attempt < 100 && result == rc::kNoDataYet; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    receiveSize = 16;
    result = com.kaVDoService(&service, data, &sendSize, &receiveSize, &error);
  }
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(service, 0x4101);
  EXPECT_EQ(Bytes(data, data + receiveSize), (Bytes{0x02, 0x01}));
  EXPECT_EQ(live.Requests().size(), 1u);
}

TEST(LiveRawMethods, TestBlocksMoveRawBytes) {
  LiveDriver live;
  Ccom& com = live.com();
  int32_t error = -1;

  // A whole request frame written as raw bytes is answered like any other; the answer is
  // read back raw, each byte widened with its sign.
  const Bytes request = {0xAA, 0x03, 0x00, 0x00, 0x00, 0x29, 0xB3};
  int32_t block[32];
  for (size_t i = 0; i < request.size(); ++i) block[i] = 0x100 | request[i];  // low bytes count
  int32_t count = int32_t(request.size());
  EXPECT_EQ(com.kaVTestBlockWrite(block, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  ASSERT_TRUE(live.sim().WaitForRequests(1, 1000));
  const Bytes answer = live.sim().Requests().back().answer;
  ASSERT_FALSE(answer.empty());
  count = int32_t(answer.size());
  EXPECT_EQ(com.kaVTestBlockRead(block, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  for (size_t i = 0; i < answer.size(); ++i) EXPECT_EQ(block[i], int32_t(int8_t(answer[i]))) << i;
  EXPECT_EQ(block[0], -86);  // 0xAA

  // A short read: the bytes no read set are 0.
  std::fill(std::begin(block), std::end(block), 77);
  count = 4;
  EXPECT_EQ(com.kaVTestBlockRead(block, &count, &error), 0u);
  EXPECT_NE(error, 0);
  EXPECT_EQ((Values{block[0], block[1], block[2], block[3], block[4]}), (Values{0, 0, 0, 0, 77}));

  count = -1;
  EXPECT_EQ(com.kaVTestBlockRead(block, &count, &error), 0u);
  EXPECT_EQ(uint32_t(error), rc::kBadArgument);
}

TEST(DriverMemoryArea, SetPortAndGetPortStayInsideTheArea) {
  test::TempDir dir;
  dir.Write("kaVcnf.ini", test::InitSection(0, 0));
  Ccom com(dir.path());
  Ccom other(dir.path());

  int16_t in[4] = {0x0102, 0x0304, 0x0506, 0x0708};
  int16_t out[4] = {-1, -1, -1, -1};
  int32_t size = 8, address = 0x100, error = 55;
  EXPECT_EQ(com.SetPort(in, &size, &address, &error), 0u);
  EXPECT_EQ(com.GetPort(out, &size, &address, &error), 0u);
  EXPECT_EQ(memcmp(in, out, sizeof in), 0);
  EXPECT_EQ(error, 55);

  // Bytes at an odd offset; the area starts zeroed, and each object has its own.
  int16_t part[2] = {-1, -1};
  size = 3;
  address = 0x101;
  EXPECT_EQ(com.GetPort(part, &size, &address, &error), 0u);
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(part);
  EXPECT_EQ((Bytes{bytes[0], bytes[1], bytes[2], bytes[3]}), (Bytes{0x01, 0x04, 0x03, 0xFF}));
  size = 8;
  address = 0x100;
  EXPECT_EQ(other.GetPort(out, &size, &address, &error), 0u);
  EXPECT_EQ((Values{out[0], out[1], out[2], out[3]}), (Values{0, 0, 0, 0}));

  // The last bytes of the area can be reached; a copy that would leave it copies nothing.
  size = 2;
  address = Ccom::kPortAreaSize - 2;
  EXPECT_EQ(com.SetPort(in, &size, &address, &error), 0u);
  out[0] = -1;
  EXPECT_EQ(com.GetPort(out, &size, &address, &error), 0u);
  EXPECT_EQ(out[0], 0x0102);
  struct Outside {
    int32_t size;
    int32_t address;
  };
  for (const Outside& o : {Outside{4, Ccom::kPortAreaSize - 2}, Outside{2, -2}, Outside{-1, 0},
                           Outside{2, Ccom::kPortAreaSize}, Outside{INT32_MAX, 1}}) {
    out[0] = 0x5A5A;
    size = o.size;
    address = o.address;
    error = 55;
    EXPECT_EQ(com.SetPort(in, &size, &address, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
    error = 55;
    EXPECT_EQ(com.GetPort(out, &size, &address, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
    EXPECT_EQ(out[0], 0x5A5A);
  }
  size = 2;
  address = Ccom::kPortAreaSize - 2;
  error = 55;
  EXPECT_EQ(com.GetPort(out, &size, &address, &error), 0u);
  EXPECT_EQ(out[0], 0x0102);  // the refused writes left the area as it was
  EXPECT_EQ(error, 55);
}

}  // namespace
}  // namespace tamrik
