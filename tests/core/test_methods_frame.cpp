// The method frame across all methods of these groups: the busy guard, what a method returns
// when its request cannot be written and when its answer fails, and argument refusals.
#include <gtest/gtest.h>

#include <functional>

#include "common/TestPeers.h"
#include "MethodsTestSupport.h"
#include "ResultCodes.h"

namespace tamrik {
namespace {

using test::LiveDriver;

struct Method {
  const char* name;
  bool returnsRequestCode;  // the request's failure code is also the method's return value
  std::function<uint32_t(Ccom&, int32_t*)> call;
};

// Every method here that exchanges with the gateway, each with buffers of its own.
std::vector<Method> ExchangingMethods() {
  using Array = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);
  using Single = uint32_t (Ccom::*)(int32_t*, int32_t*);
  using Plain = uint32_t (Ccom::*)(int32_t*);
  using Text = uint32_t (Ccom::*)(char*, int32_t*, int32_t*);
  auto array = [](Array m) {
    return [m](Ccom& c, int32_t* e) {
      int32_t data[256] = {0x21, 4, 1, 2};
      int32_t count = 4;
      return (c.*m)(data, &count, e);
    };
  };
  auto single = [](Single m) {
    return [m](Ccom& c, int32_t* e) {
      int32_t value[2] = {1, 2};
      return (c.*m)(value, e);
    };
  };
  auto plain = [](Plain m) { return [m](Ccom& c, int32_t* e) { return (c.*m)(e); }; };
  auto text = [](Text m) {
    return [m](Ccom& c, int32_t* e) {
      char buffer[256];
      int32_t count = 200;
      return (c.*m)(buffer, &count, e);
    };
  };
  return {
      {"kaVGetProcessInData", true, array(&Ccom::kaVGetProcessInData)},
      {"kaVSetProcessOutData", true, array(&Ccom::kaVSetProcessOutData)},
      {"kaVGetProcessOutData", true, array(&Ccom::kaVGetProcessOutData)},
      {"kaVGetParameterData", true, array(&Ccom::kaVGetParameterData)},
      {"kaVSetParameterData", true, array(&Ccom::kaVSetParameterData)},
      {"kaVGetDiagData", true, array(&Ccom::kaVGetDiagData)},
      {"kaVGetTRBuffer", true, array(&Ccom::kaVGetTRBuffer)},
      {"kaVSetModuleStreamSegmentData", true, array(&Ccom::kaVSetModuleStreamSegmentData)},
      {"kaVSrvGetFirstDataFrame", true, array(&Ccom::kaVSrvGetFirstDataFrame)},
      {"kaVSrvGetNextDataFrame", true, array(&Ccom::kaVSrvGetNextDataFrame)},
      {"kaVSrvDNetGetClassInstAttr", true, array(&Ccom::kaVSrvDNetGetClassInstAttr)},
      {"kaVSrvDNetSetClassInstAttr", true, array(&Ccom::kaVSrvDNetSetClassInstAttr)},
      {"kaVGetModuleList", false, array(&Ccom::kaVGetModuleList)},
      {"kaVGetModulIdStatusList", false, array(&Ccom::kaVGetModulIdStatusList)},
      {"kaVGetModuleSWRev", false, array(&Ccom::kaVGetModuleSWRev)},
      {"kaVGetModuleTyp", false, array(&Ccom::kaVGetModuleTyp)},
      {"kavGetBootFctsHwInfo", false, array(&Ccom::kavGetBootFctsHwInfo)},
      {"kaVGetModuleStreamDataSizeList", false, array(&Ccom::kaVGetModuleStreamDataSizeList)},
      {"kaVGetGatewayVersion", false, single(&Ccom::kaVGetGatewayVersion)},
      {"kaVGetGatewayBootVersion", false, single(&Ccom::kaVGetGatewayBootVersion)},
      {"kaVGetStationAddress", false, single(&Ccom::kaVGetStationAddress)},
      {"kaVGetGatewayId", false, single(&Ccom::kaVGetGatewayId)},
      {"kaVGetGatewayOperationMode", false, single(&Ccom::kaVGetGatewayOperationMode)},
      {"kaVSetGatewayOperationMode", false, single(&Ccom::kaVSetGatewayOperationMode)},
      {"kaVSetStationAddress", false, single(&Ccom::kaVSetStationAddress)},
      {"kaVGetCurrentGwSwitches", false, single(&Ccom::kaVGetCurrentGwSwitches)},
      {"kaVSetGatewayLeds", false, single(&Ccom::kaVSetGatewayLeds)},
      {"kaVSetModuleStreamDataPosition", false, single(&Ccom::kaVSetModuleStreamDataPosition)},
      {"kaVSrvDNetGetEEPDNetSerialNumber", false, single(&Ccom::kaVSrvDNetGetEEPDNetSerialNumber)},
      {"kaVGetPrivilegedChannel", false, single(&Ccom::kaVGetPrivilegedChannel)},
      {"kaVExecHardwareReset", false, plain(&Ccom::kaVExecHardwareReset)},
      {"kaVGatewayFbiReset", false, plain(&Ccom::kaVGatewayFbiReset)},
      {"kaVGatewayFbiStart", false, plain(&Ccom::kaVGatewayFbiStart)},
      {"kaVClearTRBuffer", false, plain(&Ccom::kaVClearTRBuffer)},
      {"kaVSrvMbResetMonitoring", false, plain(&Ccom::kaVSrvMbResetMonitoring)},
      {"kaVSrvMbStartMonitoring", false, plain(&Ccom::kaVSrvMbStartMonitoring)},
      {"kaVSrvMbStopMonitoring", false, plain(&Ccom::kaVSrvMbStopMonitoring)},
      {"kaVGetGatewayIdSring", false, text(&Ccom::kaVGetGatewayIdSring)},
      {"kaVGetGatewayBootFunctionIdString", false, text(&Ccom::kaVGetGatewayBootFunctionIdString)},
      {"kaVGetGatewayVersionString", false, text(&Ccom::kaVGetGatewayVersionString)},
      {"kaVSrvDNetGetEEPToolIdent", false, text(&Ccom::kaVSrvDNetGetEEPToolIdent)},
      {"kavGetPrivilegedName", false, text(&Ccom::kavGetPrivilegedName)},
      {"kaVGetGatewayTime", false,
       [](Ccom& c, int32_t* e) {
         int32_t d, h, m, s;
         return c.kaVGetGatewayTime(&d, &h, &m, &s, e);
       }},
      {"kaVGetGatewayErrorList", false,
       [](Ccom& c, int32_t* e) {
         int32_t entries, records[64], size = 64;
         return c.kaVGetGatewayErrorList(&entries, records, &size, e);
       }},
      {"kavEnterPrivilegedMode", false, [](Ccom& c, int32_t* e) { return c.kavEnterPrivilegedMode("host", e); }},
  };
}

TEST(MethodFrame, FailedRequestReturnsZeroOrTheCodeAsEachMethodSays) {
  // No link is open, so no request can be written.
  test::TempDir dir;
  dir.Write("kaVcnf.ini", test::InitSection(0, 0));
  Ccom com(dir.path());
  CcomTestPeer::NewPrivilegedExchange() = true;
  for (const Method& m : ExchangingMethods()) {
    SCOPED_TRACE(m.name);
    int32_t error = -1;
    EXPECT_EQ(m.call(com, &error), m.returnsRequestCode ? rc::kWriteFailed : 0u);
    EXPECT_EQ(uint32_t(error), rc::kWriteFailed);
    EXPECT_EQ(CcomTestPeer::Busy(com).load(), 0);
  }
  // A privileged exchange that failed at the challenge still starts afresh next time.
  EXPECT_TRUE(CcomTestPeer::NewPrivilegedExchange().load());
}

TEST(MethodFrame, FailedAnswerReturns0x10050WithTheCauseInTheOutValue) {
  LiveDriver live(sim::DefaultStation(), 0, "StreamSegmentSleepTime=1\n");
  live.sim().SetCorruptEvery(1);
  CcomTestPeer::NewPrivilegedExchange() = true;
  for (const Method& m : ExchangingMethods()) {
    SCOPED_TRACE(m.name);
    int32_t error = -1;
    EXPECT_EQ(m.call(live.com(), &error), rc::kAnswerFailed);
    EXPECT_EQ(uint32_t(error), rc::kBadCheckValue);
    EXPECT_EQ(CcomTestPeer::Busy(live.com()).load(), 0);
  }
  EXPECT_TRUE(CcomTestPeer::NewPrivilegedExchange().load());
  // Every method sent exactly one request.
  EXPECT_EQ(live.sim().Requests().size(), ExchangingMethods().size());
}

TEST(MethodFrame, BusyGuardRefusesWithoutTouchingAnything) {
  test::TraceCapture trace;
  LiveDriver live(sim::DefaultStation(), 1);
  Ccom& com = live.com();
  using Array = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);
  const Array guarded[] = {&Ccom::kaVGetProcessInData, &Ccom::kaVSetProcessOutData, &Ccom::kaVGetProcessOutData,
                           &Ccom::kaVGetParameterData, &Ccom::kaVSetParameterData,  &Ccom::kaVGetDiagData,
                           &Ccom::kaVGetTRBuffer};
  CcomTestPeer::Busy(com) = 1;
  trace.Clear();
  for (Array method : guarded) {
    int32_t data[4] = {5, 6, 7, 8};
    int32_t count = 4;
    int32_t error = 4711;
    EXPECT_EQ((com.*method)(data, &count, &error), rc::kBusy);
    EXPECT_EQ(error, 4711);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(data[0], 5);
  }
  EXPECT_TRUE(trace.Lines().empty());
  EXPECT_TRUE(live.Requests().empty());
  EXPECT_EQ(CcomTestPeer::Busy(com).load(), 1);  // the flag belongs to the call that set it

