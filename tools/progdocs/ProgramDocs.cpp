// Walks a CLI11 App (options by help group, commands at any depth) and writes it out as a
// manual page and as a bash completion script.
#include "ProgramDocs.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

namespace tamrik::progdocs {

namespace {

// A command of the program: the program itself (no words) or a subcommand, with the options
// it shows in its help, its option groups' included.
struct Command {
  const CLI::App* app = nullptr;
  std::vector<std::string> path;
  std::vector<const CLI::Option*> options;      // named ones
  std::vector<const CLI::Option*> positionals;  // in the order they are taken
  std::vector<std::string> commands;            // the names of its own visible subcommands
  const Command* parent = nullptr;
};

bool Visible(const CLI::Option* option) { return !option->get_group().empty(); }

void AddOptions(const CLI::App& app, Command* command) {
  for (const CLI::Option* option : app.get_options()) {
    if (!Visible(option)) continue;
    (option->nonpositional() ? command->options : command->positionals).push_back(option);
  }
}

// Depth first, so that the list reads as the program nests its commands. Option groups are
// subcommands without a name in CLI11; their options belong to the command that holds them.
void Collect(const CLI::App& app, std::vector<std::string> path, std::vector<Command>* out) {
  Command command;
  command.app = &app;
  command.path = std::move(path);
  AddOptions(app, &command);
  std::vector<const CLI::App*> children;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (sub->get_name().empty()) {
      AddOptions(*sub, &command);
    } else if (!sub->get_group().empty() && !sub->get_disabled()) {
      command.commands.push_back(sub->get_name());
      children.push_back(sub);
    }
  }
  const std::vector<std::string> ownPath = command.path;
  out->push_back(std::move(command));
  for (const CLI::App* sub : children) {
    std::vector<std::string> subPath = ownPath;
    subPath.push_back(sub->get_name());
    Collect(*sub, std::move(subPath), out);
  }
}

std::vector<Command> Commands(const CLI::App& app) {
  std::vector<Command> commands;
  Collect(app, {}, &commands);
  // Every command's parent is the one whose path is its own less the last word; linked only
  // now that the list has stopped growing.
  for (Command& command : commands) {
    if (command.path.empty()) continue;
    for (const Command& other : commands) {
      if (other.path.size() + 1 == command.path.size() &&
          std::equal(other.path.begin(), other.path.end(), command.path.begin())) {
        command.parent = &other;
      }
    }
  }
  return commands;
}

std::string Join(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// What an option takes after its name, as --help shows it.
struct Value {
  bool takes = false;     // false: a flag
  bool required = false;  // the next word is the value whatever it looks like
  std::string label;      // the type name, with the validators' descriptions
  bool repeats = false;
};

Value ValueOf(const CLI::Option* option) {
  Value value;
  if (option->get_type_size_max() == 0) return value;
  value.takes = true;
  value.required = option->get_expected_min() > 0;
  value.label = option->get_type_name();
  value.repeats = option->get_expected_max() >= CLI::detail::expected_max_vector_size;
  return value;
}

// How a value completes: from a fixed set of words, as a file name, or not at all.
struct ValueWords {
  std::vector<std::string> words;
  bool files = false;
};

bool ShellWord(const std::string& word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || c == '+' || c == '-' || c == '/';
  });
}

// A placeholder that stands for a file name: FILE, PATH, DIR, DEVICE, or a file's own name
// written in capitals (KAVDMO.INI).
bool NamesFile(const std::string& word) {
  if (word == "FILE" || word == "PATH" || word == "DIR" || word == "DEVICE") return true;
  return word.find('.') != std::string::npos &&
         std::none_of(word.begin(), word.end(), [](char c) { return std::islower(static_cast<unsigned char>(c)) != 0; });
}

// The parts of a type name are split by ':' (CLI11 appends its checks so); a part in brackets
// ("[a|b]", an optional value) or braces ("{a,b}") lists the words the value may be.
ValueWords WordsOf(const std::string& label) {
  ValueWords result;
  for (const std::string& part : Split(label, ':')) {
    const bool bracket = part.size() > 2 && part.front() == '[' && part.back() == ']';
    const bool brace = part.size() > 2 && part.front() == '{' && part.back() == '}';
    const std::vector<std::string> words =
        Split(bracket || brace ? part.substr(1, part.size() - 2) : part, brace ? ',' : '|');
    if (std::any_of(words.begin(), words.end(), NamesFile)) {
      result.files = true;
    } else if (bracket || brace) {
      std::copy_if(words.begin(), words.end(), std::back_inserter(result.words), ShellWord);
    }
  }
  return result;
}

