// Driver objects configured without files, where their profile files go otherwise, the
// socket answer bound as a setting, connections that are refused, and the counters.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/Loopback.h"
#include "ReliabilitySupport.h"
#include "SimFrame.h"
#include "Simulator.h"
#include "tamrik.h"

namespace tamrik {
namespace {

tamrik_config Defaults() {
  tamrik_config config;
  tamrik_config_defaults(&config);
  return config;
}

TEST(CInterfaceConfig, ObjectsMadeFromAStructureTakeEverySettingAndWriteNoFile) {
  // Defaults as the configuration file's default set has them.
  const tamrik_config d = Defaults();
  EXPECT_EQ(d.struct_size, sizeof(tamrik_config));
  EXPECT_EQ(d.version, 0);
  EXPECT_EQ(d.baudrate, 9600);
  EXPECT_EQ(d.read_total_constant_ms, 500);
  EXPECT_EQ(d.read_total_constant_fw_ms, 3000);
  EXPECT_EQ(d.socket_answer_ms, 110);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(d.privileged_bits[i], i);

  // Malformed structures make no object.
  tamrik_config bad = Defaults();
  bad.struct_size = 8;
  EXPECT_EQ(tamrik_create_with(&bad), nullptr);
  bad = Defaults();
  bad.privileged_bits[3] = 2;  // 2 twice, 3 never
  EXPECT_EQ(tamrik_create_with(&bad), nullptr);
  bad = Defaults();
  bad.read_total_constant_ms = -1;
  EXPECT_EQ(tamrik_create_with(&bad), nullptr);
  const tamrik_port noDevice{3, ""};
  bad = Defaults();
  bad.ports = &noDevice;
  bad.port_count = 1;
  EXPECT_EQ(tamrik_create_with(&bad), nullptr);
  EXPECT_EQ(tamrik_create_with(nullptr), nullptr);

  // The port map opens the device it names; the object writes nothing anywhere.
  sim::Simulator sim;
  const std::string pty = sim.StartPty();
  const std::string cwdBefore = std::filesystem::current_path();
  tamrik_config config = Defaults();
  const tamrik_port map[] = {{9, pty.c_str()}};
  config.ports = map;
  config.port_count = 1;
  config.baudrate = 57600;
  tamrik_com* com = tamrik_create_with(&config);
  ASSERT_NE(com, nullptr);
  int32_t error = -1;
  EXPECT_EQ(tamrik_kaVOpenComPort(com, 9, &error), 0u);
  EXPECT_EQ(error, 0);
  int32_t version = 0;
  EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_NE(version, 0);
  // Written back to a file when there is one; here there is none.
  EXPECT_EQ(tamrik_kaVSetBaudrate(com, 19200, &error), 0u);
  tamrik_release(com);
  EXPECT_FALSE(std::filesystem::exists("kaVcnf.ini"));
  EXPECT_EQ(std::filesystem::current_path(), cwdBefore);

  // Demonstration mode reads the station from the file named, and respects capacities too.
  test::TempDir dir;
  dir.Write("station.ini", "[Station]\nModNum=3\nModId1=0x1001\nModId2=0x1002\nModId3=0x1003\nGWIdString=GATEWAY-ONE\n"
                           "[ProcessData]\nMode=1\nModi1=10000000\nModi2=01000000\nModi3=00100000\n");
  const std::string station = dir.File("station.ini");
  config = Defaults();
  config.version = 1;
  config.demo_file = station.c_str();
  com = tamrik_create_with(&config);
  ASSERT_NE(com, nullptr);
  int32_t values[4] = {}, count = 2;
  EXPECT_EQ(tamrik_kaVGetProcessInData(com, values, &count, &error), 0x10050u);
  EXPECT_EQ(uint32_t(error), 0x10053u);
  EXPECT_EQ(count, 3);
  count = 4;
  EXPECT_EQ(tamrik_kaVGetProcessInData(com, values, &count, &error), 0u);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(values[1], 2);
  count = 2;
  EXPECT_EQ(tamrik_kaVGetModuleList(com, values, &count, &error), 0x10050u);
  EXPECT_EQ(uint32_t(error), 0x10053u);
  EXPECT_EQ(count, 3);
  char text[11];
  count = int32_t(sizeof text) - 1;
  EXPECT_EQ(tamrik_kaVGetGatewayIdSring(com, text, &count, &error), 0x10050u);
  EXPECT_EQ(count, 11);
  count = int32_t(sizeof text);
  EXPECT_EQ(tamrik_kaVGetGatewayIdSring(com, text, &count, &error), 0u);
  EXPECT_EQ(std::string(text, size_t(count)), "GATEWAY-ONE");
  tamrik_release(com);
  EXPECT_EQ(dir.Read("station.ini").find("Init"), std::string::npos);
}

TEST(CInterfaceConfig, ProfileDirectoriesThatDoNotExistMakeNoObject) {
  test::TempDir dir;
  EXPECT_EQ(tamrik_create_in((dir.path() + "/missing").c_str()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/missing"));
  tamrik_com* com = tamrik_create_in(dir.path().c_str());
  ASSERT_NE(com, nullptr);
  tamrik_release(com);
  EXPECT_TRUE(std::filesystem::exists(dir.File("kaVcnf.ini")));
}

TEST(CInterfaceConfig, TheSocketAnswerBoundIsASetting) {
  for (const bool datagram : {false, true}) {
    SCOPED_TRACE(datagram ? "UDP" : "TCP");
    sim::Simulator sim;
    const std::string port = std::to_string(datagram ? sim.StartUdp() : sim.StartTcp()) + (datagram ? ",UDP" : "");
    // The gateway takes 300 ms for every answer.
    sim.SetAnswerDelay(300);
    for (const int32_t bound : {110, 1000}) {
      tamrik_config config = Defaults();
      config.socket_answer_ms = bound;
      tamrik_com* com = tamrik_create_with(&config);
      ASSERT_NE(com, nullptr);
      int32_t error = -1, version = 0;
      ASSERT_EQ(tamrik_kaVOpenEthernet(com, port.c_str(), "127.0.0.1", &error), 0u);
      ASSERT_EQ(error, 0);
      const uint32_t status = tamrik_kaVGetGatewayVersion(com, &version, &error);
      if (bound == 1000) {
        EXPECT_EQ(status, 0u);
        EXPECT_EQ(error, 0);
      } else {
        EXPECT_EQ(status, 0x10050u);
        EXPECT_NE(error, 0);
      }
      tamrik_release(com);
    }
  }

  // The same bound from the configuration file's section Init.
  sim::Simulator sim;
  sim.SetAnswerDelay(300);
  const std::string port = std::to_string(sim.StartTcp());
  test::TempDir dir;
  dir.Write("kaVcnf.ini", test::InitSection(0, 0) + "SocketAnswerTimeout=1000\r\n");
  tamrik_com* com = tamrik_create_in(dir.path().c_str());
  ASSERT_NE(com, nullptr);
  int32_t error = -1, version = 0;
  ASSERT_EQ(tamrik_kaVOpenEthernet(com, port.c_str(), "127.0.0.1", &error), 0u);
  EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0u);
  EXPECT_EQ(error, 0);
  tamrik_release(com);
}

TEST(CInterfaceConfig, ARefusedConnectionIsReportedByTheOpen) {
  tamrik_config config = Defaults();
  tamrik_com* com = tamrik_create_with(&config);
  ASSERT_NE(com, nullptr);
  int32_t error = -1;
  EXPECT_EQ(tamrik_kaVOpenEthernet(com, std::to_string(test::ClosedLoopbackPort()).c_str(), "127.0.0.1", &error), 4010061u);
  EXPECT_EQ(error, 4000000 + 10061);
  EXPECT_STREQ(tamrik_result_name(uint32_t(error)), "ConnectFailed");
  int32_t closeError = -1;
  EXPECT_EQ(tamrik_kaVCloseComPort(com, 0, &closeError), 0u);
  tamrik_release(com);
}

TEST(CInterfaceConfig, ResultNamesAndTextsAreStaticAndCoverUnknownCodes) {
  EXPECT_STREQ(tamrik_result_name(0), "Ok");
  EXPECT_STREQ(tamrik_result_name(0x10053), "AnswerTooLong");
  EXPECT_STREQ(tamrik_result_name(0x10040), "BadCheckValue");
  EXPECT_STREQ(tamrik_result_name(0x20000 + 0x8003), "Refused");
  EXPECT_STREQ(tamrik_result_name(0x30000 + 0x07), "RefusedWithByte");
  EXPECT_STREQ(tamrik_result_name(0x12345678), "Unknown");
  EXPECT_NE(std::string(tamrik_result_text(0x12345678)).find("no result code"), std::string::npos);
  // The same pointer every time: nothing is allocated for the caller to free.
  EXPECT_EQ(tamrik_result_text(0x10053), tamrik_result_text(0x10053));
}

TEST(CInterfaceConfig, CountersFollowExchangesFailuresAndDroppedFrames) {
  sim::Simulator sim;
  const std::string port = std::to_string(sim.StartTcp());
  tamrik_config config = Defaults();
  tamrik_com* com = tamrik_create_with(&config);
  ASSERT_NE(com, nullptr);
  tamrik_stats stats{};
  stats.struct_size = 4;
  EXPECT_EQ(tamrik_get_stats(com, &stats), 0x10060u);
  stats.struct_size = sizeof stats;
  ASSERT_EQ(tamrik_get_stats(com, &stats), 0u);
  EXPECT_EQ(stats.exchanges, 0u);
  EXPECT_EQ(stats.last_answer_unix_ms, 0);

  int32_t error = -1, version = 0;
  ASSERT_EQ(tamrik_kaVOpenEthernet(com, port.c_str(), "127.0.0.1", &error), 0u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0u);
  sim.FaultNextAnswer(sim::AnswerFault().Corrupt());
  EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0x10050u);
  // A frame of another request ahead of the answer is dropped.
  std::vector<uint8_t> frames = sim::BuildFrame(0x4103, std::vector<uint8_t>{});
  const std::vector<uint8_t> answer = sim::BuildFrame(0x4101, std::vector<uint8_t>{0x01, 0x02});
  frames.insert(frames.end(), answer.begin(), answer.end());
  sim.QueueRawAnswer(frames);
  EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0u);

  ASSERT_EQ(tamrik_get_stats(com, &stats), 0u);
  EXPECT_EQ(stats.exchanges, 5u);
  EXPECT_EQ(stats.answers, 4u);  // the damaged frame is no answer
  EXPECT_EQ(stats.failures, 1u);
  ASSERT_EQ(stats.failure_code_count, 1u);
  EXPECT_EQ(stats.failure_codes[0], 0x10040u);
  EXPECT_EQ(stats.failure_counts[0], 1u);
  EXPECT_EQ(stats.dropped_frames, 1u);
  EXPECT_EQ(stats.bytes_out, 5u * 7u);
  EXPECT_GT(stats.bytes_in, 4u * 9u);
  EXPECT_GT(stats.last_answer_unix_ms, 1'700'000'000'000);
  tamrik_release(com);
}

}  // namespace
}  // namespace tamrik
