// What the tool tells about itself: the result code reference against the code table, the
// man page and bash completion made from its command table and installed, --version, help
// and suggestions; and answers larger than the tool's first guess of their size.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ResultNames.h"
#include "cli/ProcessSupport.h"
#include "cli/ToolSupport.h"
#include "common/TestSupport.h"
#include "sim/ProgramDocsSupport.h"

namespace tamrik {
namespace {

using test::Json;
using test::Flag;
using test::Int;
using test::RunResult;
using test::Tool;
using test::ToolJson;
using Words = std::vector<std::string>;

std::string ReadSource(const std::string& path) {
  std::ifstream in(std::string(TAMRIK_SOURCE_DIR) + "/" + path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%X", value);
  return text;
}

// The uint32_t constants of a header: name and value.
std::vector<std::pair<std::string, uint32_t>> Constants(const std::string& header) {
  std::vector<std::pair<std::string, uint32_t>> found;
  const std::string text = ReadSource(header);
  const std::regex constant(R"(inline constexpr u?int32_t (k\w+) = (0x[0-9A-Fa-f]+|\d+);)");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), constant); it != std::sregex_iterator(); ++it) {
    found.emplace_back((*it)[1].str(), uint32_t(std::stoul((*it)[2].str(), nullptr, 0)));
  }
  return found;
}

TEST(Reference, TheResultCodePageListsEveryCodeOfTheTable) {
  const std::string page = ReadSource("docs/result-codes.md");
  for (const ResultEntry& e : FixedResults()) {
    const std::string row = "| " + Hex(e.code) + " | " + std::to_string(e.code) + " | " + e.name + " | ";
    EXPECT_NE(page.find(row), std::string::npos) << row;
  }
  std::vector<uint32_t> bases;
  for (const ResultFamily& f : ResultFamilies()) {
    const std::string row = "| " + Hex(f.base) + " + " + Hex(f.first) + " .. " + Hex(f.last) + " (";
    EXPECT_NE(page.find(row), std::string::npos) << row;
    EXPECT_NE(page.find(std::string(" | ") + f.name + " | "), std::string::npos) << f.name;
    bases.push_back(f.base);
  }
  // Each reading that an operation gives a small code.
  for (const ResultEntry& e : FixedResults()) {
    for (ResultContext context : {ResultContext::OpenLink, ResultContext::Loader, ResultContext::Image}) {
      const ResultInfo info = DescribeResult(e.code, context);
      const std::string cell = "| " + info.name + " | " + info.meaning + " |";
      EXPECT_NE(page.find(cell), std::string::npos) << Hex(e.code) << " " << cell;
    }
  }
  // Every named constant of the driver is a listed code or the base of a listed family; the
  // download readers' own codes too.
  auto listed = [&](uint32_t code) {
    return page.find("| " + Hex(code) + " | " + std::to_string(code) + " | ") != std::string::npos;
  };
  size_t checked = 0;
  for (const std::string header : {"comserver/ResultCodes.h", "comserver/download/LoadStream.h"}) {
    for (const auto& [name, value] : Constants(header)) {
      if (name.find("Buffer") != std::string::npos) continue;  // sizes, not codes
      const bool base = std::find(bases.begin(), bases.end(), value) != bases.end();
      EXPECT_TRUE(listed(value) || base) << header << ": " << name << " = " << Hex(value);
      ++checked;
    }
  }
  EXPECT_GT(checked, 60u);

  // The tool names every code as the table does, through the C interface.
  std::vector<std::string> args = {"codes"};
  for (const ResultEntry& e : FixedResults()) args.push_back(Hex(e.code));
  const Json doc = ToolJson(args);
  ASSERT_EQ(doc.at("codes").size(), FixedResults().size());
  for (size_t i = 0; i < FixedResults().size(); ++i) {
    EXPECT_EQ(doc.at("codes")[i].at("name").get<std::string>(), FixedResults()[i].name);
  }
}

