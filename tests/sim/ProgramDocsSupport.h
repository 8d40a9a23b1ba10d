// A manual page read as a person reads it (set by groff) and a bash completion script asked
// what it offers, as bash asks it when the user presses Tab.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli/ProcessSupport.h"

namespace tamrik::test {

// The page set as plain text, wide enough that no option name is broken; warnings in err.
inline RunResult RenderManPage(const std::string& path) {
  return Run({"/usr/bin/groff", "-man", "-Tascii", "-ww", "-rLL=200n", "-P-cbou", path}, 20000);
}

// bash -n: the script parses.
inline RunResult CheckShellSyntax(const std::string& path) { return Run({"/bin/bash", "-n", path}, 20000); }

// What the completion script at path offers for words (the program's name first, the word
// being completed last), through the function the script registered for that program.
inline std::vector<std::string> Completions(const std::string& path, const std::vector<std::string>& words) {
  std::vector<std::string> args = {"/bin/bash", "-c",
                                   "source \"$1\" || exit 3; shift\n"
                                   "registered=$(complete -p \"$1\") || exit 4\n"
                                   "function=${registered#*-F }; function=${function%% *}\n"
                                   "COMP_WORDS=(\"$@\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMPREPLY=()\n"
                                   "\"$function\" || exit 5\n"
                                   "if ((${#COMPREPLY[@]})); then printf '%s\\n' \"${COMPREPLY[@]}\"; fi",
                                   "bash", path};
  args.insert(args.end(), words.begin(), words.end());
  const RunResult run = Run(args, 20000);
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<std::string> offered;
  std::istringstream in(run.out);
  for (std::string line; std::getline(in, line);) offered.push_back(line);
  return offered;
}

}  // namespace tamrik::test
