// Downloads through the tool (firmware records, the boot-loader chain, an image), and the
// tamrik-sim program: each of its options seen from the tool on the other end.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Json.h"
#include "cli/ProcessSupport.h"
#include "cli/ToolSupport.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using cli::Json;
using test::Process;
using test::RunResult;
using test::Tool;
using test::ToolJson;

int64_t Int(const Json& doc, const std::string& key) {
  const Json* v = doc.Find(key);
  EXPECT_NE(v, nullptr) << key;
  return v != nullptr ? v->AsInt() : -1;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  char pair[3];
  for (uint8_t b : bytes) {
    std::snprintf(pair, sizeof pair, "%02X", b);
    text += pair;
  }
  return text;
}

// A firmware line file of n data records and an end record, as the lines the loader gets.
std::vector<std::string> Records(int n) {
  std::vector<std::string> lines;
  for (int i = 0; i <= n; ++i) {
    std::vector<uint8_t> bytes = {uint8_t(i < n ? 16 : 0), uint8_t(i >> 4), uint8_t(i << 4), uint8_t(i < n ? 0 : 1)};
    for (int k = 0; i < n && k < 16; ++k) bytes.push_back(uint8_t(i * 16 + k));
    uint8_t sum = 0;
    for (uint8_t b : bytes) sum = uint8_t(sum + b);
    bytes.push_back(uint8_t(0x100 - sum));
    lines.push_back(":" + Hex(bytes));
  }
  return lines;
}

std::string Join(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  return text;
}

std::string Pairs(size_t n, int seed) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = uint8_t(i * 13 + size_t(seed));
  return Hex(bytes) + "\n";
}