TEST(Reference, ManPageAndCompletionComeFromTheCommandTableAndAreInstalled) {
  const RunResult help = Tool({"--help"});
  ASSERT_EQ(help.status, 0);
  const RunResult man = Tool({"--man"});
  ASSERT_EQ(man.status, 0);
  std::vector<std::string> commands;
  const std::regex line(R"(\n  ([a-z][a-z-]+) +\S)");
  const size_t from = help.out.find("Subcommands:");
  const std::string subcommands = help.out.substr(from, help.out.find("Examples:") - from);
  for (auto it = std::sregex_iterator(subcommands.begin(), subcommands.end(), line); it != std::sregex_iterator(); ++it)
    commands.push_back((*it)[1].str());
  EXPECT_GT(commands.size(), 25u);
  for (const std::string& c : commands) {
    std::string roff = std::regex_replace(c, std::regex("-"), "\\-");
    EXPECT_NE(man.out.find(".SS \"" + roff + "\""), std::string::npos) << c;
  }
  EXPECT_NE(man.out.find("\\fB\\-\\-tcp\\fR \\fIHOST:PORT\\fR"), std::string::npos);
  EXPECT_EQ(man.out.find(".SS \n"), std::string::npos);
  EXPECT_EQ(man.out.find("\\-\\-man"), std::string::npos);  // the hidden options stay hidden
  // The safety section names the commands behind the --yes guard, as the table marks them.
  const size_t safety = man.out.find(".SH \"SAFETY\"");
  ASSERT_NE(safety, std::string::npos);
  const std::string guarded = man.out.substr(safety, man.out.find(".SH", safety + 1) - safety);
  for (const char* form : {"outputs BYTES", "opmode MODE", "tr clear", "monitor reset|start|stop", "stream write",
                           "service\\-baud", "image", "demo"})
    EXPECT_NE(guarded.find(form), std::string::npos) << form << "\n" << guarded;
  for (const char* reading : {"inputs", "modules", "clock", "watch", "codes"})
    EXPECT_EQ(guarded.find(reading), std::string::npos) << reading;
  if (std::filesystem::exists("/usr/bin/groff")) {
    test::TempDir dir;
    dir.Write("tamrik.1", man.out);
    const RunResult rendered = test::Run({"/bin/sh", "-c", "groff -man -Tutf8 -ww -z " + dir.File("tamrik.1")}, 10000);
    EXPECT_EQ(rendered.status, 0);
    EXPECT_EQ(rendered.err, "");
  }

  // Installed by cmake --install, as generated.
  test::TempDir prefix;
  const RunResult install = test::Run(
      {TAMRIK_CMAKE, "--install", TAMRIK_BINARY_DIR, "--component", "tool-manual", "--prefix", prefix.path()}, 60000);
  ASSERT_EQ(install.status, 0) << install.out << install.err;
  EXPECT_EQ(prefix.Read("share/man/man1/tamrik.1"), man.out);
  const std::string script = prefix.File("share/bash-completion/completions/tamrik");
  EXPECT_EQ(prefix.Read("share/bash-completion/completions/tamrik"), Tool({"--completion", "bash"}).out);

  using test::Completions;
  EXPECT_EQ(Completions(script, {"tamrik", "inp"}), Words{"inputs"});
  EXPECT_EQ(Completions(script, {"tamrik", "--json", "fbi", ""}), (Words{"start", "reset"}));
  EXPECT_EQ(Completions(script, {"tamrik", "tr", "c"}), Words{"clear"});
  EXPECT_EQ(Completions(script, {"tamrik", "--sim-link", "u"}), Words{"udp"});
  EXPECT_EQ(Completions(script, {"tamrik", "--sim", "--json", "mod"}), Words{"modules"});
  EXPECT_EQ(Completions(script, {"tamrik", "watch", "--re"}), Words{"--reconnect"});
  EXPECT_EQ(Completions(script, {"tamrik", "stream", "w"}), Words{"write"});
  // File names where a command or an option takes a file; nothing where it takes a number.
  test::TempDir files;
  files.Write("firmware.hex", ":00000001FF\n");
  for (const Words& words : {Words{"tamrik", "firmware"}, Words{"tamrik", "image", "--start", "0x10"},
                             Words{"tamrik", "--demo"}, Words{"tamrik", "boot", "--ini"}, Words{"tamrik", "--serial"}}) {
    Words typed = words;
    typed.push_back(files.File("firm"));
    EXPECT_EQ(Completions(script, typed), Words{files.File("firmware.hex")}) << words.back();
  }
  EXPECT_EQ(Completions(script, {"tamrik", "service", "--receive", ""}), Words{});
  const std::vector<std::string> top = Completions(script, {"tamrik", ""});
  for (const std::string& c : commands) EXPECT_NE(std::find(top.begin(), top.end(), c), top.end()) << c;
  EXPECT_EQ(std::find(top.begin(), top.end(), "--man"), top.end());
}

TEST(Reference, VersionHelpAndSuggestionsAndEveryMessageNamesTheProgram) {
  RunResult run = Tool({"--version"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, std::string("tamrik ") + TAMRIK_VERSION + "\n");
  run = Tool({"help", "watch"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("tamrik watch [OPTIONS]"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("--reconnect"), std::string::npos);
  run = Tool({"help", "stream", "write"});
  EXPECT_NE(run.out.find("tamrik stream write [OPTIONS] HEADER SEGLEN BYTES"), std::string::npos) << run.out;

  struct Mistake {
    std::vector<std::string> args;
    std::string says;
  };
  const std::vector<Mistake> mistakes = {
      {{"inptus"}, "unknown command 'inptus'; did you mean 'inputs'?"},
      {{"--tcp", "127.0.0.1:5", "swithces"}, "did you mean 'switches'?"},
      {{"help", "wacth"}, "did you mean 'watch'?"},
      {{"zzzzzzzz"}, "unknown command 'zzzzzzzz'"},
      {{"--baud", "5", "info"}, "--baud"},
      {{"--completion", "fish"}, "bash only"},
      {{"opmode", "256"}, "MODE '256'"},
  };
  for (const Mistake& m : mistakes) {
    run = Tool(m.args);
    SCOPED_TRACE(m.args.front() + "\n" + run.err);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(m.says), std::string::npos);
    std::istringstream lines(run.err);
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.rfind("tamrik: ", 0), 0u) << line;
  }
}

TEST(Reference, AnswersLargerThanTheFirstRoomAreReadWhole) {
  // 300 modules of one input byte each: the module list and the input image both need more
  // room than the tool asks for at first.
  test::TempDir dir;
  std::string model = "identity = BIG\n";
  for (int i = 0; i < 300; ++i) model += "[module]\nid = 0x011001\ntype = D\ninputs = 1\noutputs = 1\n";
  dir.Write("big.txt", model);
  Json doc = ToolJson({"--sim-model", dir.File("big.txt"), "modules"});
  EXPECT_EQ(Int(doc, "count"), 300);
  doc = ToolJson({"--sim-model", dir.File("big.txt"), "inputs"});
  EXPECT_EQ(Int(doc, "count"), 300);
  EXPECT_EQ(doc.at("inputs").size(), 300u);
  doc = ToolJson({"--sim-model", dir.File("big.txt"), "outputs", std::string(600, 'F')});
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(doc.at("outputs").size(), 300u);
  EXPECT_EQ(doc.at("outputs")[299].get<int64_t>(), 0xFF);
}

}  // namespace
}  // namespace tamrik
