// tamrik: the command-line tool for field-bus gateways. It talks to one gateway through the
// driver library, over a serial line, TCP or UDP, from demonstration data, or (by default)
// to a simulated gateway that it starts itself on a private loopback port.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "CommandLine.h"
#include "ProgramDocs.h"
#include "Render.h"
#include "protocol/Text.h"

namespace tamrik::cli {

void AddLinkOptions(CLI::App& app, Context& ctx, std::vector<CLI::Option*>* links);
void AddOtherOptions(CLI::App& app, Context& ctx);

namespace {

// Trace lines of the driver, one stderr line each, marked so they stand apart from results.
void TraceToStderr(void*, const char* text) {
  std::string line = text;
  std::erase_if(line, [](char c) { return c == '\n' || c == '\r'; });
  std::fprintf(stderr, "trace: %s\n", protocol::Cp1252ToUtf8(line).c_str());
}

// What the generated man page says beyond the command table.
progdocs::ManPage ToolManual() {
  progdocs::ManPage page;
  page.name = "tamrik";
  page.summary = "talk to a field-bus gateway through the tamrik driver";
  page.source = std::string("tamrik ") + TAMRIK_VERSION;
  page.synopsis = {"[LINK] [OPTIONS] COMMAND [ARGS]"};
  page.sections = {
      {"SAFETY", "Commands that change a gateway run on a serial, TCP or UDP link only with --yes: " + ChangingCommands() +
                     ". Without it they say what they would have changed, send nothing and exit with status 2. The "
                     "simulated gateway and demonstration data need no --yes."},
      {"EXIT STATUS",
       "0\tsuccess\n"
       "1\ta driver call failed (its code is printed with name and meaning), or info could not read every part\n"
       "2\ta usage mistake, a malformed input file, or a change refused without --yes\n"
       "130\tstopped by SIGINT or SIGTERM (an image download sends its cancel first)"},
      {"FILES", "kaVdmo.ini, the shipped demonstration station, in share/tamrik."},
      {"SEE ALSO",
       "tamrik-sim(1). The tool's guide is docs/cli.md; the result codes are listed in docs/result-codes.md."},
  };
  return page;
}

// The hidden generators; true when one of them ran.
bool RunGenerators(const CLI::App& app, bool man, const std::string& completion) {
  if (man) {
    std::fputs(progdocs::RoffManPage(app, ToolManual()).c_str(), stdout);
    return true;
  }
  if (completion.empty()) return false;
  if (completion != "bash") throw UsageError("--completion knows bash only");
  std::fputs(progdocs::BashCompletion(app, "tamrik").c_str(), stdout);
  return true;
}

// --json was asked for: then every ending, a usage mistake too, is one JSON document.
bool JsonAsked(int argc, char** argv) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) return true;
  }
  return false;
}

std::string Dump(const Json& document) {
  // File names are the user's bytes and need not be UTF-8; they must not end the document.
  return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

void PrintError(bool json, Json document, const Json& error) {
  if (!json) return;
  document["ok"] = false;
  document["error"] = error;
  std::printf("%s\n", Dump(document).c_str());
}

Json OwnError(const char* name, const std::string& text) { return {{"code", 0}, {"name", name}, {"text", text}}; }

int UsageFailure(bool json, const std::string& message) {
  std::fprintf(stderr, "tamrik: %s\n", message.c_str());
  PrintError(json, Json::object(), OwnError("usage", message));
  return kExitUsage;
}

int ParseFailure(const CLI::App& app, const CLI::ParseError& e, bool json) {
  std::string message = e.what();
  const std::vector<std::string> extras = app.remaining();
  if (dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr && app.get_subcommands().empty() && !extras.empty() &&
      extras.front().rfind('-', 0) != 0) {
    message = UnknownCommand(app, extras.front());
  }
  UsageFailure(json, message);
  if (!json) std::fprintf(stderr, "tamrik: run 'tamrik --help' for the commands and options\n");
  return kExitUsage;
}

int CallFailure(Context& ctx, const CallFailed& failure) {
  Json error = failure.code != 0 ? MethodError(failure) : OwnError("check", failure.note);
  if (failure.code == 0) {
    error["method"] = failure.method;
    std::fprintf(stderr, "tamrik: %s: %s\n", failure.method.c_str(), failure.note.c_str());
  } else if (!failure.note.empty()) {
    // The socket family in words first ("127.0.0.1:5020 refused the connection"), the code beside it.
    std::fprintf(stderr, "tamrik: %s (%s failed: %s)\n", failure.note.c_str(), failure.method.c_str(),
                 FormatCode(failure.code).c_str());
  } else {
    std::fprintf(stderr, "tamrik: %s failed: %s\n", failure.method.c_str(), FormatCode(failure.code).c_str());
  }
  if (!failure.note.empty()) error["note"] = failure.note;
  PrintError(ctx.json, ctx.result, error);
  if (!ctx.json && !ctx.printed && !ctx.result.empty()) std::fputs(Render(ctx.result).c_str(), stdout);
  return kExitFailed;
}

// No command: the tour for a simulated gateway; for a real one only what reads nothing back.
void NoCommand(Context& ctx) {
  if (ctx.link.sim) {
    Tour(ctx, Args());
    return;
  }
  ctx.result.update(ReadIdentity(ctx, nullptr));
}

// The chosen command behind the --yes guard, or none; every ending as the options ask.
int RunCommand(Context& ctx) {
  try {
    Args args;
    const Command* command = ChosenCommand(*ctx.app, &args);
    if (command == nullptr) {
      NoCommand(ctx);
    } else {
      if (Changes(*command, args) && !ctx.ChangesAllowed()) ctx.RefuseChange(ChangeText(*command, args));
      command->run(ctx, args);
    }
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
    ctx.result["ok"] = ctx.status == kExitOk;
    std::printf("%s\n", Dump(ctx.result).c_str());
  } else if (!ctx.printed && !ctx.result.empty()) {
    std::fputs(Render(ctx.result).c_str(), stdout);
  }
  return ctx.status;
}

// The options only the build uses: they print the man page and the completion.
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
  AddCommands(app);
  ctx.app = &app;
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
    if (RunGenerators(app, hidden.man, hidden.completion)) return kExitOk;
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help and --version
  } catch (const CLI::ParseError& e) {
    return ParseFailure(app, e, json);
  } catch (const UsageError& e) {
    return UsageFailure(json, e.what());
  }
  for (const CLI::Option* option : links) ctx.linkGiven = ctx.linkGiven || option->count() > 0;
  if (!ctx.linkGiven) ctx.link.sim = true;
  if (ctx.link.trace) tamrik_set_trace(TraceToStderr, nullptr);
  const int status = RunCommand(ctx);
  std::fflush(stdout);
  ctx.session_.reset();
  return status;
}

}  // namespace
}  // namespace tamrik::cli

// Nothing may leave the program as an exception: whatever the libraries throw ends here with
// a message and a failure status.
int main(int argc, char** argv) {
  try {
    return tamrik::cli::Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tamrik: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "tamrik: unexpected failure\n");
  }
  return 1;
}