// --- roff -------------------------------------------------------------------------------------

// Backslashes print as themselves, and every '-' is the minus that a user can copy into a
// shell (a plain '-' sets as a hyphen).
std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  return out;
}

// A line of running text: one that starts with a period or an apostrophe would be taken as
// a request.
std::string TextLine(const std::string& text) {
  const std::string escaped = Escape(text);
  return !escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'') ? "\\&" + escaped : escaped;
}

std::string Quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : Escape(text)) out += c == '"' ? std::string("\\(dq") : std::string(1, c);
  return out + "\"";
}

void WriteText(std::ostream& out, const std::string& text) {
  bool literal = false;
  const auto endLiteral = [&] {
    if (literal) out << ".fi\n.RE\n";
    literal = false;
  };
  for (const std::string& line : Split(text, '\n')) {
    if (line.empty()) {
      endLiteral();
      out << ".PP\n";
    } else if (line.rfind("  ", 0) == 0) {
      if (!literal) out << ".RS 4\n.nf\n";
      literal = true;
      out << TextLine(line.substr(2)) << "\n";
    } else if (const size_t tab = line.find('\t'); tab != std::string::npos) {
      endLiteral();
      out << ".TP\n\\fB" << Escape(line.substr(0, tab)) << "\\fR\n" << TextLine(line.substr(tab + 1)) << "\n";
    } else {
      endLiteral();
      out << TextLine(line) << "\n";
    }
  }
  endLiteral();
}

void WriteOption(std::ostream& out, const CLI::Option* option) {
  out << ".TP\n";
  std::vector<std::string> names;
  for (const std::string& name : Split(option->get_name(false, true), ',')) names.push_back("\\fB" + Escape(name) + "\\fR");
  out << Join(names, ", ");
  const Value value = ValueOf(option);
  if (value.takes && !value.label.empty()) {
    const bool bracketed = value.label.front() == '[';
    out << " " << (value.required || bracketed ? "" : "[") << "\\fI" << Escape(value.label) << "\\fR"
        << (value.required || bracketed ? "" : "]") << (value.repeats ? " ..." : "");
  }
  out << "\n" << TextLine(option->get_description()) << "\n";
}

void WritePositional(std::ostream& out, const CLI::Option* positional) {
  out << ".TP\n\\fI" << Escape(positional->get_name(true)) << "\\fR"
      << (ValueOf(positional).repeats ? " ..." : "") << "\n"
      << TextLine(positional->get_description()) << "\n";
}

// The options in the order of their help groups, each group under its own heading.
void WriteOptionGroups(std::ostream& out, const std::vector<const CLI::Option*>& options, const char* heading) {
  std::vector<std::string> groups;
  for (const CLI::Option* option : options) {
    if (std::find(groups.begin(), groups.end(), option->get_group()) == groups.end()) groups.push_back(option->get_group());
  }
  for (const std::string& group : groups) {
    out << heading << " " << Quoted(group) << "\n";
    for (const CLI::Option* option : options) {
      if (option->get_group() == group) WriteOption(out, option);
    }
  }
}

std::string DefaultSynopsis(const Command& top) {
  std::string line = "[OPTIONS]";
  if (!top.commands.empty()) line += " COMMAND [OPTIONS]";
  for (const CLI::Option* positional : top.positionals) line += " " + positional->get_name(true);
  return line;
}

// --- bash ------------------------------------------------------------------------------------

std::string Key(const Command& command) { return Join(command.path, "/"); }

