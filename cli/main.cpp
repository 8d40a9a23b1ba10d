// tamrik: the command-line tool for field-bus gateways. It talks to one gateway through the
// driver library, over a serial line, TCP or UDP, from demonstration data, or (by default)
// to a simulated gateway that it starts itself on a private loopback port.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "Manual.h"
#include "Tool.h"

namespace tamrik::cli {
namespace {

// Trace lines of the driver, one stderr line each, marked so they stand apart from results.
// The driver's texts are 8-bit (code page 1252); the terminal wants UTF-8.
void TraceToStderr(void*, const char* text) {
  std::string line;
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c == '\n' || c == '\r') continue;
    if (c < 0x80) {
      line += char(c);
    } else if (c < 0xA0) {
      line += '?';  // the few code page 1252 signs in this range never occur in trace texts
    } else {
      line += char(0xC0 | (c >> 6));
      line += char(0x80 | (c & 0x3F));
    }
  }
  std::fprintf(stderr, "trace: %s\n", line.c_str());
}

void Codes(Context& ctx, const std::vector<std::string>& args) {
  Json list = Json::Array();
  for (const std::string& text : args) {
    const uint32_t code = uint32_t(ParseNumber(text, "CODE", 0, 0xFFFFFFFFLL));
    Json entry = ErrorObject(code);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%X", code);
    entry.Set("hex", hex);
    list.Push(entry);
    if (!ctx.json) std::printf("%-10s %-20s %s\n", hex, tamrik_result_name(code), tamrik_result_text(code));
  }
  ctx.printed = true;
  ctx.result.Set("count", int64_t(list.Size()));
  ctx.result.Set("codes", list);
}

// What the generated man page says beyond the command table.
ManualInfo ToolManual() {
  ManualInfo info;
  info.program = "tamrik";
  info.version = TAMRIK_VERSION;
  info.summary = "talk to a field-bus gateway through the tamrik driver";
  info.synopsis = "[LINK] [OPTIONS] COMMAND [ARGS]";
  info.sections = {
      {"SAFETY",
       "Commands that change a gateway (outputs, parameters, address, operation mode, reset, field-bus start and "
       "reset, LEDs, service baud rate, privileged mode, raw services and blocks, the downloads, the tour) run on a "
       "serial, TCP or UDP link only with --yes. Without it they say what they would have changed, send nothing and "
       "exit with status 2. The simulated gateway and demonstration data need no --yes."},
      {"EXIT STATUS",
       "0 success; 1 a driver call failed (its code is printed with name and meaning), or info could not read every "
       "part; 2 a usage mistake, a malformed input file, or a change refused without --yes; 130 stopped by SIGINT or "
       "SIGTERM (an image download sends its cancel first)."},
      {"FILES", "kaVdmo.ini, the shipped demonstration station, in share/tamrik."},
      {"SEE ALSO", "tamrik-sim(1). The tool's guide is docs/cli.md; the result codes are listed in docs/result-codes.md."},
  };
  return info;
}

