// A man page (roff) and a bash completion script made from a program's CLI11 command table,
// the same table that prints --help, so the three cannot drift apart. Any program of the
// project that parses its arguments with CLI11 can use it: tamrik does, by its hidden
// options --man and --completion bash.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace tamrik::cli {

struct ManualInfo {
  std::string program;  // "tamrik"
  std::string version;  // "1.0.0"
  std::string summary;  // the NAME line: "talk to a field-bus gateway"
  std::string synopsis;  // "[LINK] [OPTIONS] COMMAND [ARGS]"
  // Further sections after the commands, title and plain text (paragraphs split by blank
  // lines; lines that start with two blanks are kept as they are).
  std::vector<std::pair<std::string, std::string>> sections;
};

std::string ManPage(const CLI::App& app, const ManualInfo& info);
std::string BashCompletion(const CLI::App& app, const std::string& program);

// The known name closest to word, or empty when none is close enough to be a likely typo.
std::string ClosestName(const std::string& word, const std::vector<std::string>& names);

}  // namespace tamrik::cli
