// Downloads through the tool (firmware records, the boot-loader chain, an image), and the
// tamrik-sim program: each of its options seen from the tool on the other end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/ProcessSupport.h"
#include "cli/ToolSupport.h"
#include "common/TestSupport.h"
#include "sim/ProgramDocsSupport.h"

namespace tamrik {
namespace {

using test::Flag;
using test::Int;
using test::Json;
using test::Process;
using test::RunResult;
using test::Text;
using test::Tool;
using test::ToolJson;

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
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(Int(doc, "count"), int64_t(records.size()));
  EXPECT_EQ(Int(doc, "loader_received_records"), int64_t(records.size()));
  EXPECT_EQ(Int(doc, "bytes"), int64_t(30 * 21 + 5 + records.size()));

  dir.Write("bsl.txt", Pairs(120, 1));
  dir.Write("ctx.txt", Pairs(400, 2));
  dir.Write("boot.txt", Pairs(3000, 3));
  doc = ToolJson({"boot", dir.File("bsl.txt"), dir.File("ctx.txt"), dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(Int(doc, "loader_stage1_bytes"), 120);
  EXPECT_EQ(Int(doc, "loader_stage2_bytes"), 400);
  EXPECT_EQ(Int(doc, "loader_stage3_bytes"), 3000);
  EXPECT_EQ(Int(doc, "loader_received_records"), int64_t(records.size()));

  // The same chain from a boot-file list, without the SetCtx stage ("-").
  dir.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + dir.File("bsl.txt") + "\nSetCtx_File=" + dir.File("ctx.txt") +
                               "\nBoot_File=" + dir.File("boot.txt") + "\nBoot_Firmware=" + dir.File("fw.hex") + "\n");
  doc = ToolJson({"boot", "--ini", dir.File("kaVBoot.ini")});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(Int(doc, "loader_stage2_bytes"), 400);
  doc = ToolJson({"boot", dir.File("bsl.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(Int(doc, "loader_stage3_bytes"), 3000);

  // A missing stage file is found before anything is sent.
  RunResult run = Tool({"boot", dir.File("none.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("tamrik: cannot read " + dir.File("none.txt")), std::string::npos) << run.err;
  // The chain needs a serial line.
  run = Tool({"--sim-link", "tcp", "--tcp", "127.0.0.1:9", "--yes", "boot", "--ini", dir.File("kaVBoot.ini")});
  EXPECT_EQ(run.status, 2);

  std::string image;
  for (int i = 0; i < 600; ++i) image += char(i * 7);
  dir.Write("image.bin", image);
  doc = ToolJson({"image", dir.File("image.bin"), "--start", "0x8000"});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(Int(doc, "count"), 3);
  EXPECT_EQ(Int(doc, "start_address"), 0x8000);
  EXPECT_TRUE(Flag(doc, "gateway_received_identical"));

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
    EXPECT_EQ(Text(doc, "identity"), "PROGRAM GW");
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
    EXPECT_TRUE(Flag(doc, "ok"));
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
    const Json doc = ToolJson({"--tcp", address, "--yes", "image", dir.File("image.bin")});
    EXPECT_TRUE(Flag(doc, "ok"));
    EXPECT_EQ(Int(doc, "count"), 4);
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
    const Json doc = ToolJson({"--serial", path, "--yes", "firmware", dir.File("fw.hex")});
    EXPECT_TRUE(Flag(doc, "ok"));
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
    const Json doc =
        ToolJson({"--serial", link, "--yes", "boot", dir.File("bsl.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")});
    EXPECT_TRUE(Flag(doc, "ok"));
    EXPECT_TRUE(sim.process.WaitForOutput("stage 3: 500 bytes", 3000)) << sim.process.out();
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
  }
}

// The host reads the records file the moment its download's last answer came: by then the
// file must hold every record of that download, download after download.
TEST(SimProgram, BootLoaderServesDownloadAfterDownloadAndTheRecordsFileIsCompleteAtOnce) {
  test::TempDir dir;
  const std::vector<std::string> longer = Records(30), shorter = Records(4);
  dir.Write("long.hex", Join(longer));
  dir.Write("short.hex", "a comment line before the records\n" + Join(shorter));
  dir.Write("bsl.txt", Pairs(120, 1));
  dir.Write("ctx.txt", Pairs(400, 2));
  dir.Write("boot.txt", Pairs(3000, 3));
  const std::string received = dir.File("received.hex");
  {
    SimProgram sim({"--boot", "chain", "--records-out", received, "--log"});
    const std::string path = sim.Printed("boot chain ");
    ASSERT_FALSE(path.empty()) << sim.process.err();
    // Made empty at the start, so that a host never reads an older run's records.
    EXPECT_TRUE(dir.Exists("received.hex"));
    EXPECT_EQ(dir.Read("received.hex"), "");
    const auto download = [&](const std::string& firmware) {
      return Tool({"--serial", path, "--yes", "boot", dir.File("bsl.txt"), dir.File("ctx.txt"), dir.File("boot.txt"),
                   dir.File(firmware)});
    };
    for (int i = 0; i < 4; ++i) {
      SCOPED_TRACE("chain download " + std::to_string(i + 1));
      // A file the host removed between two downloads comes back.
      if (i == 2) std::filesystem::remove(received);
      const bool isLong = i % 2 == 0;
      const RunResult run = download(isLong ? "long.hex" : "short.hex");
      EXPECT_EQ(run.status, 0) << run.out << run.err;
      EXPECT_EQ(dir.Read("received.hex"), Join(isLong ? longer : shorter));
    }
    // The log of what was heard before the stop is printed before the program ends.
    const RunResult stopped = sim.process.Stop(5000);
    EXPECT_EQ(stopped.status, 0);
    EXPECT_EQ(stopped.err, "");
    const auto count = [&](const std::string& text) {
      size_t n = 0;
      for (size_t at = 0; (at = stopped.out.find(text, at)) != std::string::npos; ++at) ++n;
      return n;
    };
    EXPECT_EQ(count("stage 3: 3000 bytes\n"), 4u) << stopped.out;
    EXPECT_EQ(count("record 31: 6 bytes\ndownload "), 2u) << stopped.out;
    EXPECT_EQ(count("record 5: 6 bytes\n"), 2u) << stopped.out;
    EXPECT_NE(stopped.out.find("download 4\nstage 1: 120 bytes\n"), std::string::npos) << stopped.out;
  }

  // The firmware line download, twice in a row on one loader.
  {
    SimProgram sim({"--boot", "lines", "--records-out", received});
    const std::string path = sim.Printed("boot lines ");
    ASSERT_FALSE(path.empty()) << sim.process.err();
    for (const auto& [file, records] : {std::pair{"short.hex", shorter}, std::pair{"long.hex", longer}}) {
      SCOPED_TRACE(file);
      const RunResult run = Tool({"--serial", path, "--yes", "firmware", dir.File(file)});
      EXPECT_EQ(run.status, 0) << run.out << run.err;
      EXPECT_EQ(dir.Read("received.hex"), Join(records));
    }
    EXPECT_EQ(sim.process.Stop(5000).status, 0);
  }

  // A records file that cannot be written stops the program before it serves.
  const RunResult run = test::Run({TAMRIK_SIM_PROGRAM, "--boot", "--records-out", dir.File("no-dir/received.hex")}, 5000);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("tamrik-sim: cannot write the records file ", 0), 0u) << run.err;
  EXPECT_EQ(run.out, "");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(SimProgram, VersionAndUsageMistakes) {
  // The version the project declares.
  std::ifstream cmakeLists(std::string(TAMRIK_SOURCE_DIR) + "/CMakeLists.txt");
  std::stringstream text;
  text << cmakeLists.rdbuf();
  const std::string lists = text.str();
  std::smatch match;
  ASSERT_TRUE(std::regex_search(lists, match, std::regex(R"(project\(tamrik VERSION ([0-9.]+))")));
  RunResult run = test::Run({TAMRIK_SIM_PROGRAM, "--version"}, 5000);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "tamrik-sim " + match[1].str() + "\n");
  EXPECT_EQ(run.err, "");

  // Unknown options and words, missing values, bad values, options that do not go together.
  const std::vector<std::vector<std::string>> mistakes = {
      {"--bogus"},           {"--tcp", "0", "extra"},  {"--tcp"},         {"--udp", "0", "--records-out"},
      {"--tcp", "x"},        {"--noise", "many"},      {"--model", "/nonexistent/model"},
      {"--refuse", "0x4000"}, {"--refuse", "0x101:0x9000"}, {"--boot", "sideways"}, {"--completion", "tcsh"},
      {"--records-out", "x"}, {"--link", "x"},         {"--boot", "--tcp", "0"}};
  for (const auto& args : mistakes) {
    std::vector<std::string> full = {TAMRIK_SIM_PROGRAM};
    full.insert(full.end(), args.begin(), args.end());
    run = test::Run(full, 5000);
    std::string where;
    for (const auto& a : args) where += " " + a;
    SCOPED_TRACE(where + "\n" + run.err);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    const std::vector<std::string> lines = Lines(run.err);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("tamrik-sim: ", 0), 0u);
    EXPECT_EQ(lines[1], "tamrik-sim: see 'tamrik-sim --help' for the options");
  }

  // A failure is no usage mistake: status 1 and the message alone, with the model's line.
  test::TempDir dir;
  dir.Write("model.txt", "identity = X\nno_such_key = 1\n");
  run = test::Run({TAMRIK_SIM_PROGRAM, "--model", dir.File("model.txt")}, 5000);
  EXPECT_EQ(run.status, 1);
  const std::vector<std::string> lines = Lines(run.err);
  ASSERT_EQ(lines.size(), 1u) << run.err;
  EXPECT_EQ(lines[0].rfind("tamrik-sim: ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find('2'), std::string::npos) << lines[0];
}

// The options --help lists, each name on its own ("-h", "--help", "--tcp", ...), sorted.
std::vector<std::string> HelpOptions() {
  const RunResult help = test::Run({TAMRIK_SIM_PROGRAM, "--help"}, 5000);
  EXPECT_EQ(help.status, 0);
  std::vector<std::string> names;
  for (const std::string& line : Lines(help.out)) {
    if (line.rfind("  -", 0) != 0) continue;
    std::stringstream first(line.substr(2, line.find(' ', 2) - 2));
    for (std::string name; std::getline(first, name, ',');) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(SimProgram, ManPageAndCompletionListWhatTheHelpLists) {
  const std::vector<std::string> options = HelpOptions();
  ASSERT_GE(options.size(), 20u);
  for (const char* name : {"-h", "--help", "--version", "--boot", "--records-out", "--tcp", "--refuse"}) {
    EXPECT_NE(std::find(options.begin(), options.end(), name), options.end()) << name;
  }

  // The page the build made, as a reader sees it: every option of --help, no hidden one.
  const RunResult man = test::RenderManPage(TAMRIK_SIM_MAN);
  EXPECT_EQ(man.status, 0);
  EXPECT_EQ(man.err, "") << "groff's warnings";
  for (const std::string& name : options) {
    EXPECT_TRUE(std::regex_search(man.out, std::regex("(^|[ ,\\[])" + name + "([ ,\\]]|$)", std::regex::multiline)))
        << name;
  }
  for (const char* text : {"TAMRIK-SIM(1)", "--records-out FILE", "--boot [chain|lines]", "EXIT STATUS"}) {
    EXPECT_NE(man.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(man.out.find("--man"), std::string::npos);
  EXPECT_EQ(man.out.find("--completion"), std::string::npos);

  // The completion script parses, offers exactly those options, and the values of a set.
  EXPECT_EQ(test::CheckShellSyntax(TAMRIK_SIM_COMPLETION).status, 0);
  std::vector<std::string> offered = test::Completions(TAMRIK_SIM_COMPLETION, {"tamrik-sim", "-"});
  std::sort(offered.begin(), offered.end());
  EXPECT_EQ(offered, options);
  EXPECT_EQ(test::Completions(TAMRIK_SIM_COMPLETION, {"tamrik-sim", "--boot", ""}),
            (std::vector<std::string>{"chain", "lines"}));
}

}  // namespace
}  // namespace tamrik
