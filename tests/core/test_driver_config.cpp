// The driver object's configuration, its method frame and the methods of no group.
#include <gtest/gtest.h>

#include <cstring>

#include "ResultCodes.h"
#include "com.h"
#include "common/TestPeers.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using test::InitSection;
using test::TempDir;

TEST(DriverConfiguration, CompleteSectionIsReadAndLeftUntouched) {
  TempDir dir;
  const std::string content = "; kept\r\n" + InitSection(0, 0, 7, 38400, 650) + "[Other]\r\nx=1\r\n";
  dir.Write("kaVcnf.ini", content);
  Ccom com(dir.path());
  EXPECT_EQ(dir.Read("kaVcnf.ini"), content);
  EXPECT_EQ(CcomTestPeer::ComPortNumber(com), 7);
  EXPECT_EQ(CcomTestPeer::Baudrate(com), 38400);
  EXPECT_EQ(CcomTestPeer::Demo(com), 0);
  EXPECT_EQ(CcomTestPeer::Log(com), 0);
  EXPECT_EQ(CcomTestPeer::Port(com).Timings().readTotalConstant, 650u);
  EXPECT_EQ(CcomTestPeer::Port(com).Timings().readTotalConstantFW, 3000u);
  EXPECT_EQ(CcomTestPeer::ConfigFile(com), dir.File("kaVcnf.ini"));
  EXPECT_EQ(CcomTestPeer::BootFile(com), dir.File("kaVBoot.ini"));
  EXPECT_TRUE(CcomTestPeer::DemoFile(com).empty());
}