// The hidden generators and help for one command; true when one of them ran.
bool RunGenerators(CLI::App& app, bool man, const std::string& completion) {
  if (man) {
    std::fputs(ManPage(app, ToolManual()).c_str(), stdout);
    return true;
  }
  if (completion.empty()) return false;
  if (completion != "bash") throw UsageError("--completion knows bash only");
  std::fputs(BashCompletion(app, "tamrik").c_str(), stdout);
  return true;
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

// "unknown command 'inptus'; did you mean 'inputs'?"
std::string UnknownCommand(const CLI::App& app, const std::string& word) {
  const std::string close = ClosestName(word, CommandNames(app));
  return "unknown command '" + word + "'" + (close.empty() ? "" : "; did you mean '" + close + "'?");
}

void AddHelpCommand(CLI::App& app, Context& ctx) {
  auto* cmd = app.add_subcommand("help", "Help for one command, or for the tool");
  auto name = std::make_shared<std::vector<std::string>>();
  cmd->add_option("COMMAND", *name, "The command, e.g. watch or 'stream write'");
  cmd->callback([&ctx, &app, name]() {
    ctx.run = [&app, name](Context& c) {
      const CLI::App* target = &app;
      std::string prefix = "tamrik";
      for (const std::string& word : *name) {
        const auto found = target->get_subcommands([&](const CLI::App* s) { return s->get_name() == word; });
        if (found.empty()) throw UsageError(UnknownCommand(*target, word));
        if (target != &app) prefix += " " + target->get_name();
        target = found.front();
      }
      std::fputs(target->help(target == &app ? "" : prefix).c_str(), stdout);
      c.printed = true;
      c.json = false;
    };
  });
}

void AddCodesCommand(CLI::App& app, Context& ctx) {
  auto* cmd = app.add_subcommand("codes", "Explain result codes (the whole table: docs/result-codes.md)");
  auto args = std::make_shared<std::vector<std::string>>();
  cmd->add_option("CODE", *args, "Result codes, decimal or 0x hexadecimal")->required();
  cmd->callback([&ctx, args]() { ctx.run = [args](Context& c) { Codes(c, *args); }; });
}

}  // namespace

void AddLinkOptions(CLI::App& app, Context& ctx, std::vector<CLI::Option*>* links);
void AddOtherOptions(CLI::App& app, Context& ctx);

}  // namespace tamrik::cli

namespace {

using namespace tamrik::cli;

// --json was asked for: then every ending, a usage mistake too, is one JSON document.
bool JsonAsked(int argc, char** argv) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) return true;
  }
  return false;
}

void PrintError(bool json, const Json& partial, const Json& error) {
  if (!json) return;
  Json doc = partial;
  doc.Set("ok", false);
  doc.Set("error", error);
  std::printf("%s\n", doc.Dump().c_str());
}

Json OwnError(const char* name, const std::string& text) {
  Json error = Json::Object();
  error.Set("code", 0);
  error.Set("name", name);
  error.Set("text", text);
  return error;
}

int UsageFailure(bool json, const std::string& message) {
  std::fprintf(stderr, "tamrik: %s\n", message.c_str());
  PrintError(json, Json::Object(), OwnError("usage", message));
  return kExitUsage;
}

int ParseFailure(const CLI::App& app, const CLI::ParseError& e, bool json) {
  std::string message = e.what();
  const std::vector<std::string> extras = app.remaining();
  if (dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr && app.get_subcommands().empty() && !extras.empty() &&
      extras.front().rfind("-", 0) != 0) {
    message = UnknownCommand(app, extras.front());
  }
  UsageFailure(json, message);
  if (!json) std::fprintf(stderr, "tamrik: run 'tamrik --help' for the commands and options\n");
  return kExitUsage;
}

int CallFailure(Context& ctx, const CallFailed& failure) {
  Json error = Json::Object();
  if (failure.code != 0) {
    error = ErrorObject(failure.code);
    // The socket family in words first ("127.0.0.1:5020 refused the connection"), the code beside it.
    if (!failure.note.empty()) {
      std::fprintf(stderr, "tamrik: %s (%s failed: %s)\n", failure.note.c_str(), failure.method.c_str(),
                   FormatCode(failure.code).c_str());
    } else {
      std::fprintf(stderr, "tamrik: %s failed: %s\n", failure.method.c_str(), FormatCode(failure.code).c_str());
    }
  } else {
    error = OwnError("check", failure.note);
    std::fprintf(stderr, "tamrik: %s: %s\n", failure.method.c_str(), failure.note.c_str());
  }
  error.Set("method", failure.method);
  if (!failure.note.empty()) error.Set("note", failure.note);
  PrintError(ctx.json, ctx.result, error);
  if (!ctx.json && !ctx.printed && ctx.result.Size() > 0) std::fputs(ctx.result.Render().c_str(), stdout);
  return kExitFailed;
}

