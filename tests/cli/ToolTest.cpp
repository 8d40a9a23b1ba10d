// The tamrik tool end to end: each command as a subprocess against the simulated gateway
// it starts itself, its text and JSON output and its exit status.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "SimStation.h"
#include "cli/ProcessSupport.h"
#include "cli/ToolSupport.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using test::Json;
using test::Flag;
using test::RunResult;
using test::Tool;
using test::Int;
using test::Numbers;
using test::Text;
using test::ToolJson;

TEST(Tool, EveryCommandRunsAgainstTheSimulatedGatewayInTextAndJson) {
  const sim::Station station = sim::DefaultStation();
  char gatewayId[16];
  std::snprintf(gatewayId, sizeof gatewayId, "0x%08X", station.gatewayId);
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> text;  // in the text output
    std::function<void(const Json&)> json;
  };
  const std::vector<Case> cases = {
      {{"info"}, {station.identity, station.versionString, gatewayId, "station address"}, [&](const Json& d) {
         EXPECT_EQ(Text(d, "identity"), station.identity);
         EXPECT_EQ(Int(d, "version"), station.version);
         EXPECT_EQ(Text(d, "boot_id"), station.bootId);
         EXPECT_EQ(Int(d, "gateway_id"), station.gatewayId);
         EXPECT_EQ(Int(d, "station_address"), station.stationAddress);
         EXPECT_EQ(Int(d, "switches"), station.switches);
         EXPECT_EQ(Numbers(d, "boot_hw_info"), std::vector<int64_t>(station.bootHwInfo.begin(), station.bootHwInfo.end()));
       }},
      {{"modules"}, {"0x021101", "0x045203", "0x013004", "diag bytes"}, [&](const Json& d) {
         ASSERT_EQ(Int(d, "count"), int64_t(station.modules.size()));
         const Json& rows = d.at("modules");
         for (size_t i = 0; i < station.modules.size(); ++i) {
           EXPECT_EQ(Int(rows[i], "id"), station.modules[i].id);
           EXPECT_EQ(Int(rows[i], "diag_bytes"), sim::DiagLengthForId(station.modules[i].id));
           EXPECT_EQ(Int(rows[i], "sw_revision"), station.modules[i].swRevision);
         }
       }},
      {{"inputs"}, {"inputs"}, [](const Json& d) { EXPECT_EQ(Int(d, "count"), 6); }},
      {{"outputs", "01", "0x02,3"}, {"01 02 03"}, [](const Json& d) {
         EXPECT_EQ(Numbers(d, "written"), (std::vector<int64_t>{1, 2, 3}));
         EXPECT_EQ(Numbers(d, "outputs"), (std::vector<int64_t>{1, 2, 3}));
       }},
      {{"outputs"}, {"outputs"}, [](const Json& d) { EXPECT_EQ(Int(d, "count"), 3); }},
      {{"params", "1122"}, {"11 22 00"}, [](const Json& d) {
         EXPECT_EQ(Numbers(d, "parameters"), (std::vector<int64_t>{0x11, 0x22, 0, 0, 0}));
       }},
      {{"diag"}, {"diagnosis", "0x045203"}, [&](const Json& d) {
         EXPECT_EQ(Numbers(d, "gateway").size(), station.gatewayDiagnosis.size());
         EXPECT_EQ(d.at("modules").size(), station.modules.size());
       }},
      {{"errors"}, {"0x22", "AA BB", "0d 00:00:10.000"}, [](const Json& d) {
         EXPECT_EQ(Int(d, "count"), 2);
         EXPECT_EQ(Int(d.at("errors")[1], "duration_ms"), 10000);
         EXPECT_EQ(Numbers(d.at("errors")[1], "extra"), (std::vector<int64_t>{0xAA, 0xBB}));
       }},
      {{"clock"}, {"0d 00:00:0"}, [](const Json& d) { EXPECT_LT(Int(d, "total_seconds"), 60); }},
      {{"opmode", "2"}, {"operation mode  2"}, [](const Json& d) { EXPECT_EQ(Int(d, "operation_mode"), 2); }},
      {{"opmode"}, {"operation mode"}, [&](const Json& d) { EXPECT_EQ(Int(d, "operation_mode"), station.operationMode); }},
      // The driver sends the new address with the operation-mode service; the tool says so.
      {{"address", "9"}, {"operation-mode service"}, [&](const Json& d) {
         EXPECT_EQ(Int(d, "station_address"), station.stationAddress);
         EXPECT_TRUE(d.contains("note"));
       }},
      {{"address"}, {"station address"}, [&](const Json& d) { EXPECT_EQ(Int(d, "station_address"), station.stationAddress); }},
      {{"switches"}, {"0x0003"}, [](const Json& d) { EXPECT_EQ(Int(d, "switches"), 3); }},
      {{"leds", "0x0102"}, {"0x0102"}, [](const Json& d) { EXPECT_EQ(Int(d, "leds"), 0x0102); }},
      {{"reset"}, {"hardware reset"}, nullptr},
      {{"fbi", "start"}, {"started"}, nullptr},
      {{"fbi", "reset"}, {"reset"}, nullptr},
      {{"tr"}, {"tr buffer"}, [](const Json& d) { EXPECT_EQ(Int(d, "count"), 0); }},
      {{"tr", "clear"}, {"cleared"}, nullptr},
      {{"service-baud", "19200"}, {"19200"}, nullptr},
      {{"stream", "sizes"}, {"0 16 0"}, [](const Json& d) { EXPECT_EQ(Numbers(d, "sizes"), (std::vector<int64_t>{0, 16, 0})); }},
      {{"stream", "position", "0x12", "0x34"}, {"12 34"}, nullptr},
      {{"--segment-pause", "0", "stream", "write", "0x21", "4", "00 01 02 03 04 05 06 07 08 09"}, {"segments  3"},
       [](const Json& d) { EXPECT_EQ(Int(d, "segments"), 3); }},
      {{"monitor", "reset"}, {"reset"}, nullptr},
      {{"monitor", "start"}, {"started"}, nullptr},
      {{"monitor", "stop"}, {"stopped"}, nullptr},
      {{"monitor", "first"}, {"frame"}, nullptr},
      {{"monitor", "next", "01"}, {"frame"}, nullptr},
      {{"dnet", "serial"}, {"0x01020304"}, [](const Json& d) { EXPECT_EQ(Int(d, "serial_number"), 0x01020304); }},
      {{"dnet", "tool"}, {station.toolIdent}, nullptr},
      {{"dnet", "get", "01 01 07"}, {"53 49 4D"}, [](const Json& d) {
         EXPECT_EQ(Numbers(d, "answer"), (std::vector<int64_t>{'S', 'I', 'M'}));
       }},
      {{"dnet", "set", "01 01 07 41"}, {"answer"}, nullptr},
      {{"service", "0x101"}, {"0x4101", "02 01"}, [](const Json& d) {
         EXPECT_EQ(Int(d, "answer_code"), 0x4101);
         EXPECT_EQ(Numbers(d, "received"), (std::vector<int64_t>{0x02, 0x01}));
       }},
      {{"service", "0x10000"}, {"0x14000"}, nullptr},
      // A request frame for the input image, written raw, and its answer read raw.
      {{"block", "write", "AA 03 00 00 00 29 B3", "--read", "5"}, {"read", "AA 03 40"}, [](const Json& d) {
         EXPECT_EQ(Numbers(d, "read"), (std::vector<int64_t>{0xAA, 0x03, 0x40, 0x06, 0x00}));
       }},
      {{"privileged", "enter", "tamrik test"}, {"privileged"}, [](const Json& d) { EXPECT_TRUE(Flag(d, "privileged")); }},
      {{"privileged", "channel"}, {"channel"}, [&](const Json& d) { EXPECT_EQ(Int(d, "channel"), station.privilegedChannel); }},
      {{"privileged", "name"}, {station.privilegedName}, nullptr},
      {{"watch", "-n", "3", "-i", "20"}, {"3 reads, 0 failures", "->"}, [](const Json& d) {
         EXPECT_EQ(Int(d, "count"), 3);
         EXPECT_EQ(Int(d, "failures"), 0);
         EXPECT_GT(Int(d, "changes"), 0);  // the simulated inputs move at every read
       }},
      {{"image", "--cancel"}, {"cancelled"}, nullptr},
      {{"codes", "0x10040"}, {"BadCheckValue"}, [](const Json& d) {
         EXPECT_EQ(Text(d.at("codes")[0], "name"), "BadCheckValue");
       }},
  };
  for (const Case& c : cases) {
    const RunResult text = Tool(c.args);
    SCOPED_TRACE(test::Describe(c.args, text));
    EXPECT_EQ(text.status, 0);
    for (const std::string& expected : c.text) EXPECT_NE(text.out.find(expected), std::string::npos) << expected;

    RunResult run;
    const Json doc = ToolJson(c.args, &run);
    EXPECT_EQ(run.status, 0);
    ASSERT_TRUE(doc.contains("ok"));
    EXPECT_TRUE(Flag(doc, "ok"));
    if (c.json) c.json(doc);
  }
}

