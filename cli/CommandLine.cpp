#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>

#include "Render.h"

namespace tamrik::cli {
namespace {

// "-n,--count" is named "--count"; a positional keeps its name.
std::string Key(const std::string& name) {
  const size_t comma = name.rfind(',');
  return comma == std::string::npos ? name : name.substr(comma + 1);
}

void AddArgument(CLI::App& command, const Argument& argument) {
  if (argument.kind == Kind::Flag) {
    const std::string help = argument.help;
    command.add_flag(argument.name, help);
    return;
  }
  CLI::Option* option = command.add_option(argument.name, CLI::callback_t{}, argument.help);
  if (argument.count > 0) {
    option->expected(argument.count);
  } else if (argument.kind == Kind::Words || argument.kind == Kind::Bytes) {
    option->expected(CLI::detail::expected_max_vector_size);
  }
  option->type_name(*argument.type != '\0' ? argument.type : "TEXT");
  if (argument.required) option->required();
  if (!argument.choices.empty()) option->check(CLI::IsMember(argument.choices));
  // The range only for help: the number is read by the tool's own reading of numbers, whose
  // message names the argument.
  if (argument.kind == Kind::Number && option->nonpositional())
    option->check(CLI::Validator("INT in [" + std::to_string(argument.low) + " - " + std::to_string(argument.high) + "]"));
}

// The group that holds "stream write" (added before it), and the command's own word.
CLI::App* Parent(CLI::App& app, const std::string& name, std::string* word) {
  CLI::App* parent = &app;
  size_t start = 0;
  for (size_t blank = name.find(' '); blank != std::string::npos; blank = name.find(' ', start)) {
    parent = parent->get_subcommand(name.substr(start, blank - start));
    start = blank + 1;
  }
  *word = name.substr(start);
  return parent;
}

Args::Value Read(const Argument& argument, const CLI::Option& option) {
  Args::Value value;
  value.given = option.count() > 0;
  if (value.given) {
    value.words = option.results();
  } else if (*argument.fallback != '\0') {
    value.words = {argument.fallback};
  }
  if (argument.kind == Kind::Number && !value.words.empty())
    value.number = ParseNumber(value.words.front(), Key(argument.name), argument.low, argument.high);
  if (argument.kind == Kind::Bytes) value.bytes = ParseBytes(value.words);
  return value;
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

}  // namespace

bool Args::Has(const std::string& name) const { return Get(name).given; }

std::string Args::Word(const std::string& name) const {
  const Value& value = Get(name);
  return value.words.empty() ? std::string() : value.words.front();
}

const std::vector<std::string>& Args::Words(const std::string& name) const { return Get(name).words; }

int64_t Args::Number(const std::string& name) const { return Get(name).number; }

const std::vector<uint8_t>& Args::Bytes(const std::string& name) const { return Get(name).bytes; }

const Args::Value& Args::Get(const std::string& name) const {
  static const Value kNone;
  const auto found = values_.find(name);
  return found == values_.end() ? kNone : found->second;
}

void AddCommands(CLI::App& app) {
  for (const Command& command : CommandTable()) {
    std::string word;
    CLI::App* sub = Parent(app, command.name, &word)->add_subcommand(word, command.summary);
    if (command.run == nullptr) sub->require_subcommand(1);
    for (const Argument& argument : command.arguments) AddArgument(*sub, argument);
  }
}

const Command* ChosenCommand(const CLI::App& app, Args* args) {
  const CLI::App* chosen = &app;
  std::string path;
  while (!chosen->get_subcommands().empty()) {
    chosen = chosen->get_subcommands().front();
    path += (path.empty() ? "" : " ") + chosen->get_name();
  }
  const auto& table = CommandTable();
  const auto command = std::find_if(table.begin(), table.end(), [&](const Command& c) { return c.name == path; });
  if (command == table.end()) return nullptr;
  for (const Argument& argument : command->arguments)
    args->Set(Key(argument.name), Read(argument, *chosen->get_option(Key(argument.name))));
  return &*command;
}

std::string UnknownCommand(const CLI::App& app, const std::string& word) {
  const std::string close = ClosestName(word, CommandNames(app));
  return "unknown command '" + word + "'" + (close.empty() ? "" : "; did you mean '" + close + "'?");
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

void Help(Context& ctx, const Args& args) {
  const CLI::App* target = ctx.app;
  std::string prefix = "tamrik";
  for (const std::string& word : args.Words("COMMAND")) {
    const auto found = target->get_subcommands([&](const CLI::App* s) { return s->get_name() == word; });
    if (found.empty()) throw UsageError(UnknownCommand(*target, word));
    if (target != ctx.app) prefix += " " + target->get_name();
    target = found.front();
  }
  std::fputs(target->help(target == ctx.app ? "" : prefix).c_str(), stdout);
  ctx.printed = true;
  ctx.json = false;
}

void Codes(Context& ctx, const Args& args) {
  Json list = Json::array();
  for (const std::string& text : args.Words("CODE")) {
    const uint32_t code = uint32_t(ParseNumber(text, "CODE", 0, 0xFFFFFFFFLL));
    const std::string hex = HexText(code, 1);
    Json entry = ErrorObject(code);
    entry["hex"] = hex;
    list.push_back(entry);
    if (!ctx.json) std::printf("%-10s %-20s %s\n", hex.c_str(), tamrik_result_name(code), tamrik_result_text(code));
  }
  ctx.printed = true;
  ctx.result["count"] = list.size();
  ctx.result["codes"] = list;
}

}  // namespace tamrik::cli