TEST(ToolDownloads, FirmwareBootChainAndImageReachTheSimulatedGateway) {
  test::TempDir dir;
  const std::vector<std::string> records = Records(30);
  dir.Write("fw.hex", "firmware for the test\n" + Join(records));

  Json doc = ToolJson({"firmware", dir.File("fw.hex")});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "records"), int64_t(records.size()));
  EXPECT_EQ(Int(doc, "loader_received_records"), int64_t(records.size()));
  EXPECT_EQ(Int(doc, "bytes"), int64_t(30 * 21 + 5 + records.size()));

  dir.Write("bsl.txt", Pairs(120, 1));
  dir.Write("ctx.txt", Pairs(400, 2));
  dir.Write("boot.txt", Pairs(3000, 3));
  doc = ToolJson({"boot", dir.File("bsl.txt"), dir.File("ctx.txt"), dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "loader_stage1_bytes"), 120);
  EXPECT_EQ(Int(doc, "loader_stage2_bytes"), 400);
  EXPECT_EQ(Int(doc, "loader_stage3_bytes"), 3000);
  EXPECT_EQ(Int(doc, "loader_received_records"), int64_t(records.size()));

  // The same chain from a boot-file list, without the SetCtx stage ("-").
  dir.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + dir.File("bsl.txt") + "\nSetCtx_File=" + dir.File("ctx.txt") +
                               "\nBoot_File=" + dir.File("boot.txt") + "\nBoot_Firmware=" + dir.File("fw.hex") + "\n");
  doc = ToolJson({"boot", "--ini", dir.File("kaVBoot.ini")});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "loader_stage2_bytes"), 400);
  doc = ToolJson({"boot", dir.File("bsl.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "loader_stage3_bytes"), 3000);

  // A missing stage file: its own code.
  RunResult run = Tool({"boot", dir.File("none.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("0x18704 Stage1FileMissing"), std::string::npos) << run.err;
  // The chain needs a serial line.
  run = Tool({"--sim-link", "tcp", "--tcp", "127.0.0.1:9", "boot", "--ini", dir.File("kaVBoot.ini")});
  EXPECT_EQ(run.status, 2);

  std::string image;
  for (int i = 0; i < 600; ++i) image += char(i * 7);
  dir.Write("image.bin", image);
  doc = ToolJson({"image", dir.File("image.bin"), "--start", "0x8000"});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "blocks"), 3);
  EXPECT_EQ(Int(doc, "start_address"), 0x8000);
  EXPECT_TRUE(doc.Find("gateway_received_identical")->AsInt());
  dir.Write("empty.bin", "");
  doc = ToolJson({"--sim-link", "udp", "image", dir.File("empty.bin")});
  EXPECT_TRUE(doc.Find("ok")->AsInt());
  EXPECT_EQ(Int(doc, "blocks"), 1);

  // Without a terminal and without --json the download prints its result, not a live bar.
  run = Tool({"image", dir.File("image.bin")});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.find('\r'), std::string::npos);
  EXPECT_NE(run.out.find("blocks"), std::string::npos);
}

// A tamrik-sim process and the address it printed.
struct SimProgram {
  explicit SimProgram(std::vector<std::string> args) : process([&] {
    args.insert(args.begin(), TAMRIK_SIM_PROGRAM);
    return args;
  }()) {}
  // The text after the first occurrence of prefix on its line.
  std::string Printed(const std::string& prefix) {
    if (!process.WaitForOutput(prefix, 5000)) return {};
    const std::string& out = process.out();
    const size_t at = out.find(prefix) + prefix.size();
    const size_t end = out.find_first_of(" \n", at);
    return out.substr(at, end - at);
  }
  Process process;
};

TEST(SimProgram, EachOptionShowsAtTheToolOnTheOtherEnd) {
  test::TempDir dir;
  struct Case {
    std::vector<std::string> simArgs;
    std::vector<std::string> toolArgs;
    int status;
    std::string expected;  // in the tool's stderr (failures) or stdout
  };
  const std::vector<Case> cases = {
      {{}, {"inputs"}, 0, "inputs"},
      {{"--noise", "3"}, {"inputs"}, 0, "inputs"},
      {{"--delay", "20"}, {"info"}, 0, "identity"},
      {{"--corrupt-every", "1"}, {"inputs"}, 1, "0x10040 BadCheckValue"},
      {{"--corrupt-every", "2"}, {"info"}, 1, "BadCheckValue"},
      {{"--refuse", "0x101"}, {"info"}, 1, "0x28101 Refused"},
      {{"--refuse", "0x101:0xC000:7"}, {"info"}, 1, "0x30007 RefusedWithByte"},
      {{"--silence"}, {"inputs"}, 1, "failed: 0x"},
      {{"--truncate", "5"}, {"inputs"}, 1, "failed: 0x"},
      {{"--late", "400"}, {"inputs"}, 1, "failed: 0x"},
      {{"--drop"}, {"inputs"}, 1, "failed: 0x"},
      {{"--stall", "100"}, {"inputs"}, 0, "inputs"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> simArgs = {"--tcp", "0"};
    simArgs.insert(simArgs.end(), c.simArgs.begin(), c.simArgs.end());
    SimProgram sim(simArgs);
    const std::string address = sim.Printed("tcp ");
    ASSERT_FALSE(address.empty()) << sim.process.err();
    EXPECT_EQ(address.rfind("127.0.0.1:", 0), 0u) << address;
    std::vector<std::string> toolArgs = {"--tcp", address};
    toolArgs.insert(toolArgs.end(), c.toolArgs.begin(), c.toolArgs.end());
    const RunResult run = Tool(toolArgs);
    std::string where = "sim";
    for (const auto& a : c.simArgs) where += " " + a;
    SCOPED_TRACE(where + "\n" + run.out + run.err);
    EXPECT_EQ(run.status, c.status);
    EXPECT_NE((c.status == 0 ? run.out : run.err).find(c.expected), std::string::npos);
    const RunResult stopped = sim.process.Stop(5000);
    EXPECT_EQ(stopped.status, 0);
    EXPECT_FALSE(stopped.timedOut);
  }

  // UDP, with the request log and a station model.
  dir.Write("model.txt", "identity = PROGRAM GW\n[module]\nid = 0x021101\ntype = D\ninputs = 3\n");
  {
    SimProgram sim({"--udp", "0", "--log", "--model", dir.File("model.txt")});
    const std::string address = sim.Printed("udp ");
    ASSERT_FALSE(address.empty()) << sim.process.err();
    const Json doc = ToolJson({"--udp", address, "info"});
    EXPECT_EQ(doc.Find("identity")->AsString(), "PROGRAM GW");
    const Json inputs = ToolJson({"--udp", address, "inputs"});
    EXPECT_EQ(Int(inputs, "count"), 3);
    EXPECT_TRUE(sim.process.WaitForOutput("0x0003", 2000)) << sim.process.out();
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
  }

  // A pseudo-terminal paced at the line speed, reached through a link of the user's naming.
  {
    const std::string link = dir.File("gateway-tty");
    SimProgram sim({"--pty", "--link", link, "--pace", "115200"});
    ASSERT_FALSE(sim.Printed("pty ").empty()) << sim.process.err();
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    const Json doc = ToolJson({"--serial", link, "--baud", "115200", "inputs"});
    EXPECT_TRUE(doc.Find("ok")->AsInt());
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
    EXPECT_FALSE(std::filesystem::exists(link));
  }

  // The image sink writes what it received.
  {
    SimProgram sim({"--tcp", "0", "--image-out", dir.File("received.bin")});
    const std::string address = sim.Printed("tcp ");
    std::string image(1000, '\0');
    for (size_t i = 0; i < image.size(); ++i) image[i] = char(i * 3 + 1);
    dir.Write("image.bin", image);
    const Json doc = ToolJson({"--tcp", address, "image", dir.File("image.bin")});
    EXPECT_TRUE(doc.Find("ok")->AsInt());
    EXPECT_EQ(Int(doc, "blocks"), 4);
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
    EXPECT_EQ(dir.Read("received.bin"), image);
  }

  // The boot loader: the records arrive in the file named, as a line file again.
  const std::vector<std::string> records = Records(5);
  dir.Write("fw.hex", Join(records));
  {
    SimProgram sim({"--boot", "lines", "--records-out", dir.File("records.hex"), "--log"});
    const std::string path = sim.Printed("boot lines ");
    ASSERT_FALSE(path.empty()) << sim.process.err();
    const Json doc = ToolJson({"--serial", path, "firmware", dir.File("fw.hex")});
    EXPECT_TRUE(doc.Find("ok")->AsInt());
    EXPECT_TRUE(sim.process.WaitForOutput("record 6:", 3000)) << sim.process.out();
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
    EXPECT_EQ(dir.Read("records.hex"), Join(records));
  }
  {
    dir.Write("bsl.txt", Pairs(50, 4));
    dir.Write("boot.txt", Pairs(500, 5));
    const std::string link = dir.File("loader-tty");
    SimProgram sim({"--boot", "--no-setctx", "--link", link, "--log"});
    ASSERT_FALSE(sim.Printed("boot chain ").empty()) << sim.process.err();
    const Json doc = ToolJson({"--serial", link, "boot", dir.File("bsl.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
    EXPECT_TRUE(doc.Find("ok")->AsInt());
    EXPECT_TRUE(sim.process.WaitForOutput("stage 3: 500 bytes", 3000)) << sim.process.out();
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
  }

  // Usage mistakes.
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--refuse", "0x4000"}, {"--link", "x"},
                                              {"--boot", "sideways"}, {"--records-out", "x"}, {"--tcp", "x"}}) {
    std::vector<std::string> full = {TAMRIK_SIM_PROGRAM};
    full.insert(full.end(), args.begin(), args.end());
    const RunResult run = test::Run(full, 5000);
    EXPECT_EQ(run.status, 2) << args[0] << run.err;
  }
}

}  // namespace
}  // namespace tamrik