TEST(DriverConfiguration, IncompleteSectionIsRewrittenWithAllEightDefaults) {
  struct Case {
    const char* what;
    std::string content;
  };
  const Case cases[] = {
      {"ReadTotalConstantFW missing",
       "[Init]\nVersion=1\nLogfile=1\nComPort=4\nBaudrate=19200\nReadInterval=100\n"
       "ReadTotalMultiplier=2\nReadTotalConstant=700\n"},
      {"ReadTotalConstant = 255", InitSection(1, 1, 4, 19200, 255)},
      {"no file at all", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    if (!c.content.empty()) dir.Write("kaVcnf.ini", c.content);
    Ccom com(dir.path());
    // The file said demonstration mode, but the default set switches it off.
    EXPECT_EQ(CcomTestPeer::Demo(com), 0);
    EXPECT_EQ(CcomTestPeer::Log(com), 1);
    EXPECT_EQ(CcomTestPeer::Baudrate(com), 9600);
    EXPECT_EQ(CcomTestPeer::Port(com).Timings().readInterval, 200u);
    EXPECT_EQ(CcomTestPeer::Port(com).Timings().readTotalMultiplier, 0u);
    EXPECT_EQ(CcomTestPeer::Port(com).Timings().readTotalConstant, 500u);
    EXPECT_EQ(CcomTestPeer::Port(com).Timings().readTotalConstantFW, 3000u);
    const std::string file = dir.File("kaVcnf.ini");
    const char* keys[][2] = {{"Version", "0"},           {"ReadInterval", "200"}, {"ReadTotalMultiplier", "0"},
                             {"ReadTotalConstant", "500"}, {"ReadTotalConstantFW", "3000"}, {"Logfile", "0"},
                             {"ComPort", "1"},           {"Baudrate", "9600"}};
    for (const auto& key : keys) {
      char value[32] = {};
      platform::ProfileGetString("Init", key[0], "missing", value, sizeof value, file);
      EXPECT_STREQ(value, key[1]) << key[0];
    }
  }
}

TEST(DriverConfiguration, TraceSwitchOfThePortKeepsTheFileValue) {
  // A rewrite sets the methods' switch but the port's switch stays as read, so nothing is
  // written to the debug output unless the file asked for it.
  TempDir dir;
  test::TraceCapture trace;
  {
    Ccom com(dir.path());
    EXPECT_EQ(CcomTestPeer::Log(com), 1);
    EXPECT_FALSE(CcomTestPeer::Port(com).Tracing());
    int32_t error = -1;
    com.kaVCloseComPort(1, &error);
    EXPECT_EQ(uint32_t(error), rc::kNothingOpen);
  }
  EXPECT_TRUE(trace.Lines().empty());

  dir.Write("kaVcnf.ini", InitSection(0, 1));
  Ccom traced(dir.path());
  int32_t error = -1;
  traced.kaVCloseComPort(3, &error);
  const std::vector<std::string> expected = {"ComServer:kaVCloseComPort 3<--",
                                             "ComServer:kaVCloseComPort<--ComPort 0x10015"};
  EXPECT_EQ(trace.Lines(), expected);
}

TEST(DriverConfiguration, PrivilegedBitsComeFromTheConfigurationWhenTheyFormAPermutation) {
  TempDir dir;
  std::string reversed;
  for (int i = 31; i >= 0; --i) reversed += std::to_string(i) + (i ? ", " : "");
  const struct {
    std::string value;
    bool used;
  } cases[] = {{reversed, true},
               {"0,1,2", false},
               {reversed + ",5", false},
               {"1,1" + reversed.substr(reversed.find(',', 3)), false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    dir.Write("kaVcnf.ini", InitSection(0, 0) + "[Privileged]\nBits=" + c.value + "\n");
    Ccom com(dir.path());
    for (int i = 0; i < 32; ++i) EXPECT_EQ(CcomTestPeer::PrivilegedBits(com)[i], c.used ? 31 - i : i) << i;
  }
}

TEST(DriverMethods, VersionControllAndErrorInfoSupport) {
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  Ccom com(dir.path());

  char version[16];
  memset(version, '#', sizeof version);
  int32_t size = 0;
  int32_t error = 12345;
  EXPECT_EQ(com.kaVGetVersion(version, &size, &error), 0u);
  EXPECT_EQ(std::string(version, 12), "1.0 B2.1.38#");
  EXPECT_EQ(size, 11);
  EXPECT_EQ(error, 12345);  // not written

  int32_t demo = 77, log = 88;
  error = 99;
  EXPECT_EQ(com.kaVControll(&demo, &log, &error), 0u);
  EXPECT_EQ(demo, 77);
  EXPECT_EQ(log, 88);
  EXPECT_EQ(error, 99);

  EXPECT_EQ(com.InterfaceSupportsErrorInfo(kIidIcom), kSOk);
  Guid other = kIidIcom;
  other.data4[7] ^= 1;
  EXPECT_EQ(com.InterfaceSupportsErrorInfo(other), kSFalse);
}

TEST(DriverMethods, DemonstrationSwitchSelectsThePath) {
  TempDir dir;
  dir.Write("kaVdmo.ini", "[Station]\nGWVersion=513\n");

  dir.Write("kaVcnf.ini", InitSection(1, 0));
  {
    Ccom com(dir.path());
    EXPECT_EQ(CcomTestPeer::DemoFile(com), dir.File("kaVdmo.ini"));
    int32_t version = 0, error = -1;
    EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(version, 513);
  }
  // Neither demonstration nor live: nothing is sent or read, and the call reports success.
  dir.Write("kaVcnf.ini", InitSection(2, 0));
  {
    Ccom com(dir.path());
    int32_t version = 42, error = -1;
    EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(version, 42);
  }
  // Live with no link: the request cannot be written.
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  {
    Ccom com(dir.path());
    int32_t version = 42, error = -1;
    EXPECT_EQ(com.kaVGetGatewayVersion(&version, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kWriteFailed);
  }
}

TEST(DriverMethods, ConnectionSettingsPersistAndBadRatesShowAtTheOpen) {
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  {
    Ccom com(dir.path());
    int32_t error = -1;
    EXPECT_EQ(com.kaVSetBaudrate(14400, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(platform::ProfileGetInt("Init", "Baudrate", 0, CcomTestPeer::ConfigFile(com)), 14400u);

    // The rate is refused at the open, and port and rate are written all the same.
    EXPECT_EQ(com.kaVOpenComPort(3, &error), rc::kComBadBaudrate);
    EXPECT_EQ(uint32_t(error), rc::kComBadBaudrate);
    EXPECT_EQ(platform::ProfileGetInt("Init", "ComPort", 0, CcomTestPeer::ConfigFile(com)), 3u);
    EXPECT_EQ(com.kaVCloseComPort(3, &error), 0u);
    EXPECT_EQ(uint32_t(error), rc::kNothingOpen);
  }
  // A new object starts with what the last one used.
  Ccom next(dir.path());
  EXPECT_EQ(CcomTestPeer::ComPortNumber(next), 3);
  EXPECT_EQ(CcomTestPeer::Baudrate(next), 14400);
}

}  // namespace
}  // namespace tamrik
