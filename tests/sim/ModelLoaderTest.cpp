#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "SimEngine.h"
#include "SimStation.h"
#include "SimTestSupport.h"

namespace tamrik::sim::test {
namespace {

constexpr const char* kModel = R"(# a station of two modules
identity = PLANT-7 GATEWAY
Version = 0x0203
boot_version = 17
version_string = "  padded  "
gateway_id = 0xCAFEBABE
station_address = 12
operation_mode = 2
switches = 0x00F0
boot_hw_info = 1, 0x0203
gateway_diagnosis = 0a ff
tr_buffer = 01 02
animate_inputs = no
clock = 86400000
privileged_table = 1 0 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31
privileged_refusal = 0xC000
unknown_service = 0x8000 7
error = 0x05 10000 AA BB
error = 3 1000
attribute = 01 02 03 : 41
monitor_frame = AA 03 00 00 00 29 B3

[module]
id = 0x00A123
type = A
inputs = 2
input_data = 10 20 30
outputs = 1
parameters = 2
status = 0x80

; the second module names its diagnosis bytes
[module]
id = 0x001234
type = d
diagnosis_data = 01 02 03
parameter_data = 7F
)";

TEST(SimModelLoader, ReadsEveryKindOfValue) {
  std::string error;
  const auto s = ParseStation(kModel, &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->identity, "PLANT-7 GATEWAY");
  EXPECT_EQ(s->version, 0x0203);
  EXPECT_EQ(s->bootVersion, 17);
  EXPECT_EQ(s->versionString, "  padded  ");
  EXPECT_EQ(s->gatewayId, 0xCAFEBABEu);
  EXPECT_EQ(s->stationAddress, 12);
  EXPECT_EQ(s->operationMode, 2);
  EXPECT_EQ(s->switches, 0x00F0);
  EXPECT_EQ(s->bootHwInfo, (std::vector<uint16_t>{1, 0x0203}));
  EXPECT_EQ(ToHex(s->gatewayDiagnosis), "0A FF");
  EXPECT_EQ(ToHex(s->trBuffer), "01 02");
  EXPECT_FALSE(s->animateInputs);
  EXPECT_EQ(s->fixedClockMs, 86400000u);
  EXPECT_EQ(s->privilegedTable[0], 1);
  EXPECT_EQ(s->privilegedTable[1], 0);
  EXPECT_EQ(s->privilegedRefusalBase, 0xC000);
  ASSERT_TRUE(s->unknownService);
  EXPECT_EQ(s->unknownService->base, 0x8000);
  EXPECT_EQ(s->unknownService->data, 7);
  // Repeated keys replace the defaults and then add up.
  ASSERT_EQ(s->errors.size(), 2u);
  EXPECT_EQ(s->errors[0].code, 5);
  EXPECT_EQ(s->errors[0].durationMs, 10000u);
  EXPECT_EQ(ToHex(s->errors[0].extra), "AA BB");
  EXPECT_EQ(s->errors[1].code, 3);
  ASSERT_EQ(s->attributes.size(), 1u);
  EXPECT_EQ(ToHex(s->attributes.at({1, 2, 3})), "41");
  ASSERT_EQ(s->monitorFrames.size(), 1u);

  ASSERT_EQ(s->modules.size(), 2u);
  const Module& a = s->modules[0];
  EXPECT_EQ(a.id, 0x00A123u);
  EXPECT_EQ(a.type, 'A');
  EXPECT_EQ(ToHex(a.inputs), "10 20 30");  // the later key wins
  EXPECT_EQ(a.outputs.size(), 1u);
  EXPECT_EQ(a.parameters.size(), 2u);
  EXPECT_EQ(a.diagnosis.size(), 12u);  // from the identifier: bits 12..15 = 10
  EXPECT_EQ(a.status, 0x80);
  const Module& d = s->modules[1];
  EXPECT_EQ(d.type, 'D');
  EXPECT_EQ(ToHex(d.diagnosis), "01 02 03");
  EXPECT_EQ(ToHex(d.parameters), "7F");

  // The engine answers from what was read.
  ServiceEngine e(*s);
  EXPECT_EQ(ToHex(e.Respond(257, {})->data), "03 02");
  EXPECT_EQ(ToHex(e.Respond(3, {})->data), "10 20 30");
  EXPECT_EQ(ToHex(e.Respond(1, {})->data), "80 23 A1 00 01 34 12 00");
  EXPECT_EQ(e.Respond(9, {})->code, 0x8009);
}

TEST(SimModelLoader, RejectsMistakesNamingTheLine) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"identity = x\nidentiti = y\n", "line 2: unknown gateway key 'identiti'"},
      {"version = 0x10000\n", "line 1: number too large: '0x10000'"},
      {"gateway_id = 12ab\n", "line 1: not a number: '12ab'"},
      {"tr_buffer = 01 123\n", "line 1: not a hexadecimal byte: '123'"},
      {"privileged_table = 0 0 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31\n",
       "line 1: privileged_table is not a permutation of 0..31"},
      {"privileged_table = 0 1 2\n", "line 1: privileged_table needs 32 numbers"},
      {"[module]\nid = 1\ntype = X\n", "line 3: type must be D or A"},
      {"[module]\ninputs = 2\n", "a [module] has no id"},
      {"[modules]\n", "line 1: unknown section [modules]"},
      {"animate_inputs = maybe\n", "line 1: expected yes or no: 'maybe'"},
      {"privileged_refusal = 0x4000\n", "line 1: refusal base must be 0x8000 or 0xC000"},
      {"just text\n", "line 1: expected key = value"},
      {"attribute_key_length = 2\nattribute = 01 02 03 : 00\n",
       "an attribute key is not attribute_key_length bytes long"},
  };
  for (const auto& [text, message] : bad) {
    std::string error;
    EXPECT_FALSE(ParseStation(text, &error)) << text;
    EXPECT_EQ(error, message) << text;
  }
  // A shorter key length alone drops the default attribute instead of failing.
  const auto shortKeys = ParseStation("attribute_key_length = 2\n");
  ASSERT_TRUE(shortKeys);
  EXPECT_TRUE(shortKeys->attributes.empty());
}

TEST(SimModelLoader, LoadsFilesAndKeepsDefaultsForWhatIsMissing) {
  const std::string path = TempPath("tamrik_sim_model.ini");
  {
    std::ofstream f(path);
    f << "; only the identity\r\nidentity = FROM FILE\r\nunknown_service = silence\r\n";
  }
  std::string error;
  const auto s = LoadStationFile(path, &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->identity, "FROM FILE");
  EXPECT_FALSE(s->unknownService);
  const Station defaults = DefaultStation();
  EXPECT_EQ(s->version, defaults.version);
  EXPECT_EQ(s->modules.size(), defaults.modules.size());
  EXPECT_EQ(s->errors.size(), defaults.errors.size());
  std::remove(path.c_str());

  EXPECT_FALSE(LoadStationFile(path, &error));
  EXPECT_EQ(error, "cannot open " + path);
}

}  // namespace
}  // namespace tamrik::sim::test