int RunCommand(Context& ctx) {
  try {
    ctx.run(ctx);
  } catch (const CallFailed& failure) {
    return CallFailure(ctx, failure);
  } catch (const UsageError& e) {
    return UsageFailure(ctx.json, e.what());
  } catch (const Interrupted& e) {
    std::fprintf(stderr, "tamrik: %s\n", e.what());
    PrintError(ctx.json, ctx.result, OwnError("interrupted", e.what()));
    return kExitInterrupted;
  }
  if (ctx.json) {
    ctx.result.Set("ok", ctx.status == kExitOk);
    std::printf("%s\n", ctx.result.Dump().c_str());
  } else if (!ctx.printed && ctx.result.Size() > 0) {
    std::fputs(ctx.result.Render().c_str(), stdout);
  }
  return ctx.status;
}

// The whole command table: what --help, the man page and the completion show.
struct Hidden {
  bool man = false;
  std::string completion;
};

void Configure(CLI::App& app, Context& ctx, std::vector<CLI::Option*>* links, Hidden* hidden) {
  app.fallthrough();
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", std::string("tamrik ") + TAMRIK_VERSION);
  app.footer(
      "\nExamples:\n"
      "  tamrik                          tour of a simulated gateway (same as: tamrik --sim demo)\n"
      "  tamrik info                     identity and state of the simulated gateway\n"
      "  tamrik --tcp 10.0.0.7:5020 inputs\n"
      "  tamrik --serial /dev/ttyUSB0 --baud 57600 --yes outputs 01 80\n"
      "  tamrik --demo modules           answers from the shipped demonstration data\n"
      "  tamrik --json info | jq .identity\n"
      "  tamrik help watch               one command's arguments\n"
      "  tamrik codes 0x28101            what a result code means\n"
      "\nExit status: 0 success, 1 a driver call failed (its code is printed), 2 bad usage\n"
      "or a change refused without --yes, 130 stopped by Ctrl-C.");
  AddLinkOptions(app, ctx, links);
  AddOtherOptions(app, ctx);
  app.add_flag("--man", hidden->man, "The manual page in roff")->group("");
  app.add_option("--completion", hidden->completion, "A completion script for the shell named")->group("");
  AddGatewayCommands(app, ctx);
  AddDataCommands(app, ctx);
  AddWatchCommand(app, ctx);
  AddDownloadCommands(app, ctx);
  AddDemoCommand(app, ctx);
  AddCodesCommand(app, ctx);
  AddHelpCommand(app, ctx);
}

int Run(int argc, char** argv) {
  Context ctx;
  CLI::App app{
      "tamrik: talk to a field-bus gateway through the tamrik driver.\n"
      "Without a link option it starts a simulated gateway on a private loopback port,\n"
      "so every command can be tried with no hardware. Byte arguments are hexadecimal\n"
      "(01 FF, 01FF or 0x01,0xFF); numbers are decimal or 0x hexadecimal.",
      "tamrik"};
  std::vector<CLI::Option*> links;
  Hidden hidden;
  Configure(app, ctx, &links, &hidden);
  const bool json = JsonAsked(argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return ParseFailure(app, e, json);
  }
  try {
    if (RunGenerators(app, hidden.man, hidden.completion)) return kExitOk;
  } catch (const UsageError& e) {
    return UsageFailure(json, e.what());
  }
  ctx.linkGiven = false;
  for (const CLI::Option* option : links) ctx.linkGiven = ctx.linkGiven || option->count() > 0;
  if (!ctx.linkGiven) ctx.link.sim = true;
  if (!ctx.run) {
    // No command: the tour for a simulated gateway; for a real one only what reads nothing back.
    ctx.run = ctx.link.sim ? RunTour : [](Context& c) {
      Json identity = ReadIdentity(c, nullptr);
      for (const auto& [key, value] : identity.Fields()) c.result.Set(key, value);
    };
  }
  if (ctx.link.trace) tamrik_set_trace(TraceToStderr, nullptr);
  const int status = RunCommand(ctx);
  std::fflush(stdout);
  ctx.session_.reset();
  return status;
}

}  // namespace

// Nothing may leave the program as an exception: whatever the libraries throw ends here with
// a message and a failure status.
int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tamrik: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "tamrik: unexpected failure\n");
  }
  return 1;
}