  // Methods without the guard run all the same.
  int32_t data[8];
  int32_t count = 8;
  int32_t error = -1;
  EXPECT_EQ(com.kaVGetModuleList(data, &count, &error), 0u);
  EXPECT_EQ(error, 0);

  // Once released, every guarded method runs and releases it again.
  CcomTestPeer::Busy(com) = 0;
  for (Array method : guarded) {
    int32_t buffer[16] = {1, 2};
    count = 2;
    error = -1;
    EXPECT_EQ((com.*method)(buffer, &count, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(CcomTestPeer::Busy(com).load(), 0);
  }
}

TEST(MethodFrame, RequestCountsTheFrameCannotCarryAreRefused) {
  LiveDriver live;
  Ccom& com = live.com();
  using Array = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);
  for (Array method : {&Ccom::kaVSetProcessOutData, &Ccom::kaVSetParameterData, &Ccom::kaVSrvGetFirstDataFrame,
                       &Ccom::kaVSrvGetNextDataFrame, &Ccom::kaVSrvDNetGetClassInstAttr,
                       &Ccom::kaVSrvDNetSetClassInstAttr}) {
    for (int32_t bad : {-1, 65536}) {
      int32_t data[1] = {0};
      int32_t count = bad;
      int32_t error = -1;
      EXPECT_EQ((com.*method)(data, &count, &error), rc::kBadArgument);
      EXPECT_EQ(uint32_t(error), rc::kBadArgument);
      EXPECT_EQ(CcomTestPeer::Busy(com).load(), 0);
    }
  }
  EXPECT_TRUE(live.Requests().empty());
}

}  // namespace
}  // namespace tamrik
