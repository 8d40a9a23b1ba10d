// The service's file is checked whole before anything starts: each mistake is named with the
// file and line it is on, and the program ends with status 2.
#include <gtest/gtest.h>

#include <cstdlib>

#include "Config.h"
#include "ServeSupport.h"

namespace tamrik::test {
namespace {

const char* kGateway = "[[gateway]]\nname = \"press1\"\ntcp = \"127.0.0.1:5000\"\n";

TEST(ServeConfig, MalformedFilesAreRefusedWithFileAndLine) {
  struct Case {
    std::string text;
    int line;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {std::string(kGateway) + "inptus = 100\n", 4, "unknown key 'inptus' in [[gateway]]"},
      {"[[gateway]]\nname = \"a\"\ntcp = \"127.0.0.1\"\n", 3, "gateway tcp must be \"host:port\""},
      {"[[gateway]]\nname = \"a\"\ntcp = \"127.0.0.1:1\"\nudp = \"127.0.0.1:2\"\n", 1, "exactly one of tcp, udp and serial"},
      {std::string(kGateway) + "inputs = -5\n", 4, "inputs must be from 0 (off)"},
      {std::string(kGateway) + "clock = \"fast\"\n", 4, "clock must be an interval in ms, or false"},
      {"[[gateway]]\nname = \"bad name\"\ntcp = \"127.0.0.1:1\"\n", 2, "letters, digits"},
      {std::string(kGateway) + "\n[[gateway]]\nname = \"press1\"\ntcp = \"127.0.0.1:5001\"\n", 5, "is taken by the gateway of line 1"},
      {std::string(kGateway) + "\n[[gateway]]\nname = \"press2\"\ntcp = \"127.0.0.1:5000\"\n", 5, "is the link of 'press1'"},
      {"[mqtt]\nhost = \"127.0.0.1\"\nqos = 3\n", 3, "[mqtt] qos must be from 0 to 2"},
      {"[mqtt]\nprefix = \"plant/#\"\n", 2, "without wildcards"},
      {"[http]\nlisten = \"0.0.0.0:8080\"\n", 1, "set [http] token"},
      {"[http]\nlisten = 8080\n", 2, "[http] listen must be a string"},
      {"[[gateway]]\nname = \"a\"\nserial = \"/dev/ttyUSB0\"\nbaudrate = 1234\n", 4, "baudrate must be 9600"},
      {"plant = 1\n", 1, "unknown table or key 'plant'"},
      {"[http\nlisten = \"127.0.0.1:1\"\n", 1, ""},
  };
  TempDir dir;
  for (size_t i = 0; i < cases.size(); ++i) {
    const std::string file = dir.File("plant" + std::to_string(i) + ".toml");
    dir.Write("plant" + std::to_string(i) + ".toml", cases[i].text);
    const Finished run = RunServe({"--config", file});
    EXPECT_EQ(run.status, 2) << cases[i].text;
    const std::string where = file + ":" + std::to_string(cases[i].line) + ": ";
    EXPECT_EQ(run.err.find(where), run.err.find(file)) << "case " << i << ": " << run.err;
    EXPECT_NE(run.err.find(cases[i].reason, run.err.find(where)), std::string::npos) << "case " << i << ": " << run.err;
  }
  const Finished missing = RunServe({"--config", dir.File("none.toml")});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("none.toml:0: cannot be read"), std::string::npos) << missing.err;
}

TEST(ServeConfig, EveryKeyIsReadAndDefaultsFillTheRest) {
  setenv("TAMRIK_MQTT_USER", "plant-user", 1);
  setenv("TAMRIK_MQTT_PASSWORD", "plant-secret", 1);
  const serve::Config config = serve::ParseConfig(
      "[mqtt]\nhost = \"broker.local\"\nport = 1884\nclient_id = \"hall-3\"\nprefix = \"site/hall3\"\nqos = 2\n"
      "republish = 0\ncafile = \"/etc/ca.pem\"\n"
      "[http]\nlisten = \"127.0.0.1:0\"\ntoken = \"t\"\n"
      "[[gateway]]\nname = \"press1\"\ntcp = \"127.0.0.1:5000\"\ninputs = 100\noutputs = 1000\ndiagnosis = false\n"
      "errors = 5000\nclock = 0\ntimeout = 300\nwritable = true\n"
      "[[gateway]]\nname = \"line-2\"\nserial = \"/dev/ttyUSB0\"\nbaudrate = 115200\n"
      "[[gateway]]\nname = \"far_3\"\nudp = \"10.0.0.7:5020\"\n",
      "plant.toml");
  unsetenv("TAMRIK_MQTT_USER");
  unsetenv("TAMRIK_MQTT_PASSWORD");
  EXPECT_TRUE(config.mqtt.enabled);
  EXPECT_EQ(config.mqtt.host, "broker.local");
  EXPECT_EQ(config.mqtt.port, 1884);
  EXPECT_EQ(config.mqtt.clientId, "hall-3");
  EXPECT_EQ(config.mqtt.prefix, "site/hall3");
  EXPECT_EQ(config.mqtt.qos, 2);
  EXPECT_EQ(config.mqtt.republishS, 0u);
  EXPECT_EQ(config.mqtt.cafile, "/etc/ca.pem");
  EXPECT_EQ(config.mqtt.user, "plant-user");
  EXPECT_EQ(config.mqtt.password, "plant-secret");
  EXPECT_EQ(config.http.port, 0);
  ASSERT_EQ(config.gateways.size(), 3u);
  const serve::GatewayConfig& press = config.gateways[0];
  EXPECT_EQ(press.LinkText(), "tcp 127.0.0.1:5000");
  EXPECT_EQ(press.diagnosisMs, 0u);
  EXPECT_EQ(press.clockMs, 0u);
  EXPECT_EQ(press.timeoutMs, 300);
  EXPECT_TRUE(press.writable);
  EXPECT_EQ(config.gateways[1].LinkText(), "serial /dev/ttyUSB0 115200");
  EXPECT_EQ(config.gateways[2].LinkText(), "udp 10.0.0.7:5020");
  // What was not given: the defaults, read-only.
  EXPECT_EQ(config.gateways[2].inputsMs, 100u);
  EXPECT_EQ(config.gateways[2].errorsMs, 5000u);
  EXPECT_FALSE(config.gateways[2].writable);

  const serve::Config bare = serve::ParseConfig(kGateway, "bare.toml");
  EXPECT_FALSE(bare.mqtt.enabled);
  EXPECT_EQ(bare.http.address, "127.0.0.1");
  EXPECT_EQ(bare.http.port, 8080);
}

TEST(ServeConfig, OptionsAreCheckedLikeTheFile) {
  EXPECT_EQ(RunServe({}).status, 2);
  const Finished both = RunServe({"--sim", "1", "--config", "plant.toml"});
  EXPECT_EQ(both.status, 2);
  EXPECT_NE(both.err.find("one of --config FILE and --sim N"), std::string::npos) << both.err;
  const Finished http = RunServe({"--sim", "1", "--http", "localhost"});
  EXPECT_EQ(http.status, 2);
  EXPECT_NE(http.err.find("--http must be ADDRESS:PORT"), std::string::npos) << http.err;
  const Finished mqtt = RunServe({"--sim", "1", "--mqtt", "broker:99999"});
  EXPECT_EQ(mqtt.status, 2);
  EXPECT_NE(mqtt.err.find("--mqtt must be HOST:PORT"), std::string::npos) << mqtt.err;
  // Beyond loopback without a token the service refuses to start, listening nowhere.
  const Finished open = RunServe({"--sim", "1", "--http", "0.0.0.0:0"});
  EXPECT_EQ(open.status, 2);
  EXPECT_NE(open.err.find("set [http] token"), std::string::npos) << open.err;
}

}  // namespace
}  // namespace tamrik::test
