#include "Manual.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace tamrik::cli {
namespace {

// Text made safe for roff: backslashes, hyphens that must stay hyphens, and lines that
// would read as requests.
std::string Roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') out += "\\e";
    else if (c == '-') out += "\\-";
    else out += c;
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
  return out;
}

bool Visible(const CLI::Option* option) { return !option->get_group().empty(); }

bool IsFlag(const CLI::Option* option) { return option->get_items_expected_max() == 0; }

// The choices a checked value may take, from a validator's "{a,b,c}", or none.
std::vector<std::string> Choices(const CLI::Option* option) {
  const std::string type = option->get_type_name();
  const size_t open = type.find('{'), close = type.find('}');
  std::vector<std::string> words;
  if (open == std::string::npos || close == std::string::npos || close < open) return words;
  std::stringstream list(type.substr(open + 1, close - open - 1));
  for (std::string word; std::getline(list, word, ',');) {
    word.erase(0, word.find_first_not_of(' '));
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

// The value's name as help prints it ("HOST:PORT"), without what the checks append to it
// (":{a,b}", ":INT in [1 - 9]", ":FILE").
std::string ValueName(const CLI::Option* option) {
  const std::string type = option->get_type_name();
  size_t end = type.size();
  for (const char* suffix : {":{", ":INT ", ":UINT ", ":FLOAT ", ":NUMBER ", ":FILE", ":DIR", ":PATH"}) {
    end = std::min(end, type.find(suffix));
  }
  return type.substr(0, end);
}

bool TakesFile(const CLI::Option* option) {
  const std::string text = ValueName(option) + " " + option->get_name(true);
  return text.find("FILE") != std::string::npos || text.find("DEVICE") != std::string::npos ||
         text.find(".INI") != std::string::npos;
}

void ManOption(std::ostringstream& out, const CLI::Option* option) {
  out << ".TP\n\\fB" << Roff(option->get_name(false, true)) << "\\fR";
  if (!IsFlag(option) && !ValueName(option).empty()) out << " \\fI" << Roff(ValueName(option)) << "\\fR";
  out << "\n" << Roff(option->get_description()) << "\n";
}

void ManCommand(std::ostringstream& out, const CLI::App* command, const std::string& prefix) {
  const std::string name = prefix + command->get_name();
  std::string usage;
  for (const CLI::Option* positional : command->get_options([](const CLI::Option* o) { return o->get_positional(); })) {
    const std::string word = positional->get_name(true);
    usage += positional->get_required() ? " " + word : " [" + word + "]";
  }
  out << ".TP\n\\fB" << Roff(name) << "\\fR" << (usage.empty() ? "" : " \\fI" + Roff(usage.substr(1)) + "\\fR") << "\n"
      << Roff(command->get_description()) << "\n";
  for (const CLI::Option* option : command->get_options()) {
    if (option->get_positional() || option->get_name() == "--help" || option->get_name() == "-h,--help") continue;
    if (option->get_lnames().empty() && option->get_snames().empty()) continue;
    if (option->get_lnames() == std::vector<std::string>{"help"}) continue;
    out << ".RS\n";
    ManOption(out, option);
    out << ".RE\n";
  }
  for (const CLI::App* sub : command->get_subcommands({})) ManCommand(out, sub, name + " ");
}

void ManText(std::ostringstream& out, const std::string& text) {
  std::istringstream in(text);
  bool literal = false;
  for (std::string line; std::getline(in, line);) {
    const bool indented = line.rfind("  ", 0) == 0;
    if (indented && !literal) out << ".nf\n";
    if (!indented && literal) out << ".fi\n";
    literal = indented;
    out << (line.empty() ? ".PP" : Roff(line)) << "\n";
  }
  if (literal) out << ".fi\n";
}

std::string Words(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& w : words) text += (text.empty() ? "" : " ") + w;
  return text;
}

// The words that may follow a command: its options, its subcommands, and the choices of its
// positionals.
std::vector<std::string> CommandWords(const CLI::App* command, bool* files) {
  std::vector<std::string> words;
  for (const CLI::Option* option : command->get_options()) {
    if (!Visible(option)) continue;
    for (const std::string& l : option->get_lnames()) words.push_back("--" + l);
    for (const std::string& s : option->get_snames()) words.push_back("-" + s);
    const std::vector<std::string> choices = Choices(option);
    if (option->get_positional()) words.insert(words.end(), choices.begin(), choices.end());
    if (option->get_positional() && TakesFile(option)) *files = true;
  }
  for (const CLI::App* sub : command->get_subcommands({})) words.push_back(sub->get_name());
  return words;
}

std::string ValueCases(const CLI::App& app) {
  std::ostringstream out;
  for (const CLI::Option* option : app.get_options()) {
    if (IsFlag(option) || option->get_positional() || !Visible(option)) continue;
    const std::vector<std::string> choices = Choices(option);
    std::string names;
    for (const std::string& l : option->get_lnames()) names += (names.empty() ? "" : "|") + ("--" + l);
    if (names.empty()) continue;
    if (!choices.empty()) {
      out << "    " << names << ") COMPREPLY=($(compgen -W \"" << Words(choices) << "\" -- \"$cur\")); return ;;\n";
    } else if (TakesFile(option)) {
      out << "    " << names << ") COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n";
    } else {
      out << "    " << names << ") return ;;\n";
    }
  }
  return out.str();
}

}  // namespace

