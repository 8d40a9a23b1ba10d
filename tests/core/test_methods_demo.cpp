// The methods in demonstration mode: answers from the demonstration file, nothing on a line.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "MethodsTestSupport.h"
#include "ResultCodes.h"

namespace tamrik {
namespace {

using test::DemoDriver;
using Values = std::vector<int32_t>;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Calls a data method with room for 200 values and returns what it delivered.
Values Read(Ccom& com, uint32_t (Ccom::*method)(int32_t*, int32_t*, int32_t*), uint32_t expectedReturn = 0) {
  int32_t data[200];
  int32_t count = 200;
  int32_t error = -1;
  EXPECT_EQ((com.*method)(data, &count, &error), expectedReturn);
  EXPECT_EQ(error, 0);
  return Values(data, data + std::max(count, 0));
}

TEST(DemoMethods, ShippedStationAnswersEveryMethodAsTheFileSays) {
  const std::string shipped = ReadFile(test::ShippedDemoFile());
  ASSERT_FALSE(shipped.empty()) << test::ShippedDemoFile();
  DemoDriver demo(shipped);
  Ccom& com = demo.com();

  // Module list and the module list with status: identifiers as the file writes them.
  const Values ids = {0x0150D1, 0x0251D2, 0x0A7301, 0x0B8402};
  EXPECT_EQ(Read(com, &Ccom::kaVGetModuleList), ids);
  EXPECT_EQ(Read(com, &Ccom::kaVGetModulIdStatusList), ids);

  // Images: inputs of modules 1 and 3, outputs of 2 and 4, parameters 1 to 3 (Param0 is
  // "-"), diagnosis of the gateway and of modules 1 and 3.
  EXPECT_EQ(Read(com, &Ccom::kaVGetProcessInData), (Values{0x05, 0x0F, 0x00, 0xFF}));
  EXPECT_EQ(Read(com, &Ccom::kaVGetProcessOutData), (Values{0x81, 0xAA, 0x00}));
  EXPECT_EQ(Read(com, &Ccom::kaVGetParameterData), (Values{0x03, 0x00, 0x01, 0x80}));
  EXPECT_EQ(Read(com, &Ccom::kaVGetDiagData), (Values{0x00, 0x01, 0x02, 0x00}));

  // Identity texts, copied without a terminating zero.
  struct Text {
    uint32_t (Ccom::*method)(char*, int32_t*, int32_t*);
    std::string expected;
  };
  for (const Text& t : {Text{&Ccom::kaVGetGatewayIdSring, "FBG-300 field-bus gateway"},
                        Text{&Ccom::kaVGetGatewayBootFunctionIdString, "FBG boot loader"},
                        Text{&Ccom::kaVGetGatewayVersionString, "V2.19 build 0412"}}) {
    char text[201];
    memset(text, '#', sizeof text);
    int32_t size = 200;
    int32_t error = -1;
    EXPECT_EQ((com.*t.method)(text, &size, &error), 0u);
    EXPECT_EQ(error, 0);
    ASSERT_EQ(size, int32_t(t.expected.size()));
    EXPECT_EQ(std::string(text, size_t(size) + 1), t.expected + "#");
  }

  int32_t value = 0, error = -1;
  EXPECT_EQ(com.kaVGetGatewayVersion(&value, &error), 0u);
  EXPECT_EQ(value, 531);
  EXPECT_EQ(com.kaVGetGatewayBootVersion(&value, &error), 0u);
  EXPECT_EQ(value, 260);
  EXPECT_EQ(com.kaVGetStationAddress(&value, &error), 0u);
  EXPECT_EQ(value, 12);
  EXPECT_EQ(com.kaVGetGatewayId(&value, &error), 0u);
  EXPECT_EQ(value, 0x1234ABCD);
  EXPECT_EQ(error, 0);

  int32_t days = -1, hours = -1, minutes = -1, seconds = -1;
  EXPECT_EQ(com.kaVGetGatewayTime(&days, &hours, &minutes, &seconds, &error), 0u);
  EXPECT_EQ((Values{days, hours, minutes, seconds}), (Values{1, 1, 1, 1}));

  int32_t entries = 0;
  int32_t records[30];
  int32_t bufferSize = 30;
  std::fill(std::begin(records), std::end(records), -7);
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(entries, 3);
  EXPECT_EQ(Values(records, records + 22), (Values{7, 17, 0, 0, 0, 1, 0,        // 1000 ms
                                                   7, 34, 0, 0, 1, 5, 536,      // 65536 ms
                                                   7, 5, 1, 0, 0, 0, 0, -7}));  // one day

  // The operation mode reads back what was set.
  EXPECT_EQ(com.kaVGetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(value, 1);
  value = 2;
  EXPECT_EQ(com.kaVSetGatewayOperationMode(&value, &error), 0u);
  value = 0;
  EXPECT_EQ(com.kaVGetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(value, 2);

  // The writers change the file; the readers then give back the bytes written.
  int32_t outputs[] = {0x7E, 0x0F, 0xF0};
  int32_t count = 3;
  EXPECT_EQ(com.kaVSetProcessOutData(outputs, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(demo.Value("ProcessData", "Modo2"), "01111110");
  EXPECT_EQ(demo.Value("ProcessData", "Modo4"), "1111000000001111");
  EXPECT_EQ(Read(com, &Ccom::kaVGetProcessOutData), (Values{0x7E, 0x0F, 0xF0}));
  int32_t parameters[] = {0x01, 0x02, 0x34, 0x12};
  count = 4;
  EXPECT_EQ(com.kaVSetParameterData(parameters, &count, &error), 0u);
  EXPECT_EQ(demo.Value("ProcessData", "Param0"), "-");
  EXPECT_EQ(Read(com, &Ccom::kaVGetParameterData), (Values{0x01, 0x02, 0x34, 0x12}));

  // Mode 2 animates the inputs: digital module 1 walks a bit, analogue module 3 counts.
  platform::ProfileWriteString("ProcessData", "Mode", "2", demo.dir().File("kaVdmo.ini"));
  EXPECT_EQ(Read(com, &Ccom::kaVGetProcessInData), (Values{1, 1, 1, 1}));
  EXPECT_EQ(Read(com, &Ccom::kaVGetProcessInData), (Values{2, 2, 2, 2}));

  // Methods without a demonstration behaviour succeed and touch nothing; nothing is sent
  // (no link is open, so a request would have failed).
  using Plain = uint32_t (Ccom::*)(int32_t*);
  for (Plain method : {&Ccom::kaVExecHardwareReset, &Ccom::kaVGatewayFbiReset, &Ccom::kaVGatewayFbiStart,
                       &Ccom::kaVClearTRBuffer, &Ccom::kaVSrvMbResetMonitoring, &Ccom::kaVSrvMbStartMonitoring,
                       &Ccom::kaVSrvMbStopMonitoring}) {
    error = -1;
    EXPECT_EQ((com.*method)(&error), 0u);
    EXPECT_EQ(error, 0);
  }
  using Single = uint32_t (Ccom::*)(int32_t*, int32_t*);
  for (Single method : {&Ccom::kaVGetCurrentGwSwitches, &Ccom::kaVSetGatewayLeds, &Ccom::kaVSetStationAddress,
                        &Ccom::kaVSetModuleStreamDataPosition, &Ccom::kaVSrvDNetGetEEPDNetSerialNumber,
                        &Ccom::kaVGetPrivilegedChannel}) {
    int32_t single[2] = {-5, -6};
    error = -1;
    EXPECT_EQ((com.*method)(single, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(single[0], -5);
    EXPECT_EQ(single[1], -6);
  }
  using Array = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);
  for (Array method : {&Ccom::kaVGetModuleSWRev, &Ccom::kaVGetModuleTyp, &Ccom::kavGetBootFctsHwInfo,
                       &Ccom::kaVGetTRBuffer, &Ccom::kaVGetModuleStreamDataSizeList,
                       &Ccom::kaVSetModuleStreamSegmentData, &Ccom::kaVSrvGetFirstDataFrame,
                       &Ccom::kaVSrvGetNextDataFrame, &Ccom::kaVSrvDNetGetClassInstAttr,
                       &Ccom::kaVSrvDNetSetClassInstAttr}) {
    int32_t data[3] = {0x21, 0, 9};  // also a segmented write that would be refused live
    count = 3;
    error = -1;
    EXPECT_EQ((com.*method)(data, &count, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ((Values{data[0], data[1], data[2]}), (Values{0x21, 0, 9}));
  }
  for (auto method : {&Ccom::kaVSrvDNetGetEEPToolIdent, &Ccom::kavGetPrivilegedName}) {
    char text[4] = "abc";
    count = 4;
    error = -1;
    EXPECT_EQ((com.*method)(text, &count, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(count, 4);
    EXPECT_STREQ(text, "abc");
  }
  error = -1;
  EXPECT_EQ(com.kavEnterPrivilegedMode("host", &error), 0u);
  EXPECT_EQ(error, 0);

  // kaVDoService and the raw block methods: nothing sent, the error out-value not written.
  int32_t service = 0x107;
  uint8_t bytes[4] = {1, 2, 3, 4};
  int32_t sendSize = 4, receiveSize = 4;
  error = -1;
  EXPECT_EQ(com.kaVDoService(&service, bytes, &sendSize, &receiveSize, &error), 0u);
  EXPECT_EQ(service, 0x107);
  EXPECT_EQ(receiveSize, 4);
  EXPECT_EQ(error, -1);
  int32_t block[3] = {-1, -1, -1};
  count = 3;
  EXPECT_EQ(com.kaVTestBlockRead(block, &count, &error), 0u);
  EXPECT_EQ((Values{block[0], block[1], block[2]}), (Values{0, 0, 0}));  // no read set them
  EXPECT_EQ(com.kaVTestBlockWrite(block, &count, &error), 0u);
  EXPECT_EQ(error, -1);
}

TEST(DemoMethods, BitStringReaderPacksAcrossModulesAndKeepsOnlyWholeBytes) {
  struct Case {
    const char* what;
    std::string keys;
    Values expected;
  };
  const Case cases[] = {
      {"short string padded to eight", "Modi1=1\n", {1}},
      {"ninth bit of an incomplete byte dropped", "Modi1=000000001\n", {0}},
      {"four characters padded, next module on a fresh byte", "Modi1=1111\nModi2=11110000\n", {15, 15}},
      {"empty value reads as eight zeros", "Modi1=\nModi2=11111111\n", {0, 255}},
      {"twelve characters share their last byte with the next module",
       "Modi1=111111111111\nModi2=10000000\n",
       {0xFF, 0x1F}},
      {"missing and F-values skipped, '-' is a bit string here", "Modi2=Fxx\nModi3=-1111111\n", {0xFE}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    DemoDriver demo("[Station]\nModNum=3\n[ProcessData]\nMode=1\n" + c.keys);
    EXPECT_EQ(Read(demo.com(), &Ccom::kaVGetProcessInData), c.expected);
  }

  // Parameters count from 0 and stop before ModNum; "-" and missing values are skipped.
  // Diagnosis counts from 0 up to ModNum.
  DemoDriver demo(
      "[Station]\nModNum=2\n[ProcessData]\nParam0=-\nParam1=10000000\nParam2=11111111\n"
      "Diag0=01000000\nDiag1=-\nDiag2=00100000\nDiag3=11111111\n");
  EXPECT_EQ(Read(demo.com(), &Ccom::kaVGetParameterData), (Values{1}));
  EXPECT_EQ(Read(demo.com(), &Ccom::kaVGetDiagData), (Values{2, 4}));

  // A station whose strings add up to more than 200 bytes delivers the first 200.
  std::string big = "[Station]\nModNum=30\n[ProcessData]\nMode=1\n";
  for (int n = 1; n <= 30; ++n) big += "Modi" + std::to_string(n) + "=" + std::string(64, '1') + "\n";
  DemoDriver large(big);
  EXPECT_EQ(Read(large.com(), &Ccom::kaVGetProcessInData), Values(200, 0xFF));

  // A mode other than 1 or 2 gives an empty answer.
  DemoDriver other("[Station]\nModNum=1\n[ProcessData]\nMode=3\nModi1=11111111\n");
  EXPECT_TRUE(Read(other.com(), &Ccom::kaVGetProcessInData).empty());
}

TEST(DemoMethods, AnimatedInputsStepOncePerReadAndKeepTheModuleWidths) {
  DemoDriver demo("[Station]\nModNum=3\n[ProcessData]\nMode=2\nTyp1=A\nTyp2=D\nModi1=00000000\nModi2=x\n"
                  "Modi3=0000000000000000\n");  // module 3 has no type: its two bytes stay 0
  for (int call = 1; call <= 256; ++call) {
    const Values got = Read(demo.com(), &Ccom::kaVGetProcessInData);
    ASSERT_EQ(got.size(), 4u) << call;
    const int bit = call % 9 == 0 ? 0 : 1 << (call % 9 - 1);
    ASSERT_EQ(got, (Values{call % 256, bit, 0, 0})) << call;
  }

  // Eight modules of eight characters: one byte per module, as in mode 1.
  std::string eight = "[Station]\nModNum=8\n[ProcessData]\nMode=2\n";
  for (int n = 1; n <= 8; ++n) {
    eight += "Typ" + std::to_string(n) + (n % 2 ? "=A\n" : "=D\n");
    eight += "Modi" + std::to_string(n) + "=10101010\n";
  }
  DemoDriver octet(eight);
  EXPECT_EQ(Read(octet.com(), &Ccom::kaVGetProcessInData), (Values{1, 1, 1, 1, 1, 1, 1, 1}));
  platform::ProfileWriteString("ProcessData", "Mode", "1", octet.dir().File("kaVdmo.ini"));
  EXPECT_EQ(Read(octet.com(), &Ccom::kaVGetProcessInData).size(), 8u);
}

TEST(DemoMethods, BitStringWriterStartsEveryModuleOnAFreshByte) {
  DemoDriver demo("[Station]\nModNum=3\n[ProcessData]\nModo1=1010\nModo2=00000000\nModo3=\n"
                  "Param0=-\nParam1=0000\nParam2=111\nParam3=1111\n");
  Ccom& com = demo.com();
  int32_t data[] = {0x0F, 0x181, 0x55};  // only the low byte of a value counts
  int32_t count = 3;
  int32_t error = -1;
  EXPECT_EQ(com.kaVSetProcessOutData(data, &count, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(demo.Value("ProcessData", "Modo1"), "1111");
  EXPECT_EQ(demo.Value("ProcessData", "Modo2"), "10000001");
  EXPECT_EQ(demo.Value("ProcessData", "Modo3"), "");  // used the third byte, stays empty
  EXPECT_EQ(count, 3);
  EXPECT_EQ(data[1], 0x181);

  // Parameters: Param0 skipped, Param1 and Param2 take a byte each, Param3 (= ModNum) is
  // never written. Bytes the caller did not give leave their characters as they were.
  int32_t parameters[] = {0x0A};
  count = 1;
  EXPECT_EQ(com.kaVSetParameterData(parameters, &count, &error), 0u);
  EXPECT_EQ(demo.Value("ProcessData", "Param0"), "-");
  EXPECT_EQ(demo.Value("ProcessData", "Param1"), "0101");
  EXPECT_EQ(demo.Value("ProcessData", "Param2"), "111");
  EXPECT_EQ(demo.Value("ProcessData", "Param3"), "1111");
}

TEST(DemoMethods, ModuleListsReportAnIncompleteStation) {
  using List = uint32_t (Ccom::*)(int32_t*, int32_t*, int32_t*);
  for (List method : {&Ccom::kaVGetModuleList, &Ccom::kaVGetModulIdStatusList}) {
    {
      DemoDriver demo("[Station]\nModId1=010203\n", 1);
      test::TraceCapture trace;
      int32_t data[4] = {-1, -1, -1, -1};
      int32_t count = 4;
      int32_t error = -1;
      EXPECT_EQ((demo.com().*method)(data, &count, &error), 0u);
      EXPECT_EQ(uint32_t(error), rc::kDemoNoModNum);
      EXPECT_EQ(count, 4);
      EXPECT_EQ(data[0], -1);
      ASSERT_EQ(trace.Lines().size(), 1u);  // the entry trace only
      EXPECT_EQ(trace.Lines()[0].substr(trace.Lines()[0].size() - 3), "-->");
    }
    {
      // The second identifier is one digit short: the first one is delivered.
      DemoDriver demo("[Station]\nModNum=3\nModId1=01A2B3\nModId2=12345\nModId3=ABCDEF\n");
      int32_t data[4] = {-1, -1, -1, -1};
      int32_t count = 4;
      int32_t error = -1;
      EXPECT_EQ((demo.com().*method)(data, &count, &error), 0u);
      EXPECT_EQ(uint32_t(error), rc::kDemoBadModIdBase + 1);
      EXPECT_EQ(count, 1);
      EXPECT_EQ(data[0], 0x01A2B3);
      EXPECT_EQ(data[1], -1);
    }
    {
      // A missing identifier reads as "Fehler", six characters: 0xFE. The count on entry
      // limits the list.
      DemoDriver demo("[Station]\nModNum=3\nModId2=00beef\nModId3=ABCDEF\n");
      int32_t data[4] = {-1, -1, -1, -1};
      int32_t count = 2;
      int32_t error = -1;
      EXPECT_EQ((demo.com().*method)(data, &count, &error), 0u);
      EXPECT_EQ(error, 0);
      EXPECT_EQ(count, 2);
      EXPECT_EQ((Values{data[0], data[1], data[2]}), (Values{0xFE, 0x00BEEF, -1}));
    }
  }
}

TEST(DemoMethods, GatewayValuesFromAnIncompleteFile) {
  DemoDriver demo("[Station]\nGatewayId=1234ABC\nGWErrors=2\nError2=9\nErrdur2a=0\nErrdur2b=61001\n");
  Ccom& com = demo.com();

  // Identifier not exactly eight characters: 0x2000, value untouched, no exit trace.
  {
    DemoDriver traced("[Station]\nGatewayId=1234ABC\n", 1);
    test::TraceCapture trace;
    int32_t id = 77, error = -1;
    EXPECT_EQ(traced.com().kaVGetGatewayId(&id, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kDemoBadGatewayId);
    EXPECT_EQ(id, 77);
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"ComServer:kaVGetGatewayId-->"});
  }
  // Missing clock keys read as 255 each: 255 * 65536 + 255 ms.
  int32_t days = -1, hours = -1, minutes = -1, seconds = -1, error = -1;
  EXPECT_EQ(com.kaVGetGatewayTime(&days, &hours, &minutes, &seconds, &error), 0u);
  EXPECT_EQ((Values{days, hours, minutes, seconds}), (Values{0, 4, 38, 31}));

  int32_t value = 0;
  EXPECT_EQ(com.kaVGetStationAddress(&value, &error), 0u);
  EXPECT_EQ(value, 255);
  EXPECT_EQ(com.kaVGetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(value, 255);

  // A mode the demonstration gateway does not know is not written.
  value = 3;
  EXPECT_EQ(com.kaVSetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(demo.Value("Station", "GWOPMode"), "<missing>");
  value = 2;
  EXPECT_EQ(com.kaVSetGatewayOperationMode(&value, &error), 0u);
  EXPECT_EQ(demo.Value("Station", "GWOPMode"), "2");

  // A missing text reads as "Fehler", cut to the caller's size less one.
  char text[8];
  memset(text, '#', sizeof text);
  int32_t size = 4;
  EXPECT_EQ(com.kaVGetGatewayIdSring(text, &size, &error), 0u);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(std::string(text, 5), "Feh##");
  size = 0;
  EXPECT_EQ(com.kaVGetGatewayVersionString(text, &size, &error), 0u);
  EXPECT_EQ(size, 0);

  // Error list: the count as the file says; missing keys read as 255. Only records that fit
  // whole in the caller's buffer are written.
  int32_t entries = 0;
  int32_t records[21];
  std::fill(std::begin(records), std::end(records), -1);
  int32_t bufferSize = 14;
  EXPECT_EQ(com.kaVGetGatewayErrorList(&entries, records, &bufferSize, &error), 0u);
  EXPECT_EQ(entries, 2);
  const uint32_t missing = 255u * 65536u + 255u;  // 16711935 ms
  EXPECT_EQ(Values(records, records + 15),
            (Values{7, 255, 0, int32_t(missing / 3600000 % 24), int32_t(missing / 60000 % 60),
                    int32_t(missing / 1000 % 60), int32_t(missing % 1000), 7, 9, 0, 0, 1, 1, 1, -1}));
}

TEST(DemoMethods, TraceTextsNameEachMethod) {
  DemoDriver demo("[Station]\nModNum=0\nGatewayId=00000001\n", 1);
  Ccom& com = demo.com();
  test::TraceCapture trace;
  int32_t value = 0, error = 0, count = 0;
  int32_t data[4] = {1, 2, 3, 4};
  com.kaVGetGatewayVersion(&value, &error);
  com.kavGetBootFctsHwInfo(data, &count, &error);
  com.kaVSrvMbStartMonitoring(&error);
  com.kaVSetModuleStreamDataPosition(data, &error);
  com.kaVGetModuleList(data, &count, &error);
  com.kaVGetGatewayId(&value, &error);
  com.kavEnterPrivilegedMode("x", &error);
  com.kaVSrvDNetGetEEPToolIdent(reinterpret_cast<char*>(data), &count, &error);
  com.kaVGetStatistics(&value, &value, &value, &error);  // traces nothing
  com.kaVClrStatistics(&error);                          // traces nothing
  const std::vector<std::string> expected = {
      "ComServer:kavGetGatewayVersion-->",          "ComServer:kavGetGatewayVersion<--",
      "ComServer:kavGetBootFctsHwInfo-->",          "ComServer:kavGetBootFctsHwInfo<--",
      "ComServer:tamrikSrvMbStartMonitoring-->",    "ComServer:tamrikSrvMbStartMonitoring<--",
      "ComServer:DL: 2 kaVSetModuleStreamDataPosition-->", "ComServer:kaVSetModuleStreamDataPosition<--",
      "ComServer:kaVGetModuleList-->",              "ComServer:kaVGetModuleList<--",
      "ComServer:kaVGetGatewayId-->",               "ComServer:kaVGetGatewayId<--",
      "ComServer:kavEnterPrivilegedMode-->",        "ComServer:kavEnterPrivilegedMode<--",
      "ComServer:kaVSrvDNetGetEEPToolIdent-->",     "ComServer:kaVSrvDNetGetEEPToolIdent<--",
  };
  EXPECT_EQ(trace.Lines(), expected);
}

TEST(DemoMethods, NeitherModeSendsNothingAndReportsSuccess) {
  DemoDriver demo("[Station]\nModNum=1\n[ProcessData]\nMode=1\nModi1=11111111\n", 0, 2);
  int32_t data[2] = {-1, -1};
  int32_t count = 2;
  int32_t error = -1;
  EXPECT_EQ(demo.com().kaVGetProcessInData(data, &count, &error), 0u);
  EXPECT_EQ((Values{error, count, data[0]}), (Values{0, 2, -1}));
  int32_t service = 3;
  int32_t sizes[2] = {0, 1};
  error = -1;
  EXPECT_EQ(demo.com().kaVDoService(&service, reinterpret_cast<uint8_t*>(data), &sizes[0], &sizes[1], &error), 0u);
  EXPECT_EQ((Values{error, service, sizes[1]}), (Values{0, 3, 1}));
}

}  // namespace
}  // namespace tamrik