TEST(Tool, TheDemoTourShowsEachStepAndEndsWell) {
  const RunResult run = Tool({"demo"});
  SCOPED_TRACE(test::Describe({"demo"}, run));
  EXPECT_EQ(run.status, 0);
  const std::string identity = sim::DefaultStation().identity;
  const std::vector<std::string> steps = {"Identity",       identity,         "Modules",
                                          "Live inputs",    "read 3",         "read back",
                                          "matches    yes", "Image download", "100%",
                                          "identical to the file", "Demonstration finished."};
  for (const std::string& step : steps) {
    EXPECT_NE(run.out.find(step), std::string::npos) << step;
  }
  // No command at all is the same tour.
  const RunResult bare = Tool({});
  EXPECT_EQ(bare.status, 0);
  EXPECT_NE(bare.out.find("Demonstration finished."), std::string::npos);

  const Json doc = ToolJson({"demo"});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_TRUE(Flag(doc.at("outputs"), "matches"));
  EXPECT_TRUE(Flag(doc.at("image"), "gateway_received_identical"));
  EXPECT_EQ(doc.at("inputs").size(), 3u);
}

TEST(Tool, FailuresPrintTheCodeWithItsNameAndExitNonZero) {
  // A fixed clock fixes the challenge, so that a wrong bit table surely gives a wrong response.
  test::TempDir dir;
  dir.Write("fixed-clock.txt", "clock = 0x12345678\n");
  std::string reversed;
  for (int i = 31; i >= 0; --i) reversed += std::to_string(i) + (i > 0 ? "," : "");
  struct Case {
    std::vector<std::string> args;
    uint32_t code;
    std::string name;
  };
  const std::vector<Case> cases = {
      {{"--sim-refuse", "0x101", "info"}, 0x28101, "Refused"},
      {{"--sim-refuse", "0x106:0xC000", "opmode", "2"}, 0x2C106, "Refused"},
      {{"--sim-refuse", "3:0x8000:5", "inputs"}, 0x30005, "RefusedWithByte"},
      {{"--sim-refuse", "0x1A", "--sim-link", "udp", "monitor", "first"}, 0x2801A, "Refused"},
      {{"--sim-refuse", "0x130:0xC000", "privileged", "enter", "x"}, 0x10070, "PrivilegedRefusedC"},
      {{"--sim-refuse", "0x130", "privileged", "enter", "x"}, 0x10071, "PrivilegedRefused8"},
      // A bit table that is not the gateway's gives a response the gateway refuses.
      {{"--sim-model", dir.File("fixed-clock.txt"), "--privileged-bits", reversed, "privileged", "enter", "x"},
       0x10071, "PrivilegedRefused8"},
      {{"--sim-refuse", "0x121", "image", TAMRIK_SOURCE_DIR "/examples/kaVdmo.ini"}, 0x10072, "ImageBlockFailed"},
      {{"--sim-refuse", "0x3333:0x8000", "service", "0x3333"}, 0x2B333, "Refused"},
      {{"--demo", "image", TAMRIK_SOURCE_DIR "/examples/kaVdmo.ini"}, 0x3000, "DemoNoDownload"},
  };
  for (const Case& c : cases) {
    const RunResult run = Tool(c.args);
    SCOPED_TRACE(test::Describe(c.args, run));
    EXPECT_EQ(run.status, 1);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%X", c.code);
    EXPECT_NE(run.err.find(std::string(hex) + " " + c.name + ":"), std::string::npos);

    RunResult jsonRun;
    const Json doc = ToolJson(c.args, &jsonRun);
    EXPECT_EQ(jsonRun.status, 1);
    ASSERT_TRUE(doc.contains("error"));
    EXPECT_FALSE(Flag(doc, "ok"));
    EXPECT_EQ(Int(doc.at("error"), "code"), c.code);
    EXPECT_EQ(Text(doc.at("error"), "name"), c.name);
    EXPECT_FALSE(Text(doc.at("error"), "text").empty());
  }

  // Mistakes of the user are status 2 and name the mistake.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"outputs", "zz"}, {"nonsense"}, {"--tcp", "127.0.0.1:notaport", "info"}, {"opmode", "300"},
        {"--sim-refuse", "0x4000", "info"}, {"--demo", "/nonexistent/kaVdmo.ini", "info"}, {"boot"}}) {
    const RunResult run = Tool(args);
    SCOPED_TRACE(test::Describe(args, run));
    EXPECT_EQ(run.status, 2);
    EXPECT_FALSE(run.err.empty());
  }
  // Scripts get a document for those too, the argument parser's own included.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"outputs", "zz"}, {"--baud", "1234", "info"}, {"nonsense"}, {"watch", "-n", "x"}}) {
    RunResult usage;
    const Json doc = ToolJson(args, &usage);
    SCOPED_TRACE(test::Describe(args, usage));
    EXPECT_EQ(usage.status, 2);
    ASSERT_TRUE(doc.contains("error"));
    EXPECT_FALSE(Flag(doc, "ok"));
    EXPECT_EQ(Int(doc.at("error"), "code"), 0);
    EXPECT_EQ(Text(doc.at("error"), "name"), "usage");
    EXPECT_FALSE(Text(doc.at("error"), "text").empty());
  }
}