std::string ManPage(const CLI::App& app, const ManualInfo& info) {
  std::ostringstream out;
  std::string upper = info.program;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return char(std::toupper(c)); });
  out << ".TH " << upper << " 1 \"\" \"" << Roff(info.program + " " + info.version) << "\" \"User Commands\"\n"
      << ".SH NAME\n" << Roff(info.program) << " \\- " << Roff(info.summary) << "\n"
      << ".SH SYNOPSIS\n\\fB" << Roff(info.program) << "\\fR " << Roff(info.synopsis) << "\n"
      << ".SH DESCRIPTION\n";
  ManText(out, app.get_description());
  out << ".SH OPTIONS\n";
  for (const std::string& group : app.get_groups()) {
    if (group.empty()) continue;
    out << ".SS " << Roff(group) << "\n";
    for (const CLI::Option* option : app.get_options([&](const CLI::Option* o) { return o->get_group() == group; })) {
      if (!option->get_positional()) ManOption(out, option);
    }
  }
  std::vector<const CLI::App*> commands = app.get_subcommands({});
  if (!commands.empty()) {
    out << ".SH COMMANDS\n";
    for (const CLI::App* command : commands) ManCommand(out, command, "");
  }
  for (const auto& [title, text] : info.sections) {
    out << ".SH " << Roff(title) << "\n";
    ManText(out, text);
  }
  return out.str();
}

std::string BashCompletion(const CLI::App& app, const std::string& program) {
  std::string function = "_" + program;
  std::replace(function.begin(), function.end(), '-', '_');
  bool topFiles = false;
  std::vector<std::string> top = CommandWords(&app, &topFiles);
  std::vector<std::string> names;
  std::ostringstream cases;
  for (const CLI::App* command : app.get_subcommands({})) {
    names.push_back(command->get_name());
    bool files = false;
    const std::string words = Words(CommandWords(command, &files));
    cases << "    " << command->get_name() << ") COMPREPLY=($(compgen -W \"" << words << "\" -- \"$cur\")"
          << (files ? " $(compgen -f -- \"$cur\")" : "") << ") ;;\n";
  }
  std::ostringstream out;
  out << "# bash completion for " << program << ", made from its command table.\n"
      << function << "() {\n"
      << "  local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\" command=\"\" i\n"
      << "  case \"$prev\" in\n" << ValueCases(app) << "  esac\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    case \"${COMP_WORDS[i]}\" in\n"
      << "      " << (names.empty() ? "\"\"" : CLI::detail::join(names, "|")) << ") command=\"${COMP_WORDS[i]}\"; break ;;\n"
      << "    esac\n"
      << "  done\n"
      << "  case \"$command\" in\n" << cases.str()
      << "    *) COMPREPLY=($(compgen -W \"" << Words(top) << "\" -- \"$cur\")) ;;\n"
      << "  esac\n"
      << "}\n"
      << "complete -F " << function << " " << program << "\n";
  return out.str();
}

std::string ClosestName(const std::string& word, const std::vector<std::string>& names) {
  auto distance = [](const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
      size_t diagonal = row[0];
      row[0] = i;
      for (size_t j = 1; j <= b.size(); ++j) {
        const size_t above = row[j];
        row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
        diagonal = above;
      }
    }
    return row[b.size()];
  };
  std::string best;
  size_t bestDistance = std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string& name : names) {
    const size_t d = distance(word, name);
    if (d < bestDistance) {
      best = name;
      bestDistance = d;
    }
  }
  return best;
}

}  // namespace tamrik::cli
