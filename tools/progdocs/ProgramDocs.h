// A program's manual page and its bash completion, made from the same CLI11 option table
// that answers --help, so that the three never tell different stories. Used by the programs
// themselves (a hidden option prints the text) and run by the build.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tamrik::progdocs {

struct ManSection {
  std::string title;  // "EXIT STATUS", "EXAMPLES", ...
  // Paragraphs set apart by an empty line. A line that starts with two blanks is shown as
  // it stands (a command, a table), and "TERM\tTEXT" lines become a tagged list.
  std::string text;
};

struct ManPage {
  std::string name;     // the program, as it is typed
  std::string summary;  // the NAME line after the dash
  std::string source;   // the footer's left part, e.g. "tamrik 1.0.0"
  std::string manual = "User Commands";
  // The forms of the command line after the program's name; empty: made from the table.
  std::vector<std::string> synopsis;
  // After DESCRIPTION, OPTIONS and COMMANDS.
  std::vector<ManSection> sections;
};

// The manual page in roff with the man macros, for section 1. Options are listed by their
// help group, commands (subcommands, at any depth) with their own options; hidden options
// and commands stay hidden.
std::string RoffManPage(const CLI::App& app, const ManPage& page);

// A bash completion script for program: the options and commands that fit where the cursor
// is, the words of a value or a positional argument whose type reads "[a|b]" or "{a,b}", file
// names for a value of type FILE, PATH, DIR or DEVICE or a file's name in capitals (and for the
// existing-file checks, which name themselves so).
std::string BashCompletion(const CLI::App& app, const std::string& program);

}  // namespace tamrik::progdocs