std::vector<std::string> NamesOf(const CLI::Option* option) {
  std::vector<std::string> names;
  for (const std::string& name : option->get_snames()) names.push_back("-" + name);
  for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

// The options a command takes: its own, and its parents' where it lets them through, unless
// one of its own has the name (every command has its own --help).
std::vector<const CLI::Option*> OptionsAt(const Command& command) {
  std::vector<const CLI::Option*> options = command.options;
  std::vector<std::string> taken;
  for (const CLI::Option* option : options) {
    for (const std::string& name : NamesOf(option)) taken.push_back(name);
  }
  for (const Command* c = &command; c->parent != nullptr && c->app->get_fallthrough(); c = c->parent) {
    for (const CLI::Option* option : c->parent->options) {
      const std::vector<std::string> names = NamesOf(option);
      if (std::any_of(names.begin(), names.end(),
                      [&](const std::string& n) { return std::find(taken.begin(), taken.end(), n) != taken.end(); })) {
        continue;
      }
      taken.insert(taken.end(), names.begin(), names.end());
      options.push_back(option);
    }
  }
  return options;
}

// A case pattern matching "$node:NAME" for each name.
std::string Patterns(const std::string& key, const std::vector<std::string>& names) {
  std::string patterns;
  for (const std::string& name : names) {
    if (!patterns.empty()) patterns += " | ";
    patterns.append("\"").append(key).append(":").append(name).append("\"");
  }
  return patterns;
}

std::string FunctionName(const std::string& program) {
  std::string name = "_";
  for (char c : program) name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  return name + "_complete";
}

// The script up to the walk over the words: the word at the cursor and the one before it.
constexpr char kScriptHead[] =
    "  local cur=${COMP_WORDS[COMP_CWORD]} prev=\"\" node=\"\" word i skip=0\n"
    "  ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}\n"
    "  # --name=value arrives as three words: the name, '=' and the value.\n"
    "  if [[ $cur == \"=\" ]]; then\n"
    "    cur=\"\"\n"
    "  elif [[ $prev == \"=\" ]] && ((COMP_CWORD > 1)); then\n"
    "    prev=${COMP_WORDS[COMP_CWORD - 2]}\n"
    "  fi\n"
    "  # The command the words so far lead to; an option's value is no command.\n"
    "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
    "    word=${COMP_WORDS[i]}\n"
    "    if ((skip)); then\n"
    "      skip=0\n"
    "      continue\n"
    "    fi\n"
    "    case \"$node:$word\" in\n";

// What is offered at the cursor, once the command and the option before the cursor are known:
// options after a dash, else the command's commands, the words its arguments may be, files.
constexpr char kScriptTail[] =
    "  esac\n"
    "  if [[ $cur == -* ]] || [[ -z $commands && -z $words && $files == 0 ]]; then\n"
    "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$cur\")\n"
    "  else\n"
    "    mapfile -t COMPREPLY < <(compgen -W \"$commands $words\" -- \"$cur\")\n"
    "    if ((files)); then\n"
    "      compopt -o filenames 2>/dev/null\n"
    "      mapfile -t -O \"${#COMPREPLY[@]}\" COMPREPLY < <(compgen -f -- \"$cur\")\n"
    "    fi\n"
    "  fi\n"
    "  return 0\n"
    "}\n";

// The walk's cases: a command word moves to that command, an option that takes a value skips
// the next word.
void WriteWalk(std::ostream& out, const std::vector<Command>& commands) {
  for (const Command& command : commands) {
    for (const std::string& sub : command.commands) {
      if (!ShellWord(sub)) continue;
      std::vector<std::string> path = command.path;
      path.push_back(sub);
      out << "      " << Patterns(Key(command), {sub}) << ") node=\"" << Join(path, "/") << "\" ;;\n";
    }
    std::vector<std::string> taking;
    for (const CLI::Option* option : OptionsAt(command)) {
      if (ValueOf(option).required) {
        for (const std::string& name : NamesOf(option)) taking.push_back(name);
      }
    }
    if (!taking.empty()) out << "      " << Patterns(Key(command), taking) << ") skip=1 ;;\n";
  }
}

// The cases for the value of the option before the cursor: its words, file names, or nothing
// (numbers, codes and the like are the user's own).
void WriteValues(std::ostream& out, const std::vector<Command>& commands) {
  std::vector<std::string> fileValues, ownValues;
  for (const Command& command : commands) {
    for (const CLI::Option* option : OptionsAt(command)) {
      const Value value = ValueOf(option);
      if (!value.takes) continue;
      const ValueWords words = WordsOf(value.label);
      const std::string patterns = Patterns(Key(command), NamesOf(option));
      if (words.files) {
        fileValues.push_back(patterns);
      } else if (!words.words.empty()) {
        // An optional value leaves the next word to the options when it looks like one.
        out << "    " << patterns << ")\n"
            << "      if [[ " << (value.required ? "1" : "$cur != -*") << " ]]; then\n"
            << "        mapfile -t COMPREPLY < <(compgen -W \"" << Join(words.words, " ") << "\" -- \"$cur\")\n"
            << "        return 0\n"
            << "      fi ;;\n";
      } else if (value.required) {
        ownValues.push_back(patterns);
      }
    }
  }
  if (!fileValues.empty()) {
    out << "    " << Join(fileValues, " | ") << ")\n"
        << "      compopt -o filenames 2>/dev/null\n"
        << "      mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")\n"
        << "      return 0 ;;\n";
  }
  if (!ownValues.empty()) {
    out << "    " << Join(ownValues, " | ") << ")\n"
        << "      COMPREPLY=()\n"
        << "      return 0 ;;\n";
  }
}