TEST(Tool, NumbersAreTakenWholeWithinTheirRangeOrRefused) {
  test::TempDir dir;
  dir.Write("image.bin", std::string(300, 'i'));
  std::string bits = "0x100000000";  // 0 in its low 32 bits: a table of 0 to 31 if it were cut
  for (int i = 1; i < 32; ++i) bits += "," + std::to_string(i);
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string member;  // with status 0: the member that holds the number taken
    int64_t value;
  };
  const std::vector<Case> cases = {
      {{"codes", "0xFFFFFFFF"}, 0, "", 0},
      {{"codes", "0x100000000"}, 2, "", 0},
      {{"codes", "-1"}, 2, "", 0},
      {{"codes", "0x"}, 2, "", 0},
      {{"codes", "12abc"}, 2, "", 0},
      {{"opmode", "255"}, 0, "operation_mode", 255},
      {{"opmode", "010"}, 0, "operation_mode", 10},  // decimal: a leading zero makes no octal number
      {{"opmode", "256"}, 2, "", 0},
      {{"opmode", "0x1000000FF"}, 2, "", 0},
      {{"leds", "0xFFFF"}, 0, "leds", 0xFFFF},
      {{"leds", "0x10000"}, 2, "", 0},
      {{"service", "0x10001"}, 2, "", 0},
      {{"service", "0x101", "--receive", "0x10000"}, 2, "", 0},
      {{"stream", "write", "0", "19", "00"}, 0, "segments", 1},
      {{"stream", "write", "0", "20", "00"}, 2, "", 0},
      {{"stream", "position", "0", "0x1FF"}, 2, "", 0},
      {{"block", "read", "4097"}, 2, "", 0},
      {{"watch", "-n", "1000001"}, 2, "", 0},
      {{"watch", "-n", "1", "-i", "-1"}, 2, "", 0},
      // 0xFFFFFFFF is -1 in the interface's 32 bits: no start address, as -1 is.
      {{"image", dir.File("image.bin"), "--start", "0xFFFFFFFE"}, 0, "start_address", 0xFFFFFFFELL},
      {{"image", dir.File("image.bin"), "--start", "0x100000000"}, 2, "", 0},
      {{"image", dir.File("image.bin"), "--start", "-2"}, 2, "", 0},
      {{"--timeout", "0xEA60", "switches"}, 0, "switches", 3},
      {{"--timeout", "60001", "switches"}, 2, "", 0},
      {{"--timeout", "0x100000001", "switches"}, 2, "", 0},
      {{"--baud", "9601", "switches"}, 2, "", 0},
      {{"--sim-refuse", "0x3FFF", "switches"}, 0, "switches", 3},
      {{"--sim-refuse", "0x100000101", "switches"}, 2, "", 0},
      {{"--sim-refuse", "0x101:0x18000", "switches"}, 2, "", 0},
      {{"--privileged-bits", bits, "privileged", "channel"}, 2, "", 0},
      {{"--tcp", "127.0.0.1:65536", "info"}, 2, "", 0},
      {{"--tcp", "127.0.0.1:18446744073709551617", "info"}, 2, "", 0},
  };
  for (const Case& c : cases) {
    RunResult run;
    const Json doc = ToolJson(c.args, &run);
    SCOPED_TRACE(test::Describe(c.args, run));
    EXPECT_EQ(run.status, c.status);
    if (c.status == 0 && !c.member.empty()) {
      EXPECT_EQ(Int(doc, c.member), c.value);
    }
    if (c.status == 2) {
      EXPECT_EQ(Text(doc.at("error"), "name"), "usage");
    }
  }
  // The refusal names the argument, the text given and the range.
  const RunResult run = Tool({"opmode", "256"});
  EXPECT_NE(run.err.find("tamrik: MODE '256' is not a number from 0 to 255"), std::string::npos) << run.err;
}

