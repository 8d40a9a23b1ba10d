// The manual page and the bash completion of a program with commands, as the tool has them:
// nested commands, options let through to commands, a file argument, a value from a set,
// and hidden entries that must stay hidden.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "ProgramDocs.h"
#include "common/TestSupport.h"
#include "sim/ProgramDocsSupport.h"

namespace tamrik::test {
namespace {

using Words = std::vector<std::string>;

Words Sorted(Words words) {
  std::sort(words.begin(), words.end());
  return words;
}

TEST(ProgramDocs, CommandsAtEveryDepthInThePageAndAtTheCursor) {
  CLI::App app{"demo: a program with commands.", "demo"};
  app.fallthrough();
  std::string serial, file, mode, internal;
  uint32_t start = 0;
  bool json = false;
  app.add_option("--serial", serial, "The serial line")->type_name("PATH")->group("Links");
  app.add_flag("-j,--json", json, "Print JSON")->group("Output");
  app.add_option("--internal", internal, "Not for users")->group("");
  auto* image = app.add_subcommand("image", "Image download");
  image->add_option("file", file, "The image")->type_name("FILE")->required();
  image->add_option("--start", start, "Start address")->type_name("ADDRESS");
  auto* stream = app.add_subcommand("stream", "Stream data");
  stream->add_subcommand("sizes", "Read the sizes");
  auto* position = stream->add_subcommand("position", "Set the position");
  position->add_option("--mode", mode, "How to count")->type_name("{absolute,relative}");
  app.add_subcommand("secret", "Not for users")->group("");

  TempDir dir;
  progdocs::ManPage page;
  page.name = "demo";
  page.summary = "a program with commands";
  page.source = "demo 2.0";
  page.sections = {{"EXIT STATUS", "0\tdone\n2\ta usage mistake"}};
  dir.Write("demo.1", progdocs::RoffManPage(app, page));
  dir.Write("demo.bash", progdocs::BashCompletion(app, "demo"));

  const RunResult man = RenderManPage(dir.File("demo.1"));
  EXPECT_EQ(man.status, 0);
  EXPECT_EQ(man.err, "");
  for (const char* expected : {"demo - a program with commands", "demo [OPTIONS] COMMAND [OPTIONS]", "-j, --json",
                               "--serial PATH", "COMMANDS", "stream position", "--mode {absolute,relative}",
                               "--start ADDRESS", "file", "EXIT STATUS", "a usage mistake", "demo 2.0"}) {
    EXPECT_NE(man.out.find(expected), std::string::npos) << expected << "\n" << man.out;
  }
  EXPECT_EQ(man.out.find("secret"), std::string::npos);
  EXPECT_EQ(man.out.find("--internal"), std::string::npos);

  const std::string script = dir.File("demo.bash");
  EXPECT_EQ(CheckShellSyntax(script).status, 0);
  dir.Write("firmware.bin", "x");
  EXPECT_EQ(Completions(script, {"demo", ""}), (Words{"image", "stream"}));
  EXPECT_EQ(Sorted(Completions(script, {"demo", "-"})), (Words{"--help", "--json", "--serial", "-h", "-j"}));
  // An option's value is not taken for a command, also when it is glued on with '='.
  EXPECT_EQ(Completions(script, {"demo", "--serial", "stream", "st"}), (Words{"stream"}));
  EXPECT_EQ(Completions(script, {"demo", "--serial", "=", "x", "image", "--start", ""}), Words{});
  EXPECT_EQ(Completions(script, {"demo", "stream", ""}), (Words{"sizes", "position"}));
  EXPECT_EQ(Completions(script, {"demo", "stream", "position", "--mode", ""}), (Words{"absolute", "relative"}));
  EXPECT_EQ(Completions(script, {"demo", "stream", "position", "--mode", "=", "r"}), (Words{"relative"}));
  // A command lets its parent's options through.
  EXPECT_EQ(Sorted(Completions(script, {"demo", "stream", "position", "--"})),
            (Words{"--help", "--json", "--mode", "--serial"}));
  EXPECT_EQ(Completions(script, {"demo", "image", dir.File("firm")}), Words{dir.File("firmware.bin")});
  EXPECT_EQ(Completions(script, {"demo", "--serial", dir.File("fi")}), Words{dir.File("firmware.bin")});
  EXPECT_EQ(Completions(script, {"demo", "image", "--start", ""}), Words{});
}

}  // namespace
}  // namespace tamrik::test