// Each command's options, commands, the words its positionals may be, and whether they take
// file names.
void WriteNodes(std::ostream& out, const std::vector<Command>& commands) {
  for (const Command& command : commands) {
    std::vector<std::string> options, subs, words;
    bool files = false;
    for (const CLI::Option* option : OptionsAt(command)) {
      for (const std::string& name : NamesOf(option)) options.push_back(name);
    }
    for (const std::string& sub : command.commands) {
      if (ShellWord(sub)) subs.push_back(sub);
    }
    for (const CLI::Option* positional : command.positionals) {
      const ValueWords value = WordsOf(ValueOf(positional).label);
      words.insert(words.end(), value.words.begin(), value.words.end());
      files = files || value.files;
    }
    out << "    \"" << Key(command) << "\")\n"
        << "      options=\"" << Join(options, " ") << "\"\n"
        << "      commands=\"" << Join(subs, " ") << "\"\n"
        << "      words=\"" << Join(words, " ") << "\"\n"
        << "      files=" << (files ? 1 : 0) << " ;;\n";
  }
}

}  // namespace

std::string RoffManPage(const CLI::App& app, const ManPage& page) {
  const std::vector<Command> commands = Commands(app);
  const Command& top = commands.front();
  std::ostringstream out;
  std::string title = page.name;
  std::transform(title.begin(), title.end(), title.begin(), [](unsigned char c) { return char(std::toupper(c)); });
  out << ".\\\" Made from the program's option table when it was built: edit the program, not this page.\n"
      << ".TH " << Quoted(title) << " 1 \"\" " << Quoted(page.source) << " " << Quoted(page.manual) << "\n"
      << ".nh\n.ad l\n"
      << ".SH NAME\n" << Escape(page.name) << " \\- " << TextLine(page.summary) << "\n"
      << ".SH SYNOPSIS\n";
  const std::vector<std::string> synopsis = page.synopsis.empty() ? std::vector{DefaultSynopsis(top)} : page.synopsis;
  for (size_t i = 0; i < synopsis.size(); ++i) {
    out << (i > 0 ? ".br\n" : "") << "\\fB" << Escape(page.name) << "\\fR " << Escape(synopsis[i]) << "\n";
  }
  out << ".SH DESCRIPTION\n";
  WriteText(out, app.get_description());
  if (!app.get_footer().empty()) {
    out << ".PP\n";
    WriteText(out, app.get_footer());
  }
  if (!top.positionals.empty()) {
    out << ".SH ARGUMENTS\n";
    for (const CLI::Option* positional : top.positionals) WritePositional(out, positional);
  }
  out << ".SH OPTIONS\n";
  WriteOptionGroups(out, top.options, ".SS");
  if (commands.size() > 1) {
    out << ".SH COMMANDS\n";
    for (size_t i = 1; i < commands.size(); ++i) {
      const Command& command = commands[i];
      out << ".SS " << Quoted(Join(command.path, " ")) << "\n";
      WriteText(out, command.app->get_description());
      for (const CLI::Option* positional : command.positionals) WritePositional(out, positional);
      // Every command has --help; OPTIONS says so once.
      for (const CLI::Option* option : command.options) {
        if (option != command.app->get_help_ptr()) WriteOption(out, option);
      }
    }
  }
  for (const ManSection& section : page.sections) {
    out << ".SH " << Quoted(section.title) << "\n";
    WriteText(out, section.text);
  }
  return out.str();
}

std::string BashCompletion(const CLI::App& app, const std::string& program) {
  const std::vector<Command> commands = Commands(app);
  const std::string function = FunctionName(program);
  std::ostringstream out;
  out << "# bash completion for " << program << ", made from its option table when it was built.\n"
      << function << "() {\n"
      << kScriptHead;
  WriteWalk(out, commands);
  out << "    esac\n"
      << "  done\n"
      << "  # The value of the option before the cursor.\n"
      << "  case \"$node:$prev\" in\n";
  WriteValues(out, commands);
  out << "  esac\n"
      << "  local options=\"\" commands=\"\" words=\"\" files=0\n"
      << "  case \"$node\" in\n";
  WriteNodes(out, commands);
  out << kScriptTail << "complete -F " << function << " " << program << "\n";
  return out.str();
}

}  // namespace tamrik::progdocs