TEST(Tool, LinksOverUdpAPseudoTerminalAndDemonstrationData) {
  for (const char* link : {"udp", "pty", "tcp"}) {
    const Json doc = ToolJson({"--sim-link", link, "info"});
    EXPECT_EQ(Text(doc, "identity"), sim::DefaultStation().identity) << link;
  }

  // The shipped demonstration station, and one of the user's own.
  std::ifstream shipped(std::string(TAMRIK_SOURCE_DIR) + "/examples/kaVdmo.ini");
  std::string line, identity;
  while (std::getline(shipped, line)) {
    if (line.rfind("GWIdString=", 0) == 0) identity = line.substr(11);
  }
  ASSERT_FALSE(identity.empty());
  Json doc = ToolJson({"--demo", "info"});
  EXPECT_EQ(Text(doc, "identity"), identity);
  EXPECT_EQ(Text(doc, "clock"), "1d 01:01:01");
  doc = ToolJson({"--demo", "modules"});
  EXPECT_EQ(Int(doc, "count"), 4);

  test::TempDir dir;
  dir.Write("mine.ini", "[Station]\nModNum=1\nModId1=0A1234\nGWIdString=My own station\nGatewayId=0000ABCD\n"
                        "[ProcessData]\nMode=1\n"
                        "Modi1=1100000010000000\nModo1=00000000\n");
  doc = ToolJson({"--demo", dir.File("mine.ini"), "info"});
  EXPECT_EQ(Text(doc, "identity"), "My own station");
  doc = ToolJson({"--demo", dir.File("mine.ini"), "inputs"});
  EXPECT_EQ(Numbers(doc, "inputs"), (std::vector<int64_t>{0x03, 0x01}));
  // Demonstration writes are kept in the station file named, and nothing else is made.
  doc = ToolJson({"--demo", dir.File("mine.ini"), "outputs", "81"});
  EXPECT_EQ(Numbers(doc, "outputs"), (std::vector<int64_t>{0x81}));
  EXPECT_EQ(dir.Read("mine.ini").find("Modo1=00000000"), std::string::npos);
  doc = ToolJson({"--demo", dir.File("mine.ini"), "outputs"});
  EXPECT_EQ(Numbers(doc, "outputs"), (std::vector<int64_t>{0x81}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator()), 1);

  // A station model of the user's, with a bit table of its own for the privileged response:
  // the tool hands the driver the same table.
  std::string table;
  for (int i = 0; i < 32; ++i) table += std::to_string(31 - i) + " ";
  dir.Write("model.txt", "identity = MODEL GW\nclock = 0x80000001\nprivileged_table = " + table + "\n");
  doc = ToolJson({"--sim-model", dir.File("model.txt"), "privileged", "enter", "me"});
  EXPECT_TRUE(Flag(doc, "ok"));
  doc = ToolJson({"--sim-model", dir.File("model.txt"), "info"});
  EXPECT_EQ(Text(doc, "identity"), "MODEL GW");
}

TEST(Tool, TraceShowsTheDriversLinesOnStderrOnly) {
  const RunResult run = Tool({"--trace", "switches"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("trace: ComServer:kaVGetCurrentGwSwitches-->"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Write Stream (len:0007): AA1201"), std::string::npos) << run.err;
  EXPECT_EQ(run.out.find("trace:"), std::string::npos);
  // The driver's 8-bit texts arrive as UTF-8.
  EXPECT_NE(run.err.find("L\xC3\xA4nge"), std::string::npos) << run.err;

  const RunResult quiet = Tool({"switches"});
  EXPECT_EQ(quiet.err.find("trace:"), std::string::npos);

  RunResult jsonRun;
  const Json doc = ToolJson({"--trace", "switches"}, &jsonRun);
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_NE(jsonRun.err.find("trace:"), std::string::npos);
}

}  // namespace
}  // namespace tamrik
